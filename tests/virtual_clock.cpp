#include "virtual_clock.h"

#include <unistd.h>

#include <mutex>

namespace {
std::mutex g_lock;
std::vector<uint64_t> g_pauses;
}  // namespace

// Replaces libc's usleep for the whole test process.
extern "C" __attribute__((visibility("default"))) int usleep(useconds_t usec) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_pauses.push_back(usec);
    return 0;
}

namespace vclock {

std::vector<uint64_t> pauses() {
    std::lock_guard<std::mutex> lock(g_lock);
    return g_pauses;
}

uint64_t elapsed_us() {
    std::lock_guard<std::mutex> lock(g_lock);
    uint64_t sum = 0;
    for (uint64_t p : g_pauses) sum += p;
    return sum;
}

void reset() {
    std::lock_guard<std::mutex> lock(g_lock);
    g_pauses.clear();
}

}  // namespace vclock

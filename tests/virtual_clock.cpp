#include "virtual_clock.h"

#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

namespace {
std::mutex g_lock;
std::vector<uint64_t> g_pauses;

// Only the device library's pauses are the protocol's. Everyone else in the
// process (umockdev's preload yields with usleep(0) inside every emulated
// ioctl) gets a real sleep, as libc would give them. A pause the library
// takes as its last act is a tail call and seems to come from the test
// program itself, so that counts as the library too.
bool called_from_library(void* return_address) {
    static void* const self = [] {
        Dl_info info;
        return dladdr(reinterpret_cast<void*>(&vclock::reset), &info) ? info.dli_fbase : nullptr;
    }();
    Dl_info info;
    if (dladdr(return_address, &info) == 0) return false;
    return info.dli_fbase == self ||
           (info.dli_fname != nullptr && std::strstr(info.dli_fname, "liborb_device") != nullptr);
}
}  // namespace

// Replaces libc's usleep for the whole test process.
extern "C" __attribute__((visibility("default"))) int usleep(useconds_t usec) {
    if (!called_from_library(__builtin_return_address(0))) {
        timespec ts{static_cast<time_t>(usec / 1000000), static_cast<long>(usec % 1000000) * 1000};
        return nanosleep(&ts, nullptr);
    }
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

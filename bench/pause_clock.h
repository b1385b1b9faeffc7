#ifndef ORB_BENCH_PAUSE_CLOCK_H
#define ORB_BENCH_PAUSE_CLOCK_H

// The bench binary defines usleep for the whole process, as the test
// binaries do, so that it can see the library's protocol pauses. A pause is
// either slept for real (nanosleep) and timed, or only counted, for the
// benchmarks that do not measure wall time and need not wait.

#include <chrono>
#include <cstdint>
#include <vector>

namespace pauses {

using Clock = std::chrono::steady_clock;

struct Pause {
    uint64_t requested_us;
    Clock::time_point start;
    Clock::time_point end;  // equal to start when only counted
};

void sleep_for_real(bool real);
// The library's pauses since the last take, oldest first.
std::vector<Pause> take();

}  // namespace pauses

#endif

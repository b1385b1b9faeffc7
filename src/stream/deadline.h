#ifndef ORB_STREAM_DEADLINE_H
#define ORB_STREAM_DEADLINE_H

// The end of a call's time-out on the steady clock. Waits of this layer run
// against it on condition variables, never on usleep: usleep is for the
// sensor's protocol pauses (and test binaries replace it with a virtual
// clock).

#include <algorithm>
#include <chrono>

namespace orbstream {

using Clock = std::chrono::steady_clock;

struct Deadline {
    Clock::time_point at;

    static Deadline in_ms(int ms) { return {Clock::now() + std::chrono::milliseconds(std::max(ms, 0))}; }
    bool passed() const { return Clock::now() >= at; }
    // Whole milliseconds left, at least 1: libusb takes a time-out of 0 as
    // "wait for ever".
    unsigned int libusb_ms(unsigned int cap) const {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(at - Clock::now()).count();
        return static_cast<unsigned int>(std::clamp<long long>(left, 1, cap));
    }
};

}  // namespace orbstream

#endif

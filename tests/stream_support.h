#ifndef ORB_TESTS_STREAM_SUPPORT_H
#define ORB_TESTS_STREAM_SUPPORT_H

// Helpers of the streaming layer's tests: a sensor brought up through the
// C entry points, and calls run on a thread of their own with a bound, so
// that a call that hangs fails its test instead of stalling the suite.

#include <gtest/gtest.h>
#include <valgrind/valgrind.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <thread>

#include "emulated_bus.h"
#include "orb_device_api.h"
#include "orb_stream.h"

namespace streamtest {

using namespace std::chrono_literals;
using Ms = std::chrono::milliseconds;

struct Outcome {
    int result;
    Ms took;
};

// The call's result and how long it took, or nothing when it has not
// returned within `limit` (it is then left blocked on its detached thread).
inline std::optional<Outcome> within(Ms limit, std::function<int()> call) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    std::thread([promise, call] {
        auto t0 = std::chrono::steady_clock::now();
        int r = call();
        promise->set_value({r, std::chrono::duration_cast<Ms>(std::chrono::steady_clock::now() - t0)});
    }).detach();
    if (future.wait_for(limit) != std::future_status::ready) return std::nullopt;
    return future.get();
}

// Under valgrind every call runs many times slower, and a loaded machine
// slows it further: a bound on time alone needs more room there.
inline long slack_ms() { return RUNNING_ON_VALGRIND ? 1000 : 100; }

// A call that must answer within its own time-out plus the slack: its result.
#define EXPECT_ANSWERS_WITHIN(timeout_ms, expected, call)                                        \
    do {                                                                                         \
        auto outcome_ = streamtest::within(streamtest::Ms((timeout_ms) + 2000), [&] { return call; }); \
        ASSERT_TRUE(outcome_.has_value()) << #call " did not return";                          \
        EXPECT_EQ(outcome_->result, (expected)) << #call ": " << orb_stream_result_text(outcome_->result); \
        EXPECT_LE(outcome_->took.count(), (timeout_ms) + streamtest::slack_ms()) << #call;                          \
    } while (0)

inline orbsim::Sensor& connected(orbsim::FrameGenerator frames = orbsim::counter_frames()) {
    orbsim::Sensor& s = testbed().add_sensor();
    s.set_frame_generator(std::move(frames));
    printed_by([] { EXPECT_EQ(duConnect(), 1); });
    s.clear_log();
    return s;
}

// Frames live as long as the process: a read left blocked by a failing
// test must not write into a finished test's stack.
inline orb_stream_frame& frame() {
    static auto* f = new orb_stream_frame();
    return *f;
}

}  // namespace streamtest

#endif

// The emulated sensor's pace, on the model's own clock: bulk_in() and
// handle_control() take the time as an argument, so a schedule of thousands
// of frames is checked without waiting for any of them.

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <vector>

#include "sensor_model.h"

using namespace std::chrono_literals;
using Clock = orbsim::SensorModel::Clock;
using orbsim::BulkReply;

namespace {

constexpr std::chrono::nanoseconds kBus = orbsim::kFrameBusTime;

// A realistic sensor at `shutter`, written as the library writes it, that
// started streaming at t0. Records the shutter speed each frame carries.
struct Paced {
    orbsim::SensorModel m;
    const Clock::time_point t0 = Clock::now();
    std::vector<uint16_t> shutters;

    explicit Paced(uint16_t shutter, orbsim::Timing timing = orbsim::Timing::Realistic) {
        m.set_timing(timing);
        m.set_frame_generator([this](const orbsim::FrameInfo& f, std::array<uint16_t, orbsim::kFilters>& v) {
            shutters.push_back(f.shutter);
            v.fill(0);
        });
        set_shutter(shutter, t0);
        m.handle_control({0x21, orbsim::kStartStreaming, 0, 1, 0}, {}, t0);
    }
    void set_shutter(uint16_t s, Clock::time_point now) {
        m.handle_control({0xA1, 37, static_cast<uint16_t>(s >> 8), 0, 1}, {}, now);
        m.handle_control({0xA1, 5, static_cast<uint16_t>(s & 0xFF), 0, 1}, {}, now);
    }
    bool frame_at(Clock::time_point now) { return m.bulk_in(now, orbsim::kFrameBytes).outcome == BulkReply::Bytes; }
    Clock::time_point due() const { return m.next_bulk_due(t0); }
    // Takes the frame exactly when it is due, after checking it is not there 1 ns before.
    bool take_on_time() {
        const auto when = due();
        return !frame_at(when - 1ns) && frame_at(when);
    }
};

}  // namespace

TEST(SimTiming, ShortExposuresWaitForTheBusLongOnesForTheExposure) {
    EXPECT_EQ(orbsim::exposure_time(1), 107200ns);
    EXPECT_EQ(orbsim::exposure_time(835), 76168000ns);
    EXPECT_EQ(kBus.count(), 1684211);  // 32/19 ms

    Paced fast_shutter(1);
    // The first frame is exposed, then crosses the bus.
    EXPECT_EQ(fast_shutter.due(), fast_shutter.t0 + orbsim::exposure_time(1) + kBus);
    for (int k = 0; k < 3; k++) {
        const auto before = fast_shutter.due();
        ASSERT_TRUE(fast_shutter.take_on_time()) << "frame " << k + 1;
        EXPECT_EQ(fast_shutter.due() - before, kBus);
    }

    Paced slow_shutter(835);
    EXPECT_EQ(slow_shutter.due(), slow_shutter.t0 + 76168000ns + kBus);
    for (int k = 0; k < 3; k++) {
        const auto before = slow_shutter.due();
        ASSERT_TRUE(slow_shutter.take_on_time()) << "frame " << k + 1;
        EXPECT_EQ(slow_shutter.due() - before, 76168000ns);
    }

    // A frame period is a floor under the sensor's own interval.
    Paced floored(1);
    floored.m.set_frame_period(5ms);
    EXPECT_EQ(floored.m.frame_interval(), 5ms);
    ASSERT_TRUE(floored.take_on_time());  // scheduled before the floor was set
    const auto before = floored.due();
    ASSERT_TRUE(floored.take_on_time());
    EXPECT_EQ(floored.due() - before, 5ms);
}

TEST(SimTiming, ShutterChangeTakesEffectFromTheNextFrameScheduled) {
    Paced p(835);
    ASSERT_TRUE(p.take_on_time());
    const auto second = p.due();
    p.set_shutter(1, second - 50ms);
    EXPECT_EQ(p.due(), second);  // already being exposed at 835
    ASSERT_TRUE(p.take_on_time());
    EXPECT_EQ(p.due() - second, kBus);
    ASSERT_TRUE(p.take_on_time());
    EXPECT_EQ(p.shutters, (std::vector<uint16_t>{835, 835, 1}));
}

// A new light (a scene command) throws the exposure under way away: the
// next frame is exposed wholly under the new light, an exposure and its bus
// time after the change, and the frames after it keep the sensor's pace.
TEST(SimTiming, ANewLightRestartsTheExposureUnderWay) {
    Paced p(300);
    ASSERT_TRUE(p.take_on_time());
    const auto change = p.due() - orbsim::exposure_time(300) / 3;  // two thirds into the next exposure
    std::vector<uint32_t> after;
    p.m.set_frame_generator([&](const orbsim::FrameInfo& f, std::array<uint16_t, orbsim::kFilters>& v) {
        after.push_back(f.number);
        v.fill(1);
    }, change);
    EXPECT_EQ(p.due(), change + orbsim::exposure_time(300) + kBus);
    ASSERT_TRUE(p.take_on_time());
    const auto next = p.due();
    ASSERT_TRUE(p.take_on_time());
    EXPECT_EQ(p.due() - next, orbsim::exposure_time(300));
    EXPECT_EQ(p.shutters.size(), 1u);  // the old light made the first frame only
    EXPECT_EQ(after, (std::vector<uint32_t>{2, 3}));
    // In fast timing nothing is exposed ahead: the next frame asked for is the new light's.
    Paced fast(300, orbsim::Timing::Fast);
    ASSERT_TRUE(fast.frame_at(fast.t0));
    fast.m.set_frame_generator([&](const orbsim::FrameInfo&, std::array<uint16_t, orbsim::kFilters>& v) { v.fill(2); },
                               fast.t0);
    EXPECT_TRUE(fast.frame_at(fast.t0));
    EXPECT_EQ(fast.shutters.size(), 1u);
}

TEST(SimTiming, LateHostGetsOneFrameAtOnceAndNoBurst) {
    Paced p(1);
    const auto late = p.due() + 100ms;
    ASSERT_TRUE(p.frame_at(late));
    EXPECT_FALSE(p.frame_at(late));
    EXPECT_EQ(p.due(), late + kBus);  // a fresh schedule from the late host

    // Less than a frame behind keeps the schedule: the next slot is only
    // what is left of the interval away.
    const auto slot = p.due();
    ASSERT_TRUE(p.frame_at(slot + kBus / 2));
    EXPECT_EQ(p.due(), slot + kBus);
    // More than a frame behind starts afresh.
    const auto missed = p.due() + kBus + 1ns;
    ASSERT_TRUE(p.frame_at(missed));
    EXPECT_EQ(p.due(), missed + kBus);
}

// The emulator may answer a waiting transfer late (its ticker woke late,
// the machine is busy); the host was not behind, so the schedule holds:
// transfers that waited get the slots that passed, and so does a host that
// resubmits within a frame time of getting its frame.
TEST(SimTiming, ALateEmulatorCostsAHostThatKeepsUpNoSlots) {
    Paced p(1);
    const auto slot = p.due();
    const auto asked = slot - 100us;
    const auto answered = slot + 3 * kBus;
    for (int k = 1; k <= 2; k++) {
        ASSERT_EQ(p.m.bulk_in(answered, orbsim::kFrameBytes, asked).outcome, BulkReply::Bytes) << "transfer " << k;
        EXPECT_EQ(p.due(), slot + k * kBus);
    }
    const auto resubmitted = answered + kBus * 9 / 10;
    ASSERT_EQ(p.m.bulk_in(resubmitted, orbsim::kFrameBytes, resubmitted).outcome, BulkReply::Bytes);
    EXPECT_EQ(p.due(), slot + 3 * kBus);
    // Slower than a frame time after its last frame, the host is behind.
    const auto slow = resubmitted + kBus + 1ns;
    ASSERT_EQ(p.m.bulk_in(slow, orbsim::kFrameBytes, slow).outcome, BulkReply::Bytes);
    EXPECT_EQ(p.due(), slow + kBus);
}

// Frames sent and slots missed add up to the time the stream ran, whoever
// was late: a host that falls behind before the emulator has made good a
// late wake-up of its own sees those slots pass without a frame too.
TEST(SimTiming, SlotsMissedAreEverySlotAFreshScheduleLeavesOut) {
    Paced p(1);
    const auto slot = p.due();
    // The host waited in time; the emulator answered five slots late.
    const auto answered = slot + 5 * kBus;
    ASSERT_EQ(p.m.bulk_in(answered, orbsim::kFrameBytes, slot - 100us).outcome, BulkReply::Bytes);
    EXPECT_EQ(p.due(), slot + kBus);
    const auto slow = answered + kBus * 3 / 2;
    ASSERT_EQ(p.m.bulk_in(slow, orbsim::kFrameBytes, slow).outcome, BulkReply::Bytes);
    EXPECT_EQ(p.due(), slow + kBus);
    // From the first slot to the next one due: 7.5 slots, 2 frames.
    EXPECT_EQ(p.m.slots_missed(), 5u);
    EXPECT_EQ(p.m.frames_sent(), 2u);
}

// The transport's ticker wakes late by a varying amount; a host that keeps
// up must still see the sensor's rate, 32/19 ms per frame, over 20 s.
TEST(SimTiming, NoDriftOverTwentySecondsOfJitteredWakeUps) {
    Paced p(1);
    const auto first = p.due();
    std::mt19937 rng(7);
    std::uniform_int_distribution<int64_t> jitter_ns(-200000, 1500000);  // early polls too
    constexpr int kFrames = 11875;                                        // 20 s at 593.75 frames/s
    int taken = 0;
    for (int polls = 0; taken < kFrames && polls < 4 * kFrames; polls++) {
        const auto now = p.due() + std::chrono::nanoseconds(jitter_ns(rng));
        taken += p.frame_at(now);
    }
    ASSERT_EQ(taken, kFrames);
    EXPECT_EQ(p.due() - first, kFrames * kBus);
    EXPECT_EQ(p.m.frames_sent(), static_cast<uint64_t>(kFrames));
}

TEST(SimTiming, ControlTransfersHoldTheBusOneAfterAnother) {
    Paced p(1);
    const auto t = p.t0 + 1s;
    EXPECT_EQ(p.m.handle_control({0xA1, 36, 0, 0, 1}, {}, t).done_at, t + orbsim::kControlBusTime);
    // Submitted while the first is still on the bus: it waits its turn.
    EXPECT_EQ(p.m.handle_control({0xA1, 36, 0, 0, 1}, {}, t + 200us).done_at, t + 2 * orbsim::kControlBusTime);
    p.m.stall(36);
    EXPECT_EQ(p.m.handle_control({0xA1, 36, 0, 0, 1}, {}, t + 5ms).done_at, t + 5ms + orbsim::kControlBusTime);
    p.m.no_reply(4);
    EXPECT_EQ(p.m.handle_control({0xA1, 4, 0, 0, 1}, {}, t + 10ms).done_at, Clock::time_point{});
}

TEST(SimTiming, FastTimingStaysAsFastAsTheHost) {
    Paced p(835, orbsim::Timing::Fast);
    EXPECT_EQ(p.m.timing(), orbsim::Timing::Fast);
    EXPECT_EQ(p.m.handle_control({0xA1, 36, 0, 0, 1}, {}, p.t0).done_at, Clock::time_point{});
    // No exposure, no bus: the frame is there as soon as asked for, however long the shutter.
    EXPECT_TRUE(p.frame_at(p.t0));
    EXPECT_TRUE(p.frame_at(p.t0));
    EXPECT_EQ(p.m.frame_interval(), 0ns);
    // A period counts from the host's late arrival, as it always has.
    p.m.set_frame_period(10ms);
    const auto due = p.due();
    ASSERT_TRUE(p.frame_at(due + 3ms));
    EXPECT_EQ(p.due(), due + 13ms);
    // Switching to realistic applies from the next frame scheduled.
    p.m.set_timing(orbsim::Timing::Realistic);
    EXPECT_EQ(p.m.frame_interval(), 76168000ns);
    ASSERT_TRUE(p.frame_at(p.due()));
    EXPECT_EQ(p.m.next_bulk_due(p.t0) - (due + 13ms), 76168000ns);
}

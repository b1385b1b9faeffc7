// Faults of the emulated sensor as the streaming layer meets them: every
// call answers within its time-out plus 100 ms with the fault's result, and
// nothing after it hangs.

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "orb_device_interface_stm.h"
#include "stream_support.h"

using namespace streamtest;

namespace {

// Filter data for a call that may be left blocked: it lives for the process.
double* filters() {
    static auto* data = new std::vector<double>(1024, -1.0);
    return data->data();
}

// Resident memory measures the program only without a sanitizer or
// valgrind, whose own bookkeeping grows while the program runs.
bool resident_memory_is_ours() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#else
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line))
        if (line.find("vgpreload") != std::string::npos) return false;
    return true;
#endif
}

long resident_kb() {
    std::ifstream status("/proc/self/status");
    std::string key;
    long kb = -1;
    while (status >> key)
        if (key == "VmRSS:") status >> kb;
    return kb;
}

// Joins the event-loop thread that a fault ended; after that the layer
// finds no sensor.
void disconnect() {
    EXPECT_EQ(printed_by([] { EXPECT_EQ(duDisconnect(), 1); }), "Sensor is disconnected.\n");
    EXPECT_EQ(orb_stream_start(0, 0, 100), ORB_STREAM_ERR_NOT_CONNECTED);
    EXPECT_EQ(orb_sensor_present(0), ORB_STREAM_ERR_NOT_CONNECTED);
}

// Every call of the layer on index 0, each at once, with the loss.
void every_call_answers_at_once(int expected) {
    EXPECT_ANSWERS_WITHIN(0, expected, orb_stream_start(0, 0, 1000));
    EXPECT_ANSWERS_WITHIN(0, expected, orb_single_shot(0, filters(), 1, 1000));
    EXPECT_ANSWERS_WITHIN(0, expected, orb_stream_set_shutter_speed(0, 100, 1000));
    EXPECT_ANSWERS_WITHIN(0, expected, orb_stream_set_adc(0, 1, 100, 0, 1000));
}

}  // namespace

TEST(StreamFaults, UnplugBeforeAnythingStartsAnswersLostAtOnce) {
    orbsim::Sensor& s = connected();
    testing::internal::CaptureStderr();
    testbed().unplug(s);
    // The frame transfer fails and the event loop ends soon after.
    auto ended = within(2000ms, [] {
        while (do_exit == 0) std::this_thread::sleep_for(1ms);
        return 0;
    });
    ASSERT_TRUE(ended);
    testing::internal::GetCapturedStderr();
    every_call_answers_at_once(ORB_STREAM_ERR_LOST);
    EXPECT_EQ(orb_sensor_present(0), ORB_STREAM_ERR_LOST);
    EXPECT_EQ(orb_stream_read(0, &frame(), 0), ORB_STREAM_ERR_NOT_STREAMING);
    disconnect();
}

TEST(StreamFaults, UnplugDuringAStreamWakesTheReadAndEveryCallAfterIt) {
    orbsim::Sensor& s = connected();
    s.set_timing(orbsim::Timing::Realistic);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    std::thread unplug([&s] {
        std::this_thread::sleep_for(300ms);
        testbed().unplug(s);
    });
    // Reads until the loss, which must come long before the time-out.
    auto outcome = within(5000ms, [] {
        int r;
        while ((r = orb_stream_read(0, &frame(), 3000)) == ORB_STREAM_OK) {
        }
        return r;
    });
    unplug.join();
    testing::internal::CaptureStderr();
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->result, ORB_STREAM_ERR_LOST);
    EXPECT_LT(outcome->took.count(), 1000);
    EXPECT_ANSWERS_WITHIN(0, ORB_STREAM_ERR_LOST, orb_stream_read(0, &frame(), 1000));
    orb_stream_stats st{};
    EXPECT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_ERR_LOST);
    EXPECT_GT(st.delivered, 0u);
    EXPECT_ANSWERS_WITHIN(0, ORB_STREAM_ERR_LOST, orb_stream_stop(0, 1000));
    every_call_answers_at_once(ORB_STREAM_ERR_LOST);
    testing::internal::GetCapturedStderr();
    disconnect();
}

TEST(StreamFaults, UnplugBetweenStreamsAndDuringASingleShot) {
    orbsim::Sensor& s = connected();
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
    ASSERT_EQ(orb_stream_stop(0, 1000), ORB_STREAM_OK);
    s.set_frame_period(50ms);
    std::thread unplug([&s] {
        std::this_thread::sleep_for(300ms);
        testbed().unplug(s);
    });
    testing::internal::CaptureStderr();
    auto outcome = within(12000ms, [] { return orb_single_shot(0, filters(), 100, 10000); });
    unplug.join();
    testing::internal::GetCapturedStderr();
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->result, ORB_STREAM_ERR_LOST);
    EXPECT_LT(outcome->took.count(), 1000);
    every_call_answers_at_once(ORB_STREAM_ERR_LOST);
    disconnect();
}

TEST(StreamFaults, StalledFrameEndpointEndsTheStreamWithTheSensorStillThere) {
    orbsim::Sensor& s = connected();
    s.set_frame_period(2ms);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
    testing::internal::CaptureStderr();
    s.stall_bulk();
    auto outcome = within(3000ms, [] {
        int r;
        while ((r = orb_stream_read(0, &frame(), 1000)) == ORB_STREAM_OK) {
        }
        return r;
    });
    ASSERT_TRUE(outcome);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "bulk data transfer status 4?\n");
    EXPECT_EQ(outcome->result, ORB_STREAM_ERR_ENDED);
    EXPECT_LT(outcome->took.count(), 1100);
    EXPECT_EQ(orb_sensor_present(0), ORB_STREAM_OK);
    EXPECT_ANSWERS_WITHIN(0, ORB_STREAM_ERR_ENDED, orb_stream_stop(0, 1000));
    every_call_answers_at_once(ORB_STREAM_ERR_ENDED);
    disconnect();
}

TEST(StreamFaults, StartRequestThatStallsOrIsNeverAnswered) {
    orbsim::Sensor& s = connected();
    s.stall(70);
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_ERR_USB, orb_stream_start(0, 0, 1000));
    s.clear_faults();
    s.no_reply(70);
    EXPECT_ANSWERS_WITHIN(300, ORB_STREAM_ERR_TIMEOUT, orb_stream_start(0, 0, 300));
    EXPECT_ANSWERS_WITHIN(300, ORB_STREAM_ERR_TIMEOUT, orb_single_shot(0, filters(), 1, 300));
    // A sensor that answers nothing at all: the settings read times out.
    s.clear_faults();
    s.hang();
    EXPECT_ANSWERS_WITHIN(300, ORB_STREAM_ERR_TIMEOUT, orb_stream_start(0, 0, 300));
    EXPECT_ANSWERS_WITHIN(300, ORB_STREAM_ERR_TIMEOUT, orb_stream_set_shutter_speed(0, 100, 300));
    s.clear_faults();
    EXPECT_ANSWERS_WITHIN(2000, ORB_STREAM_OK, orb_stream_start(0, 0, 2000));
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_read(0, &frame(), 1000));
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_stop(0, 1000));
}

TEST(StreamFaults, TrickleThatLeavesAPartialFrameTimesReadsOut) {
    orbsim::Sensor& s = connected();
    s.set_frame_period(2ms);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
    s.trickle(500);
    // Frames already queued come first; then the held transfer gives none.
    auto outcome = within(3000ms, [] {
        int r;
        while ((r = orb_stream_read(0, &frame(), 300)) == ORB_STREAM_OK) {
        }
        return r;
    });
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->result, ORB_STREAM_ERR_TIMEOUT);
    EXPECT_ANSWERS_WITHIN(300, ORB_STREAM_ERR_TIMEOUT, orb_stream_read(0, &frame(), 300));
    EXPECT_EQ(orb_sensor_present(0), ORB_STREAM_OK);
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_stop(0, 1000));
    // The held transfer is either of the stream's two. The link's stays held
    // and a single shot times out; the stream's second one the stop cancels,
    // and the rest of that frame goes to the link's as a short frame, which
    // a single shot passes over before its frame.
    auto shot = within(2300ms, [] { return orb_single_shot(0, filters(), 1, 300); });
    ASSERT_TRUE(shot);
    EXPECT_TRUE(shot->result == ORB_STREAM_ERR_TIMEOUT || shot->result == ORB_STREAM_OK)
        << orb_stream_result_text(shot->result);
    EXPECT_LE(shot->took.count(), 300 + slack_ms());
}

TEST(StreamFaults, ShortFrameIsCountedLostAndNeverDelivered) {
    orbsim::Sensor& s = connected(orbsim::constant_frames(1000));
    s.set_frame_period(2ms);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
    s.short_frame(1000);
    uint32_t lost = 0;
    for (int i = 0; i < 30; i++) {
        EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_read(0, &frame(), 1000));
        lost += frame().lost_before;
        EXPECT_EQ(frame().values[600], 1000);
    }
    EXPECT_EQ(lost, 1u);
    orb_stream_stats st{};
    ASSERT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_OK);
    EXPECT_EQ(st.short_frames, 1u);
    EXPECT_EQ(st.lost, 1u);
    EXPECT_EQ(orb_stream_stop(0, 1000), ORB_STREAM_OK);
}

// At the sensor's pace (594 frames/s, fewer on a loaded machine or under
// valgrind) a ring of 256 frames fills within half a second: a host away
// for 5 s finds it full, the rest lost and counted, and its memory as it
// was once the ring had filled. The waits are on the counts, bounded, so
// that a slow machine only makes the test longer.
TEST(StreamFaults, HostThatStopsReadingForFiveSecondsLosesCountedFramesInFlatMemory) {
    constexpr uint32_t kRing = 256;
    orbsim::Sensor& s = connected();
    s.set_timing(orbsim::Timing::Realistic);
    ASSERT_EQ(orb_stream_start(0, kRing, 2000), ORB_STREAM_OK);
    for (int i = 0; i < 50; i++) ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
    orb_stream_stats st{};
    const auto stats_until = [&st](std::function<bool()> reached) {
        const auto end = std::chrono::steady_clock::now() + 30s;
        while (orb_stream_get_stats(0, &st) == ORB_STREAM_OK && !reached() && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(50ms);
        return reached();
    };
    ASSERT_TRUE(stats_until([&] { return st.queued == kRing; })) << "queued " << st.queued;
    const long full_kb = resident_kb();
    const uint64_t completed_when_full = st.completed;
    std::this_thread::sleep_for(3500ms);
    ASSERT_TRUE(stats_until([&] { return st.completed >= completed_when_full + 300; }));
    if (resident_memory_is_ours()) {
        EXPECT_LT(resident_kb() - full_kb, 256);
    }

    ASSERT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_OK);
    EXPECT_EQ(st.queued, kRing);
    uint64_t expected = 50;
    uint64_t lost = 0;
    for (uint32_t i = 0; i < kRing + 300; i++) {
        ASSERT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_OK);
        lost += frame().lost_before;
        ASSERT_EQ(frame().sequence, expected + frame().lost_before);
        expected = frame().sequence + 1;
        // What the ring held comes first and whole, then the gap, then a
        // host that keeps up again loses nothing.
        if (i == kRing)
            EXPECT_GT(frame().lost_before, 0u);
        else
            EXPECT_EQ(frame().lost_before, 0u) << "read " << i;
    }
    ASSERT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_OK);
    EXPECT_EQ(st.lost, lost);
    EXPECT_EQ(st.max_queued, kRing);
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_stop(0, 1000));
    // Every frame the sensor sent is accounted for: the two passed over at
    // the start, those delivered, lost or still queued at the stop, and the
    // few the sensor sent before the stop request reached it.
    ASSERT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_ERR_NOT_STREAMING);
    EXPECT_EQ(st.completed, st.delivered + st.lost + st.queued);
    EXPECT_GE(s.frames_sent(), st.completed + 2);
    EXPECT_LE(s.frames_sent(), st.completed + 5);
}

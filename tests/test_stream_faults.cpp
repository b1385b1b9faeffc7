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
    EXPECT_EQ(outcome->result, ORB_STREAM_ERR_STALLED);
    EXPECT_LT(outcome->took.count(), 1100);
    EXPECT_EQ(orb_sensor_present(0), ORB_STREAM_OK);
    EXPECT_ANSWERS_WITHIN(0, ORB_STREAM_ERR_STALLED, orb_stream_stop(0, 1000));
    every_call_answers_at_once(ORB_STREAM_ERR_STALLED);
    orb_frame_activity a{};
    EXPECT_EQ(orb_frame_activity_get(0, &a), ORB_STREAM_ERR_STALLED);
    EXPECT_GT(a.completed, 0u);
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
    // Refused, the single shot waits its time for frames that may still
    // come, and then says it was refused.
    s.clear_faults();
    s.stall(70);
    EXPECT_ANSWERS_WITHIN(300, ORB_STREAM_ERR_USB, orb_single_shot(0, filters(), 1, 300));
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

// Counter frames: every filter of a frame holds its number, so an average
// of whole frames is the same in every filter and one holding a short frame
// (its tail unpacked as zeros) is not.
TEST(StreamFaults, SingleShotDropsAShortFrameAndAveragesWholeOnesOnly) {
    orbsim::Sensor& s = connected();
    s.set_frame_period(5ms);
    // Frames 1 and 2 of the single shot's stream are passed over; 5 is
    // among the ten averaged.
    s.short_frame(1000, 5);
    auto outcome = within(5000ms, [] { return orb_single_shot(0, filters(), 10, 3000); });
    ASSERT_TRUE(outcome);
    ASSERT_EQ(outcome->result, ORB_STREAM_OK) << orb_stream_result_text(outcome->result);
    const double* v = filters();
    EXPECT_EQ(v[0], v[1023]);
    EXPECT_EQ(v[499], v[500]);
    // Ten consecutive frames after the two passed over.
    EXPECT_EQ(v[0] - static_cast<int>(v[0]), 0.5);
    orb_frame_activity a{};
    ASSERT_EQ(orb_frame_activity_get(0, &a), ORB_STREAM_OK);
    EXPECT_EQ(a.short_frames, 1u);
    EXPECT_EQ(a.dropped_short, 1u);
    EXPECT_LT(a.idle_ms, 1000u);
    // The layer's next single shot is whole too, and drops nothing.
    EXPECT_ANSWERS_WITHIN(2000, ORB_STREAM_OK, orb_single_shot(0, filters(), 4, 2000));
    EXPECT_EQ(filters()[0], filters()[1023]);
    ASSERT_EQ(orb_frame_activity_get(0, &a), ORB_STREAM_OK);
    EXPECT_EQ(a.dropped_short, 1u);
}

TEST(StreamFaults, SingleShotWithNoTimeToReplaceAShortFrameSaysSo) {
    orbsim::Sensor& s = connected();
    // Frames 3 to 5 are due by about 0.6 s, their replacements (two passed
    // over, three averaged) 0.5 s later: the time-out falls between.
    s.set_frame_period(100ms);
    s.short_frame(1000, 4);
    EXPECT_ANSWERS_WITHIN(850, ORB_STREAM_ERR_SHORT_FRAME, orb_single_shot(0, filters(), 3, 850));
    EXPECT_STREQ(orb_stream_result_text(ORB_STREAM_ERR_SHORT_FRAME),
                 "frames came short and were not replaced in time");
}

TEST(StreamFaults, FrameActivityTellsASilentSensorFromAWorkingOne) {
    orbsim::Sensor& s = connected();
    s.set_frame_period(2ms);
    orb_frame_activity a{};
    EXPECT_EQ(orb_frame_activity_get(0, nullptr), ORB_STREAM_ERR_INVALID);
    EXPECT_EQ(orb_frame_activity_get(1, &a), ORB_STREAM_ERR_NOT_CONNECTED);
    ASSERT_EQ(orb_single_shot(0, filters(), 2, 1000), ORB_STREAM_OK);
    ASSERT_EQ(orb_frame_activity_get(0, &a), ORB_STREAM_OK);
    const uint64_t before = a.completed;
    EXPECT_GE(before, 4u);
    // At shutter speed 1 the library's pauses are short: a working sensor
    // is heard from within about two seconds.
    EXPECT_GT(a.patience_ms, 1000u);
    EXPECT_LT(a.patience_ms, 2500u);
    s.hang();
    std::this_thread::sleep_for(300ms);
    ASSERT_EQ(orb_frame_activity_get(0, &a), ORB_STREAM_OK);
    EXPECT_EQ(a.completed, before);
    EXPECT_GE(a.idle_ms, 250u);
    // A longer exposure is given more patience.
    s.clear_faults();
    ASSERT_EQ(orb_stream_set_shutter_speed(0, 900, 2000), ORB_STREAM_OK);
    orb_frame_activity longer{};
    ASSERT_EQ(orb_frame_activity_get(0, &longer), ORB_STREAM_OK);
    EXPECT_GT(longer.patience_ms, a.patience_ms + 2000);
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
    // few the sensor sent before the stop request reached it: at most one in
    // each of the six transfers in flight, which the stop discards.
    ASSERT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_ERR_NOT_STREAMING);
    EXPECT_EQ(st.completed, st.delivered + st.lost + st.queued);
    EXPECT_GE(s.frames_sent(), st.completed + 2);
    EXPECT_LE(s.frames_sent(), st.completed + 2 + 6);
}

// The streaming layer against an emulated sensor: every frame in order with
// its number, time and settings; a slow host's losses; fresh frames after a
// change; the bounded single shot against duGetFilterData; presence.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"
#include "stream_support.h"

using namespace streamtest;
using talk::cmd;
using talk::stream;

namespace {

// Every filter reads the shutter speed the frame was exposed with, as the
// sensor model knows it: a frame exposed before a change gives itself away.
void shutter_frames(const orbsim::FrameInfo& f, std::array<uint16_t, orbsim::kFilters>& v) {
    v.fill(static_cast<uint16_t>(f.shutter & 0xFFF));
}

bool all_filters_read(const orb_stream_frame& f, int value) {
    return std::all_of(f.values, f.values + ORB_STREAM_FILTERS, [value](uint16_t v) { return v == value; });
}

// The layer gives each request the protocol's time-out or what is left of
// the call's, whichever is less: the requests are the expected ones, each
// with no more time than either allows.
void expect_sent_within(const orbsim::Sensor& s, const talk::Requests& expected, unsigned budget_ms) {
    const talk::Requests sent = talk::said(s);
    ASSERT_EQ(sent.size(), expected.size()) << talk::hex(sent);
    for (size_t i = 0; i < sent.size(); i++) {
        EXPECT_EQ(sent[i].setup, expected[i].setup) << "request " << i << "\n" << talk::hex(sent);
        EXPECT_GT(sent[i].timeout_ms, 0u) << "request " << i;
        EXPECT_LE(sent[i].timeout_ms, std::min(expected[i].timeout_ms, budget_ms)) << "request " << i;
    }
}

}  // namespace

TEST(Stream, DeliversEveryFrameInOrderWithItsTimeAndSettings) {
    orbsim::Sensor& s = connected();
    s.set_frame_period(std::chrono::milliseconds(2));
    EXPECT_ANSWERS_WITHIN(2000, ORB_STREAM_OK, orb_stream_start(0, 0, 2000));
    // The settings are read from the sensor, then the stream restarted.
    expect_sent_within(s, {cmd(36), cmd(4), cmd(39), cmd(38), cmd(35), cmd(40), cmd(53), stream(71), stream(70)},
                       2000);
    EXPECT_TRUE(s.streaming());

    uint64_t previous_ns = 0;
    for (uint64_t i = 0; i < 300; i++) {
        EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_read(0, &frame(), 1000));
        const orb_stream_frame& f = frame();
        ASSERT_EQ(f.sequence, i);
        // The first two frames of the stream are passed over, as in a
        // single shot: counter frame k reads k.
        ASSERT_TRUE(all_filters_read(f, static_cast<int>(i + 3))) << "frame " << i << " reads " << f.values[0];
        EXPECT_EQ(f.lost_before + f.stale_before, 0u);
        EXPECT_GT(f.timestamp_ns, previous_ns);
        previous_ns = f.timestamp_ns;
    }
    // Bring-up: ADC range 132, gain 1, shutter 1 with blank time 33.
    const orb_stream_settings& got = frame().settings;
    EXPECT_EQ(got.shutter_speed, 1);
    EXPECT_EQ(got.blank_time, 33);
    EXPECT_EQ(got.adc_range, 132);
    EXPECT_EQ(got.adc_gain, 1);
    EXPECT_EQ(got.adc_resolution, 0);
    EXPECT_EQ(frame().saturated, 0);

    s.clear_log();
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_stop(0, 1000));
    expect_sent_within(s, {stream(71), stream(71), stream(71)}, 1000);
    EXPECT_FALSE(s.streaming());
    EXPECT_FALSE(bulkModeStarted);
    orb_stream_stats st{};
    EXPECT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_ERR_NOT_STREAMING);
    EXPECT_EQ(st.delivered, 300u);
    EXPECT_EQ(st.lost, 0u);
    EXPECT_EQ(st.capacity, static_cast<uint32_t>(ORB_STREAM_DEFAULT_RING));
    EXPECT_EQ(orb_stream_read(0, &frame(), 0), ORB_STREAM_ERR_NOT_STREAMING);
    EXPECT_EQ(orb_stream_stop(0, 100), ORB_STREAM_ERR_NOT_STREAMING);
}

TEST(Stream, SaturatedFiltersAreCounted) {
    std::array<double, orbsim::kFilters> sensitivity{};
    for (size_t i = 0; i < 100; i++) sensitivity[i] = 5000;  // saturated from shutter speed 1
    connected(orbsim::linear_frames(sensitivity, 10));
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_read(0, &frame(), 1000));
    EXPECT_EQ(frame().saturated, 100);
    EXPECT_EQ(frame().values[0], ORB_STREAM_SATURATED);
    EXPECT_EQ(frame().values[100], 10);
    EXPECT_EQ(orb_stream_stop(0, 1000), ORB_STREAM_OK);
}

TEST(Stream, HostThatFallsBehindLosesTheNewestFramesCountedAndTheRingNeverGrows) {
    orbsim::Sensor& s = connected();
    s.set_frame_period(std::chrono::milliseconds(1));
    ASSERT_EQ(orb_stream_start(0, 8, 2000), ORB_STREAM_OK);
    // Away until well over a ring's worth has come (counted, not timed: a
    // slow machine or valgrind sends fewer frames per second).
    orb_stream_stats away{};
    const auto give_up = std::chrono::steady_clock::now() + 20s;
    while (orb_stream_get_stats(0, &away) == ORB_STREAM_OK && away.completed < 8 + 60 &&
           std::chrono::steady_clock::now() < give_up)
        std::this_thread::sleep_for(20ms);
    ASSERT_GE(away.completed, 8u + 60u);
    // What was queued is whole and in order; the frame after it says how
    // many were lost in between, and the sequence agrees.
    for (uint64_t i = 0; i < 8; i++) {
        EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_read(0, &frame(), 1000));
        EXPECT_EQ(frame().sequence, i);
        EXPECT_TRUE(all_filters_read(frame(), static_cast<int>(i + 3)));
    }
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_read(0, &frame(), 1000));
    EXPECT_GT(frame().lost_before, 50u);
    EXPECT_EQ(frame().sequence, 8 + frame().lost_before);
    EXPECT_TRUE(all_filters_read(frame(), static_cast<int>((frame().sequence + 3) % 4096)));
    orb_stream_stats st{};
    ASSERT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_OK);
    EXPECT_EQ(st.capacity, 8u);
    EXPECT_EQ(st.max_queued, 8u);
    EXPECT_GE(st.lost, frame().lost_before);
    EXPECT_EQ(st.short_frames, 0u);
    EXPECT_EQ(orb_stream_stop(0, 1000), ORB_STREAM_OK);
}

// Realistic timing: the sensor exposes the next frame while one crosses the
// bus, so two frames are under way whenever a setting changes. Exposures
// longer than the change's own requests (27 to 55 ms here) end after it
// returns: the drop of the frames in flight, not the time the requests
// take, keeps them out.
TEST(Stream, AfterASettingChangesEveryFrameReadWasExposedWithIt) {
    orbsim::Sensor& s = connected(shutter_frames);
    s.set_timing(orbsim::Timing::Realistic);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    for (int shutter : {300, 3, 600, 1, 450, 90}) {
        // Frames queued before the change stay unread until after it.
        std::this_thread::sleep_for(10ms);
        EXPECT_ANSWERS_WITHIN(2000, ORB_STREAM_OK, orb_stream_set_shutter_speed(0, shutter, 2000));
        for (int k = 0; k < 4; k++) {
            EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_read(0, &frame(), 1000));
            ASSERT_TRUE(all_filters_read(frame(), shutter))
                << "after the change to " << shutter << ", frame " << k << " was exposed at " << frame().values[0];
            EXPECT_EQ(frame().settings.shutter_speed, shutter);
            EXPECT_EQ(frame().settings.blank_time, shutter + 32);
            if (k == 0) {
                EXPECT_GE(frame().stale_before, 2u);
            }
        }
    }
    EXPECT_EQ(s.shutter(), 90);
    EXPECT_EQ(g_iCurShutterSpeed, 90);

    EXPECT_ANSWERS_WITHIN(2000, ORB_STREAM_OK, orb_stream_set_adc(0, 0, 200, 1, 2000));
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_read(0, &frame(), 1000));
    EXPECT_EQ(frame().settings.adc_range, 200);
    EXPECT_EQ(frame().settings.adc_gain, 0);
    EXPECT_EQ(frame().settings.adc_resolution, 1);
    EXPECT_ANSWERS_WITHIN(2000, ORB_STREAM_OK, orb_stream_set_onboard_average(0, 4, 2000));
    EXPECT_ANSWERS_WITHIN(2000, ORB_STREAM_OK, orb_stream_set_blank_time(0, 500, 2000));
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_read(0, &frame(), 1000));
    EXPECT_EQ(frame().settings.onboard_average, 4);
    EXPECT_EQ(frame().settings.blank_time, 500);
    EXPECT_TRUE(all_filters_read(frame(), 90));
    EXPECT_TRUE(s.streaming());

    orb_stream_stats st{};
    ASSERT_EQ(orb_stream_get_stats(0, &st), ORB_STREAM_OK);
    EXPECT_EQ(st.lost, 0u);
    EXPECT_EQ(st.completed, st.delivered + st.stale + st.queued);
    EXPECT_EQ(orb_stream_stop(0, 1000), ORB_STREAM_OK);
}

TEST(Stream, ASettingThatDoesNotReadBackIsReportedAndArgumentsAreChecked) {
    orbsim::Sensor& s = connected();
    s.echo_wrong(35, 7);  // the ADC range reads 7
    EXPECT_ANSWERS_WITHIN(2000, ORB_STREAM_ERR_VERIFY, orb_stream_set_adc(0, 1, 100, 0, 2000));
    auto requests = s.requests();
    EXPECT_EQ(std::count(requests.begin(), requests.end(), cmd(19, 100)), 2);
    EXPECT_EQ(orb_stream_set_shutter_speed(0, 0, 100), ORB_STREAM_ERR_INVALID);
    EXPECT_EQ(orb_stream_set_adc(0, 2, 100, 0, 100), ORB_STREAM_ERR_INVALID);
    EXPECT_EQ(orb_stream_start(0, ORB_STREAM_MAX_RING + 1, 100), ORB_STREAM_ERR_INVALID);
    EXPECT_EQ(orb_stream_start(-1, 0, 100), ORB_STREAM_ERR_INVALID);
    EXPECT_EQ(orb_stream_start(3, 0, 100), ORB_STREAM_ERR_NOT_CONNECTED);
    EXPECT_EQ(orb_stream_read(0, nullptr, 0), ORB_STREAM_ERR_INVALID);
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    EXPECT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_ERR_BUSY);
    std::vector<double> out(1024);
    EXPECT_EQ(orb_single_shot(0, out.data(), 1, 1000), ORB_STREAM_ERR_BUSY);
    EXPECT_EQ(orb_stream_stop(0, 1000), ORB_STREAM_OK);
}

// With no sensor connected, a call whose arguments pass its checks goes on
// to find no sensor (or no stream), and one just outside them is refused:
// each range is pinned at both ends. The shutter speed's upper end is the
// largest whose blank time (32 more) still fits the 16-bit registers.
TEST(StreamEntryPoints, RefuseArgumentsJustOutsideTheirRangesAndPassTheirEdges) {
    constexpr int kNone = ORB_STREAM_ERR_NOT_CONNECTED, kBad = ORB_STREAM_ERR_INVALID;
    EXPECT_EQ(orb_stream_set_shutter_speed(0, 1, 0), kNone);
    EXPECT_EQ(orb_stream_set_shutter_speed(0, 65503, 0), kNone);
    EXPECT_EQ(orb_stream_set_shutter_speed(0, 65504, 0), kBad);
    EXPECT_EQ(orb_stream_set_shutter_speed(0, 100, -1), kBad);
    EXPECT_EQ(orb_stream_set_blank_time(0, 0, 0), kNone);
    EXPECT_EQ(orb_stream_set_blank_time(0, 65535, 0), kNone);
    EXPECT_EQ(orb_stream_set_blank_time(0, 65536, 0), kBad);
    EXPECT_EQ(orb_stream_set_blank_time(0, -1, 0), kBad);
    EXPECT_EQ(orb_stream_set_adc(0, 1, 255, 1, 0), kNone);
    EXPECT_EQ(orb_stream_set_adc(0, 0, 256, 0, 0), kBad);
    EXPECT_EQ(orb_stream_set_adc(0, 0, 0, 2, 0), kBad);
    EXPECT_EQ(orb_stream_set_onboard_average(0, 255, 0), kNone);
    EXPECT_EQ(orb_stream_set_onboard_average(0, 256, 0), kBad);
    EXPECT_EQ(orb_stream_set_onboard_average(0, -1, 0), kBad);
    EXPECT_EQ(orb_stream_start(15, ORB_STREAM_MAX_RING, 0), kNone);
    EXPECT_EQ(orb_stream_start(16, 0, 0), kBad);
    EXPECT_EQ(orb_stream_start(0, -1, 0), kBad);
    EXPECT_EQ(orb_stream_start(0, 0, -1), kBad);
    // Streams live at indices 0 to 15.
    orb_stream_stats st{};
    orb_stream_settings settings{};
    for (int index : {0, 15}) {
        EXPECT_EQ(orb_stream_read(index, &frame(), 0), ORB_STREAM_ERR_NOT_STREAMING);
        EXPECT_EQ(orb_stream_stop(index, 0), ORB_STREAM_ERR_NOT_STREAMING);
        EXPECT_EQ(orb_stream_get_stats(index, &st), ORB_STREAM_ERR_NOT_STREAMING);
        EXPECT_EQ(orb_stream_get_settings(index, &settings, 0), kNone);
    }
    for (int index : {-1, 16}) {
        EXPECT_EQ(orb_stream_read(index, &frame(), 0), kBad);
        EXPECT_EQ(orb_stream_stop(index, 0), kBad);
        EXPECT_EQ(orb_stream_get_stats(index, &st), kBad);
        EXPECT_EQ(orb_stream_get_settings(index, &settings, 0), kBad);
    }
    EXPECT_EQ(orb_stream_read(0, &frame(), -1), kBad);
    EXPECT_EQ(orb_stream_get_stats(0, nullptr), kBad);
    std::vector<double> out(ORB_STREAM_FILTERS);
    EXPECT_EQ(orb_single_shot(0, out.data(), 1, 0), kNone);
    EXPECT_EQ(orb_single_shot(0, out.data(), 0, 0), kBad);
    EXPECT_EQ(orb_single_shot(0, nullptr, 1, 0), kBad);
    // Presence takes any index that is not negative.
    EXPECT_EQ(orb_sensor_present(100), kNone);
    EXPECT_EQ(orb_sensor_present(-1), kBad);
}

TEST(SingleShot, SendsWhatDuGetFilterDataSendsPausesAlikeAndGivesItsResult) {
    orbsim::Sensor& s = connected();
    ASSERT_EQ(duSetShutterSpeed(100), 1);
    std::vector<double> reference(1024, -1), bounded(1024, -1);
    s.clear_log();
    vclock::reset();
    auto done = within(5000ms, [&] { return duGetFilterData(reference.data(), 4); });
    ASSERT_TRUE(done && done->result == 1);
    const auto reference_requests = talk::said(s);
    const auto reference_pauses = vclock::pauses();

    s.clear_log();
    vclock::reset();
    EXPECT_ANSWERS_WITHIN(5000, ORB_STREAM_OK, orb_single_shot(0, bounded.data(), 4, 5000));
    EXPECT_EQ(talk::hex(talk::said(s)), talk::hex(reference_requests));
    EXPECT_EQ(vclock::pauses(), reference_pauses);
    // Frames 3 to 6 of a fresh stream.
    EXPECT_EQ(bounded, reference);
    EXPECT_EQ(bounded[0], 4.5);
    EXPECT_FALSE(s.streaming());
}

TEST(SingleShot, ReturnsAtItsTimeOutWhenNoFrameComesAndTheNextOneWorks) {
    orbsim::Sensor& s = connected();
    s.set_frame_period(std::chrono::hours(1));
    std::vector<double> out(1024, -1);
    EXPECT_ANSWERS_WITHIN(300, ORB_STREAM_ERR_TIMEOUT, orb_single_shot(0, out.data(), 1, 300));
    EXPECT_EQ(out[0], -1);
    // Nothing queued for the abandoned call is left for the next one.
    EXPECT_EQ(iCurrAvgNum, 0);
    s.set_frame_period(std::chrono::microseconds(0));
    EXPECT_ANSWERS_WITHIN(5000, ORB_STREAM_OK, orb_single_shot(0, out.data(), 2, 5000));
    EXPECT_EQ(out[0], 3.5);
    EXPECT_ANSWERS_WITHIN(5000, 1, duGetFilterData(out.data(), 2));
    EXPECT_EQ(out[0], 3.5);
}

TEST(SingleShot, AfterATimeOutWhoseStopWentUnansweredTheNextOneRestartsTheSensor) {
    orbsim::Sensor& s = connected();
    std::vector<double> out(1024, -1);
    s.hang();
    EXPECT_ANSWERS_WITHIN(1500, ORB_STREAM_ERR_TIMEOUT, orb_single_shot(0, out.data(), 1, 300));
    // The sensor comes back not streaming; frames are owed only after a
    // start it has seen.
    s.clear_faults();
    EXPECT_ANSWERS_WITHIN(5000, ORB_STREAM_OK, orb_single_shot(0, out.data(), 1, 5000));
    EXPECT_FALSE(s.streaming());
}

TEST(Presence, AsksTheBusNotTheSensor) {
    orbsim::Sensor& s = connected();
    EXPECT_EQ(orb_sensor_present(0), ORB_STREAM_OK);
    EXPECT_EQ(orb_sensor_present(1), ORB_STREAM_ERR_NOT_CONNECTED);
    EXPECT_TRUE(s.requests().empty());
    testing::internal::CaptureStderr();
    testbed().unplug(s);
    EXPECT_EQ(orb_sensor_present(0), ORB_STREAM_ERR_LOST);
    testing::internal::GetCapturedStderr();
    // A replugged sensor is a new device; the handle of the old one stays lost.
    testbed().replug(s);
    EXPECT_EQ(orb_sensor_present(0), ORB_STREAM_ERR_LOST);
    printed_by([] { EXPECT_EQ(duDisconnect(), 1); });  // joins the ended event loop
}

TEST(Stream, DisconnectingTheSensorEndsItsStreamAndEveryWait) {
    orbsim::Sensor& s = connected();
    s.set_frame_period(std::chrono::hours(1));
    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    // A read waiting when the host disconnects wakes with the news.
    auto waiting = std::async(std::launch::async, [] { return within(5000ms, [] {
        return orb_stream_read(0, &frame(), 4000); }); });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(printed_by([] { EXPECT_EQ(duDisconnect(), 1); }), "Sensor is disconnected.\n");
    auto outcome = waiting.get();
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->result, ORB_STREAM_ERR_NOT_CONNECTED);
    EXPECT_LT(outcome->took.count(), 1000);
    EXPECT_EQ(orb_stream_read(0, &frame(), 1000), ORB_STREAM_ERR_NOT_CONNECTED);
    EXPECT_EQ(orb_stream_stop(0, 1000), ORB_STREAM_ERR_NOT_CONNECTED);
    EXPECT_EQ(orb_stream_stop(0, 1000), ORB_STREAM_ERR_NOT_STREAMING);
}

TEST(Stream, SettingsAreReadFromTheSensorAndFromARunningStreamWithoutAskingIt) {
    orbsim::Sensor& s = connected();
    ASSERT_EQ(orb_stream_set_shutter_speed(0, 700, 2000), ORB_STREAM_OK);
    ASSERT_EQ(orb_stream_set_adc(0, 0, 90, 1, 2000), ORB_STREAM_OK);
    s.clear_log();
    orb_stream_settings got{};
    EXPECT_ANSWERS_WITHIN(1000, ORB_STREAM_OK, orb_stream_get_settings(0, &got, 1000));
    expect_sent_within(s, {cmd(36), cmd(4), cmd(39), cmd(38), cmd(35), cmd(40), cmd(53)}, 1000);
    EXPECT_EQ(got.shutter_speed, 700);
    EXPECT_EQ(got.blank_time, 732);
    EXPECT_EQ(got.adc_range, 90);
    EXPECT_EQ(got.adc_gain, 0);
    EXPECT_EQ(got.adc_resolution, 1);

    ASSERT_EQ(orb_stream_start(0, 0, 2000), ORB_STREAM_OK);
    ASSERT_EQ(orb_stream_set_shutter_speed(0, 40, 2000), ORB_STREAM_OK);
    s.clear_log();
    EXPECT_EQ(orb_stream_get_settings(0, &got, 1000), ORB_STREAM_OK);
    EXPECT_EQ(got.shutter_speed, 40);
    EXPECT_TRUE(talk::said(s).empty()) << talk::hex(talk::said(s));
    EXPECT_EQ(orb_stream_stop(0, 1000), ORB_STREAM_OK);

    EXPECT_EQ(orb_stream_get_settings(0, nullptr, 1000), ORB_STREAM_ERR_INVALID);
    EXPECT_EQ(orb_stream_get_settings(3, &got, 1000), ORB_STREAM_ERR_NOT_CONNECTED);
    s.hang();
    EXPECT_ANSWERS_WITHIN(400, ORB_STREAM_ERR_TIMEOUT, orb_stream_get_settings(0, &got, 200));
}

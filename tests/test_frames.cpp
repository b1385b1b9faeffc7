// Frames from the emulated sensor's bulk endpoint through the real libusb:
// streaming requests, the completion callback, the shared queue, averaging.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"

using talk::stream;
using Pauses = std::vector<uint64_t>;

namespace {

const talk::Requests kStart = {stream(71), stream(70)};
const talk::Requests kStop = {stream(71), stream(71), stream(71)};
const std::string kRules = std::string(57, '@') + "\n" + std::string(57, '@') + "\n";

std::vector<double> acquire(int n, int mode) {
    std::vector<double> out(1024, -1.0);
    get_filter_data_from_sensor(out.data(), n, 0, mode, 0);
    return out;
}

// The value every filter holds, or NaN when they differ.
double uniform(const std::vector<double>& frame) {
    bool same = std::all_of(frame.begin(), frame.end(), [&](double v) { return v == frame[0]; });
    return same ? frame[0] : NAN;
}

// What the bring-up does for index 0: a connected sensor, the event-loop
// thread, and the one bulk transfer on 0x81.
class Frames : public testing::Test {
protected:
    orbsim::Sensor& sensor_with_frames(orbsim::FrameGenerator frames = orbsim::counter_frames()) {
        orbsim::Sensor& s = talk::connected_sensor();
        s.set_frame_generator(std::move(frames));
        loop_started_ = pthread_create(&usbEventLoop_thread, nullptr, usbEventLoop_thread_main, nullptr) == 0;
        EXPECT_EQ(alloc_transfer_bulk_l(0, 2048, nullptr, 0), 0);
        return s;
    }

    // A failed transfer ends the loop by itself, reported on stderr.
    void expect_loop_ends_reporting(const std::string& line) {
        pthread_join(usbEventLoop_thread, nullptr);
        loop_started_ = false;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
        EXPECT_EQ(do_exit, 2);
    }

    // The shut-down's request_exit(1), with libusb woken so the loop need
    // not sit out its 1 s time-out.
    void TearDown() override {
        if (!loop_started_) return;
        request_exit(1);
        libusb_interrupt_event_handler(nullptr);
        pthread_join(usbEventLoop_thread, nullptr);
    }

    bool loop_started_ = false;
};

}  // namespace

TEST_F(Frames, SingleShotDropsTheFirstTwoFramesOfAFreshStreamAndStopsIt) {
    orbsim::Sensor& s = sensor_with_frames();
    EXPECT_EQ(uniform(acquire(4, 3)), 4.5);  // frames 3 to 6
    EXPECT_SAID(s, talk::join({kStart, kStop}));
    // Each streaming request waits a frame period: 30 ms at shutter speed 1.
    EXPECT_EQ(talk::pauses_ms(), (Pauses{30, 20, 30, 30, 20, 30, 20, 30}));
    EXPECT_FALSE(s.streaming());
    EXPECT_FALSE(bulkModeStarted);
    EXPECT_EQ(iCurrAvgNum, 0);

    // Mode 0 is single shot.
    s.clear_log();
    EXPECT_EQ(uniform(acquire(1, 0)), 3.0);
    EXPECT_EQ(iCurrAcqMode, 3);
    EXPECT_SAID(s, talk::join({kStart, kStop}));
}

TEST_F(Frames, ContinuousModeKeepsStreamingUntilACallThatStopsIt) {
    orbsim::Sensor& s = sensor_with_frames();
    EXPECT_EQ(uniform(acquire(2, 1)), 1.5);  // nothing dropped
    double later = uniform(acquire(1, 1));   // the stream ran on
    EXPECT_GT(later, 2.0);
    EXPECT_SAID(s, kStart);
    EXPECT_TRUE(s.streaming());

    // Collect mode starts nothing, but stops the stream it finds running.
    EXPECT_GT(uniform(acquire(1, 2)), later);
    EXPECT_SAID(s, talk::join({kStart, kStop}));
    EXPECT_FALSE(s.streaming());
    EXPECT_FALSE(bulkModeStarted);
}

TEST_F(Frames, MovingAveragePrimesOnceThenReplacesTheOldestFramePerCall) {
    sensor_with_frames();
    g_enable_FMA = true;
    EXPECT_EQ(uniform(acquire(3, 3)), 4.0);  // primed with frames 3, 4, 5
    EXPECT_EQ(iCurrAvgNum, 1);
    // Each call puts one frame (frame 3 of its own stream) in the oldest row.
    EXPECT_EQ(uniform(acquire(3, 3)), 4.0);       // 3 4 5
    EXPECT_EQ(uniform(acquire(3, 3)), 11.0 / 3);  // 3 3 5
    EXPECT_EQ(uniform(acquire(3, 3)), 3.0);       // 3 3 3
    EXPECT_EQ(g_FMA_FrameCount, 0);
}

TEST_F(Frames, MovingAverageHoldsAtMostAHundredFrames) {
    sensor_with_frames();
    g_enable_FMA = true;
    EXPECT_EQ(uniform(acquire(150, 3)), 52.5);  // frames 3 to 102 of the 150 collected
    EXPECT_EQ(g_FMA_Buffer[99][1023], 102.0);
    EXPECT_TRUE(frameDataQueue.empty());
    EXPECT_EQ(uniform(acquire(150, 3)), 52.5);  // frame 3 again, in row 0
    EXPECT_EQ(g_FMA_FrameCount, 1);
}

TEST_F(Frames, SamplesAreTheUpperTwelveBitsOfBigEndianWords) {
    orbsim::Sensor& s = sensor_with_frames(orbsim::constant_frames(4095));
    s.short_frame(1024);  // a short first frame: what it did not bring reads 0
    std::vector<double> frame = acquire(1, 1);
    EXPECT_EQ(frame[511], 4095.0);
    EXPECT_EQ(frame[512], 0.0);
    // The emulated sensor puts 0x5 in the low nibble: it must not show.
    s.set_frame_generator(orbsim::constant_frames(0xABC));
    EXPECT_EQ(uniform(acquire(1, 3)), 0xABC);

    unsigned char wire[2048] = {0xAB, 0xCD, 0x00, 0x0F, 0x80, 0x10};
    double values[1024];
    convert_2048C_to_1024F(wire, values);
    EXPECT_EQ(std::vector<double>(values, values + 3), (std::vector<double>{0xABC, 0, 0x801}));
    EXPECT_EQ(wire[0] + wire[1], 0);  // cleared for the next frame
    convert_2048C_to_1024F(nullptr, values);
    convert_2048C_to_1024F(wire, nullptr);
}

TEST_F(Frames, CallbackQueuesOnlyInsideTheRequestWindowAndClearsWhatItRead) {
    talk::connected_sensor();
    iCurrAcqMode = 3;  // one frame, single shot: completions 0 and 1 dropped
    iCurrAvgNum = 1;
    auto complete = [](unsigned char fill) {
        auto* buffer = new unsigned char[2048];  // stays with the resubmitted transfer
        memset(buffer, fill, 2048);
        libusb_transfer* t = libusb_alloc_transfer(0);
        libusb_fill_bulk_transfer(t, UsbDevHandle::pDevH[0], 0x81, buffer, 2048, cb_bulkdata, nullptr, 0);
        t->status = LIBUSB_TRANSFER_COMPLETED;
        cb_bulkdata(t);
        return std::count(buffer, buffer + 2048, fill);
    };
    EXPECT_EQ(complete(0x11) + complete(0x22) + complete(0xAB), 0);
    ASSERT_EQ(frameDataQueue.size(), 1u);
    EXPECT_EQ(frameDataQueue[0][1023], 0xABA);
    // Past the window: not counted, not queued, not even cleared.
    EXPECT_EQ(complete(0xCD), 2048);
    EXPECT_EQ(g_count, 3);
    EXPECT_EQ(frameDataQueue.size(), 1u);
}

TEST_F(Frames, StreamingRequestsWaitAFramePeriodAtTheCurrentShutterSpeed) {
    orbsim::Sensor& s = talk::connected_sensor();
    g_iCurShutterSpeed = 1000;
    EXPECT_EQ(acquire_frame_data_bulk(70, 0), 0);
    EXPECT_EQ(acquire_frame_data_bulk(71, 4), 0);  // no sensor there: nothing, no pause
    EXPECT_SAID(s, {stream(70)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{548}));

    EXPECT_EQ(get_sleep_time_for_shutter_speed(54), 30);
    EXPECT_EQ(get_sleep_time_for_shutter_speed(55), 31);
    EXPECT_EQ(get_sleep_time_for_shutter_speed(100), 55);
    EXPECT_EQ(get_sleep_time_for_shutter_speed(3000000), 30);  // wrapped negative
}

TEST_F(Frames, TransferIsSubmittedOnlyForASensorThatIsThere) {
    talk::connected_sensor();
    EXPECT_EQ(alloc_transfer_bulk_l(0, 2048, nullptr, 3), -1);
    EXPECT_EQ(alloc_transfer_bulk_l(-1, 2048, nullptr, 0), -1);
    EXPECT_EQ(alloc_transfer_bulk_l(0, -2048, nullptr, 0), -1);
    EXPECT_EQ(alloc_transfer_bulk(3), -1);
    EXPECT_EQ(alloc_transfer_bulk_l(0, 16, nullptr, 0), 0);  // still a whole frame's buffer
    EXPECT_EQ(alloc_transfer_bulk(0), 0);
}

TEST_F(Frames, StalledEndpointEndsTheEventLoopAndRequestsStillWork) {
    orbsim::Sensor& s = sensor_with_frames();
    testing::internal::CaptureStderr();
    s.stall_bulk();
    expect_loop_ends_reporting("bulk data transfer status 4?\n");
    s.clear_log();
    acquire_frame_data_bulk(71, 0);
    start_sensor(0);
    EXPECT_EQ(s.requests().size(), 2u);
}

TEST_F(Frames, UnpluggedSensorEndsTheEventLoop) {
    orbsim::Sensor& s = sensor_with_frames();
    testing::internal::CaptureStderr();
    testbed().unplug(s);
    expect_loop_ends_reporting("bulk data transfer status 5?\n");
    EXPECT_EQ(acquire_frame_data_bulk(70, 0), 0);
    EXPECT_EQ(do_control_transfer(36, 0, 0), 0);
}

// The queue is a process-wide vector a host can reach: what it holds is
// checked, not trusted.
TEST_F(Frames, QueueOfTheWrongSizeIsAWarningAndABrokenFrameIsCaught) {
    frameDataQueue.assign(5, std::vector<int>(1024, 8));
    frameDataQueue[0].assign(1024, 2);
    std::vector<double> out;
    EXPECT_EQ(printed_by([&] { out = acquire(3, 2); }),
              kRules + "-----------> ERROR: frameDataQueue.size() != iAvgNum\n" + kRules);
    EXPECT_EQ(uniform(out), 6.0);  // the first three; the rest discarded
    EXPECT_TRUE(frameDataQueue.empty());

    frameDataQueue.assign(1, std::vector<int>(10, 8));
    EXPECT_EQ(printed_by([&] { out = acquire(1, 2); }),
              "----------- Exception -------------!!!\n"
              "----------- Exception occurs in get_filter_data_from_sensor!!!\n"
              "----------- Exception -------------!!!\n");
    EXPECT_EQ(uniform(out), -1.0);  // untouched
    frameDataQueue.assign(1, std::vector<int>(1024, 8));
    EXPECT_EQ(get_filter_data_from_sensor(nullptr, 1, 0, 2, 0), 0.0);  // lock free again, nothing written

    g_enable_FMA = true;
    g_FMA_Buffered = true;
    frameDataQueue.assign(2, std::vector<int>(1024, 8));
    EXPECT_EQ(printed_by([&] { out = acquire(1, 2); }),
              kRules + "===========> ERROR: frameDataQueue.size() = 2\n" + kRules);
    EXPECT_EQ(uniform(out), 8.0);
}

TEST_F(Frames, ControlPathReadsOneFramePerRequest) {
    orbsim::Sensor& s = talk::connected_sensor();
    iCurrAvgNum = 3;
    EXPECT_EQ(printed_by([] { EXPECT_EQ(acquire_frame_data_control(2, 0), 1); }),
              "Received data Count = 0\n===>>>> curent count : 0\n"
              "Received data Count = 2\n===>>>> curent count : 2\n");
    const talk::Request frame_request = {{0xA1, 2, 0x84, 1, 2048}, 2000};
    EXPECT_SAID(s, {frame_request, frame_request, frame_request});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{30, 30, 30}));
    printed_by([] { acquire_frame_data_control(2, 0); });
    EXPECT_EQ(frameDataQueue.size(), 3u);  // a full queue takes no more
}

TEST(MovingWindow, AveragesTheLastPeriodValues) {
    SMA sma(3);
    EXPECT_EQ(sma.avg(), 0.0);
    for (double x : {1, 2}) sma.add(x);
    EXPECT_EQ(sma.size(), 2u);
    EXPECT_EQ(sma.avg(), 1.5);
    for (double x : {3, 10}) sma.add(x);  // 1 leaves
    EXPECT_EQ(sma.size(), 3u);
    EXPECT_EQ(sma.avg(), 5.0);
}

TEST(MovingWindowDeathTest, RefusesAnEmptyWindow) { EXPECT_DEATH(SMA(0), "period >= 1"); }

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

const std::string kRule(57, '@');

std::vector<double> acquire(int n, int mode) {
    std::vector<double> out(1024, -1.0);
    get_filter_data_from_sensor(out.data(), n, 0, mode, 0);
    return out;
}

// The same value in every filter, or NaN when they differ.
double uniform(const std::vector<double>& frame) {
    for (double v : frame)
        if (v != frame[0]) return NAN;
    return frame[0];
}

// What the bring-up does for index 0: a connected sensor, the event-loop
// thread, and the one bulk transfer on 0x81.
class Frames : public testing::Test {
protected:
    orbsim::Sensor& sensor_with_frames(orbsim::FrameGenerator frames = orbsim::counter_frames()) {
        orbsim::Sensor& s = talk::connected_sensor();
        s.set_frame_generator(std::move(frames));
        EXPECT_EQ(pthread_create(&usbEventLoop_thread, nullptr, usbEventLoop_thread_main, nullptr), 0);
        loop_started_ = true;
        EXPECT_EQ(alloc_transfer_bulk_l(0, 2048, nullptr, 0), 0);
        return s;
    }

    // The shut-down's request_exit(1), woken at once instead of after the
    // loop's 1 s time-out.
    void end_event_loop() {
        request_exit(1);
        libusb_interrupt_event_handler(nullptr);
        pthread_join(usbEventLoop_thread, nullptr);
        loop_started_ = false;
    }

    void TearDown() override {
        if (loop_started_) end_event_loop();
    }

    bool loop_started_ = false;
};

}  // namespace

TEST_F(Frames, SingleShotDropsTheFirstTwoFramesOfAFreshStreamAndStopsIt) {
    orbsim::Sensor& s = sensor_with_frames();

    // Frames 1 and 2 are dropped, 3 to 6 averaged.
    EXPECT_EQ(uniform(acquire(4, 3)), 4.5);
    EXPECT_SAID(s, {stream(71), stream(70), stream(71), stream(71), stream(71)});
    // Every streaming request waits a frame period (30 ms at shutter speed 1).
    EXPECT_EQ(talk::pauses_ms(), (Pauses{30, 20, 30, 30, 20, 30, 20, 30}));
    EXPECT_FALSE(s.streaming());
    EXPECT_FALSE(bulkModeStarted);
    EXPECT_EQ(iCurrAvgNum, 0);
    EXPECT_TRUE(frameDataQueue.empty());

    // Mode 0 is single shot: a fresh stream again, frame 3 again.
    s.clear_log();
    EXPECT_EQ(uniform(acquire(1, 0)), 3.0);
    EXPECT_EQ(iCurrAcqMode, 3);
    EXPECT_SAID(s, {stream(71), stream(70), stream(71), stream(71), stream(71)});
}

TEST_F(Frames, ContinuousModeKeepsStreamingUntilACallThatStopsIt) {
    orbsim::Sensor& s = sensor_with_frames();

    // No frames dropped; streaming is left on.
    EXPECT_EQ(uniform(acquire(2, 1)), 1.5);
    EXPECT_SAID(s, {stream(71), stream(70)});
    EXPECT_TRUE(s.streaming());
    EXPECT_TRUE(bulkModeStarted);

    // The stream runs on: a later frame, and not a word to the sensor.
    double later = uniform(acquire(1, 1));
    EXPECT_GT(later, 2.0);
    EXPECT_SAID(s, {stream(71), stream(70)});

    // Collect mode starts nothing but stops the stream it finds running.
    s.clear_log();
    EXPECT_GT(uniform(acquire(1, 2)), later);
    EXPECT_SAID(s, {stream(71), stream(71), stream(71)});
    EXPECT_FALSE(s.streaming());
    EXPECT_FALSE(bulkModeStarted);
}

TEST_F(Frames, MovingAveragePrimesOnceThenReplacesTheOldestFramePerCall) {
    sensor_with_frames();
    g_enable_FMA = true;

    // Priming takes frames 3, 4, 5 of a fresh stream.
    EXPECT_EQ(uniform(acquire(3, 3)), 4.0);
    EXPECT_TRUE(g_FMA_Buffered);
    EXPECT_EQ(iCurrAvgNum, 1);

    // Each later call takes one frame (frame 3 of its own fresh stream) into
    // the oldest row, wrapping after the third.
    EXPECT_EQ(uniform(acquire(3, 3)), 4.0);  // 3, 4, 5 -> 3, 4, 5
    EXPECT_EQ(uniform(acquire(3, 3)), 11.0 / 3);  // 3, 3, 5
    EXPECT_EQ(uniform(acquire(3, 3)), 3.0);  // 3, 3, 3
    EXPECT_EQ(g_FMA_FrameCount, 0);
    EXPECT_EQ(uniform(acquire(3, 3)), 3.0);
    EXPECT_EQ(g_FMA_FrameCount, 1);
}

TEST_F(Frames, MovingAverageHoldsAtMostAHundredFrames) {
    sensor_with_frames();
    g_enable_FMA = true;

    // 150 frames are collected (3 to 152); the ring keeps the first 100.
    EXPECT_EQ(uniform(acquire(150, 3)), 52.5);
    EXPECT_EQ(g_FMA_Buffer[0][0], 3.0);
    EXPECT_EQ(g_FMA_Buffer[99][1023], 102.0);
    EXPECT_EQ(g_FMA_FrameCount, 0);
    EXPECT_TRUE(frameDataQueue.empty());

    // Primed: one frame, into row 0.
    EXPECT_EQ(uniform(acquire(150, 3)), 52.5);
    EXPECT_EQ(g_FMA_FrameCount, 1);
}

TEST_F(Frames, SamplesAreTheUpperTwelveBitsOfBigEndianWords) {
    orbsim::Sensor& s = sensor_with_frames(orbsim::constant_frames(4095));

    // A short first frame: what it did not bring reads 0.
    s.short_frame(1024);
    std::vector<double> frame = acquire(1, 1);
    EXPECT_EQ(frame[0], 4095.0);
    EXPECT_EQ(frame[511], 4095.0);
    EXPECT_EQ(frame[512], 0.0);
    EXPECT_EQ(frame[1023], 0.0);

    // The emulated sensor puts 0x5 in the low nibble: it must not show.
    s.set_frame_generator(orbsim::constant_frames(0xABC));
    EXPECT_EQ(uniform(acquire(1, 3)), 2748.0);

    unsigned char wire[2048] = {0xAB, 0xCD, 0xFF, 0xFF, 0x00, 0x0F, 0x80, 0x10};
    double values[1024];
    convert_2048C_to_1024F(wire, values);
    EXPECT_EQ(values[0], 0xABC);
    EXPECT_EQ(values[1], 4095);
    EXPECT_EQ(values[2], 0);
    EXPECT_EQ(values[3], 0x801);
    // The wire buffer is cleared for the next frame.
    EXPECT_EQ(wire[0], 0);
    EXPECT_EQ(wire[1], 0);
    convert_2048C_to_1024F(nullptr, values);
    convert_2048C_to_1024F(wire, nullptr);
}

TEST_F(Frames, CallbackQueuesOnlyInsideTheRequestWindowAndClearsWhatItRead) {
    talk::connected_sensor();
    // A single-shot request for one frame: completions 0 and 1 are dropped,
    // 2 is queued, and the window then closes.
    iCurrAcqMode = 3;
    iCurrAvgNum = 1;
    g_count = 0;

    auto complete = [](unsigned char fill) {
        auto* buffer = new unsigned char[2048];  // stays with the resubmitted transfer
        memset(buffer, fill, 2048);
        libusb_transfer* t = libusb_alloc_transfer(0);
        libusb_fill_bulk_transfer(t, UsbDevHandle::pDevH[0], 0x81, buffer, 2048, cb_bulkdata, nullptr, 0);
        t->status = LIBUSB_TRANSFER_COMPLETED;
        t->actual_length = 2048;
        cb_bulkdata(t);
        return buffer;
    };
    auto all = [](const unsigned char* buffer, unsigned char value) {
        return std::all_of(buffer, buffer + 2048, [&](unsigned char b) { return b == value; });
    };

    EXPECT_TRUE(all(complete(0x11), 0));
    EXPECT_TRUE(all(complete(0x22), 0));
    EXPECT_TRUE(frameDataQueue.empty());
    EXPECT_TRUE(all(complete(0xAB), 0));
    ASSERT_EQ(frameDataQueue.size(), 1u);
    EXPECT_EQ(frameDataQueue[0][0], 0xABA);
    EXPECT_EQ(frameDataQueue[0][1023], 0xABA);
    EXPECT_EQ(g_count, 3);

    // Outside the window: not counted, not queued, not even cleared.
    EXPECT_TRUE(all(complete(0xCD), 0xCD));
    EXPECT_EQ(g_count, 3);
    EXPECT_EQ(frameDataQueue.size(), 1u);
}

TEST_F(Frames, StreamingRequestsWaitAFramePeriodAtTheCurrentShutterSpeed) {
    orbsim::Sensor& s = talk::connected_sensor();

    g_iCurShutterSpeed = 1000;
    EXPECT_EQ(acquire_frame_data_bulk(70, 0), 0);
    EXPECT_SAID(s, {stream(70)});
    EXPECT_TRUE(s.streaming());
    EXPECT_EQ(talk::pauses_ms(), (Pauses{548}));

    // No sensor at the index: nothing sent, no pause, an empty entry left.
    s.clear_log();
    vclock::reset();
    EXPECT_EQ(acquire_frame_data_bulk(71, 4), 0);
    EXPECT_TRUE(s.requests().empty());
    EXPECT_TRUE(talk::pauses_ms().empty());
    EXPECT_EQ(UsbDevHandle::pDevH.count(4), 1u);

    EXPECT_EQ(get_sleep_time_for_shutter_speed(1), 30);
    EXPECT_EQ(get_sleep_time_for_shutter_speed(54), 30);
    EXPECT_EQ(get_sleep_time_for_shutter_speed(55), 31);
    EXPECT_EQ(get_sleep_time_for_shutter_speed(100), 55);
    EXPECT_EQ(get_sleep_time_for_shutter_speed(-5), 30);
    // The 32-bit product wraps negative: the floor holds.
    EXPECT_EQ(get_sleep_time_for_shutter_speed(3000000), 30);
}

TEST_F(Frames, TransferIsSubmittedOnlyForASensorThatIsThere) {
    talk::connected_sensor();
    EXPECT_EQ(alloc_transfer_bulk_l(0, 2048, nullptr, 3), -1);
    EXPECT_EQ(alloc_transfer_bulk_l(-1, 2048, nullptr, 0), -1);
    EXPECT_EQ(alloc_transfer_bulk_l(0, -2048, nullptr, 0), -1);
    EXPECT_EQ(alloc_transfer_bulk(3), -1);
    // A short transfer still gets a whole frame's buffer to clear.
    EXPECT_EQ(alloc_transfer_bulk_l(0, 16, nullptr, 0), 0);
    EXPECT_EQ(alloc_transfer_bulk(0), 0);
    EXPECT_NE(gTransfer_in, nullptr);
}

TEST_F(Frames, FailedTransferEndsTheEventLoopAndTheLibraryCarriesOn) {
    orbsim::Sensor& s = sensor_with_frames();
    testing::internal::CaptureStderr();
    s.stall_bulk();
    pthread_join(usbEventLoop_thread, nullptr);  // ends by itself
    loop_started_ = false;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "bulk data transfer status 4?\n");
    EXPECT_EQ(do_exit, 2);

    // Requests still work without the loop.
    s.clear_log();
    EXPECT_EQ(acquire_frame_data_bulk(71, 0), 0);
    EXPECT_EQ(start_sensor(0), 1);
    EXPECT_EQ(s.requests().size(), 2u);
}

TEST_F(Frames, UnpluggedSensorEndsTheEventLoop) {
    orbsim::Sensor& s = sensor_with_frames();
    testing::internal::CaptureStderr();
    testbed().unplug(s);
    pthread_join(usbEventLoop_thread, nullptr);
    loop_started_ = false;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "bulk data transfer status 5?\n");
    EXPECT_EQ(do_exit, 2);
    EXPECT_EQ(acquire_frame_data_bulk(70, 0), 0);
    EXPECT_EQ(do_control_transfer(36, 0, 0), 0);
}

// The queue is a process-wide vector a host can reach; what it holds is
// checked, not trusted.
TEST_F(Frames, QueueOfTheWrongSizeIsAWarningAndABrokenFrameIsCaught) {
    const std::string plain_warning =
        kRule + "\n" + kRule + "\n-----------> ERROR: frameDataQueue.size() != iAvgNum\n" + kRule + "\n" + kRule + "\n";
    frameDataQueue.assign(5, std::vector<int>(1024, 8));
    frameDataQueue[0].assign(1024, 2);
    std::vector<double> out;
    EXPECT_EQ(printed_by([&] { out = acquire(3, 2); }), plain_warning);
    EXPECT_EQ(uniform(out), 6.0);  // the first three, the rest discarded
    EXPECT_TRUE(frameDataQueue.empty());

    // No output buffer: the frames are used up, nothing is written.
    frameDataQueue.assign(1, std::vector<int>(1024, 8));
    EXPECT_EQ(get_filter_data_from_sensor(nullptr, 1, 0, 2, 0), 0.0);
    EXPECT_TRUE(frameDataQueue.empty());

    // A frame short of 1024 values: reported, output left alone, lock released.
    frameDataQueue.assign(1, std::vector<int>(10, 8));
    EXPECT_EQ(printed_by([&] { out = acquire(1, 2); }),
              "----------- Exception -------------!!!\n"
              "----------- Exception occurs in get_filter_data_from_sensor!!!\n"
              "----------- Exception -------------!!!\n");
    EXPECT_EQ(uniform(out), -1.0);
    frameDataQueue.assign(1, std::vector<int>(1024, 8));
    EXPECT_EQ(uniform(acquire(1, 2)), 8.0);

    // Primed moving average: one frame expected, two found.
    g_enable_FMA = true;
    g_FMA_Buffered = true;
    frameDataQueue.assign(2, std::vector<int>(1024, 8));
    EXPECT_EQ(printed_by([&] { out = acquire(1, 2); }),
              kRule + "\n" + kRule + "\n===========> ERROR: frameDataQueue.size() = 2\n" + kRule + "\n" + kRule + "\n");
    EXPECT_EQ(uniform(out), 8.0);
}

TEST_F(Frames, ControlPathReadsOneFramePerRequest) {
    orbsim::Sensor& s = talk::connected_sensor();
    iCurrAvgNum = 3;
    std::string out = printed_by([] { EXPECT_EQ(acquire_frame_data_control(2, 0), 1); });
    EXPECT_EQ(out,
              "Received data Count = 0\n===>>>> curent count : 0\n"
              "Received data Count = 2\n===>>>> curent count : 2\n");
    const orbsim::ControlRequest frame_request = {0xA1, 2, 0x84, 1, 2048};
    EXPECT_SAID(s, {frame_request, frame_request, frame_request});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{30, 30, 30}));
    EXPECT_EQ(frameDataQueue.size(), 3u);

    // A full queue takes no more, and a set stop flag reads nothing.
    printed_by([] { acquire_frame_data_control(2, 0); });
    EXPECT_EQ(frameDataQueue.size(), 3u);
    s.clear_log();
    stopFlag = true;
    acquire_frame_data_control(2, 0);
    EXPECT_TRUE(s.requests().empty());

    EXPECT_EQ(acquire_frame_data(nullptr, 1, 0), 0.0);
    EXPECT_EQ(acquire_frame_data_2048(nullptr, 0), 1);
}

TEST(MovingWindow, AveragesTheLastPeriodValues) {
    SMA sma(3);
    EXPECT_EQ(sma.size(), 0u);
    EXPECT_EQ(sma.avg(), 0.0);
    sma.add(1);
    sma.add(2);
    EXPECT_EQ(sma.size(), 2u);
    EXPECT_EQ(sma.avg(), 1.5);
    sma.add(3);
    sma.add(10);  // 1 leaves
    EXPECT_EQ(sma.size(), 3u);
    EXPECT_EQ(sma.avg(), 5.0);

    SMA one(1);
    one.add(4);
    one.add(6);
    EXPECT_EQ(one.size(), 1u);
    EXPECT_EQ(one.avg(), 6.0);
}

TEST(MovingWindowDeathTest, RefusesAnEmptyWindow) { EXPECT_DEATH(SMA(0), "period >= 1"); }

// The emulated sensor, seen through the real libusb-1.0 as the library sees it,
// and its firmware model on its own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <libusb.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "orb_sim.h"
#include "sim_usb.h"

using namespace std::chrono_literals;

namespace {

// A class read as the library sends it; returns the byte count or the libusb error.
int read_code(libusb_device_handle* h, uint8_t code, uint16_t value, std::vector<uint8_t>& buf,
              unsigned timeout_ms = 1000) {
    return libusb_control_transfer(h, 0xA1, code, value, 0, buf.data(), static_cast<uint16_t>(buf.size()), timeout_ms);
}

uint8_t first_byte(libusb_device_handle* h, uint8_t code, uint16_t value = 0) {
    std::vector<uint8_t> buf(1, 0xEE);
    EXPECT_EQ(read_code(h, code, value, buf), 1) << "code " << int(code);
    return buf[0];
}

int command(libusb_device_handle* h, uint8_t code, uint16_t value = 0, uint16_t index = 1) {
    return libusb_control_transfer(h, 0x21, code, value, index, nullptr, 0, 1000);
}

// One asynchronous bulk read of 0x81, serviced on the calling thread.
struct BulkRead {
    libusb_context* ctx;
    std::vector<uint8_t> buf;
    libusb_transfer* t = libusb_alloc_transfer(0);
    int completed = 0;

    BulkRead(libusb_context* c, libusb_device_handle* h, std::size_t size = orbsim::kFrameBytes,
             unsigned timeout_ms = 0)
        : ctx(c), buf(size) {
        libusb_fill_bulk_transfer(t, h, orbsim::kBulkInEndpoint, buf.data(), static_cast<int>(size),
                                  [](libusb_transfer* x) { static_cast<BulkRead*>(x->user_data)->completed = 1; },
                                  this, timeout_ms);
    }
    ~BulkRead() {
        if (!completed && libusb_cancel_transfer(t) == 0)
            while (!completed) libusb_handle_events_completed(ctx, &completed);
        libusb_free_transfer(t);
    }

    void submit() {
        completed = 0;
        ASSERT_EQ(libusb_submit_transfer(t), 0);
    }
    // Waits at most `limit` for the completion; returns its status, or -1.
    int wait(std::chrono::milliseconds limit = 2000ms) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!completed && std::chrono::steady_clock::now() < end) {
            timeval tv{0, 20000};
            libusb_handle_events_timeout_completed(ctx, &tv, &completed);
        }
        return completed ? t->status : -1;
    }
    int run() {
        submit();
        return wait();
    }
    uint16_t sample(std::size_t i) const { return static_cast<uint16_t>(buf[2 * i] << 4 | buf[2 * i + 1] >> 4); }
    // Every sample holds `v` and carries the sensor's 0x5 in the discarded nibble.
    bool all(uint16_t v) const {
        for (std::size_t i = 0; i < orbsim::kFilters; i++)
            if (sample(i) != v || (buf[2 * i + 1] & 0xF) != 0x5) return false;
        return true;
    }
};

}  // namespace

TEST(SimEnumeration, ListsBusByBusInTheOrderAddedAndKeepsOtherDevices) {
    orbsim::Testbed tb;
    auto& b3 = tb.add_sensor(3);
    tb.add_other_device(0x1234, 0x5678);
    auto& b1 = tb.add_sensor(1);
    auto& led = tb.add_led_module(1);
    auto& b3_12 = tb.add_sensor(3, 12);
    EXPECT_THROW(tb.add_sensor(3, 12), std::invalid_argument);
    Usb usb;

    std::vector<std::array<int, 4>> sensors, others;
    for (const auto& d : usb.list()) (d[2] == 0x0483 && d[3] == 0x5740 ? sensors : others).push_back(d);
    const std::vector<std::array<int, 4>> expected = {{1, b1.address(), 0x0483, 0x5740},
                                                      {1, led.address(), 0x0483, 0x5740},
                                                      {3, b3.address(), 0x0483, 0x5740},
                                                      {3, 12, 0x0483, 0x5740}};
    EXPECT_EQ(sensors, expected);
    EXPECT_EQ(b3_12.address(), 12);
    EXPECT_EQ(tb.size(), 4u);
    EXPECT_EQ(&tb.sensor(1), &b1);
    // The other device and a root hub per bus.
    EXPECT_EQ(others.size(), 3u);
    EXPECT_NE(std::find(others.begin(), others.end(), std::array<int, 4>{1, 2, 0x1234, 0x5678}), others.end());
}

TEST(SimLog, RecordsEveryOperationInOrder) {
    orbsim::Testbed tb;
    auto& s = tb.add_sensor();
    Usb usb;
    libusb_device_handle* h = usb.open(s);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(libusb_set_configuration(h, 1), 0);
    EXPECT_EQ(libusb_claim_interface(h, 0), 0);
    EXPECT_EQ(libusb_set_interface_alt_setting(h, 0, 0), 0);
    first_byte(h, 37, 0x12);
    EXPECT_EQ(libusb_clear_halt(h, 0x81), 0);
    EXPECT_EQ(libusb_release_interface(h, 0), 0);
    EXPECT_EQ(libusb_reset_device(h), 0);
    libusb_close(h);

    using E = orbsim::Event;
    std::vector<std::pair<E::Kind, int>> seen;
    for (const E& e : s.events()) seen.push_back({e.kind, e.kind == E::Control ? e.setup.bRequest : e.value});
    const std::vector<std::pair<E::Kind, int>> expected = {
        {E::Open, 0},          {E::SetConfiguration, 1}, {E::Claim, 0},   {E::SetInterface, 0},
        {E::Control, 37},      {E::ClearHalt, 0x81},     {E::Release, 0}, {E::Reset, 0}};
    seen.resize(expected.size());
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(s.requests().at(0), (orbsim::ControlRequest{0xA1, 37, 0x12, 0, 1}));
    s.clear_log();
    EXPECT_TRUE(s.requests().empty());
}

namespace {

struct Streaming : testing::Test {
    orbsim::Testbed tb;
    orbsim::Sensor& s = tb.add_sensor();
    Usb usb;
    libusb_device_handle* h = nullptr;

    void SetUp() override {
        h = usb.open(s);
        ASSERT_NE(h, nullptr);
        ASSERT_EQ(libusb_claim_interface(h, 0), 0);
    }
    void TearDown() override {
        if (h) libusb_close(h);
    }
};

}  // namespace

TEST_F(Streaming, CounterFramesNumberFromOneEachTimeStreamingStarts) {
    s.set_frame_generator(orbsim::counter_frames());
    {
        BulkRead idle(usb.ctx, h, orbsim::kFrameBytes, 100);
        EXPECT_EQ(idle.run(), LIBUSB_TRANSFER_TIMED_OUT);
    }
    BulkRead r(usb.ctx, h);
    ASSERT_EQ(command(h, 70), 0);
    for (uint16_t k = 1; k <= 3; k++) {
        ASSERT_EQ(r.run(), LIBUSB_TRANSFER_COMPLETED);
        EXPECT_EQ(r.t->actual_length, 2048);
        EXPECT_TRUE(r.all(k)) << "frame " << k << " sample 0 is " << r.sample(0);
    }
    ASSERT_EQ(command(h, 71), 0);
    ASSERT_EQ(command(h, 70), 0);
    ASSERT_EQ(r.run(), LIBUSB_TRANSFER_COMPLETED);
    EXPECT_TRUE(r.all(1));
    EXPECT_EQ(s.frames_sent(), 4u);
}

TEST_F(Streaming, LightGrowsWithTheShutterSpeedAndSaturates) {
    BulkRead r(usb.ctx, h);
    ASSERT_EQ(command(h, 70), 0);
    for (uint16_t shutter : {40, 500, 3000}) {
        first_byte(h, 37, shutter >> 8);
        first_byte(h, 5, shutter & 0xFF);
        ASSERT_EQ(r.run(), LIBUSB_TRANSFER_COMPLETED);
        int wrong = 0;
        for (std::size_t i = 0; i < orbsim::kFilters; i++) wrong += r.sample(i) != orbsim::light_value(i, shutter);
        EXPECT_EQ(wrong, 0) << "shutter " << shutter;
    }
    EXPECT_EQ(r.sample(512), 4095);
    EXPECT_LT(r.sample(0), 4095);
    EXPECT_LT(orbsim::light_value(512, 40), orbsim::light_value(512, 500));
}

// Realistic timing holds each control transfer for its time on the bus and
// the transport's ticker finishes it, a stall as well as an answer, beside a
// frame transfer that waits, as the library keeps one.
TEST_F(Streaming, RealisticTimingCompletesControlTransfersBesideAWaitingFrame) {
    s.set_timing(orbsim::Timing::Realistic);
    s.set_frame_generator(orbsim::counter_frames());
    BulkRead r(usb.ctx, h);
    r.submit();
    EXPECT_EQ(first_byte(h, 5, 3), 3);
    EXPECT_EQ(first_byte(h, 4), 3);
    s.stall(36);
    std::vector<uint8_t> buf(1);
    EXPECT_EQ(read_code(h, 36, 0, buf), LIBUSB_ERROR_PIPE);
    ASSERT_EQ(command(h, 70), 0);
    ASSERT_EQ(r.wait(), LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(r.t->actual_length, 2048);
    EXPECT_TRUE(r.all(1));
}

// The library opens a sensor twice when it also takes it for the LED driver:
// each handle must reap only its own transfers.
TEST_F(Streaming, TwoHandlesOnOneDeviceKeepTheirTransfersApart) {
    libusb_device_handle* second = usb.open(s);
    ASSERT_NE(second, nullptr);
    BulkRead r(usb.ctx, h);
    r.submit();
    EXPECT_EQ(first_byte(second, 37, 3), 3);
    EXPECT_EQ(command(second, 70), 0);
    EXPECT_EQ(r.wait(), LIBUSB_TRANSFER_COMPLETED);
    libusb_close(second);
    EXPECT_EQ(r.run(), LIBUSB_TRANSFER_COMPLETED);
    const auto events = s.events();
    EXPECT_EQ(std::count_if(events.begin(), events.end(), [](const orbsim::Event& e) { return e.kind == orbsim::Event::Open; }), 2);
}

// A host process that dies with a frame transfer waiting only closes its
// node. The emulator must let that transfer go: kept, it would be filled
// and handed to whichever host came next.
TEST_F(Streaming, AHostGoneWithATransferWaitingLeavesNothingBehind) {
    char node[32];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", s.bus(), s.address());
    const int fd = ::open(node, O_RDWR);
    ASSERT_GE(fd, 0);
    std::vector<uint8_t> buf(orbsim::kFrameBytes);
    usbdevfs_urb urb{};
    urb.type = USBDEVFS_URB_TYPE_BULK;
    urb.endpoint = orbsim::kBulkInEndpoint;
    urb.buffer = buf.data();
    urb.buffer_length = static_cast<int>(buf.size());
    ASSERT_EQ(::ioctl(fd, USBDEVFS_SUBMITURB, &urb), 0);
    EXPECT_TRUE(tb.bulk_waiting(s));
    ::close(fd);

    const auto closes = [&] {
        const auto events = s.events();
        return std::count_if(events.begin(), events.end(), [](const orbsim::Event& e) { return e.kind == orbsim::Event::Close; });
    };
    // The emulator sees the close at the next request on the node.
    const auto end = std::chrono::steady_clock::now() + 2s;
    while ((tb.bulk_waiting(s) || closes() == 0) && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(10ms);
        first_byte(h, 37, 3);
    }
    EXPECT_FALSE(tb.bulk_waiting(s));
    EXPECT_EQ(closes(), 1);
    // The host still connected streams on.
    s.set_frame_generator(orbsim::counter_frames());
    BulkRead r(usb.ctx, h);
    r.submit();
    ASSERT_EQ(command(h, 70), 0);
    EXPECT_EQ(r.wait(), LIBUSB_TRANSFER_COMPLETED);
}

TEST(SimModel, EncodesTwelveBitSamplesBigEndianWithNoiseBelow) {
    std::array<uint16_t, orbsim::kFilters> v{};
    v[0] = 0xABC;
    v[1] = 4095;
    v[2] = 5000;  // clamped
    v[3] = 1;
    const std::vector<uint8_t> w = orbsim::encode_frame(v);
    ASSERT_EQ(w.size(), 2048u);
    EXPECT_EQ(std::vector<uint8_t>(w.begin(), w.begin() + 10),
              (std::vector<uint8_t>{0xAB, 0xC5, 0xFF, 0xF5, 0xFF, 0xF5, 0x00, 0x15, 0x00, 0x05}));
}

TEST(SimModel, FrameLargerThanTheTransferCarriesOver) {
    orbsim::SensorModel m;
    m.set_frame_generator(orbsim::counter_frames());
    m.handle_control({0x21, 70, 0, 1, 0});
    const auto now = orbsim::SensorModel::Clock::now();
    std::vector<uint8_t> got;
    for (int i = 0; i < 4; i++) {
        orbsim::BulkReply r = m.bulk_in(now, 512);
        ASSERT_EQ(r.outcome, orbsim::BulkReply::Bytes);
        ASSERT_EQ(r.data.size(), 512u);
        got.insert(got.end(), r.data.begin(), r.data.end());
    }
    std::array<uint16_t, orbsim::kFilters> ones;
    ones.fill(1);
    EXPECT_EQ(got, orbsim::encode_frame(ones));
    EXPECT_EQ(m.frames_sent(), 1u);
}

TEST(SimModel, LateHostGetsTheFrameAtOnceButNoBurst) {
    using Clock = orbsim::SensorModel::Clock;
    orbsim::SensorModel m;
    m.set_frame_period(10ms);
    const auto t0 = Clock::now();
    m.handle_control({0x21, 70, 0, 1, 0});
    EXPECT_EQ(m.bulk_in(t0 + 5ms, 2048).outcome, orbsim::BulkReply::Nothing);
    EXPECT_EQ(m.bulk_in(t0 + 50ms, 2048).outcome, orbsim::BulkReply::Bytes);
    EXPECT_EQ(m.next_bulk_due(t0 + 50ms), t0 + 60ms);
    EXPECT_EQ(m.bulk_in(t0 + 59ms, 2048).outcome, orbsim::BulkReply::Nothing);
    EXPECT_EQ(m.bulk_in(t0 + 60ms, 2048).outcome, orbsim::BulkReply::Bytes);
}

TEST(SimModel, OnlyClassRequestsReachTheRegisters) {
    orbsim::SensorModel m;
    orbsim::ControlReply r = m.handle_control({0xC1, 37, 9, 0, 1});  // vendor, not class
    EXPECT_EQ(r.data, std::vector<uint8_t>{0});
    EXPECT_EQ(m.reg(37), 0);
    m.handle_control({0x41, 70, 0, 1, 0});
    EXPECT_FALSE(m.streaming());
    EXPECT_EQ(m.handle_control({0x80, 6, 0x0300, 0, 255}).outcome, orbsim::ControlReply::Stall);  // no such string
    EXPECT_EQ(m.requests().size(), 3u);
}

TEST(SimModel, LedModuleNeverStreams) {
    orbsim::SensorModel led(orbsim::SensorModel::Kind::LedModule);
    led.handle_control({0x21, 70, 0, 1, 0});
    EXPECT_TRUE(led.streaming());
    EXPECT_EQ(led.bulk_in(orbsim::SensorModel::Clock::now() + 1s, 2048).outcome, orbsim::BulkReply::Nothing);
    EXPECT_EQ(led.next_bulk_due(orbsim::SensorModel::Clock::now()), orbsim::SensorModel::Clock::time_point::max());
}

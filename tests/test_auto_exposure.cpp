// The auto-exposure search against an emulated sensor of linear response,
// its parameters and its look-up tables.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <numeric>
#include <tuple>

#include "orb_device_interface_ae.h"
#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"

using Gains = std::array<double, orbsim::kFilters>;
using Speeds = std::vector<int>;

namespace {

orbsim::FrameGenerator flat(double counts_per_step) {
    Gains g;
    g.fill(counts_per_step);
    return orbsim::linear_frames(g);
}

// What the bring-up does for index 0: the event-loop thread and the bulk
// transfer. A search leaves the shutter speeds it tried in `tried`.
class AutoExposure : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(pthread_create(&usbEventLoop_thread, nullptr, usbEventLoop_thread_main, nullptr), 0);
        ASSERT_EQ(alloc_transfer_bulk_l(0, 2048, nullptr, 0), 0);
    }
    void TearDown() override {
        request_exit(1);
        libusb_interrupt_event_handler(nullptr);
        pthread_join(usbEventLoop_thread, nullptr);
    }
    int search(orbsim::FrameGenerator frames, std::vector<int> chosen, int sleep_ms = 0) {
        s.set_frame_generator(std::move(frames));
        s.clear_log();
        vclock::reset();
        const int speed = find_optimal_shutter_speed_with_ae(chosen, 10, sleep_ms, 0);
        tried.clear();
        int high = 0;
        for (const auto& r : s.requests()) {
            if (r.bRequest == 37) high = r.wValue;
            if (r.bRequest == 5) tried.push_back(high << 8 | r.wValue);
        }
        return speed;
    }
    orbsim::Sensor& s = talk::connected_sensor();
    Speeds tried;
};

}  // namespace

TEST(AutoExposureSettings, DefaultsSettersAndTables) {
    const auto& p = m_gAEParams;
    auto fields = [&] { return Speeds{p.initial_ss, p.min_ss, p.max_ss, p.target_dn_value, p.upper_dn_value,
                                      p.lower_dn_value, p.mean_upper_dn_value, p.mode}; };
    EXPECT_EQ(fields(), (Speeds{5, 1, 1200, 3300, 4000, 3000, 3300, 1}));
    EXPECT_EQ(set_params_for_ae_module(3000, 2000, 1000, 2500, 900, 7) + set_params_for_ae_module(4095, 3), 2);
    EXPECT_EQ(fields(), (Speeds{5, 1, 900, 3795, 4095, 3495, 4095, 1}));

    char dir[] = "/tmp/orb_ae_XXXXXX";
    const std::string a = std::string(mkdtemp(dir)) + "/a.csv", b = std::string(dir) + "/b.csv";
    std::ofstream(a) << "\n1.5,2,x\n9,9,9,9\n";
    std::ofstream(b) << "10,20,30,40";
    EXPECT_EQ(initialize_ae_module(a.c_str(), b.c_str()), 1);
    EXPECT_EQ(std::vector<double>(g_intensityLUT, g_intensityLUT + 3), (std::vector<double>{1.5, 2.0, 0.0}));
    EXPECT_EQ(std::make_pair(g_ssLUT[3], g_aeLUTSize), std::make_pair(40.0, 4));  // the second table's count
    std::ofstream(b) << "\n";  // no line to read: both tables stay
    EXPECT_EQ(initialize_ae_module((std::string(dir) + "/none").c_str(), b.c_str()), 1);
    EXPECT_EQ(std::make_tuple(g_intensityLUT[0], g_ssLUT[3], g_aeLUTSize), std::make_tuple(1.5, 40.0, 4));
    for (const std::string& f : {a, b}) unlink(f.c_str());
    rmdir(dir);
}

TEST_F(AutoExposure, OnlyAWhollySaturatedSensorHasNoSpeedAndEveryTrialSettles) {
    std::vector<int> all(1024);
    std::iota(all.begin(), all.end(), 0);
    EXPECT_EQ(search(flat(4000), all), -1);  // 4000 counts as saturated
    EXPECT_EQ(tried, (Speeds{1}));

    // One filter short of saturation: on it the first probe is in range.
    Gains one_dim;
    one_dim.fill(4000);
    one_dim[300] = 700;
    EXPECT_EQ(search(orbsim::linear_frames(one_dim), {300}, 777), 5);
    EXPECT_EQ(tried, (Speeds{1, 5}));
    // Shutter registers and blank period, the settle time, one single shot.
    EXPECT_EQ(talk::pauses_ms(), (std::vector<uint64_t>{5, 5, 5, 5, 5, 5, 33, 777, 30, 20, 30, 30, 20, 30, 20, 30,
                                                         5, 5, 5, 5, 5, 5, 35, 777, 30, 20, 30, 30, 20, 30, 20, 30}));
}

TEST_F(AutoExposure, StepsRestartFromTheMinimumClampAndFollowTruncatedMeans) {
    Gains ten_bright{};
    std::fill_n(ten_bright.begin(), 10, 1000);
    // Saturated on average at 5: from 1 the step through the origin lands on 3.
    EXPECT_EQ(search(orbsim::linear_frames(ten_bright), {0, 9}), 3);
    EXPECT_EQ(tried, (Speeds{1, 5, 1, 3}));

    // Filters at 660.5 and 659.5 per step: at 5 their int sum makes a mean of
    // 3299.5, under the ceiling, where 3300 would restart from 1.
    auto halves = [](const orbsim::FrameInfo& f, std::array<uint16_t, orbsim::kFilters>& v) {
        v.fill(0);
        v[0] = static_cast<uint16_t>(660 * f.shutter + f.number % 2);
        v[1] = static_cast<uint16_t>(v[0] - 1);
    };
    set_params_for_ae_module(3700, 4000, 3400, 3300, 800, 0);
    EXPECT_EQ(search(halves, {0, 1}), 6);
    EXPECT_EQ(tried, (Speeds{1, 5, 6}));

    // Aimed at 3700 (speed 3700) but held at 800, still too dark there.
    EXPECT_EQ(search(flat(1), {0}), 800);
    EXPECT_EQ(tried, (Speeds{1, 5, 800}));
    // Nothing seen, no slope: the minimum, without a trial.
    m_gAEParams.min_ss = 2;
    EXPECT_EQ(search(flat(0), {0}), 2);
    EXPECT_EQ(tried, (Speeds{1, 5}));
    EXPECT_EQ(search(flat(1000), {1024}), 2);  // a filter the frame lacks sees nothing either
}

TEST_F(AutoExposure, BrightestChosenFilterEndsInsideTheRange) {
    Gains ramp;  // brighter towards the end; only the first half is chosen
    for (size_t i = 0; i < ramp.size(); i++) ramp[i] = 0.5 + 6.0 * i / 1023;
    std::vector<int> first_half(512);
    std::iota(first_half.begin(), first_half.end(), 0);
    const int speed = search(orbsim::linear_frames(ramp, 64), first_half, 50);
    printf("shutter speed %d after %zu acquisitions\n", speed, tried.size());

    set_shutter_speed_to_sensor(speed, 0);
    std::vector<double> frame(1024);
    get_filter_data_from_sensor(frame.data(), 10, 0, 0, 0);
    const double brightest = *std::max_element(frame.begin(), frame.begin() + 512);
    EXPECT_GE(brightest, 3000);
    EXPECT_LE(brightest, 4000);
    EXPECT_EQ(frame[1023], 4095.0);
}

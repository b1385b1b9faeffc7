// The auto-exposure search end to end against a linear emulated sensor, its
// parameters and its look-up tables.

#include <gtest/gtest.h>

#include <unistd.h>

#include <fstream>
#include <numeric>

#include "orb_device_interface_ae.h"
#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"

using Pauses = std::vector<uint64_t>;
using Sensitivity = std::array<double, orbsim::kFilters>;

namespace {

Sensitivity uniform(double counts_per_step) {
    Sensitivity s;
    s.fill(counts_per_step);
    return s;
}

std::vector<int> filters(int first, int count) {
    std::vector<int> v(count);
    std::iota(v.begin(), v.end(), first);
    return v;
}

// The shutter speeds the sensor was set to, in order; each must have come
// with exactly one frame acquisition.
std::vector<int> trials(const orbsim::Sensor& s) {
    std::vector<int> speeds;
    int high = 0;
    int starts = 0;
    for (const auto& r : s.requests()) {
        if (r.bRequest == 37) high = r.wValue;
        if (r.bRequest == 5) speeds.push_back(high << 8 | r.wValue);
        if (r == talk::stream(70)) starts++;
    }
    EXPECT_EQ(starts, static_cast<int>(speeds.size()));
    return speeds;
}

// What the bring-up does for index 0: the event-loop thread and the bulk
// transfer on a connected sensor.
class AutoExposure : public testing::Test {
protected:
    orbsim::Sensor& sensor(const Sensitivity& sensitivity, double dark = 0.0) {
        orbsim::Sensor& s = talk::connected_sensor();
        s.set_frame_generator(orbsim::linear_frames(sensitivity, dark));
        loop_started_ = pthread_create(&usbEventLoop_thread, nullptr, usbEventLoop_thread_main, nullptr) == 0;
        EXPECT_EQ(alloc_transfer_bulk_l(0, 2048, nullptr, 0), 0);
        return s;
    }

    int search(std::vector<int> chosen, int sleep_ms = 0) {
        return find_optimal_shutter_speed_with_ae(chosen, 10, sleep_ms, 0);
    }

    void TearDown() override {
        if (!loop_started_) return;
        request_exit(1);
        libusb_interrupt_event_handler(nullptr);
        pthread_join(usbEventLoop_thread, nullptr);
    }

    bool loop_started_ = false;
};

}  // namespace

TEST(AutoExposureParameters, DefaultsAndBothSetters) {
    const auto& p = m_gAEParams;
    EXPECT_EQ((std::vector<int>{p.initial_ss, p.min_ss, p.max_ss, p.target_dn_value, p.upper_dn_value,
                                p.lower_dn_value, p.mean_upper_dn_value, p.mode}),
              (std::vector<int>{5, 1, 1200, 3300, 4000, 3000, 3300, 1}));

    EXPECT_EQ(set_params_for_ae_module(3000, 2000, 1000, 2500, 900, 7), 1);
    EXPECT_EQ(set_params_for_ae_module(4095, 3), 1);
    EXPECT_EQ((std::vector<int>{p.initial_ss, p.min_ss, p.max_ss, p.target_dn_value, p.upper_dn_value,
                                p.lower_dn_value, p.mean_upper_dn_value, p.mode}),
              (std::vector<int>{5, 1, 900, 3795, 4095, 3495, 4095, 1}));

    std::vector<double> frame = {10, 11, 12};
    std::vector<double> out = {1};
    std::vector<int> chosen = {2, 0};
    EXPECT_EQ(get_valid_filters_only(frame, chosen, out), 1);
    EXPECT_EQ(out, (std::vector<double>{12, 10}));
    for (std::vector<int> bad : {std::vector<int>{}, {0, 3}, {0, 1, 2, 0}}) {
        EXPECT_EQ(get_valid_filters_only(frame, bad, out), 0);
        EXPECT_TRUE(out.empty());
    }
}

TEST_F(AutoExposure, OnlyAWhollySaturatedSensorHasNoSpeed) {
    orbsim::Sensor& s = sensor(uniform(4000));  // at the threshold is saturated
    EXPECT_EQ(search(filters(0, 1024)), -1);
    EXPECT_EQ(trials(s), (std::vector<int>{1}));

    // One filter below: the search goes on, on the filter chosen.
    Sensitivity one_dim = uniform(4000);
    one_dim[300] = 700;
    s.set_frame_generator(orbsim::linear_frames(one_dim));
    s.clear_log();
    EXPECT_EQ(search({300}), 5);
    EXPECT_EQ(trials(s), (std::vector<int>{1, 5}));
}

TEST_F(AutoExposure, FirstProbeInRangeEndsAfterTwoTrialsEachSettlingAsAsked) {
    orbsim::Sensor& s = sensor(uniform(700));
    EXPECT_EQ(search(filters(0, 1024), 777), 5);
    EXPECT_EQ(trials(s), (std::vector<int>{1, 5}));
    // Each trial: shutter registers and their blank period, the settle time,
    // then one single-shot stream.
    auto trial = [](uint64_t blank_period) {
        return Pauses{5, 5, 5, 5, 5, 5, blank_period, 777, 30, 20, 30, 30, 20, 30, 20, 30};
    };
    Pauses expected = trial(33);
    for (uint64_t ms : trial(35)) expected.push_back(ms);
    EXPECT_EQ(talk::pauses_ms(), expected);
}

TEST_F(AutoExposure, TooBrightOnAverageRestartsFromTheShortestSpeed) {
    Sensitivity bright_few = uniform(0);
    for (int i = 0; i < 10; i++) bright_few[i] = 1000;
    orbsim::Sensor& s = sensor(bright_few);
    // Saturated at 5; from 1 the step through the origin lands on 3 (3000).
    EXPECT_EQ(search(filters(0, 10)), 3);
    EXPECT_EQ(trials(s), (std::vector<int>{1, 5, 1, 3}));
}

TEST_F(AutoExposure, MeansTruncateTheirRunningSumAtEveryFilter) {
    // Two filters averaging 660.5 and 659.5 per step (odd frames one count up).
    orbsim::Sensor& s = sensor(uniform(0));
    s.set_frame_generator([](const orbsim::FrameInfo& f, std::array<uint16_t, orbsim::kFilters>& v) {
        v.fill(0);
        v[0] = static_cast<uint16_t>(660 * f.shutter + f.number % 2);
        v[1] = static_cast<uint16_t>(v[0] - 1);
    });
    set_params_for_ae_module(3700, 4000, 3400, 3300, 1200, 0);
    // At 5 the sum 3300 + 3299.5 makes a mean of 3299.5, under the mean
    // ceiling (a true mean of 3300 would restart from 1); the step lands on 6.
    EXPECT_EQ(search({0, 1}), 6);
    EXPECT_EQ(trials(s), (std::vector<int>{1, 5, 6}));
}

TEST_F(AutoExposure, StepsAreClampedToTheLimits) {
    orbsim::Sensor& s = sensor(uniform(1));
    set_params_for_ae_module(3300, 4000, 3000, 3300, 800, 0);
    // Aimed at 3300 counts, held at 800 and still too dark there.
    EXPECT_EQ(search(filters(0, 1024)), 800);
    EXPECT_EQ(trials(s), (std::vector<int>{1, 5, 800}));

    // Nothing seen: no slope to follow, the search settles on the minimum
    // without trying it.
    s.set_frame_generator(orbsim::linear_frames(uniform(0)));
    s.clear_log();
    m_gAEParams.min_ss = 2;
    EXPECT_EQ(search(filters(0, 1024)), 2);
    EXPECT_EQ(trials(s), (std::vector<int>{1, 5}));
}

TEST_F(AutoExposure, BrightestChosenFilterEndsInsideTheRange) {
    // Brighter towards the end of the array over a dark level; only the first
    // half is chosen, so its brightest is filter 511.
    Sensitivity ramp;
    for (size_t i = 0; i < ramp.size(); i++) ramp[i] = 0.5 + 6.0 * i / 1023;
    orbsim::Sensor& s = sensor(ramp, 64);
    const std::vector<int> chosen = filters(0, 512);
    const int speed = search(chosen, 50);
    const int acquisitions = static_cast<int>(trials(s).size());
    RecordProperty("acquisitions", acquisitions);
    printf("auto-exposure: shutter speed %d after %d acquisitions\n", speed, acquisitions);

    set_shutter_speed_to_sensor(speed, 0);
    std::vector<double> frame(1024);
    get_filter_data_from_sensor(frame.data(), 10, 0, 0, 0);
    double brightest = *std::max_element(frame.begin(), frame.begin() + 512);
    EXPECT_GE(brightest, m_gAEParams.lower_dn_value);
    EXPECT_LE(brightest, m_gAEParams.upper_dn_value);
    EXPECT_EQ(frame[1023], 4095.0);  // the filters not chosen do not hold it back
}

TEST(AutoExposureTables, FirstNonEmptyLineOfEachFileSharedCountOfTheLast) {
    char dir_template[] = "/tmp/orb_ae_XXXXXX";
    const std::string dir = mkdtemp(dir_template);
    const std::string intensity = dir + "/intensity.csv", ss = dir + "/ss.csv";
    std::ofstream(intensity) << "\n1.5,2,x\n9,9,9,9\n";
    std::ofstream(ss) << "10,20,30,40";

    EXPECT_EQ(initialize_ae_module(intensity.c_str(), ss.c_str()), 1);
    EXPECT_EQ(std::vector<double>(g_intensityLUT, g_intensityLUT + 3), (std::vector<double>{1.5, 2.0, 0.0}));
    EXPECT_EQ(std::vector<double>(g_ssLUT, g_ssLUT + 4), (std::vector<double>{10, 20, 30, 40}));
    EXPECT_EQ(g_aeLUTSize, 4);

    // Missing, or nothing but empty lines: the earlier table stays.
    std::ofstream(ss) << "\n\n";
    EXPECT_EQ(initialize_ae_module((dir + "/missing.csv").c_str(), ss.c_str()), 1);
    EXPECT_EQ(g_intensityLUT[0], 1.5);
    EXPECT_EQ(g_ssLUT[3], 40.0);
    EXPECT_EQ(g_aeLUTSize, 4);
    std::ofstream(ss) << "7";
    EXPECT_EQ(initialize_ae_module(intensity.c_str(), ss.c_str()), 1);
    EXPECT_EQ(g_ssLUT[0], 7.0);
    EXPECT_EQ(g_aeLUTSize, 1);

    for (const std::string& f : {intensity, ss}) unlink(f.c_str());
    rmdir(dir.c_str());
}

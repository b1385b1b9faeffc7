// The per-sensor object against the emulated sensor: initialisation, the
// shutter speed it reports, acquisition conditions and the filter data forms.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>

#include "orb_base_exception.h"
#include "orb_device_interface_ae.h"
#include "orb_device_interface_base.h"
#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"

namespace {

// The object's own state, for checks the public operations do not show.
struct Base : orb_device_interface_base {
    using orb_device_interface_base::orb_device_interface_base;
    using orb_device_interface_base::m_AcqCond;
    using orb_device_interface_base::m_current_filter_data;
    using orb_device_interface_base::m_interface_is_initialized;
};

int code_of(const std::function<void()>& call) {
    try {
        call();
    } catch (const orb_base_exception& e) {
        return e.m_error_code;
    }
    return vn_ec_success;
}

// Filter i holds i + 1 at the shortest exposure and 0 otherwise.
orbsim::FrameGenerator numbered_at_shutter_1() {
    return [](const orbsim::FrameInfo& f, std::array<uint16_t, orbsim::kFilters>& v) {
        for (size_t i = 0; i < v.size(); i++) v[i] = f.shutter == 1 ? i + 1 : 0;
    };
}

class InService : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(base_.initialize(0), 1); }
    orbsim::Sensor& sensor_ = testbed().add_sensor();
    Base base_{0};
};

}  // namespace

TEST(DeviceBase, FreshObjectRefusesSensorWorkAndAZeroClock) {
    g_FMA_Buffer[99][1023] = 5.0;
    Base base(0);
    EXPECT_EQ(g_FMA_Buffer[99][1023], 0.0);  // every construction clears the ring
    EXPECT_FALSE(base.is_initialized(0));
    int mode = 7;
    double frame[1024];
    bool sensor_ok = true, controller_ok = true;
    for (auto call : std::vector<std::function<void()>>{
             [&] { base.get_shutter_speed(0); }, [&] { base.finalize(0); }, [&] { base.set_acq_mode(1); },
             [&] { base.get_acq_mode(&mode); }, [&] { base.get_filter_data(frame, 1, 0, 0, 0); },
             [&] { base.get_background_filter_data(frame, 1, 0); },
             [&] { base.test_device(sensor_ok, controller_ok, 0); }})
        EXPECT_EQ(code_of(call), vn_ec_initialization_required);
    EXPECT_FALSE(sensor_ok || controller_ok);
    EXPECT_EQ(mode, 7);
    EXPECT_EQ(base.get_onboard_dark_correction(0), 0);
    EXPECT_EQ(base.get_adc_range(0), 132);
    bool on[8] = {true};
    EXPECT_EQ(base.leddriver_set_led_state(on, 8, 1), 0);  // no LED driver open
    EXPECT_EQ(base.leddriver_turn_off_all(), -1);

    // A host's zero clock is refused, not divided by.
    double ms = 0;
    EXPECT_EQ(code_of([&] { base.shutter_to_exposure_time_ms(0, 100, &ms); }), vn_ec_ill_defined_input);
}

// (shutter x 912 + 160) / (clock x 1000) in integers, and back as
// trunc((clock x 1000 x ms - 160 - 384) / 528). Besides the worked examples,
// each formula gets a numerator that is an exact multiple of its divisor
// (any constant made smaller drops the result by one; below zero, any made
// larger lifts it toward zero) and one just below a multiple (any made larger
// raises it), so every constant and the truncation show.
TEST(DeviceBase, ExposureConversionsKeepEveryConstantOfTheirFormulas) {
    Base base(0);
    struct ToMs { int clock, shutter; double ms; };
    for (ToMs c : {ToMs{20, 250, 11.0}, {1, 1, 1.0}, {10, 100, 9.0},
                   {1, 70, 64.0},         // 64000 / 1000
                   {1, 36, 32.0},         // 32992 / 1000
                   {1, -55, -50.0},       // -50000 / 1000
                   {-10, 100, -9.0}}) {   // -9.136 truncated toward zero
        double ms = -1;
        EXPECT_EQ(base.shutter_to_exposure_time_ms(c.clock, c.shutter, &ms), 1);
        EXPECT_EQ(ms, c.ms) << c.clock << " MHz, shutter " << c.shutter;
    }
    struct ToShutter { int clock; double ms; int shutter; };
    for (ToShutter c : {ToShutter{20, 11.0, 415},
                        {1, 28.0, 52},      // 27456 / 528
                        {1, 63.375, 118},   // 62831 / 528 = 118.998
                        {1, 0.0, -1}}) {    // -544 / 528 truncated toward zero
        int ss = 0;
        EXPECT_EQ(base.exposure_tim_ms_to_shutter(c.clock, c.ms, &ss), 1);
        EXPECT_EQ(ss, c.shutter) << c.clock << " MHz, " << c.ms << " ms";
    }
}

// Setting any acquisition mode rewrites the blank time, always on sensor 0
// whatever sensor the object stands for (kept as the firmware expects it).
// The sensor has no mode to read back: getting it asks nothing and leaves the
// caller's value alone.
TEST_F(InService, AcquisitionModeRewritesSensorZerosBlankTimeAndIsNotReadBack) {
    sensor_.clear_log();
    base_.set_acq_mode(3);
    EXPECT_SAID(sensor_, {talk::cmd(34, 0), talk::cmd(33, 2), talk::cmd(39), talk::cmd(38)});
    sensor_.clear_log();
    int mode = 7;
    base_.get_acq_mode(&mode);
    EXPECT_EQ(mode, 7);
    EXPECT_TRUE(sensor_.requests().empty());
}

TEST_F(InService, ReportsTheLastSpeedAskedForNotWhatTheSensorHolds) {
    EXPECT_EQ(sensor_.shutter(), 1);
    g_current_shutter_speed = 42;
    EXPECT_EQ(base_.get_shutter_speed(0), 42);
    // The settings layer retries a wrong echo and reports success all the same.
    sensor_.echo_wrong(4, 0);
    EXPECT_EQ(code_of([&] { base_.set_shutter_speed(500, 0); }), vn_ec_success);
    EXPECT_EQ(base_.get_shutter_speed(0), 500);
}

TEST(DeviceBase, ConditionsAreKeptPerDeviceAndSetTheirShutterSpeed) {
    for (int i = 0; i < 4; i++) testbed().add_sensor();
    printed_by([] { ASSERT_EQ(connect_device(3u), 1); });
    Base base(0);
    base.m_interface_is_initialized = true;
    SDataAcqCondition cond;
    cond.ss = 800;
    base.set_frame_acquisition_conditions(cond, 3);
    ASSERT_EQ(base.m_AcqCond.count(3), 1u);
    EXPECT_EQ(base.m_AcqCond[3].ss, 800);
    EXPECT_EQ(UsbDevId::currentDevId.count(3), 1u);
    EXPECT_EQ(testbed().sensor(3).shutter(), 800);
}

TEST_F(InService, FilterDataFormsDeliverTheSensorsFrame) {
    sensor_.set_frame_generator(numbered_at_shutter_1());
    base_.enable_spatial_filtering(true, 3, 0);  // stored, applied nowhere
    std::vector<double> expected(1024);
    std::iota(expected.begin(), expected.end(), 1.0);

    std::vector<double> staged(1024);
    EXPECT_EQ(base_.get_filter_data(staged.data(), 2, 1, 0, 0), 1.0);
    EXPECT_EQ(staged, expected);
    EXPECT_EQ(std::vector<double>(base_.m_current_filter_data, base_.m_current_filter_data + 1024), expected);

    SDataAcqCondition cond;
    cond.ss = 1;
    for (int size : {512, 5000, -3}) {
        cond.datasize = size;
        base_.set_frame_acquisition_conditions(cond, 0);
        std::vector<double> frame(3, -1.0);
        EXPECT_EQ(base_.get_filter_data(frame, 1, 0, false, 0, 0), 0.0);
        std::vector<double> cut = expected;
        std::fill(cut.begin() + std::clamp(size, 0, 1024), cut.end(), 0.0);
        EXPECT_EQ(frame, cut) << "datasize " << size;
    }
}

// The wire carries 12 bits, so an average of exactly 4096 comes only from a
// moving-average history holding larger values: planted here.
TEST_F(InService, ScansAtTheShortestExposureAndRestoreTheShutterSpeed) {
    sensor_.set_frame_generator(numbered_at_shutter_1());
    base_.set_shutter_speed(700, 0);
    double dark[1024];
    base_.get_background_filter_data(dark, 2, 0);
    EXPECT_EQ(dark[1023], 1024.0);
    EXPECT_EQ(sensor_.shutter(), 700);

    base_.enable_frame_moving_average(true, 0);
    std::vector<double> primed;
    base_.get_filter_data(primed, 20, 0, false, 0, 0);
    // The ring was primed at shutter speed 700 with dark frames. Rows 1-19
    // planted so that with the scan's new frame (i + 1) in row 0 filter i's
    // 20 rows sum to `total`.
    auto plant = [](int i, int total) {
        int rest = total - (i + 1);
        for (int r = 1; r < 20; r++) g_FMA_Buffer[r][i] = rest / 19 + (r == 1 ? rest % 19 : 0);
    };
    plant(7, 20 * 4096);
    plant(900, 20 * 4096);
    plant(8, 81918);  // 4095.9
    EXPECT_EQ(base_.get_abnormal_filters(0), (std::vector<int>{7, 900}));
    EXPECT_EQ(sensor_.shutter(), 700);
    EXPECT_EQ(base_.get_shutter_speed(0), 700);
}

// Filter 0 sits inside the target range, filter 3 saturates: the search
// settles at its starting speed only if it watches filters 0-2.
TEST_F(InService, OptimalShutterSpeedTakesFiltersCountedFromOne) {
    auto lit = [](size_t filter, size_t saturated) {
        return [=](const orbsim::FrameInfo&, std::array<uint16_t, orbsim::kFilters>& v) {
            v.fill(0);
            v[saturated] = 4095;
            v[filter] = 3500;
        };
    };
    std::vector<double> background;
    std::vector<int> filters = {1, 2, 3}, none;
    sensor_.set_frame_generator(lit(0, 3));
    base_.set_auto_exposure_parameters(3000, 3500, 2500, 3100, 900, 0);
    EXPECT_EQ(base_.find_optimal_shutter_speed(filters, background, -1, 10, 0), m_gAEParams.initial_ss);
    EXPECT_EQ(m_gAEParams.lower_dn_value, 2500);  // -1 kept the targets

    EXPECT_EQ(base_.find_optimal_shutter_speed(filters, background, 3900, 10, 0), m_gAEParams.initial_ss);
    EXPECT_EQ(m_gAEParams.lower_dn_value, 3300);

    sensor_.set_frame_generator(lit(1023, 1023));  // 3500 at the last filter, nothing saturated
    EXPECT_EQ(base_.find_optimal_shutter_speed(none, background, -1, 10, 0), m_gAEParams.initial_ss);
}

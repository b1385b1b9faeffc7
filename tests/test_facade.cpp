// The sensor object a host holds: what it answers itself, what it turns into
// codes, and what it hands on to the sensor's base object.

#include <gtest/gtest.h>

#include "orb_base_exception.h"
#include "orb_device_interface.h"
#include "orb_device_interface_ae.h"
#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"

TEST(Facade, BeforeInitializeItAnswersOnlyForItself) {
    orb_device_interface f;
    EXPECT_EQ(f.get_min_shutter_speed(0), 1);
    EXPECT_EQ(f.get_max_shutter_speed(0), 500000);
    EXPECT_EQ(f.get_start_lambda(), 340.0);
    EXPECT_EQ(f.get_end_lambda(), 1100.0);
    EXPECT_EQ(f.get_interval(), 5.0);
    EXPECT_EQ(f.get_resolution(), 1);

    unsigned int index = 3;
    EXPECT_EQ(f.reconnect_device(index, "dark.bin", nullptr, nullptr, true), 1);

    char lot = 'Z';
    short parts[5] = {-1, -1, -1, -1, -1};
    EXPECT_EQ(printed_by([&] { f.get_sensor_id(&lot, &parts[0], &parts[1], &parts[2], &parts[3], &parts[4], 0); }),
              "##### m_device_interface_base is NULL!!\n");
    EXPECT_EQ(lot, 'Z');
    EXPECT_EQ(parts[4], -1);

    // A host asking too early is told "not in service", and the switches
    // are ignored rather than sent to a base that does not exist.
    EXPECT_FALSE(f.is_initialized(0));
    f.enable_spatial_filtering(true, 3, 0);
    f.enable_frame_moving_average(true, 0);
    EXPECT_FALSE(g_enable_FMA);
}

// No sensor on the bus: the base exists but refuses work.
TEST(Facade, AFailedInitializeLeavesARefusingBase) {
    testbed();
    orb_device_interface f;
    printed_by([&] { EXPECT_EQ(f.initialize(0), -1); });
    EXPECT_FALSE(f.is_initialized(0));

    EXPECT_EQ(f.set_onboard_frame_average(4, 0), vn_ec_initialization_required);
    EXPECT_EQ(f.get_onboard_frame_average(0), vn_ec_initialization_required);
    EXPECT_EQ(f.get_onboard_dark_correction(0), 0);
    EXPECT_THROW(f.test_device(0), orb_base_exception);

    EXPECT_EQ(printed_by([&] {
                  f.enable_spatial_filtering(true, 3, 0);
                  f.enable_frame_moving_average(true, 0);
              }),
              "");
    EXPECT_FALSE(g_bEnableSpatialFiltering);
    EXPECT_EQ(g_iSpatialFilterSize, 5);
    EXPECT_FALSE(g_enable_FMA);

    // With the LED driver closed, switching off reports -1 and setting a state 0.
    bool on[8] = {true, true};
    EXPECT_EQ(f.leddriver_set_led_state(on, 8, 0), -1);
    EXPECT_EQ(f.leddriver_set_led_state(on, 8, 5), 0);
}

TEST(Facade, SaturationAbove4000IsCappedForTheSearch) {
    testbed().add_sensor();
    orb_device_interface f;
    printed_by([&] { EXPECT_EQ(f.initialize(0), 1); });
    EXPECT_TRUE(f.is_initialized(0));

    std::vector<int> filters = {512};
    std::vector<double> background;
    for (int saturation : {5000, 3500}) {
        printed_by([&] { f.find_optimal_shutter_speed(filters, background, saturation, 0, 0); });
        EXPECT_EQ(m_gAEParams.upper_dn_value, std::min(saturation, 4000));
        EXPECT_EQ(m_gAEParams.target_dn_value, std::min(saturation, 4000) - 300);
    }
}

// The short form addresses sensor 0 whichever sensor the object stands for.
TEST(Facade, ShortAdcSettingGoesToSensorZero) {
    orbsim::Sensor& s0 = testbed().add_sensor();
    orbsim::Sensor& s1 = testbed().add_sensor();
    orb_device_interface f0, f1;
    printed_by([&] {
        EXPECT_EQ(f0.initialize(0), 1);
        EXPECT_EQ(f1.initialize(1), 1);
        f1.set_adc_settings(100, 0);
    });
    EXPECT_EQ(s0.reg(19), 100);
    EXPECT_EQ(s0.reg(20), 0);
    EXPECT_EQ(s1.reg(19), 132);
}

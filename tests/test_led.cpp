// The LED module: as a driver device of its own, and through a sensor.

#include <gtest/gtest.h>

#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_led.h"
#include "sensor_conversation.h"

using talk::cmd;
using E = orbsim::Event;

namespace {

talk::Request led(uint16_t value) { return {{0x21, 9, value, 0, 0}, 1000}; }

}  // namespace

TEST(LedDriver, StateWordCarriesChannelBitsAndIntensityAndClosingEndsTheDriver) {
    orbsim::Sensor& module = testbed().add_led_module();
    bool none[1] = {false};
    EXPECT_EQ(set_state_to_led_device(none, 0, 3), 0);  // not open: nothing sent
    EXPECT_EQ(set_op_mode_to_led_device(0, 0), 0);
    EXPECT_EQ(is_led_driver_close(), 0);

    EXPECT_EQ(printed_by([] { EXPECT_EQ(connect_LED_device(), 1); }), "");
    EXPECT_EQ(connect_LED_device(), 1);  // already open: no second open
    EXPECT_EQ(is_led_driver_open(), 1);
    EXPECT_EQ(set_op_mode_to_led_device(7, 9), 1);

    bool on[12] = {true, false, true};
    EXPECT_EQ(set_state_to_led_device(none, 0, 3), 1);
    EXPECT_EQ(set_state_to_led_device(on, 3, 1), 1);
    // More than 8 channels and intensities above 255 spill into each other.
    on[9] = true;
    EXPECT_EQ(set_state_to_led_device(on, 12, 0x101), 1);
    EXPECT_EQ(set_state_to_led_device(nullptr, 4, 2), 1);
    EXPECT_SAID(module, {led(0x0300), led(0x0105), led(0x0305), led(0x0200)});
    EXPECT_EQ(module.led_state(), 0x0200);

    // Closing also gives up the driver's reference to libusb's default context.
    const int exits = usblog::exits();
    EXPECT_EQ(is_led_driver_close(), 1);
    EXPECT_EQ(is_led_driver_open(), 0);
    EXPECT_EQ(is_led_driver_close(), 0);
    EXPECT_EQ(usblog::exits() - exits, 1);
    // Unconfigured on close; interface 0 was never claimed, so libusb keeps
    // its release to itself.
    EXPECT_EQ(seen(module, E::SetConfiguration), std::vector<int>{-1});
    EXPECT_EQ(seen(module, E::Open).size(), 1u);
}

TEST(LedDriver, TheFirstMatchingDeviceIsTakenEvenWhenItIsASensor) {
    orbsim::Sensor& sensor = testbed().add_sensor();
    orbsim::Sensor& module = testbed().add_led_module();
    EXPECT_EQ(connect_LED_device(), 1);
    set_state_to_led_device(nullptr, 0, 1);
    EXPECT_SAID(sensor, {led(0x0100)});
    EXPECT_TRUE(module.events().empty());
}

TEST(LedDriver, RefusedModuleLeavesTheDriverClosed) {
    orbsim::Sensor& module = testbed().add_led_module();
    testbed().refuse_open(module);
    std::string said = printed_by([] {
        orbsim::DropDacOverride not_root;
        EXPECT_EQ(connect_LED_device(), 0);
    });
    EXPECT_EQ(said,
              "Device open failed due to a permission denied error.\n"
              "libusb requires write access to USB device nodes.\n"
              "could not open device, error -3\n");
    EXPECT_EQ(is_led_driver_open(), 0);
}

TEST(LedThroughSensor, StateRequestIsPrintedWithItsBinaryDigitsAndSentOnTheSensor) {
    orbsim::Sensor& s = talk::connected_sensor();
    bool on[3] = {true, false, true};
    std::string said = printed_by([&] { EXPECT_EQ(set_led_state_values(on, 3, 1, 0), 1); });
    EXPECT_EQ(said, "[LED] set LED status(5), intensity: 1, value: 261\n100000101");
    EXPECT_SAID(s, {led(0x0105)});

    // An index without a sensor still prints, and sends nothing.
    s.clear_log();
    said = printed_by([&] { EXPECT_EQ(set_led_state_values(on, 0, 0, 4), 1); });
    EXPECT_EQ(said, "[LED] set LED status(0), intensity: 0, value: 0\n0");
    EXPECT_TRUE(s.requests().empty());
}

TEST(LedThroughSensor, OperationModeGoesThroughTheSensorsOperationRegister) {
    orbsim::Sensor& s = talk::connected_sensor();
    EXPECT_EQ(set_LED_module_op_mode(0, 0), 1);
    EXPECT_EQ(set_LED_module_op_mode(1, 0), 1);
    EXPECT_EQ(set_LED_module_op_mode(2, 0), 1);
    EXPECT_EQ(set_led_op_mode_values(1, 500, 0), 1);
    EXPECT_SAID(s, {cmd(3, 0), cmd(3, 1)});
    EXPECT_EQ(talk::pauses_ms(), (std::vector<uint64_t>{30, 30}));
}

TEST(LedThroughSensor, BinaryDigits) {
    EXPECT_EQ(printed_by([] { convert_number_to_binary(5); }), "101");
    EXPECT_EQ(printed_by([] { convert_number_to_binary(0); }), "0");
    EXPECT_EQ(printed_by([] { convert_number_to_binary(-6); }), "-6");
}

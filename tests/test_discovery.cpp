#include <gtest/gtest.h>

#include "emulated_bus.h"
#include "lusb.h"
#include "orb_device_interface_stm_usb.h"

namespace {

const char kClaimLines[] = "[Info] Reading first configuration descriptor:\n[Info] nb interfaces: 1\n";

// Which emulated device a handle reaches: send it an identity read and see who logs it.
bool reaches(libusb_device_handle* handle, const orbsim::Sensor& sensor) {
    size_t before = sensor.requests().size();
    char buf[5];
    usb_control_msg(handle, 0xA1, 1, 0, 0, buf, 5, 1000);
    return sensor.requests().size() == before + 1;
}

}  // namespace

TEST(Discovery, NothingMatchingMeansNoSensor) {
    testbed().add_other_device(0x1234, 0x5678);
    std::string out = printed_by([] { EXPECT_EQ(connect_device(0u), 0); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(connect_device(), 0);
    EXPECT_EQ(get_connected_total_devices(), 0u);
}

TEST(Discovery, OpensAndClaimsTheSensorAtTheIndex) {
    testbed().add_other_device(0x1234, 0x5678);
    auto& first = testbed().add_sensor();
    auto& second = testbed().add_sensor();

    std::string out = printed_by([] { EXPECT_EQ(connect_device(1u), 1); });
    EXPECT_EQ(out, kClaimLines);
    ASSERT_NE(UsbDevHandle::pDevH[1], nullptr);
    EXPECT_TRUE(reaches(UsbDevHandle::pDevH[1], second));
    EXPECT_FALSE(reaches(UsbDevHandle::pDevH[1], first));

    // Interface 0 is claimed; no configuration is selected, no driver detached.
    EXPECT_TRUE(seen(second, orbsim::Event::SetConfiguration).empty());
    EXPECT_EQ(seen(second, orbsim::Event::Claim), std::vector<int>{0});
    EXPECT_EQ(get_connected_total_devices(), 1u);
}

TEST(Discovery, IndexBeyondTheSensorsFindsNothing) {
    testbed().add_sensor();
    testbed().add_sensor();
    EXPECT_EQ(connect_device(2u), 0);
    EXPECT_EQ(UsbDevHandle::pDevH.count(2), 0u);
}

// The LED module enumerates with the sensor's identity, so it takes an index.
TEST(Discovery, LedModuleIsCountedAsASensor) {
    auto& led = testbed().add_led_module();
    auto& sensor = testbed().add_sensor();
    ASSERT_EQ(connect_device(0u), 1);
    ASSERT_EQ(connect_device(1u), 1);
    EXPECT_TRUE(reaches(UsbDevHandle::pDevH[0], led));
    EXPECT_TRUE(reaches(UsbDevHandle::pDevH[1], sensor));
}

TEST(Discovery, RefusedDeviceNodeIsReported) {
    auto& sensor = testbed().add_sensor();
    testbed().refuse_open(sensor);
    std::string out;
    {
        orbsim::DropDacOverride not_root;
        out = printed_by([] { EXPECT_EQ(connect_device(0u), 0); });
    }
    EXPECT_EQ(out,
              "Device open failed due to a permission denied error.\n"
              "libusb requires write access to USB device nodes.\n"
              "could not open device, error -3\n");
    EXPECT_EQ(UsbDevHandle::pDevH.count(0), 0u);
}

TEST(Discovery, RefusedClaimLeavesANullHandleAndStillSucceeds) {
    auto& sensor = testbed().add_sensor();
    sensor.refuse_claim();
    std::string out = printed_by([] { EXPECT_EQ(connect_device(0u), 1); });
    EXPECT_EQ(out, kClaimLines);
    ASSERT_EQ(UsbDevHandle::pDevH.count(0), 1u);
    EXPECT_EQ(UsbDevHandle::pDevH[0], nullptr);
    // Requests to a sensor without a handle are refused, not crashed on.
    char buf[5];
    EXPECT_EQ(usb_control_msg(UsbDevHandle::pDevH[0], 0xA1, 1, 0, 0, buf, 5, 1000), -22);
}

// An index that already has an entry keeps it: a second connect does not
// replace the handle, and after a lookup inserted a null entry the device
// is opened but its handle cannot be stored.
TEST(Discovery, ExistingEntryIsNeverReplaced) {
    testbed().add_sensor();
    ASSERT_EQ(connect_device(0u), 1);
    libusb_device_handle* first = UsbDevHandle::pDevH[0];
    ASSERT_EQ(connect_device(0u), 1);
    EXPECT_EQ(UsbDevHandle::pDevH[0], first);

    EXPECT_EQ(disconnect_device(0u), 1);
    (void)UsbDevHandle::pDevH[0];
    std::string out = printed_by([] { EXPECT_EQ(connect_device(0u), 1); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(UsbDevHandle::pDevH[0], nullptr);
}

TEST(Discovery, DisconnectForgetsTheHandleWithoutClosingIt) {
    auto& sensor = testbed().add_sensor();
    ASSERT_EQ(connect_device(0u), 1);
    libusb_device_handle* handle = UsbDevHandle::pDevH[0];
    EXPECT_EQ(disconnect_device(0u), 1);
    EXPECT_EQ(UsbDevHandle::pDevH.count(0), 0u);
    EXPECT_TRUE(reaches(handle, sensor));
    EXPECT_TRUE(seen(sensor, orbsim::Event::Release).empty());

    // Disconnecting an index never connected looks it up, which leaves a null entry.
    EXPECT_EQ(disconnect_device(7u), 1);
    EXPECT_EQ(UsbDevHandle::pDevH.count(7), 1u);
}

TEST(Discovery, LookingUpAnIndexGrowsTheTable) {
    EXPECT_EQ(get_connected_total_devices(), 0u);
    EXPECT_EQ(UsbDevHandle::pDevH[5], nullptr);
    EXPECT_EQ(get_connected_total_devices(), 1u);
}

TEST(Discovery, ConnectAllNumbersClaimedSensors) {
    auto& a = testbed().add_sensor();
    auto& b = testbed().add_sensor();
    auto& c = testbed().add_sensor();
    std::string out = printed_by([] { EXPECT_EQ(connect_device(), 1); });
    EXPECT_EQ(out, "");
    ASSERT_EQ(get_connected_total_devices(), 3u);
    EXPECT_TRUE(reaches(UsbDevHandle::pDevH[0], a));
    EXPECT_TRUE(reaches(UsbDevHandle::pDevH[1], b));
    EXPECT_TRUE(reaches(UsbDevHandle::pDevH[2], c));
}

// After a refused claim the next sensor lands on the same, now null, key and
// its handle is lost.
TEST(Discovery, ConnectAllLosesTheSensorAfterARefusedClaim) {
    testbed().add_sensor();
    testbed().add_sensor().refuse_claim();
    testbed().add_sensor();
    EXPECT_EQ(connect_device(), 1);
    EXPECT_EQ(get_connected_total_devices(), 2u);
    EXPECT_NE(UsbDevHandle::pDevH[0], nullptr);
    EXPECT_EQ(UsbDevHandle::pDevH[1], nullptr);
}

TEST(Discovery, ConnectAllFailsWhenTheFirstClaimIsRefused) {
    testbed().add_sensor().refuse_claim();
    EXPECT_EQ(connect_device(), 0);
}

TEST(Discovery, IndexBookkeepingAndPlaceholders) {
    EXPECT_EQ(set_device_index(3u), 1);
    EXPECT_EQ(UsbDevId::currentDevId[3], 3);
    EXPECT_EQ(connect_device(0x0483, 0x5740, 0u), 0);
    unsigned int index = 0;
    EXPECT_EQ(reconnect_device(index, nullptr, nullptr, true), 1);
    EXPECT_EQ(maxNumOfDevice, 256);
}

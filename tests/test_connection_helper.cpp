// Connecting sensors by index through the process-wide registry, and finding
// them again by index or by ID text.

#include <gtest/gtest.h>

#include "orb_device_interface_base.h"
#include "orb_device_interface_stm_usb_connection_helper.h"
#include "sensor_conversation.h"

using helper = orb_device_usb_connection_helper;

TEST(ConnectionHelper, ScanConnectsSensorsInBusOrderAndRecordsTheirIds) {
    orbsim::Sensor& first = testbed().add_sensor();
    testbed().add_sensor();
    g_bEnableSpatialFiltering = true;
    helper h;
    int n = 0;
    printed_by([&] { n = h.connect_multiple_devices(true, 0); });
    EXPECT_EQ(n, 2);
    // Connecting turns spatial filtering off and sets ADC range 132, gain 1
    // (bit 1 of register 20), resolution 0.
    EXPECT_FALSE(g_bEnableSpatialFiltering);
    EXPECT_EQ(g_iSpatialFilterSize, 0);
    EXPECT_EQ(first.reg(19), 132);
    EXPECT_EQ(first.reg(20), 2);
    EXPECT_EQ(h.get_connected_device_number(), 2);
    EXPECT_EQ(helper::sidMap, (sensorIdMap{{0, "C1234-7-20-33-1"}, {1, "C1234-7-21-33-1"}}));
    EXPECT_TRUE(h.is_sensor_connected(1));
    EXPECT_EQ(helper::m_pSpecDevice.count(2), 0u);  // index 2 failed and was dropped
    EXPECT_EQ(h.get_sensor_id(0), "");

    std::string id = "C1234-7-21-33-1";
    EXPECT_EQ(h.get_one_device_interface(0, id), helper::m_pSpecDevice[1]);
    std::string learnt;
    EXPECT_EQ(h.get_one_device_interface(0, learnt), helper::m_pSpecDevice[0]);
    EXPECT_EQ(learnt, "C1234-7-20-33-1");
    std::string absent;
    EXPECT_EQ(h.get_one_device_interface(5, absent), nullptr);
    EXPECT_EQ(absent, "");

    // Disconnecting one sensor forgets every recorded ID text.
    EXPECT_TRUE(printed_by([&] { EXPECT_TRUE(h.disconnect_multiple_devices(false, 1)); }).empty());
    EXPECT_TRUE(helper::sidMap.empty());
    EXPECT_EQ(h.get_connected_device_number(), 0);
    EXPECT_FALSE(h.is_sensor_connected(1));
    EXPECT_TRUE(h.is_sensor_connected(0));

    // Sensor 0 is still connected, so a second scan ends at once.
    EXPECT_EQ(printed_by([&] { n = h.connect_multiple_devices(true, 0); }),
              ">>>>>>>>>>>>>>>> Sensor device is already connected!!\n");
    EXPECT_EQ(n, 0);
    EXPECT_TRUE(helper::sidMap.empty());

    bool disconnected = false;
    printed_by([&] { disconnected = h.disconnect_multiple_devices(true, 0); });
    EXPECT_TRUE(disconnected);
    EXPECT_FALSE(h.is_sensor_connected(0));
    EXPECT_EQ(helper::m_pSpecDevice.count(0), 0u);
}

TEST(ConnectionHelper, EmptyRegistryRefusesAndLookupsInsertEntries) {
    testbed();
    helper h;
    printed_by([&] { EXPECT_EQ(h.connect_multiple_devices(false, 0), 0); });
    EXPECT_EQ(helper::m_pSpecDevice.count(0), 0u);
    EXPECT_TRUE(helper::sensorConnectionStatus.empty());
    EXPECT_FALSE(h.disconnect_multiple_devices(true, 0));

    EXPECT_FALSE(h.is_sensor_connected(7));
    EXPECT_EQ(helper::sensorConnectionStatus.count(7), 1u);
    helper fresh;
    EXPECT_TRUE(helper::sensorConnectionStatus.empty());
}

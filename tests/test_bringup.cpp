// Bringing a sensor index into service and out again, as the emulated
// sensors see it.

#include <gtest/gtest.h>

#include "orb_device_interface_led.h"
#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"

using talk::cmd;
using talk::stream;
using E = orbsim::Event;
using talk::Requests;

namespace {

std::vector<E::Kind> kinds(const orbsim::Sensor& s) {
    std::vector<E::Kind> k;
    for (const auto& e : s.events()) k.push_back(e.kind);
    return k;
}

int bring_up(unsigned int index) {
    int status = 0;
    printed_by([&] { status = initialize_device_interface(index); });
    return status;
}

}  // namespace

TEST(BringUp, WithoutItsSensorAnIndexFailsButTheLedModuleIsStillOpened) {
    orbsim::Sensor& module = testbed().add_led_module();
    EXPECT_EQ(bring_up(1), 6);
    EXPECT_EQ(is_led_driver_open(), 1);
    EXPECT_EQ(kinds(module), std::vector<E::Kind>{E::Open});
    EXPECT_FALSE(asyncTransferInitialized);  // only index 0 starts the event loop
}

TEST(BringUp, FullSequenceOnTheWireThenFramesThenShutDown) {
    orbsim::Sensor& s = testbed().add_sensor();
    s.set_frame_generator(orbsim::counter_frames());
    EXPECT_EQ(bring_up(0), 1);

    const Requests init = {cmd(19, 132), cmd(20, 0), cmd(35), cmd(40), cmd(37, 0), cmd(5, 1),
                           cmd(36),      cmd(4),     cmd(34, 0), cmd(33, 2), cmd(39), cmd(38)};
    const Requests settings = {cmd(3, 3),  cmd(19, 132), cmd(20, 2), cmd(35),
                               cmd(40),    cmd(54, 0),   cmd(53),    stream(71)};
    EXPECT_SAID(s, talk::join({init, settings}));
    // The LED driver is this very sensor, opened a second time after the
    // sensor's own commands and before streaming is stopped.
    std::vector<E::Kind> expected = {E::Open, E::Claim};
    expected.insert(expected.end(), init.size() + settings.size() - 1, E::Control);
    expected.insert(expected.end(), {E::Open, E::Control});
    EXPECT_EQ(kinds(s), expected);
    EXPECT_TRUE(asyncTransferInitialized);
    EXPECT_EQ(allocTransferBulkMap.size(), static_cast<size_t>(maxNumOfDevice));
    EXPECT_TRUE(allocTransferBulkMap[0]);

    std::vector<double> frame(1024);
    printed_by([&] { get_filter_data_from_sensor(frame.data(), 2, 0, 0, 0); });
    EXPECT_EQ(frame[0], 3.5);  // frames 3 and 4: the first two of a fresh stream are dropped

    s.clear_log();
    vclock::reset();
    EXPECT_EQ(close_device_interface(0), 1);
    // Only the sensor stop reaches it: the stream stops find no handle.
    EXPECT_SAID(s, {cmd(3, 1)});
    EXPECT_EQ(seen(s, E::SetConfiguration), std::vector<int>{-1});  // the LED driver's close
    EXPECT_EQ(talk::pauses_ms(), (std::vector<uint64_t>{10, 20, 20, 10}));
    EXPECT_EQ(do_exit, 1);
    EXPECT_EQ(is_led_driver_open(), 0);

    // The index is back in the table with a null handle, which a later
    // connection cannot replace.
    ASSERT_EQ(UsbDevHandle::pDevH.count(0), 1u);
    EXPECT_EQ(UsbDevHandle::pDevH[0], nullptr);
    printed_by([] { EXPECT_EQ(connect_device(0u), 1); });
    EXPECT_EQ(UsbDevHandle::pDevH[0], nullptr);
}

TEST(BringUp, OnlySensorsBroughtUpAfterIndexZeroGetAFrameTransfer) {
    orbsim::Sensor& first = testbed().add_sensor();
    orbsim::Sensor& second = testbed().add_sensor();
    EXPECT_EQ(bring_up(1), 1);
    EXPECT_TRUE(allocTransferBulkMap.empty());
    EXPECT_EQ(second.requests().back(), cmd(53));  // no stream stop without the event loop

    EXPECT_EQ(bring_up(0), 1);
    EXPECT_EQ(first.requests().back(), stream(71));
    EXPECT_FALSE(allocTransferBulkMap[1]);

    EXPECT_EQ(bring_up(1), 1);
    EXPECT_TRUE(allocTransferBulkMap[1]);
    EXPECT_EQ(second.requests().back(), stream(71));
}

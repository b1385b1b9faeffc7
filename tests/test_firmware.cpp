// The controller's firmware commands, as the emulated sensor receives them.

#include <gtest/gtest.h>

#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"

using talk::cmd;
using talk::Requests;

namespace {

Requests twice(Requests r) {
    r.insert(r.end(), r.begin(), r.end());
    return r;
}

const Requests kAdc = {cmd(19, 132), cmd(20, 0), cmd(35), cmd(40)};
const Requests kShutter = {cmd(37, 0), cmd(5, 1), cmd(36), cmd(4)};
const Requests kBlank = {cmd(34, 0), cmd(33, 2), cmd(39), cmd(38)};

}  // namespace

TEST(Firmware, InitializeSensorWritesDefaultsAndRepeatsEachPairThatReadsBackWrong) {
    orbsim::Sensor& s = talk::connected_sensor();
    EXPECT_EQ(initialize_sensor(0), 1);
    EXPECT_SAID(s, talk::join({kAdc, kShutter, kBlank}));
    EXPECT_EQ(talk::pauses_ms(), std::vector<uint64_t>(12, 30));
    EXPECT_EQ(s.shutter(), 1);
    EXPECT_EQ(iCurBlankTime, 2);
    EXPECT_EQ(iSuccessCount, 1);

    // A wrong ADC echo repeats that pair but counts as a success: only the
    // shutter is counted.
    s.clear_log();
    s.echo_wrong(40, 7);
    initialize_sensor(0);
    EXPECT_SAID(s, talk::join({twice(kAdc), kShutter, kBlank}));
    EXPECT_EQ(iSuccessCount, 2);

    s.clear_log();
    s.echo_wrong(4, 0);
    s.echo_wrong(39, 9);
    initialize_sensor(0);
    EXPECT_EQ(s.requests().size(), 24u);
    EXPECT_EQ(iTotalCount, 3);
    EXPECT_EQ(iFailCount, 1);
}

TEST(Firmware, ControlTransferShapesEachCodeAndAnswersTheFirstByte) {
    orbsim::Sensor& s = talk::connected_sensor();
    EXPECT_EQ(do_control_transfer(37, 0x1AB, 0), 0xAB);  // a write answers the stored byte
    EXPECT_EQ(do_control_transfer(36, 55, 0), 0xAB);     // a read sends no value
    EXPECT_EQ(do_control_transfer(1, 9, 0), 1);          // identity: 1, whatever its first byte
    for (int code : {2, 27, 11, 8, 12, 13}) do_control_transfer(code, 9, 0);
    EXPECT_EQ(do_control_transfer(56, 0x42, 0), 0x42);
    EXPECT_SAID(s, {cmd(37, 0x1AB), cmd(36), cmd(1, 0, 5), cmd(2, 0, 2048), cmd(27, 0, 2048), cmd(11, 0, 2048),
                    cmd(8, 0, 4), cmd(12, 0, 12), cmd(13, 0, 12), cmd(56, 0x42)});
    EXPECT_TRUE(talk::pauses_ms().empty());

    // Unknown codes, and an index without a sensor, send nothing and yield 1;
    // the lookup leaves an empty entry behind.
    s.clear_log();
    for (int code : {0, 9, 41, 45, 49, 52, 100, 256, -3}) EXPECT_EQ(do_control_transfer(code, 1, 0), 1) << code;
    EXPECT_EQ(do_control_transfer(36, 0, 7), 1);
    EXPECT_TRUE(s.requests().empty());
    EXPECT_EQ(UsbDevHandle::pDevH.count(7), 1u);

    // A failed transfer leaves the zeroed reply.
    s.stall(4);
    s.stall(255);
    EXPECT_EQ(do_control_transfer(4, 0, 0), 0);
    EXPECT_EQ(do_control_transfer(255, 3, 0), 0);

    // Commands of a firmware generation that never shipped do nothing.
    s.clear_log();
    send_command_to_device(1, 0, 0);
    EXPECT_TRUE(read_from_device(1, 0, 0));
    EXPECT_EQ(get_current_shutter_speed(), 1);
    EXPECT_TRUE(s.requests().empty());
}

TEST(Firmware, RegisterNumbersReachTheirCodes) {
    orbsim::Sensor& s = talk::connected_sensor();
    s.set_reg(37, 0x12);
    // 5-8 and 11 are inert registers (1, nothing sent); beyond 11, 0.
    std::vector<int> got;
    for (unsigned char reg = 0; reg <= 12; reg++) got.push_back(read_register_data(reg, 0));
    EXPECT_EQ(got, (std::vector<int>{0, 0x12, 0, 0, 0, 1, 1, 1, 1, 0, 0, 1, 0}));
    for (unsigned char reg = 0; reg <= 11; reg++) write_register_data(reg, reg + 0xA0, 0);
    EXPECT_SAID(s, {cmd(36), cmd(4), cmd(39), cmd(38), cmd(35), cmd(40), cmd(37, 0xA1), cmd(5, 0xA2), cmd(34, 0xA3),
                    cmd(33, 0xA4), cmd(19, 0xA9), cmd(20, 0xAA)});
}

TEST(Firmware, StartStopAndAcquisitionMode) {
    orbsim::Sensor& s = talk::connected_sensor();
    EXPECT_EQ(start_sensor(0), 1);
    EXPECT_EQ(stop_sensor(0), 1);
    EXPECT_SAID(s, {cmd(3, 3), cmd(3, 1)});
    EXPECT_EQ(talk::pauses_ms(), (std::vector<uint64_t>{10, 10}));

    // The mode is not a register: the default blank time is rewritten,
    // once more on a wrong echo, and nothing is counted.
    s.clear_log();
    EXPECT_EQ(set_frame_data_acq_mode(7, 0), 1);
    s.echo_wrong(38, 0);
    EXPECT_EQ(set_frame_data_acq_mode(0, 0), 1);
    EXPECT_SAID(s, talk::join({kBlank, twice(kBlank)}));
    EXPECT_EQ(iTotalCount + iFailCount, 0);
}

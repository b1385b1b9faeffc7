// The controller's firmware commands, as the emulated sensor receives them.

#include <gtest/gtest.h>

#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"

using talk::cmd;

namespace {

const std::vector<uint64_t> kTwelvePauses(12, 30);

const std::vector<orbsim::ControlRequest> kInitialisation = {
    cmd(19, 132), cmd(20, 0), cmd(35), cmd(40),  // ADC range 132, gain and resolution 0
    cmd(37, 0),   cmd(5, 1),  cmd(36), cmd(4),   // shutter speed 1
    cmd(34, 0),   cmd(33, 2), cmd(39), cmd(38),  // blank time 2
};

}  // namespace

TEST(Firmware, InitializeSensorWritesDefaultsAndRepeatsEachPairThatReadsBackWrong) {
    orbsim::Sensor& s = talk::connected_sensor();

    EXPECT_EQ(initialize_sensor(0), 1);
    EXPECT_SAID(s, kInitialisation);
    EXPECT_EQ(talk::pauses_ms(), kTwelvePauses);
    EXPECT_EQ(s.reg(19), 132);
    EXPECT_EQ(s.shutter(), 1);
    EXPECT_EQ(s.reg(33), 2);
    EXPECT_EQ(iCurBlankTime, 2);
    EXPECT_EQ(iTotalCount, 1);
    EXPECT_EQ(iSuccessCount, 1);
    EXPECT_EQ(iFailCount, 0);

    // Only the ADC reads back wrong: that pair goes out twice, and the
    // outcome is still counted a success, since only the shutter counts.
    s.clear_log();
    s.echo_wrong(40, 7);
    initialize_sensor(0);
    std::vector<orbsim::ControlRequest> adc_twice(kInitialisation.begin(), kInitialisation.begin() + 4);
    adc_twice.insert(adc_twice.end(), kInitialisation.begin(), kInitialisation.end());
    EXPECT_SAID(s, adc_twice);
    EXPECT_EQ(iSuccessCount, 2);

    // Nothing reads back right: every pair twice, 24 requests, one failure.
    s.clear_log();
    s.echo_wrong(35, 0);
    s.echo_wrong(4, 0);
    s.echo_wrong(39, 9);
    initialize_sensor(0);
    EXPECT_EQ(s.requests().size(), 24u);
    EXPECT_EQ(iTotalCount, 3);
    EXPECT_EQ(iSuccessCount, 2);
    EXPECT_EQ(iFailCount, 1);
}

TEST(Firmware, ControlTransferShapesEachCodeAndAnswersTheFirstByte) {
    orbsim::Sensor& s = talk::connected_sensor();

    EXPECT_EQ(do_control_transfer(37, 0x1AB, 0), 0xAB);  // a write answers the stored byte
    EXPECT_EQ(do_control_transfer(36, 55, 0), 0xAB);     // a read sends no value
    EXPECT_EQ(do_control_transfer(1, 9, 0), 1);          // identity: 1, whatever its first byte
    do_control_transfer(2, 9, 0);
    do_control_transfer(27, 0, 0);
    do_control_transfer(11, 0, 0);
    do_control_transfer(8, 0, 0);
    do_control_transfer(12, 0, 0);
    do_control_transfer(13, 0, 0);
    EXPECT_EQ(do_control_transfer(56, 0x42, 0), 0x42);  // carries its value like a write
    EXPECT_SAID(s, {cmd(37, 0x1AB), cmd(36), cmd(1, 0, 5), cmd(2, 0, 2048), cmd(27, 0, 2048), cmd(11, 0, 2048),
                    cmd(8, 0, 4), cmd(12, 0, 12), cmd(13, 0, 12), cmd(56, 0x42)});
    EXPECT_TRUE(talk::pauses_ms().empty());

    // Codes the controller does not implement send nothing and yield 1.
    s.clear_log();
    for (int code : {0, 9, 41, 42, 45, 49, 52, 100, 256, -3}) EXPECT_EQ(do_control_transfer(code, 1, 0), 1) << code;
    EXPECT_TRUE(s.requests().empty());

    // A failed transfer leaves the zeroed reply.
    s.stall(4);
    s.stall(255);
    EXPECT_EQ(do_control_transfer(4, 0, 0), 0);
    EXPECT_EQ(do_control_transfer(255, 3, 0), 0);

    // An index without a sensor: nothing is sent, the answer is 1, and the
    // lookup leaves an empty entry behind.
    s.clear_log();
    EXPECT_EQ(do_control_transfer(36, 0, 7), 1);
    EXPECT_EQ(do_control_transfer(37, 5, 4000000000u), 1);
    EXPECT_TRUE(s.requests().empty());
    EXPECT_EQ(UsbDevHandle::pDevH.count(7), 1u);
    EXPECT_EQ(UsbDevHandle::pDevH[7], nullptr);
}

TEST(Firmware, RegisterNumbersReachTheirCodes) {
    orbsim::Sensor& s = talk::connected_sensor();
    s.set_reg(37, 0x12);
    s.set_reg(19, 0x41);

    EXPECT_EQ(read_register_data(1, 0), 0x12);
    EXPECT_EQ(read_register_data(9, 0), 0x41);
    for (unsigned char reg : {2, 3, 4, 10}) read_register_data(reg, 0);
    EXPECT_SAID(s, {cmd(36), cmd(35), cmd(4), cmd(39), cmd(38), cmd(40)});

    // Registers 5-8 and 11 are inert: 1 without a request. Beyond them, 0.
    s.clear_log();
    for (unsigned char reg : {5, 6, 7, 8, 11}) EXPECT_EQ(read_register_data(reg, 0), 1) << int(reg);
    for (unsigned char reg : {0, 12, 255}) EXPECT_EQ(read_register_data(reg, 0), 0) << int(reg);
    EXPECT_TRUE(s.requests().empty());

    for (unsigned char reg = 0; reg <= 11; reg++) write_register_data(reg, reg + 0xA0, 0);
    EXPECT_SAID(s, {cmd(37, 0xA1), cmd(5, 0xA2), cmd(34, 0xA3), cmd(33, 0xA4), cmd(19, 0xA9), cmd(20, 0xAA)});
}

TEST(Firmware, StartAndStopAreOperationCommandsFollowedBy10ms) {
    orbsim::Sensor& s = talk::connected_sensor();
    EXPECT_EQ(start_sensor(0), 1);
    EXPECT_EQ(stop_sensor(0), 1);
    EXPECT_SAID(s, {cmd(3, 3), cmd(3, 1)});
    EXPECT_EQ(talk::pauses_ms(), (std::vector<uint64_t>{10, 10}));

    // Without a sensor the pause is still taken.
    s.clear_log();
    vclock::reset();
    start_sensor(3);
    EXPECT_TRUE(s.requests().empty());
    EXPECT_EQ(talk::pauses_ms(), (std::vector<uint64_t>{10}));
}

TEST(Firmware, AcquisitionModeOnlyRewritesTheDefaultBlankTime) {
    orbsim::Sensor& s = talk::connected_sensor();
    const std::vector<orbsim::ControlRequest> blank = {cmd(34, 0), cmd(33, 2), cmd(39), cmd(38)};

    EXPECT_EQ(set_frame_data_acq_mode(7, 0), 1);
    EXPECT_SAID(s, blank);
    EXPECT_EQ(talk::pauses_ms(), (std::vector<uint64_t>{30, 30, 30, 30}));

    s.clear_log();
    s.echo_wrong(38, 0);
    EXPECT_EQ(set_frame_data_acq_mode(0, 0), 1);
    std::vector<orbsim::ControlRequest> twice = blank;
    twice.insert(twice.end(), blank.begin(), blank.end());
    EXPECT_SAID(s, twice);
    EXPECT_EQ(iTotalCount, 0);
    EXPECT_EQ(iFailCount, 0);
}

TEST(Firmware, UnshippedCommandsDoNothing) {
    orbsim::Sensor& s = talk::connected_sensor();
    send_command_to_device(1, 0, 0);
    EXPECT_TRUE(read_from_device(1, 0, 0));
    EXPECT_EQ(get_current_shutter_speed(), 1);
    EXPECT_TRUE(s.requests().empty());
    EXPECT_TRUE(talk::pauses_ms().empty());
}

// Exposure, ADC and on-board settings, as the emulated sensor receives them.

#include <gtest/gtest.h>

#include <climits>

#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_onboard_processings.h"
#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"

using talk::cmd;
using Pauses = std::vector<uint64_t>;

TEST(Settings, ShutterSpeedGoesWithItsBlankTimeIsVerifiedAndSettles) {
    orbsim::Sensor& s = talk::connected_sensor();

    EXPECT_EQ(set_shutter_speed_to_sensor(1000, 0), 1);
    // Blank time 1032 first, then the shutter bytes, then both read back.
    EXPECT_SAID(s, {cmd(34, 0x04), cmd(33, 0x08), cmd(37, 0x03), cmd(5, 0xE8), cmd(36), cmd(4)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{5, 5, 5, 5, 5, 5, 732}));
    EXPECT_EQ(s.shutter(), 1000);
    EXPECT_EQ(g_iCurShutterSpeed, 1000);
    EXPECT_EQ(iCurBlankTime, 1032);
    EXPECT_EQ(iTotalCount, 1);
    EXPECT_EQ(iSuccessCount, 1);

    // A wrong echo: the shutter bytes (not the blank time) go out twice,
    // one more failure is counted, and the call still succeeds.
    s.clear_log();
    vclock::reset();
    s.echo_wrong(4, 0);
    EXPECT_EQ(set_shutter_speed_to_sensor(1000, 0), 1);
    EXPECT_SAID(s, {cmd(34, 0x04), cmd(33, 0x08), cmd(37, 0x03), cmd(5, 0xE8), cmd(36), cmd(4), cmd(37, 0x03),
                    cmd(5, 0xE8), cmd(36), cmd(4)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 732}));
    EXPECT_EQ(iTotalCount, 2);
    EXPECT_EQ(iFailCount, 1);

    // Above 16 bits the bytes echo fine but can never make up the value:
    // written once, counted a failure.
    s.clear_faults();
    s.clear_log();
    set_shutter_speed_to_sensor(0x11170, 0);
    EXPECT_SAID(s, {cmd(34, 0x11), cmd(33, 0x90), cmd(37, 0x11), cmd(5, 0x70), cmd(36), cmd(4)});
    EXPECT_EQ(iFailCount, 2);
}

TEST(Settings, ShutterSpeedFromAHostIsNeverFatal) {
    orbsim::Sensor& s = talk::connected_sensor();

    // A negative speed writes its low 16 bits and has no blank period to wait.
    EXPECT_EQ(set_shutter_speed_to_sensor(-100, 0), 1);
    EXPECT_EQ(s.shutter(), 0xFF9C);
    EXPECT_EQ(talk::pauses_ms(), (Pauses{5, 5, 5, 5, 5, 5}));

    // The largest int wraps its blank time instead of overflowing.
    EXPECT_EQ(set_shutter_speed_to_sensor(INT_MAX, 0), 1);
    EXPECT_EQ(iCurBlankTime, INT_MIN + 31);
    EXPECT_EQ(g_iCurShutterSpeed, INT_MAX);
}

TEST(Settings, ShutterSpeedReadBackSettlesOnTheValueRead) {
    orbsim::Sensor& s = talk::connected_sensor();
    s.set_reg(37, 0x03);
    s.set_reg(5, 0xE8);

    int speed = 0;
    EXPECT_EQ(get_shutter_speed_from_sensor(&speed, 0), 1);
    EXPECT_EQ(speed, 1000);
    EXPECT_SAID(s, {cmd(36), cmd(4)});
    // 10 ms between the bytes, then 1000 * 0.7 + 10, not the blank time's 732.
    EXPECT_EQ(talk::pauses_ms(), (Pauses{10, 710}));

    speed = 0;
    EXPECT_EQ(get_current_shutter_speed(&speed, 0), 1);
    EXPECT_EQ(speed, 1000);

    // No place to put it: the sensor is still asked, nothing breaks.
    s.clear_log();
    EXPECT_EQ(get_shutter_speed_from_sensor(nullptr, 0), 1);
    EXPECT_EQ(s.requests().size(), 2u);
}

TEST(Settings, BlankTimeIsWrittenWithoutReadBack) {
    orbsim::Sensor& s = talk::connected_sensor();

    EXPECT_EQ(set_blank_time_to_sensor(1032, 0), 1);
    EXPECT_SAID(s, {cmd(34, 0x04), cmd(33, 0x08)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{30, 30, 732}));
    EXPECT_EQ(iCurBlankTime, 1032);
    EXPECT_EQ(iTotalCount, 0);

    s.clear_log();
    vclock::reset();
    s.set_reg(34, 0x01);
    s.set_reg(33, 0x02);
    int blank = 0;
    EXPECT_EQ(get_blank_time_from_sensor(&blank, 0), 1);
    EXPECT_SAID(s, {cmd(39), cmd(38)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{30, 30}));
    EXPECT_EQ(blank, 0x102);
    EXPECT_EQ(iCurBlankTime, 0x102);
    EXPECT_EQ(get_blank_time_from_sensor(nullptr, 0), 1);
}

TEST(Settings, AdcSettingsPackGainAndResolutionIntoOneRegister) {
    orbsim::Sensor& s = talk::connected_sensor();

    EXPECT_EQ(set_adc_setting_values(65, 1, 1, 0), 1);
    EXPECT_SAID(s, {cmd(19, 65), cmd(20, 3), cmd(35), cmd(40)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{30, 30, 30, 30}));
    EXPECT_EQ(iTotalCount, 1);
    EXPECT_EQ(iSuccessCount, 1);

    // A wrong echo: all four once more, one failure, still success.
    s.clear_log();
    s.echo_wrong(35, 0);
    EXPECT_EQ(set_adc_setting_values(65, 1, 1, 0), 1);
    EXPECT_SAID(s, {cmd(19, 65), cmd(20, 3), cmd(35), cmd(40), cmd(19, 65), cmd(20, 3), cmd(35), cmd(40)});
    EXPECT_EQ(iFailCount, 1);

    // Reading back: gain is bit 1, resolution bit 0, logged with the index.
    s.clear_faults();
    s.clear_log();
    vclock::reset();
    unsigned char range = 0, gain = 0, res = 0;
    std::string out = printed_by([&] { EXPECT_EQ(get_adc_setting_values(&range, &gain, &res, 0), 1); });
    EXPECT_EQ(out, "[STM] ADC range: 65, Gain: 1, Res: 1, Device Id: 0\n");
    EXPECT_SAID(s, {cmd(35), cmd(40)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{30, 30}));
    EXPECT_EQ(range, 65);
    EXPECT_EQ(gain, 1);
    EXPECT_EQ(res, 1);

    s.set_reg(20, 0x02);
    printed_by([&] { get_adc_setting_values(&range, &gain, &res, 0); });
    EXPECT_EQ(gain, 1);
    EXPECT_EQ(res, 0);
    printed_by([] { EXPECT_EQ(get_adc_setting_values(nullptr, nullptr, nullptr, 0), 1); });
}

TEST(Settings, SettingsOfAnIndexWithoutSensorSendNothingAndSucceed) {
    orbsim::Sensor& s = talk::connected_sensor();
    int value = -1;
    EXPECT_EQ(set_shutter_speed_to_sensor(10, 5), 1);
    EXPECT_EQ(set_adc_setting_values(65, 0, 0, 5), 1);
    // Absent replies read as 1: the shutter is 257.
    EXPECT_EQ(get_shutter_speed_from_sensor(&value, 5), 1);
    EXPECT_EQ(value, 257);
    EXPECT_TRUE(s.requests().empty());
}

TEST(OnBoard, FrameAverageCountIsARegisterWith20msPauses) {
    orbsim::Sensor& s = talk::connected_sensor();
    set_frame_average_count_for_on_board_processing(8, 0);
    EXPECT_EQ(get_frame_average_count_for_on_board_processing(0), 8);
    EXPECT_SAID(s, {cmd(54, 8), cmd(53)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{20, 20}));
}

TEST(OnBoard, DarkCorrectionAndRegionsOfInterestAreAcceptedAndIgnored) {
    orbsim::Sensor& s = talk::connected_sensor();
    std::vector<int> poi = {1, 2, 3};
    std::vector<double> background = {0.5};
    int frame[4] = {7, 7, 7, 7};

    EXPECT_EQ(set_dark_correction_mode_for_on_board_processing(true, 0), 1);
    EXPECT_FALSE(get_dark_correction_mode_for_on_board_processing(0));
    EXPECT_EQ(get_dark_frame_for_on_board_processing(0), 1);
    EXPECT_EQ(get_roi_info_from_sensor(poi, 0), 1);
    EXPECT_EQ(set_roi_info_to_sensor(poi, 0), 1);
    EXPECT_EQ(get_roi_data_from_sensor(poi, 3, background, 0), 1);
    EXPECT_EQ(acquire_sub_frame_data(frame, 1, 0), 0.0);
    EXPECT_EQ(write_roi_info_to_fw(60, 1, 0), 1);
    EXPECT_EQ(read_roi_info_from_fw(61, 1, 0), 1);
    EXPECT_TRUE(get_roi_info_from_sensor(62, 1, 0u).empty());
    EXPECT_EQ(set_roi_info_to_sensor(63, poi, 0u), 1);

    EXPECT_EQ(poi, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(background, (std::vector<double>{0.5}));
    EXPECT_EQ(frame[0], 7);
    EXPECT_TRUE(s.requests().empty());
    EXPECT_TRUE(talk::pauses_ms().empty());
}

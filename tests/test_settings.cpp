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
    const talk::Requests shutter = {cmd(37, 0x03), cmd(5, 0xE8), cmd(36), cmd(4)};

    // Blank time 1032 first, then the shutter bytes, read back; then the
    // blank period, 1032 * 0.7 + 10 ms.
    EXPECT_EQ(set_shutter_speed_to_sensor(1000, 0), 1);
    EXPECT_SAID(s, talk::join({{cmd(34, 0x04), cmd(33, 0x08)}, shutter}));
    EXPECT_EQ(talk::pauses_ms(), (Pauses{5, 5, 5, 5, 5, 5, 732}));
    EXPECT_EQ(s.shutter(), 1000);
    EXPECT_EQ(g_iCurShutterSpeed, 1000);
    EXPECT_EQ(iCurBlankTime, 1032);
    EXPECT_EQ(iSuccessCount, 1);

    // A wrong echo: the shutter bytes, not the blank time, go out twice.
    s.clear_log();
    vclock::reset();
    s.echo_wrong(4, 0);
    EXPECT_EQ(set_shutter_speed_to_sensor(1000, 0), 1);
    EXPECT_SAID(s, talk::join({{cmd(34, 0x04), cmd(33, 0x08)}, shutter, shutter}));
    EXPECT_EQ(talk::pauses_ms(), (Pauses{5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 732}));
    EXPECT_EQ(iFailCount, 1);

    // Above 16 bits the bytes echo fine but never make up the value.
    s.clear_faults();
    s.clear_log();
    set_shutter_speed_to_sensor(0x11170, 0);
    EXPECT_EQ(s.requests().size(), 6u);
    EXPECT_EQ(iTotalCount, 3);
    EXPECT_EQ(iFailCount, 2);

    // Hosts' extremes: a negative speed has no blank period to wait for, and
    // the largest int wraps its blank time instead of overflowing.
    vclock::reset();
    set_shutter_speed_to_sensor(-100, 0);
    EXPECT_EQ(s.shutter(), 0xFF9C);
    EXPECT_EQ(talk::pauses_ms(), (Pauses{5, 5, 5, 5, 5, 5, 0}));
    set_shutter_speed_to_sensor(INT_MAX, 0);
    EXPECT_EQ(iCurBlankTime, INT_MIN + 31);
}

TEST(Settings, ShutterSpeedReadBackSettlesOnTheValueRead) {
    orbsim::Sensor& s = talk::connected_sensor();
    s.set_reg(37, 0x03);
    s.set_reg(5, 0xE8);
    int speed = 0;
    EXPECT_EQ(get_current_shutter_speed(&speed, 0), 1);
    EXPECT_EQ(speed, 1000);
    EXPECT_SAID(s, {cmd(36), cmd(4)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{10, 710}));  // not the blank time's 732
    EXPECT_EQ(get_shutter_speed_from_sensor(nullptr, 0), 1);
}

TEST(Settings, BlankTimeIsWrittenWithoutReadBack) {
    orbsim::Sensor& s = talk::connected_sensor();
    EXPECT_EQ(set_blank_time_to_sensor(0x102, 0), 1);
    int blank = 0;
    EXPECT_EQ(get_blank_time_from_sensor(&blank, 0), 1);
    EXPECT_SAID(s, {cmd(34, 0x01), cmd(33, 0x02), cmd(39), cmd(38)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{30, 30, 190, 30, 30}));
    EXPECT_EQ(blank, 0x102);
    EXPECT_EQ(iCurBlankTime, 0x102);
    EXPECT_EQ(iTotalCount, 0);
    EXPECT_EQ(get_blank_time_from_sensor(nullptr, 0), 1);
}

TEST(Settings, AdcSettingsPackGainAndResolutionIntoOneRegister) {
    orbsim::Sensor& s = talk::connected_sensor();
    const talk::Requests adc = {cmd(19, 65), cmd(20, 3), cmd(35), cmd(40)};
    EXPECT_EQ(set_adc_setting_values(65, 1, 1, 0), 1);
    EXPECT_SAID(s, adc);
    EXPECT_EQ(talk::pauses_ms(), (Pauses{30, 30, 30, 30}));
    EXPECT_EQ(iSuccessCount, 1);

    s.clear_log();
    s.echo_wrong(35, 0);
    EXPECT_EQ(set_adc_setting_values(65, 1, 1, 0), 1);
    EXPECT_SAID(s, talk::join({adc, adc}));
    EXPECT_EQ(iFailCount, 1);

    // Gain is bit 1, resolution bit 0.
    s.clear_faults();
    s.set_reg(20, 0x02);
    unsigned char range = 0, gain = 0, res = 0;
    std::string out = printed_by([&] { EXPECT_EQ(get_adc_setting_values(&range, &gain, &res, 0), 1); });
    EXPECT_EQ(out, "[STM] ADC range: 65, Gain: 1, Res: 0, Device Id: 0\n");
    EXPECT_EQ(range + gain + res, 66);
    printed_by([] { EXPECT_EQ(get_adc_setting_values(nullptr, nullptr, nullptr, 0), 1); });
}

TEST(OnBoard, FrameAverageCountIsARegisterTheRestIsIgnored) {
    orbsim::Sensor& s = talk::connected_sensor();
    set_frame_average_count_for_on_board_processing(8, 0);
    EXPECT_EQ(get_frame_average_count_for_on_board_processing(0), 8);
    EXPECT_SAID(s, {cmd(54, 8), cmd(53)});
    EXPECT_EQ(talk::pauses_ms(), (Pauses{20, 20}));

    // Dark correction and regions of interest: accepted, nothing sent or touched.
    s.clear_log();
    std::vector<int> poi = {1, 2, 3};
    std::vector<double> background = {0.5};
    EXPECT_EQ(set_dark_correction_mode_for_on_board_processing(true, 0), 1);
    EXPECT_FALSE(get_dark_correction_mode_for_on_board_processing(0));
    EXPECT_EQ(get_roi_info_from_sensor(poi, 0) + get_roi_data_from_sensor(poi, 3, background, 0), 2);
    EXPECT_TRUE(get_roi_info_from_sensor(62, 1, 0u).empty());
    EXPECT_EQ(poi, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(background, (std::vector<double>{0.5}));
    EXPECT_TRUE(s.requests().empty());
}

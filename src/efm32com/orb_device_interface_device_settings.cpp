// Exposure and ADC settings of the sensor.

#include "orb_device_interface_device_settings.h"

#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include "orb_device_interface_led.h"
#include "orb_device_interface_stm.h"
#include "orb_device_interface_stm_usb.h"
#include "orb_error_codes.h"
#include "orb_exposure.h"
#include "orb_led_request.h"
#include "orb_stm_commands.h"

int g_iCurShutterSpeed = 1;
const unsigned char Efm32_ADCRangeList[3] = {65, 69, 73};

namespace {

// The LED module takes a new operation mode within 30 ms.
constexpr int kLedModePauseMs = 30;

// A frame is valid only after the sensor has run one blank period with the
// new setting: trunc(units * 0.7 + 10) ms.
void settle(int units) {
    double ms = units * 0.7 + 10.0;
    // A negative setting has no period to wait for.
    uint64_t whole_ms = ms > 0.0 ? static_cast<uint64_t>(ms) : 0;
    usleep(static_cast<useconds_t>(whole_ms * 1000));
}

unsigned char shutter_step(int code, int value, unsigned int index) {
    unsigned char reply = do_control_transfer(code, value, index);
    pause_ms(kShutterStepPauseMs);
    return reply;
}

unsigned char register_step(int code, int value, unsigned int index) {
    unsigned char reply = do_control_transfer(code, value, index);
    pause_ms(g_iSleepTime);
    return reply;
}

}  // namespace

int set_shutter_speed_to_sensor(int iShutterSpeedW, unsigned int iDeviceId) {
    g_iCurShutterSpeed = iShutterSpeedW;
    unsigned char upper = static_cast<unsigned char>(iShutterSpeedW >> 8);
    unsigned char lower = static_cast<unsigned char>(iShutterSpeedW);

    // Unsigned arithmetic: a host's INT_MAX wraps instead of overflowing.
    int blank = static_cast<int>(static_cast<unsigned int>(iShutterSpeedW) + kBlankTimeMargin);
    iCurBlankTime = blank;
    shutter_step(kWrBlankHigh, (blank >> 8) & 0xFF, iDeviceId);
    shutter_step(kWrBlankLow, blank & 0xFF, iDeviceId);

    unsigned char got_hi = 0;
    unsigned char got_lo = 0;
    for (int attempt = 0; attempt < 2; attempt++) {
        shutter_step(kWrShutterHigh, upper, iDeviceId);
        shutter_step(kWrShutterLow, lower, iDeviceId);
        got_hi = shutter_step(kRdShutterHigh, 0, iDeviceId);
        got_lo = shutter_step(kRdShutterLow, 0, iDeviceId);
        if (got_hi == upper && got_lo == lower) break;
    }

    iTotalCount++;
    // The registers hold 16 bits, so a larger request never reads back whole.
    if (got_hi * 256 + got_lo == iShutterSpeedW && got_hi == upper && got_lo == lower)
        iSuccessCount++;
    else
        iFailCount++;

    settle(blank);
    return vn_ec_success;
}

int get_shutter_speed_from_sensor(int* iCurSS, unsigned int iDeviceId) {
    int hi = do_control_transfer(kRdShutterHigh, 0, iDeviceId);
    pause_ms(10);
    int lo = do_control_transfer(kRdShutterLow, 0, iDeviceId);
    int value = hi * 256 + lo;
    // Settles on the value just read rather than on the blank time: a read
    // stands on its own and does not trust what the library last wrote.
    settle(value);
    if (iCurSS) *iCurSS = value;
    return vn_ec_success;
}

int get_current_shutter_speed(int* iShutterSpeed, unsigned int iDeviceId) {
    return get_shutter_speed_from_sensor(iShutterSpeed, iDeviceId);
}

int set_blank_time_to_sensor(int iBlankTime, unsigned int iDeviceId) {
    register_step(kWrBlankHigh, (iBlankTime >> 8) & 0xFF, iDeviceId);
    register_step(kWrBlankLow, iBlankTime & 0xFF, iDeviceId);
    iCurBlankTime = iBlankTime;
    settle(iBlankTime);
    return vn_ec_success;
}

int get_blank_time_from_sensor(int* iBlankTime, unsigned int iDeviceId) {
    int hi = register_step(kRdBlankHigh, 0, iDeviceId);
    int lo = register_step(kRdBlankLow, 0, iDeviceId);
    iCurBlankTime = hi * 256 + lo;
    if (iBlankTime) *iBlankTime = iCurBlankTime;
    return vn_ec_success;
}

int set_adc_setting_values(unsigned char ucADCRangeIndex, unsigned char ucGain, unsigned char ucRes,
                           unsigned int iDeviceId) {
    unsigned char range = ucADCRangeIndex;
    unsigned char gain_res = static_cast<unsigned char>((ucGain << 1) | ucRes);
    bool matched =
        write_pair_verified(kWrAdcRange, range, kWrAdcGainRes, gain_res, kRdAdcRange, kRdAdcGainRes, iDeviceId);
    iTotalCount++;
    if (matched)
        iSuccessCount++;
    else
        iFailCount++;
    return vn_ec_success;
}

int get_adc_setting_values(unsigned char* ucADCRange, unsigned char* ucGain, unsigned char* ucRes,
                           unsigned int iDeviceId) {
    unsigned char range = register_step(kRdAdcRange, 0, iDeviceId);
    unsigned char gain_res = register_step(kRdAdcGainRes, 0, iDeviceId);
    unsigned char gain = (gain_res >> 1) & 1;
    unsigned char res = gain_res & 1;
    if (ucADCRange) *ucADCRange = range;
    if (ucGain) *ucGain = gain;
    if (ucRes) *ucRes = res;
    printf("[STM] ADC range: %d, Gain: %d, Res: %d, Device Id: %d\n", range, gain, res, iDeviceId);
    return vn_ec_success;
}

int set_led_state_values(bool* OnArray, int nNumOfLED, int intensity, unsigned int iDeviceId) {
    int value = led_state_word(OnArray, nNumOfLED, intensity);
    printf("[LED] set LED status(%d), intensity: %d, value: %d\n", led_channel_bits(OnArray, nNumOfLED), intensity,
           value);
    convert_number_to_binary(value);
    libusb_device_handle* handle = UsbDevHandle::pDevH[iDeviceId];
    if (handle != nullptr) send_led_state(handle, value);
    return vn_ec_success;
}

int set_LED_module_op_mode(unsigned int mode, unsigned int iDeviceId) {
    // The module follows the sensor's operation register: 1 is the value
    // that also stops the sensor.
    if (mode > 1) return vn_ec_success;
    do_control_transfer(kCmdOperation, static_cast<int>(mode), iDeviceId);
    pause_ms(kLedModePauseMs);
    return vn_ec_success;
}

int set_led_op_mode_values(int, int, unsigned int) { return vn_ec_success; }

#ifndef ORB_DEVICE_INTERFACE_DEVICE_SETTINGS_H
#define ORB_DEVICE_INTERFACE_DEVICE_SETTINGS_H

// Exposure (shutter speed, blank time) and ADC settings of the sensor. Every
// call returns 1: a register that reads back wrong is written once more and
// counted in iFailCount (orb_device_interface_stm.h), never reported.

#include "orb_export.h"

// Last shutter speed asked of the sensor; frame acquisition derives its
// pauses from it.
ORB_EXPORT extern int g_iCurShutterSpeed;
// The controller's ADC range codes, for hosts that pick one by position.
ORB_EXPORT extern const unsigned char Efm32_ADCRangeList[3];

// Writes the blank time shutter + 32, then the shutter speed (verified), and
// waits until frames taken with it are valid.
ORB_EXPORT int set_shutter_speed_to_sensor(int iShutterSpeedW, unsigned int iDeviceId);
ORB_EXPORT int get_shutter_speed_from_sensor(int* iCurSS, unsigned int iDeviceId);
ORB_EXPORT int get_current_shutter_speed(int* iShutterSpeed, unsigned int iDeviceId);
ORB_EXPORT int set_blank_time_to_sensor(int iBlankTime, unsigned int iDeviceId);
ORB_EXPORT int get_blank_time_from_sensor(int* iBlankTime, unsigned int iDeviceId);

ORB_EXPORT int set_adc_setting_values(unsigned char ucADCRangeIndex, unsigned char ucGain, unsigned char ucRes,
                                      unsigned int iDeviceId);
ORB_EXPORT int get_adc_setting_values(unsigned char* ucADCRange, unsigned char* ucGain, unsigned char* ucRes,
                                      unsigned int iDeviceId);

// An LED module attached to a sensor, reached through the sensor's handle.
// The state request prints what it sends. All three return 1.
ORB_EXPORT int set_led_state_values(bool* OnArray, int nNumOfLED, int intensity, unsigned int iDeviceId);
// Mode 0 or 1 through the sensor's register 3; other modes send nothing.
ORB_EXPORT int set_LED_module_op_mode(unsigned int mode, unsigned int iDeviceId);
ORB_EXPORT int set_led_op_mode_values(int iOpMode, int iToggleIntervalTime, unsigned int iDeviceId);

#endif  // ORB_DEVICE_INTERFACE_DEVICE_SETTINGS_H

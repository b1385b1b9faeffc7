#ifndef ORB_DEVICE_INTERFACE_LED_H
#define ORB_DEVICE_INTERFACE_LED_H

// The USB LED light module as a device of its own (the LED driver). It
// enumerates as 0483:5740 like the sensors, so the driver is simply the first
// such device on the buses. One class request sets its state: channel bits in
// the low byte of wValue, intensity from bit 8 up.

#include <libusb.h>

#include "orb_export.h"

ORB_EXPORT extern libusb_device_handle* g_LedDriverHandle;
ORB_EXPORT extern libusb_device* pDevLED;

// 1 when the driver is (or already was) open, 0 otherwise.
ORB_EXPORT int connect_LED_device();
ORB_EXPORT int is_led_driver_open();
// Closes the driver and ends libusb's default context with it, the one the
// sensors' handles live in. 0 when it was not open.
ORB_EXPORT int is_led_driver_close();
// 0 when the driver is not open, else 1.
ORB_EXPORT int set_state_to_led_device(bool* OnArray, int nNumOfLED, int intensity);
ORB_EXPORT int set_op_mode_to_led_device(int iOpMode, int iToggleIntervalTime);

// Prints n in binary digits, without a line end.
ORB_EXPORT void convert_number_to_binary(int n);

#endif  // ORB_DEVICE_INTERFACE_LED_H

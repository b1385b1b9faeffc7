#ifndef ORB_LED_REQUEST_H
#define ORB_LED_REQUEST_H

// The LED module's one request, shared by the driver device and by a module
// reached through a sensor: class, interface, request 9, state in wValue.

#include <libusb.h>

// Channel bits of the first nNumOfLED entries (bit i for channel i, none for
// a null array), without the intensity.
int led_channel_bits(const bool* OnArray, int nNumOfLED);
// The channel bits OR-ed with intensity << 8. Nothing is clamped: more than
// 8 channels or an intensity above 255 spill into each other's bits.
int led_state_word(const bool* OnArray, int nNumOfLED, int intensity);
// Sends the state word; the module's answer is not examined.
void send_led_state(libusb_device_handle* handle, int value);

#endif  // ORB_LED_REQUEST_H

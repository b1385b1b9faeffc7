// The LED light module as a USB device of its own.

#include "orb_device_interface_led.h"

#include <stdio.h>

#include "lusb.h"
#include "orb_led_request.h"
#include "orb_usb_walk.h"

libusb_device_handle* g_LedDriverHandle = nullptr;
libusb_device* pDevLED = nullptr;

int connect_LED_device() {
    if (g_LedDriverHandle != nullptr) return 1;
    libusb_device_handle* handle = nullptr;
    bool found = false;
    bool opened = false;
    // The module cannot be told from a sensor: the first 0483:5740 device is
    // taken, whichever it is. A descriptor that cannot be read ends the
    // search without a word.
    bool walked = walk_sensor_devices(pDevLED, false, [&](libusb_device* dev) {
        found = true;
        opened = open_usb_device(dev, &handle);
        return true;
    });
    if (!walked || !found || !opened) return 0;
    // The request goes to the device itself: nothing to claim or configure.
    g_LedDriverHandle = handle;
    return 1;
}

int is_led_driver_open() { return g_LedDriverHandle != nullptr ? 1 : 0; }

int is_led_driver_close() {
    if (g_LedDriverHandle == nullptr) return 0;
    libusb_set_configuration(g_LedDriverHandle, -1);
    libusb_release_interface(g_LedDriverHandle, 0);
    libusb_close(g_LedDriverHandle);
    // Ends the default context the sensors share with the module; libusb
    // keeps it alive while earlier initialisations still hold it.
    libusb_exit(nullptr);
    g_LedDriverHandle = nullptr;
    return 1;
}

int set_state_to_led_device(bool* OnArray, int nNumOfLED, int intensity) {
    if (g_LedDriverHandle == nullptr) return 0;
    send_led_state(g_LedDriverHandle, led_state_word(OnArray, nNumOfLED, intensity));
    return 1;
}

int set_op_mode_to_led_device(int, int) { return is_led_driver_open(); }

void convert_number_to_binary(int n) {
    if (n > 1) convert_number_to_binary(n >> 1);
    printf("%d", n < 2 ? n : n % 2);
}

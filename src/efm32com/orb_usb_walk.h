#ifndef ORB_USB_WALK_H
#define ORB_USB_WALK_H

// The opening steps shared by the sensor and LED connections.

#include <functional>

#include <libusb.h>

constexpr int kSensorVendorId = 0x0483;
constexpr int kSensorProductId = 0x5740;

// Sets up the USB context and walks every 0483:5740 device in enumeration
// order, leaving the device under examination in `cursor`. `visit` returns
// true to end the walk. Returns false when the walk could not be made: the
// context or the device list failed, or a descriptor could not be read
// (reported on stdout only when `report_descriptor_error`).
bool walk_sensor_devices(libusb_device*& cursor, bool report_descriptor_error,
                         const std::function<bool(libusb_device*)>& visit);

// libusb_open with the library's report of a refused device; 0 on failure.
int open_usb_device(libusb_device* dev, libusb_device_handle** handle);

#endif

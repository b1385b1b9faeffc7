#ifndef ORB_DEVICE_INTERFACE_STM_USB_H
#define ORB_DEVICE_INTERFACE_STM_USB_H

// Finding, opening and claiming sensors, and the table of their handles.
// Every sensor answers as vendor 0x0483, product 0x5740, and so does the LED
// module: the two cannot be told apart by their USB identity.

#include <map>

#include <libusb.h>

#include "orb_export.h"

// Sensor index -> open handle. A null entry means the sensor could not be
// claimed, or that an index was looked up before it was ever connected;
// every request to such an index is skipped.
class ORB_EXPORT UsbDevHandle {
public:
    static std::map<int, libusb_device_handle*> create_map();
    static std::map<int, libusb_device_handle*> pDevH;
};

// Selected device indices; kept for the host, the link does not read it.
class ORB_EXPORT UsbDevId {
public:
    static std::map<int, int> create_map();
    static std::map<int, int> currentDevId;
};

ORB_EXPORT extern libusb_context* ctx;
ORB_EXPORT extern libusb_device* pDev;
// Index -> whether its asynchronous bulk transfer has been submitted.
ORB_EXPORT extern std::map<int, bool> allocTransferBulkMap;
ORB_EXPORT extern int maxNumOfDevice;

ORB_EXPORT int connect_device(unsigned int index);
ORB_EXPORT int connect_device();
ORB_EXPORT int connect_device(int iVID, int iPID, unsigned int iDeviceId);
ORB_EXPORT int disconnect_device(unsigned int index);
ORB_EXPORT int reconnect_device(unsigned int& index, libusb_device* dev, libusb_context* context, bool bReset);
ORB_EXPORT int set_device_index(unsigned int index);
ORB_EXPORT unsigned int get_connected_total_devices();

#endif  // ORB_DEVICE_INTERFACE_STM_USB_H

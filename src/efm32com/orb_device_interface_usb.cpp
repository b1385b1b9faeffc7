// Sensor discovery and the table of open sensor handles.

#include "orb_device_interface_stm_usb.h"

#include <stdio.h>

#include "lusb.h"
#include "orb_usb_walk.h"

std::map<int, libusb_device_handle*> UsbDevHandle::create_map() {
    std::map<int, libusb_device_handle*> m;
    for (auto& entry : m) entry.second = nullptr;
    return m;
}
std::map<int, libusb_device_handle*> UsbDevHandle::pDevH = UsbDevHandle::create_map();

std::map<int, int> UsbDevId::create_map() {
    std::map<int, int> m;
    for (auto& entry : m) entry.second = 0;
    return m;
}
std::map<int, int> UsbDevId::currentDevId = UsbDevId::create_map();

libusb_context* ctx = nullptr;
libusb_device* pDev = nullptr;
std::map<int, bool> allocTransferBulkMap;
int maxNumOfDevice = 256;

bool walk_sensor_devices(libusb_device*& cursor, bool report_descriptor_error,
                         const std::function<bool(libusb_device*)>& visit) {
    usb_init();
    if (libusb_init(nullptr) < 0) {
        puts("libusb_init() was failed !!");
        return false;
    }
    libusb_device** list = nullptr;
    if (libusb_get_device_list(nullptr, &list) < 0) return false;

    bool walked = true;
    for (int i = 0; (cursor = list[i]) != nullptr; i++) {
        libusb_device_descriptor desc;
        if (libusb_get_device_descriptor(cursor, &desc) < 0) {
            if (report_descriptor_error) puts("failed to get device descriptor");
            walked = false;
            break;
        }
        if (desc.idVendor != kSensorVendorId || desc.idProduct != kSensorProductId) continue;
        if (visit(cursor)) break;
    }
    // An open handle keeps its own reference to the device.
    libusb_free_device_list(list, 1);
    return walked;
}

int open_usb_device(libusb_device* dev, libusb_device_handle** handle) {
    int r = libusb_open(dev, handle);
    if (r == 0) return 1;
    if (r == LIBUSB_ERROR_ACCESS) {
        puts("Device open failed due to a permission denied error.");
        puts("libusb requires write access to USB device nodes.");
    }
    printf("could not open device, error %d\n", r);
    *handle = nullptr;
    return 0;
}

namespace {

// Interface 0's number as the configuration states it, -1 without interfaces.
int first_interface_number(libusb_device* dev) {
    puts("[Info] Reading first configuration descriptor:");
    libusb_config_descriptor* config = nullptr;
    int interfaces = 0;
    int number = -1;
    if (libusb_get_config_descriptor(dev, 0, &config) == 0) {
        interfaces = config->bNumInterfaces;
        if (interfaces > 0) number = config->interface[0].altsetting[0].bInterfaceNumber;
        libusb_free_config_descriptor(config);
    }
    printf("[Info] nb interfaces: %d\n", interfaces);
    return number;
}

// On a refused claim the handle is given up and its entry left null.
bool claim_or_drop(int key, int interface) {
    libusb_device_handle*& handle = UsbDevHandle::pDevH[key];
    if (handle && libusb_claim_interface(handle, interface) == 0) return true;
    if (handle) {
        libusb_release_interface(handle, interface);
        libusb_close(handle);
    }
    handle = nullptr;
    return false;
}

}  // namespace

int connect_device(unsigned int index) {
    unsigned int ordinal = 0;
    bool found = false;
    bool opened = true;
    bool walked = walk_sensor_devices(pDev, true, [&](libusb_device* dev) {
        if (ordinal++ != index) return false;
        found = true;
        libusb_device_handle* handle = nullptr;
        opened = open_usb_device(dev, &handle);
        if (!opened) return true;
        // An index that already has an entry keeps it, even a null one.
        UsbDevHandle::pDevH.insert({static_cast<int>(index), handle});
        if (UsbDevHandle::pDevH[index] != nullptr) claim_or_drop(index, first_interface_number(dev));
        return true;
    });
    if (!walked || !opened) return 0;
    return found && UsbDevHandle::pDevH.count(index) ? 1 : 0;
}

int connect_device() {
    int claimed = 0;
    bool matched = false;
    bool opened = true;
    bool walked = walk_sensor_devices(pDev, true, [&](libusb_device* dev) {
        matched = true;
        libusb_device_handle* handle = nullptr;
        opened = open_usb_device(dev, &handle);
        if (!opened) return true;
        // After a refused claim the next device lands on the same key, where
        // the null entry refuses it: that device's handle is lost.
        UsbDevHandle::pDevH.insert({claimed, handle});
        libusb_config_descriptor* config = nullptr;
        if (libusb_get_config_descriptor(dev, 0, &config) == 0) libusb_free_config_descriptor(config);
        if (claim_or_drop(claimed, 0)) claimed++;
        return false;
    });
    if (!walked || !opened) return 0;
    return matched && UsbDevHandle::pDevH.count(claimed - 1) ? 1 : 0;
}

int connect_device(int, int, unsigned int) { return 0; }

int disconnect_device(unsigned int index) {
    libusb_device_handle*& handle = UsbDevHandle::pDevH[index];
    if (handle == nullptr) return 1;
    // The handle stays open and claimed; only the table forgets it.
    handle = nullptr;
    UsbDevHandle::pDevH.erase(index);
    return 1;
}

int reconnect_device(unsigned int&, libusb_device*, libusb_context*, bool) { return 1; }

int set_device_index(unsigned int index) {
    UsbDevId::currentDevId[index] = index;
    return 1;
}

unsigned int get_connected_total_devices() { return UsbDevHandle::pDevH.size(); }

#ifndef LUSB_H
#define LUSB_H

/* A libusb-0.1 style interface carried out over libusb-1.0.
 *
 * It follows the classic 0.1 records and calls, with these deliberate
 * departures that the sensor link relies on:
 *  - usb_claim_interface, usb_bulk_read, usb_bulk_write and usb_control_msg
 *    take a libusb-1.0 device handle, not a usb_dev_handle;
 *  - usb_bulk_write and usb_interrupt_write have C++ linkage (their symbols
 *    carry the signature), so a C host cannot call them;
 *  - usb_set_configuration re-applies the active configuration whatever value
 *    it is given;
 *  - usb_set_altinterface answers -EINVAL on a handle from usb_open, because
 *    claiming goes through the raw handle and never records the interface.
 * Failures are negative errno values (and errno is set). */

#include <limits.h>
#include <stddef.h>
#include <stdint.h>

#include <libusb.h>

#include "orb_export.h"

#define LUSB_PATH_MAX 512

/* Descriptor types and sizes of the 0.1 interface. */
#define USB_DT_DEVICE 0x01
#define USB_DT_CONFIG 0x02
#define USB_DT_STRING 0x03
#define USB_DT_INTERFACE 0x04
#define USB_DT_ENDPOINT 0x05

#define USB_ENDPOINT_IN 0x80
#define USB_ENDPOINT_OUT 0x00
#define USB_REQ_GET_DESCRIPTOR 0x06

struct usb_endpoint_descriptor {
    uint8_t bLength;
    uint8_t bDescriptorType;
    uint8_t bEndpointAddress;
    uint8_t bmAttributes;
    uint16_t wMaxPacketSize;
    uint8_t bInterval;
    uint8_t bRefresh;
    uint8_t bSynchAddress;

    unsigned char* extra;
    int extralen;
};

struct usb_interface_descriptor {
    uint8_t bLength;
    uint8_t bDescriptorType;
    uint8_t bInterfaceNumber;
    uint8_t bAlternateSetting;
    uint8_t bNumEndpoints;
    uint8_t bInterfaceClass;
    uint8_t bInterfaceSubClass;
    uint8_t bInterfaceProtocol;
    uint8_t iInterface;

    struct usb_endpoint_descriptor* endpoint;

    unsigned char* extra;
    int extralen;
};

struct usb_interface {
    struct usb_interface_descriptor* altsetting;
    int num_altsetting;
};

struct usb_config_descriptor {
    uint8_t bLength;
    uint8_t bDescriptorType;
    uint16_t wTotalLength;
    uint8_t bNumInterfaces;
    uint8_t bConfigurationValue;
    uint8_t iConfiguration;
    uint8_t bmAttributes;
    uint8_t MaxPower;

    struct usb_interface* interface;

    unsigned char* extra;
    int extralen;
};

struct usb_device_descriptor {
    uint8_t bLength;
    uint8_t bDescriptorType;
    uint16_t bcdUSB;
    uint8_t bDeviceClass;
    uint8_t bDeviceSubClass;
    uint8_t bDeviceProtocol;
    uint8_t bMaxPacketSize0;
    uint16_t idVendor;
    uint16_t idProduct;
    uint16_t bcdDevice;
    uint8_t iManufacturer;
    uint8_t iProduct;
    uint8_t iSerialNumber;
    uint8_t bNumConfigurations;
};

struct usb_bus;

struct usb_device {
    struct usb_device *next, *prev;

    char filename[LUSB_PATH_MAX];

    struct usb_bus* bus;

    struct usb_device_descriptor descriptor;
    struct usb_config_descriptor* config;

    libusb_device* dev; /* referenced while the record lives */

    uint8_t devnum;

    unsigned char num_children;
    struct usb_device** children;
};

struct usb_bus {
    struct usb_bus *next, *prev;

    char dirname[LUSB_PATH_MAX];

    struct usb_device* devices;
    unsigned long location;

    struct usb_device* root_dev;
};

struct usb_dev_handle;
typedef struct usb_dev_handle usb_dev_handle;

#ifdef __cplusplus
extern "C" {
#endif

ORB_EXPORT extern struct usb_bus* usb_busses;

ORB_EXPORT void usb_init(void);
ORB_EXPORT void usb_set_debug(int level);
ORB_EXPORT char* usb_strerror(void);

ORB_EXPORT int usb_find_busses(void);
ORB_EXPORT int usb_find_devices(void);
ORB_EXPORT struct usb_bus* usb_get_busses(void);

ORB_EXPORT usb_dev_handle* usb_open(struct usb_device* dev);
ORB_EXPORT int usb_close(usb_dev_handle* dev);
ORB_EXPORT struct usb_device* usb_device(usb_dev_handle* dev);

ORB_EXPORT int usb_set_configuration(usb_dev_handle* dev, int configuration);
ORB_EXPORT int usb_claim_interface(libusb_device_handle* handle, int interface);
ORB_EXPORT int usb_release_interface(usb_dev_handle* dev, int interface);
ORB_EXPORT int usb_set_altinterface(usb_dev_handle* dev, int alternate);
ORB_EXPORT int usb_resetep(usb_dev_handle* dev, unsigned int ep);
ORB_EXPORT int usb_clear_halt(usb_dev_handle* dev, unsigned int ep);
ORB_EXPORT int usb_reset(usb_dev_handle* dev);

ORB_EXPORT int usb_bulk_read(libusb_device_handle* handle, int ep, char* bytes, int size, int timeout);
ORB_EXPORT int usb_interrupt_read(usb_dev_handle* dev, int ep, char* bytes, int size, int timeout);

ORB_EXPORT int usb_control_msg(libusb_device_handle* handle, int bmRequestType, int bRequest, int value,
                               int index, char* bytes, int size, int timeout);

ORB_EXPORT int usb_get_string(usb_dev_handle* dev, int desc_index, int langid, char* buf, size_t buflen);
ORB_EXPORT int usb_get_string_simple(usb_dev_handle* dev, int desc_index, char* buf, size_t buflen);
ORB_EXPORT int usb_get_descriptor(usb_dev_handle* dev, unsigned char type, unsigned char index, void* buf,
                                  int size);
ORB_EXPORT int usb_get_descriptor_by_endpoint(usb_dev_handle* dev, int ep, unsigned char type,
                                              unsigned char index, void* buf, int size);

#ifdef __cplusplus
}

/* The two writers keep C++ linkage: their exported symbols carry the
 * argument types. */
ORB_EXPORT int usb_bulk_write(libusb_device_handle* handle, int ep, const char* bytes, int size, int timeout);
ORB_EXPORT int usb_interrupt_write(usb_dev_handle* dev, int ep, const char* bytes, int size, int timeout);
#endif

#endif /* LUSB_H */

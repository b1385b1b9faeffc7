// The libusb-0.1 style layer: every translation between the 0.1 records and
// libusb-1.0 lives here and nowhere else.

#include "lusbi.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <set>
#include <vector>

struct usb_bus* usb_busses = nullptr;
int usb_debug = 0;

namespace {

libusb_context* ctx = nullptr;

// libusb-0.1 reports failures as -errno and leaves errno set.
int mapped_error(int code) {
    errno = libusb_to_errno(code);
    return -errno;
}

template <typename T>
void list_prepend(T*& head, T* item) {
    item->prev = nullptr;
    item->next = head;
    if (head) head->prev = item;
    head = item;
}

template <typename T>
void list_append(T*& head, T* item) {
    item->next = nullptr;
    if (!head) {
        item->prev = nullptr;
        head = item;
        return;
    }
    T* tail = head;
    while (tail->next) tail = tail->next;
    tail->next = item;
    item->prev = tail;
}

template <typename T>
void list_unlink(T*& head, T* item) {
    if (item->prev)
        item->prev->next = item->next;
    else
        head = item->next;
    if (item->next) item->next->prev = item->prev;
    item->next = item->prev = nullptr;
}

// Duplicates a descriptor's trailing class-specific bytes; false when out of memory.
bool copy_extra(unsigned char*& dst, int& dstlen, const unsigned char* src, int srclen) {
    dst = nullptr;
    dstlen = 0;
    if (srclen <= 0 || !src) return true;
    dst = static_cast<unsigned char*>(malloc(srclen));
    if (!dst) return false;
    memcpy(dst, src, srclen);
    dstlen = srclen;
    return true;
}

void clear_interface_descriptor(usb_interface_descriptor& d) {
    if (d.endpoint) {
        for (int i = 0; i < d.bNumEndpoints; i++) free(d.endpoint[i].extra);
        free(d.endpoint);
    }
    free(d.extra);
    memset(&d, 0, sizeof d);
}

void clear_interface(usb_interface& iface) {
    if (iface.altsetting) {
        for (int i = 0; i < iface.num_altsetting; i++) clear_interface_descriptor(iface.altsetting[i]);
        free(iface.altsetting);
    }
    memset(&iface, 0, sizeof iface);
}

void clear_config_descriptor(usb_config_descriptor& c) {
    if (c.interface) {
        for (int i = 0; i < c.bNumInterfaces; i++) clear_interface(c.interface[i]);
        free(c.interface);
    }
    free(c.extra);
    memset(&c, 0, sizeof c);
}

bool copy_endpoint_descriptor(usb_endpoint_descriptor& dst, const libusb_endpoint_descriptor& src) {
    dst.bLength = src.bLength;
    dst.bDescriptorType = src.bDescriptorType;
    dst.bEndpointAddress = src.bEndpointAddress;
    dst.bmAttributes = src.bmAttributes;
    dst.wMaxPacketSize = src.wMaxPacketSize;
    dst.bInterval = src.bInterval;
    dst.bRefresh = src.bRefresh;
    dst.bSynchAddress = src.bSynchAddress;
    return copy_extra(dst.extra, dst.extralen, src.extra, src.extra_length);
}

bool copy_interface_descriptor(usb_interface_descriptor& dst, const libusb_interface_descriptor& src) {
    memset(&dst, 0, sizeof dst);
    dst.bLength = src.bLength;
    dst.bDescriptorType = src.bDescriptorType;
    dst.bInterfaceNumber = src.bInterfaceNumber;
    dst.bAlternateSetting = src.bAlternateSetting;
    dst.bInterfaceClass = src.bInterfaceClass;
    dst.bInterfaceSubClass = src.bInterfaceSubClass;
    dst.bInterfaceProtocol = src.bInterfaceProtocol;
    dst.iInterface = src.iInterface;
    if (src.bNumEndpoints > 0) {
        dst.endpoint = static_cast<usb_endpoint_descriptor*>(
            calloc(src.bNumEndpoints, sizeof(usb_endpoint_descriptor)));
        if (!dst.endpoint) return false;
        // Counted as they are filled so that a failure frees only what exists.
        for (int i = 0; i < src.bNumEndpoints; i++) {
            dst.bNumEndpoints++;
            if (!copy_endpoint_descriptor(dst.endpoint[i], src.endpoint[i])) return false;
        }
    }
    return copy_extra(dst.extra, dst.extralen, src.extra, src.extra_length);
}

bool copy_interface(usb_interface& dst, const libusb_interface& src) {
    memset(&dst, 0, sizeof dst);
    if (src.num_altsetting <= 0) return true;
    dst.altsetting = static_cast<usb_interface_descriptor*>(
        calloc(src.num_altsetting, sizeof(usb_interface_descriptor)));
    if (!dst.altsetting) return false;
    for (int i = 0; i < src.num_altsetting; i++) {
        dst.num_altsetting++;
        if (!copy_interface_descriptor(dst.altsetting[i], src.altsetting[i])) return false;
    }
    return true;
}

bool copy_config_descriptor(usb_config_descriptor& dst, const libusb_config_descriptor& src) {
    memset(&dst, 0, sizeof dst);
    dst.bLength = src.bLength;
    dst.bDescriptorType = src.bDescriptorType;
    dst.wTotalLength = src.wTotalLength;
    dst.bConfigurationValue = src.bConfigurationValue;
    dst.iConfiguration = src.iConfiguration;
    dst.bmAttributes = src.bmAttributes;
    dst.MaxPower = src.MaxPower;
    if (src.bNumInterfaces > 0) {
        dst.interface = static_cast<usb_interface*>(calloc(src.bNumInterfaces, sizeof(usb_interface)));
        if (!dst.interface) return false;
        for (int i = 0; i < src.bNumInterfaces; i++) {
            dst.bNumInterfaces++;
            if (!copy_interface(dst.interface[i], src.interface[i])) return false;
        }
    }
    return copy_extra(dst.extra, dst.extralen, src.extra, src.extra_length);
}

void free_device(struct usb_device* dev) {
    if (dev->config) {
        for (int i = 0; i < dev->descriptor.bNumConfigurations; i++) clear_config_descriptor(dev->config[i]);
        free(dev->config);
    }
    if (dev->dev) libusb_unref_device(dev->dev);
    free(dev);
}

void free_bus(struct usb_bus* bus) {
    while (bus->devices) {
        struct usb_device* dev = bus->devices;
        list_unlink(bus->devices, dev);
        free_device(dev);
    }
    free(bus);
}

// A new record for one libusb-1.0 device: descriptors copied, device referenced.
int new_device(struct usb_bus* bus, libusb_device* ldev, struct usb_device** out) {
    auto* dev = static_cast<struct usb_device*>(calloc(1, sizeof(struct usb_device)));
    if (!dev) return -ENOMEM;
    dev->bus = bus;
    dev->devnum = libusb_get_device_address(ldev);
    snprintf(dev->filename, sizeof dev->filename, "%03d", dev->devnum);

    libusb_device_descriptor desc;
    int r = libusb_get_device_descriptor(ldev, &desc);
    if (r < 0) {
        free(dev);
        return mapped_error(r);
    }
    dev->descriptor.bLength = desc.bLength;
    dev->descriptor.bDescriptorType = desc.bDescriptorType;
    dev->descriptor.bcdUSB = desc.bcdUSB;
    dev->descriptor.bDeviceClass = desc.bDeviceClass;
    dev->descriptor.bDeviceSubClass = desc.bDeviceSubClass;
    dev->descriptor.bDeviceProtocol = desc.bDeviceProtocol;
    dev->descriptor.bMaxPacketSize0 = desc.bMaxPacketSize0;
    dev->descriptor.idVendor = desc.idVendor;
    dev->descriptor.idProduct = desc.idProduct;
    dev->descriptor.bcdDevice = desc.bcdDevice;
    dev->descriptor.iManufacturer = desc.iManufacturer;
    dev->descriptor.iProduct = desc.iProduct;
    dev->descriptor.iSerialNumber = desc.iSerialNumber;
    dev->descriptor.bNumConfigurations = 0;  // raised as configurations are copied

    if (desc.bNumConfigurations > 0) {
        dev->config = static_cast<usb_config_descriptor*>(
            calloc(desc.bNumConfigurations, sizeof(usb_config_descriptor)));
        if (!dev->config) {
            free_device(dev);
            return -ENOMEM;
        }
        for (int i = 0; i < desc.bNumConfigurations; i++) {
            libusb_config_descriptor* cfg = nullptr;
            r = libusb_get_config_descriptor(ldev, i, &cfg);
            if (r < 0) {
                free_device(dev);
                return mapped_error(r);
            }
            dev->descriptor.bNumConfigurations++;
            bool ok = copy_config_descriptor(dev->config[i], *cfg);
            libusb_free_config_descriptor(cfg);
            if (!ok) {
                free_device(dev);
                return -ENOMEM;
            }
        }
    }
    dev->dev = libusb_ref_device(ldev);
    *out = dev;
    return 0;
}

void usb_finalize() {
    if (ctx) {
        libusb_exit(ctx);
        ctx = nullptr;
    }
}

int bulk_or_interrupt(bool bulk, libusb_device_handle* handle, int ep, char* bytes, int size, int timeout) {
    if (!handle) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    int transferred = 0;
    auto* data = reinterpret_cast<unsigned char*>(bytes);
    int r = bulk ? libusb_bulk_transfer(handle, ep & 0xFF, data, size, &transferred, timeout)
                 : libusb_interrupt_transfer(handle, ep & 0xFF, data, size, &transferred, timeout);
    // A time-out after some bytes arrived still hands the caller those bytes.
    if (r == 0 || (r == LIBUSB_ERROR_TIMEOUT && transferred > 0)) return transferred;
    return mapped_error(r);
}

libusb_device_handle* raw(usb_dev_handle* dev) { return dev ? dev->handle : nullptr; }

}  // namespace

extern "C" {

int libusb_to_errno(int code) {
    switch (code) {
    case LIBUSB_SUCCESS: return 0;
    case LIBUSB_ERROR_IO: return EIO;
    case LIBUSB_ERROR_INVALID_PARAM: return EINVAL;
    case LIBUSB_ERROR_ACCESS: return EACCES;
    case LIBUSB_ERROR_NO_DEVICE: return ENXIO;
    case LIBUSB_ERROR_NOT_FOUND: return ENOENT;
    case LIBUSB_ERROR_BUSY: return EBUSY;
    case LIBUSB_ERROR_TIMEOUT: return ETIMEDOUT;
    case LIBUSB_ERROR_OVERFLOW: return EOVERFLOW;
    case LIBUSB_ERROR_PIPE: return EPIPE;
    case LIBUSB_ERROR_INTERRUPTED: return EINTR;
    case LIBUSB_ERROR_NO_MEM: return ENOMEM;
    case LIBUSB_ERROR_NOT_SUPPORTED: return ENOSYS;
    default: return ERANGE;
    }
}

void usbi_log(enum usbi_log_level level, const char* function, const char* format, ...) {
    if (!usb_debug) return;
    FILE* stream = stderr;
    const char* word;
    switch (level) {
    case LOG_LEVEL_INFO:
        stream = stdout;
        word = "info";
        break;
    case LOG_LEVEL_DEBUG: word = "debug"; break;
    case LOG_LEVEL_WARNING: word = "warning"; break;
    case LOG_LEVEL_ERROR: word = "error"; break;
    default: word = "unknown"; break;
    }
    fprintf(stream, "triodri %s: %s: ", word, function);
    va_list args;
    va_start(args, format);
    vfprintf(stream, format, args);
    va_end(args);
    fputc('\n', stream);
}

void usb_init(void) {
    if (ctx) return;
    int r = libusb_init(&ctx);
    if (r < 0) {
        usbi_log(LOG_LEVEL_ERROR, __func__, "initialization failed: %d", r);
        ctx = nullptr;
        return;
    }
    if (usb_debug) libusb_set_option(ctx, LIBUSB_OPTION_LOG_LEVEL, 3);
    atexit(usb_finalize);
}

void usb_set_debug(int level) {
    usb_debug = level;
    // libusb-1.0 gets its most talkative useful level whatever was asked.
    if (ctx) libusb_set_option(ctx, LIBUSB_OPTION_LOG_LEVEL, 3);
}

char* usb_strerror(void) { return strerror(errno); }

int usb_find_busses(void) {
    if (!ctx) return 0;

    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(ctx, &list);
    if (count < 0) return mapped_error(static_cast<int>(count));

    // One record per distinct bus number, in the order libusb lists them.
    struct usb_bus* found = nullptr;
    std::set<unsigned long> seen;
    for (ssize_t i = 0; i < count; i++) {
        unsigned long number = libusb_get_bus_number(list[i]);
        if (!seen.insert(number).second) continue;
        auto* bus = static_cast<struct usb_bus*>(calloc(1, sizeof(struct usb_bus)));
        if (!bus) {
            while (found) {
                struct usb_bus* b = found;
                list_unlink(found, b);
                free(b);
            }
            libusb_free_device_list(list, 1);
            return -ENOMEM;
        }
        bus->location = number;
        snprintf(bus->dirname, sizeof bus->dirname, "%03d", static_cast<int>(number));
        list_append(found, bus);
    }
    libusb_free_device_list(list, 1);

    int changes = 0;
    struct usb_bus* bus = usb_busses;
    while (bus) {
        struct usb_bus* next = bus->next;
        struct usb_bus* match = found;
        while (match && match->location != bus->location) match = match->next;
        if (match) {
            list_unlink(found, match);
            free(match);
        } else {
            list_unlink(usb_busses, bus);
            free_bus(bus);
            changes++;
        }
        bus = next;
    }
    while (found) {
        struct usb_bus* b = found;
        list_unlink(found, b);
        list_prepend(usb_busses, b);
        changes++;
    }
    return changes;
}

int usb_find_devices(void) {
    if (!ctx) return 0;

    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(ctx, &list);
    if (count < 0) return mapped_error(static_cast<int>(count));

    int changes = 0;
    int status = 0;
    for (struct usb_bus* bus = usb_busses; bus && status == 0; bus = bus->next) {
        std::map<uint8_t, libusb_device*> present;  // address -> device, this bus only
        std::vector<libusb_device*> order;
        for (ssize_t i = 0; i < count; i++) {
            if (libusb_get_bus_number(list[i]) != bus->location) continue;
            present[libusb_get_device_address(list[i])] = list[i];
            order.push_back(list[i]);
        }

        struct usb_device* dev = bus->devices;
        while (dev) {
            struct usb_device* next = dev->next;
            if (!present.count(dev->devnum)) {
                list_unlink(bus->devices, dev);
                free_device(dev);
                changes++;
            }
            dev = next;
        }

        for (libusb_device* ldev : order) {
            uint8_t address = libusb_get_device_address(ldev);
            struct usb_device* known = bus->devices;
            while (known && known->devnum != address) known = known->next;
            if (known) continue;
            struct usb_device* fresh = nullptr;
            status = new_device(bus, ldev, &fresh);
            if (status < 0) break;
            list_append(bus->devices, fresh);
            changes++;
        }
    }
    libusb_free_device_list(list, 1);
    return status < 0 ? status : changes;
}

struct usb_bus* usb_get_busses(void) { return usb_busses; }

usb_dev_handle* usb_open(struct usb_device* dev) {
    if (!dev || !dev->dev) {
        errno = EINVAL;
        return nullptr;
    }
    auto* handle = static_cast<usb_dev_handle*>(malloc(sizeof(usb_dev_handle)));
    if (!handle) {
        errno = ENOMEM;
        return nullptr;
    }
    int r = libusb_open(dev->dev, &handle->handle);
    if (r < 0) {
        free(handle);
        errno = libusb_to_errno(r);
        return nullptr;
    }
    handle->device = dev;
    handle->last_claimed_interface = -1;
    return handle;
}

int usb_close(usb_dev_handle* dev) {
    if (!dev) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    libusb_close(dev->handle);
    free(dev);
    return 0;
}

struct usb_device* usb_device(usb_dev_handle* dev) { return dev ? dev->device : nullptr; }

int usb_set_configuration(usb_dev_handle* dev, int configuration) {
    if (!dev) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    // The requested value is replaced by the active one: the call re-applies
    // the current configuration, which is what the sensor link expects.
    libusb_get_configuration(dev->handle, &configuration);
    int r = libusb_set_configuration(dev->handle, configuration);
    return r < 0 ? mapped_error(r) : 0;
}

int usb_claim_interface(libusb_device_handle* handle, int interface) {
    if (!handle) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    int r = libusb_claim_interface(handle, interface);
    return r < 0 ? mapped_error(r) : 0;
}

int usb_release_interface(usb_dev_handle* dev, int interface) {
    if (!dev) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    int r = libusb_release_interface(dev->handle, interface);
    if (r < 0) return mapped_error(r);
    dev->last_claimed_interface = -1;
    return 0;
}

int usb_set_altinterface(usb_dev_handle* dev, int alternate) {
    if (!dev || dev->last_claimed_interface < 0) return -(errno = EINVAL);
    int r = libusb_set_interface_alt_setting(dev->handle, dev->last_claimed_interface, alternate);
    return r < 0 ? mapped_error(r) : 0;
}

int usb_resetep(usb_dev_handle* dev, unsigned int ep) { return usb_clear_halt(dev, ep); }

int usb_clear_halt(usb_dev_handle* dev, unsigned int ep) {
    if (!dev) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    int r = libusb_clear_halt(dev->handle, ep & 0xFF);
    return r < 0 ? mapped_error(r) : 0;
}

int usb_reset(usb_dev_handle* dev) {
    if (!dev) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    int r = libusb_reset_device(dev->handle);
    return r < 0 ? mapped_error(r) : 0;
}

int usb_bulk_read(libusb_device_handle* handle, int ep, char* bytes, int size, int timeout) {
    return bulk_or_interrupt(true, handle, ep | USB_ENDPOINT_IN, bytes, size, timeout);
}

int usb_interrupt_read(usb_dev_handle* dev, int ep, char* bytes, int size, int timeout) {
    return bulk_or_interrupt(false, raw(dev), ep | USB_ENDPOINT_IN, bytes, size, timeout);
}

int usb_control_msg(libusb_device_handle* handle, int bmRequestType, int bRequest, int value, int index,
                    char* bytes, int size, int timeout) {
    if (!handle) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    int r = libusb_control_transfer(handle, bmRequestType & 0xFF, bRequest & 0xFF, value & 0xFFFF,
                                    index & 0xFFFF, reinterpret_cast<unsigned char*>(bytes), size & 0xFFFF,
                                    timeout);
    return r < 0 ? mapped_error(r) : r;
}

int usb_get_string(usb_dev_handle* dev, int desc_index, int langid, char* buf, size_t buflen) {
    if (!dev) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    int r = libusb_get_string_descriptor(dev->handle, desc_index & 0xFF, langid & 0xFFFF,
                                         reinterpret_cast<unsigned char*>(buf), static_cast<int>(buflen));
    return r < 0 ? mapped_error(r) : r;
}

int usb_get_string_simple(usb_dev_handle* dev, int desc_index, char* buf, size_t buflen) {
    if (!dev) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    int r = libusb_get_string_descriptor_ascii(dev->handle, desc_index & 0xFF,
                                               reinterpret_cast<unsigned char*>(buf), static_cast<int>(buflen));
    return r < 0 ? mapped_error(r) : r;
}

int usb_get_descriptor(usb_dev_handle* dev, unsigned char type, unsigned char index, void* buf, int size) {
    if (!dev) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    int r = libusb_get_descriptor(dev->handle, type, index, static_cast<unsigned char*>(buf), size);
    return r < 0 ? mapped_error(r) : r;
}

int usb_get_descriptor_by_endpoint(usb_dev_handle* dev, int ep, unsigned char type, unsigned char index,
                                   void* buf, int size) {
    if (!dev) return mapped_error(LIBUSB_ERROR_INVALID_PARAM);
    int r = libusb_control_transfer(dev->handle, (ep | USB_ENDPOINT_IN) & 0xFF, USB_REQ_GET_DESCRIPTOR,
                                    (type << 8) | index, 0, static_cast<unsigned char*>(buf), size & 0xFFFF,
                                    1000);
    return r < 0 ? mapped_error(r) : r;
}

}  // extern "C"

int usb_bulk_write(libusb_device_handle* handle, int ep, const char* bytes, int size, int timeout) {
    return bulk_or_interrupt(true, handle, ep & ~USB_ENDPOINT_IN, const_cast<char*>(bytes), size, timeout);
}

int usb_interrupt_write(usb_dev_handle* dev, int ep, const char* bytes, int size, int timeout) {
    return bulk_or_interrupt(false, raw(dev), ep & ~USB_ENDPOINT_IN, const_cast<char*>(bytes), size, timeout);
}

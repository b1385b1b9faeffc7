#ifndef LUSBI_H
#define LUSBI_H

/* Internals of the libusb-0.1 style layer, shared with its tests. */

#include "lusb.h"

struct usb_dev_handle {
    libusb_device_handle* handle;
    struct usb_device* device;
    /* -1 until an interface is claimed through this record, which the
     * raw-handle usb_claim_interface never does. */
    int last_claimed_interface;
};

enum usbi_log_level {
    LOG_LEVEL_DEBUG = 0,
    LOG_LEVEL_INFO = 1,
    LOG_LEVEL_WARNING = 2,
    LOG_LEVEL_ERROR = 3
};

#ifdef __cplusplus
extern "C" {
#endif

ORB_EXPORT extern int usb_debug;

/* libusb-1.0 status code to a positive errno value. */
ORB_EXPORT int libusb_to_errno(int code);

/* Silent while usb_debug is 0; info goes to stdout, the rest to stderr. */
ORB_EXPORT void usbi_log(enum usbi_log_level level, const char* function, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif /* LUSBI_H */

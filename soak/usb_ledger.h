#ifndef ORB_SOAK_USB_LEDGER_H
#define ORB_SOAK_USB_LEDGER_H

// What the process does with libusb, counted by wrapping a few of its calls
// (this program defines them and passes each on to libusb): the device
// handles open right now, and the references to the default context taken by
// libusb_init(NULL) and given back by libusb_exit(NULL).

#include <libusb.h>

#include <vector>

namespace usb_ledger {

std::vector<libusb_device_handle*> open_handles();
long default_context_inits();
long default_context_exits();

}  // namespace usb_ledger

#endif

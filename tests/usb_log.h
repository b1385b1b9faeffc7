#ifndef ORB_TESTS_USB_LOG_H
#define ORB_TESTS_USB_LOG_H

// The test binaries stand in front of two libusb calls. Every control request
// made in the process is recorded with the device it went to and the time-out
// it was given, which the emulated sensor cannot see (libusb keeps time-outs
// to itself); libusb_exit calls are counted.

#include <vector>

#include "orb_sim.h"

namespace usblog {

struct Sent {
    int bus;      // -1 for a null handle
    int address;
    orbsim::ControlRequest setup;
    unsigned int timeout_ms;
};

// Every control request made through libusb so far, oldest first.
std::vector<Sent> sent();

// What `sensor` saw, each request with its time-out: the sensor's own log
// (which `clear_log` shortens) matched against the last requests made to its
// bus and address. A request the sensor saw that libusb was not asked for
// fails the calling test.
std::vector<Sent> said_to(const orbsim::Sensor& sensor);

// The next control request throws std::runtime_error instead of reaching
// libusb: a failure the library does not know as its own.
void throw_on_next_request();

// libusb_exit calls so far: each gives up one libusb_init reference.
int exits();

}  // namespace usblog

#endif

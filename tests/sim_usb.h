#ifndef ORB_TESTS_SIM_USB_H
#define ORB_TESTS_SIM_USB_H

// A private libusb context on the emulated buses, for the tests of the
// emulator itself.

#include <gtest/gtest.h>
#include <libusb.h>

#include <array>
#include <vector>

#include "orb_sim.h"

// libusb's default context is left to the library under test.
struct Usb {
    libusb_context* ctx = nullptr;
    Usb() { EXPECT_EQ(libusb_init(&ctx), 0); }
    ~Usb() { libusb_exit(ctx); }

    // (bus, address, vid, pid) of every listed device, in libusb's order.
    std::vector<std::array<int, 4>> list() {
        libusb_device** devs;
        ssize_t n = libusb_get_device_list(ctx, &devs);
        std::vector<std::array<int, 4>> out;
        for (ssize_t i = 0; i < n; i++) {
            libusb_device_descriptor d;
            libusb_get_device_descriptor(devs[i], &d);
            out.push_back({libusb_get_bus_number(devs[i]), libusb_get_device_address(devs[i]), d.idVendor, d.idProduct});
        }
        libusb_free_device_list(devs, 1);
        return out;
    }

    libusb_device_handle* open(const orbsim::Sensor& s, int* error = nullptr) {
        libusb_device** devs;
        ssize_t n = libusb_get_device_list(ctx, &devs);
        libusb_device_handle* h = nullptr;
        int r = LIBUSB_ERROR_NOT_FOUND;
        for (ssize_t i = 0; i < n; i++)
            if (libusb_get_bus_number(devs[i]) == s.bus() && libusb_get_device_address(devs[i]) == s.address())
                r = libusb_open(devs[i], &h);
        libusb_free_device_list(devs, 1);
        if (error) *error = r;
        return h;
    }
};

#endif

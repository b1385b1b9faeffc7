#include "usb_log.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <libusb.h>

#include <atomic>
#include <mutex>
#include <stdexcept>

namespace {
std::mutex g_lock;
std::vector<usblog::Sent> g_sent;
std::atomic<bool> g_throw_next{false};
std::atomic<int> g_exits{0};
}  // namespace

// Replaces libusb's definition for the whole test process and forwards to it.
extern "C" __attribute__((visibility("default"))) int LIBUSB_CALL
libusb_control_transfer(libusb_device_handle* handle, uint8_t request_type, uint8_t request, uint16_t value,
                        uint16_t index, unsigned char* data, uint16_t length, unsigned int timeout) {
    using Control = int (*)(libusb_device_handle*, uint8_t, uint8_t, uint16_t, uint16_t, unsigned char*, uint16_t,
                            unsigned int);
    static const Control real = reinterpret_cast<Control>(dlsym(RTLD_NEXT, "libusb_control_transfer"));
    usblog::Sent s{-1, -1, {request_type, request, value, index, length}, timeout};
    if (handle) {
        libusb_device* dev = libusb_get_device(handle);
        s.bus = libusb_get_bus_number(dev);
        s.address = libusb_get_device_address(dev);
    }
    if (g_throw_next.exchange(false)) throw std::runtime_error("control request refused by the test");
    {
        std::lock_guard<std::mutex> lock(g_lock);
        g_sent.push_back(s);
    }
    return real(handle, request_type, request, value, index, data, length, timeout);
}

extern "C" __attribute__((visibility("default"))) void LIBUSB_CALL libusb_exit(libusb_context* ctx) {
    using Exit = void (*)(libusb_context*);
    static const Exit real = reinterpret_cast<Exit>(dlsym(RTLD_NEXT, "libusb_exit"));
    g_exits++;
    real(ctx);
}

namespace usblog {

int exits() { return g_exits; }

void throw_on_next_request() { g_throw_next = true; }

std::vector<Sent> sent() {
    std::lock_guard<std::mutex> lock(g_lock);
    return g_sent;
}

std::vector<Sent> said_to(const orbsim::Sensor& sensor) {
    const std::vector<orbsim::ControlRequest> seen = sensor.requests();
    std::vector<Sent> mine;
    for (const Sent& s : sent())
        if (s.bus == sensor.bus() && s.address == sensor.address()) mine.push_back(s);
    if (mine.size() < seen.size()) {
        ADD_FAILURE() << "the sensor saw " << seen.size() << " requests, libusb was asked for " << mine.size();
        return {};
    }
    mine.erase(mine.begin(), mine.end() - static_cast<std::ptrdiff_t>(seen.size()));
    for (std::size_t i = 0; i < seen.size(); i++)
        if (mine[i].setup != seen[i]) {
            ADD_FAILURE() << "request " << i << " the sensor saw is not the one libusb was asked for";
            return {};
        }
    return mine;
}

}  // namespace usblog

#include "usb_hooks.h"

#include <dlfcn.h>
#include <libusb.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <vector>

#include "orb_stm_commands.h"

namespace {

std::atomic<bool> g_swallow{false};
std::atomic<int64_t> g_control_ns{0};
std::mutex g_submissions_lock;
std::vector<std::chrono::steady_clock::time_point> g_submissions;

template <typename Fn>
Fn next_definition(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The frame-path benchmark measures cb_bulkdata's own work; its resubmission
// is a usbfs ioctl, which under the emulator is a round trip to umockdev's
// thread and would drown the unpacking.
extern "C" __attribute__((visibility("default"))) int LIBUSB_CALL libusb_submit_transfer(libusb_transfer* transfer) {
    using Submit = int (*)(libusb_transfer*);
    static const Submit real = next_definition<Submit>("libusb_submit_transfer");
    if (g_swallow.load(std::memory_order_relaxed)) return 0;
    int r = real(transfer);
    if (transfer->endpoint == kFrameEndpoint) {
        auto now = std::chrono::steady_clock::now();
        std::lock_guard<std::mutex> lock(g_submissions_lock);
        g_submissions.push_back(now);
    }
    return r;
}

extern "C" __attribute__((visibility("default"))) int LIBUSB_CALL
libusb_control_transfer(libusb_device_handle* handle, uint8_t request_type, uint8_t request, uint16_t value,
                        uint16_t index, unsigned char* data, uint16_t length, unsigned int timeout) {
    using Control = int (*)(libusb_device_handle*, uint8_t, uint8_t, uint16_t, uint16_t, unsigned char*, uint16_t,
                            unsigned int);
    static const Control real = next_definition<Control>("libusb_control_transfer");
    auto t0 = std::chrono::steady_clock::now();
    int r = real(handle, request_type, request, value, index, data, length, timeout);
    g_control_ns += std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - t0).count();
    return r;
}

namespace usbhooks {

void swallow_submissions(bool on) { g_swallow = on; }

double take_control_seconds() { return g_control_ns.exchange(0) * 1e-9; }

std::vector<std::chrono::steady_clock::time_point> take_frame_submissions() {
    std::lock_guard<std::mutex> lock(g_submissions_lock);
    std::vector<std::chrono::steady_clock::time_point> taken;
    taken.swap(g_submissions);
    return taken;
}

}  // namespace usbhooks

// Bounded requests to the sensor.

#include "sensor_requests.h"

#include <condition_variable>
#include <mutex>

#include "link_seam.h"
#include "orb_stream.h"

namespace orbstream {

namespace {

std::mutex g_rest_lock;
std::condition_variable g_rest_wake;

}  // namespace

int result_of_usb_error(int error) {
    switch (error) {
    case LIBUSB_ERROR_TIMEOUT:
        return ORB_STREAM_ERR_TIMEOUT;
    case LIBUSB_ERROR_NO_DEVICE:
        return ORB_STREAM_ERR_LOST;
    case LIBUSB_ERROR_NO_MEM:
        return ORB_STREAM_ERR_NO_MEMORY;
    default:
        return ORB_STREAM_ERR_USB;
    }
}

int stream_request(libusb_device_handle* handle, int code, const Deadline& deadline) {
    if (deadline.passed()) return ORB_STREAM_ERR_TIMEOUT;
    // As the link sends it: no data stage.
    int r = libusb_control_transfer(handle, kRequestTypeOut, static_cast<uint8_t>(code), 0, kStreamInterface, nullptr,
                                    0, deadline.libusb_ms(kStreamTimeoutMs));
    return r < 0 ? result_of_usb_error(r) : ORB_STREAM_OK;
}

int register_access(libusb_device_handle* handle, int code, int value, const Deadline& deadline,
                    unsigned char* reply) {
    if (deadline.passed()) return ORB_STREAM_ERR_TIMEOUT;
    // As the link sends it: one byte back, a written value echoed.
    unsigned char data[1] = {0};
    int r = libusb_control_transfer(handle, kRequestTypeIn, static_cast<uint8_t>(code),
                                    static_cast<uint16_t>(value & 0xFF), 0, data, sizeof data,
                                    deadline.libusb_ms(kRegisterTimeoutMs));
    if (r < 0) return result_of_usb_error(r);
    if (r < 1) return ORB_STREAM_ERR_USB;
    if (reply != nullptr) *reply = data[0];
    return ORB_STREAM_OK;
}

int write_pair_checked(libusb_device_handle* handle, int wr_a, int a, int wr_b, int b, int rd_a, int rd_b,
                       int pause_ms, const Deadline& deadline) {
    for (int attempt = 0; attempt < 2; attempt++) {
        unsigned char got_a = 0, got_b = 0;
        int r;
        if ((r = register_access(handle, wr_a, a, deadline, nullptr)) != ORB_STREAM_OK) return r;
        if ((r = rest(pause_ms, deadline)) != ORB_STREAM_OK) return r;
        if ((r = register_access(handle, wr_b, b, deadline, nullptr)) != ORB_STREAM_OK) return r;
        if ((r = rest(pause_ms, deadline)) != ORB_STREAM_OK) return r;
        if ((r = register_access(handle, rd_a, 0, deadline, &got_a)) != ORB_STREAM_OK) return r;
        if ((r = rest(pause_ms, deadline)) != ORB_STREAM_OK) return r;
        if ((r = register_access(handle, rd_b, 0, deadline, &got_b)) != ORB_STREAM_OK) return r;
        if ((r = rest(pause_ms, deadline)) != ORB_STREAM_OK) return r;
        if (got_a == (a & 0xFF) && got_b == (b & 0xFF)) return ORB_STREAM_OK;
    }
    return ORB_STREAM_ERR_VERIFY;
}

int rest(int ms, const Deadline& deadline) {
    const Clock::time_point until = Clock::now() + std::chrono::milliseconds(ms);
    std::unique_lock<std::mutex> lock(g_rest_lock);
    g_rest_wake.wait_until(lock, std::min(until, deadline.at), [] { return link::ended(); });
    if (link::ended()) return ORB_STREAM_ERR_ENDED;
    return until > deadline.at ? ORB_STREAM_ERR_TIMEOUT : ORB_STREAM_OK;
}

void wake_rests() {
    // Taking the lock orders the wake-up after a rest's check of the end.
    std::lock_guard<std::mutex> lock(g_rest_lock);
    g_rest_wake.notify_all();
}

}  // namespace orbstream

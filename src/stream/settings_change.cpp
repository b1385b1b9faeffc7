// Settings changed while a stream runs, and the frames that must not
// outlive them.

#include <functional>

#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_stm.h"
#include "presence.h"
#include "sensor_requests.h"
#include "stream_session.h"

namespace orbstream {

namespace {

// The pauses the controller needs between these register accesses, as the
// link keeps them: 5 ms for the shutter registers, 20 ms for the on-board
// average, g_iSleepTime (30 ms) for the rest.
constexpr int kShutterPauseMs = 5;
constexpr int kOnboardPauseMs = 20;
constexpr int kBlankMargin = 32;

using Write = std::function<int(libusb_device_handle*, const Deadline&)>;
using Apply = std::function<void(orb_stream_settings&)>;

// Frames waiting in the ring, and every frame completed until two have
// completed after the writes, were exposed (at least partly) before the
// change: they are discarded as stale, and the next frame says how many.
int change(int index, int timeout_ms, const Write& write, const Apply& apply) {
    if (timeout_ms < 0) return ORB_STREAM_ERR_INVALID;
    libusb_device_handle* handle = nullptr;
    int r = usable(index, &handle);
    if (r != ORB_STREAM_OK) return r;
    Session& s = session_at(index);
    bool streaming;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        streaming = s.active;
        if (streaming) begin_change_locked(s);
    }
    r = write(handle, Deadline::in_ms(timeout_ms));
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (streaming && s.active) {
            // After a failed write the sensor may hold part of the change;
            // the frames that follow still wait out the frames in flight.
            if (r == ORB_STREAM_OK) apply(s.settings);
            end_change_locked(s);
        }
    }
    return r == ORB_STREAM_ERR_LOST || r == ORB_STREAM_ERR_ENDED ? loss_result(handle) : r;
}

}  // namespace

}  // namespace orbstream

using namespace orbstream;

extern "C" int orb_stream_set_shutter_speed(int index, int shutter_speed, int timeout_ms) {
    if (shutter_speed < 1 || shutter_speed > 0xFFFF - kBlankMargin) return ORB_STREAM_ERR_INVALID;
    const int blank = shutter_speed + kBlankMargin;
    auto write = [=](libusb_device_handle* h, const Deadline& d) -> int {
        int r;
        // The blank time rides with the shutter speed, written first, as the
        // link writes them.
        if ((r = register_access(h, 34, blank >> 8, d, nullptr)) != ORB_STREAM_OK) return r;
        if ((r = rest(kShutterPauseMs, d)) != ORB_STREAM_OK) return r;
        if ((r = register_access(h, 33, blank & 0xFF, d, nullptr)) != ORB_STREAM_OK) return r;
        if ((r = rest(kShutterPauseMs, d)) != ORB_STREAM_OK) return r;
        r = write_pair_checked(h, 37, shutter_speed >> 8, 5, shutter_speed & 0xFF, 36, 4, kShutterPauseMs, d);
        // The link's own record of what the sensor was asked for, which
        // paces its streaming requests.
        g_iCurShutterSpeed = shutter_speed;
        iCurBlankTime = blank;
        return r;
    };
    return change(index, timeout_ms, write, [=](orb_stream_settings& s) {
        s.shutter_speed = shutter_speed;
        s.blank_time = blank;
    });
}

extern "C" int orb_stream_set_blank_time(int index, int blank_time, int timeout_ms) {
    if (blank_time < 0 || blank_time > 0xFFFF) return ORB_STREAM_ERR_INVALID;
    auto write = [=](libusb_device_handle* h, const Deadline& d) -> int {
        int r = write_pair_checked(h, 34, blank_time >> 8, 33, blank_time & 0xFF, 39, 38, g_iSleepTime, d);
        iCurBlankTime = blank_time;
        return r;
    };
    return change(index, timeout_ms, write, [=](orb_stream_settings& s) { s.blank_time = blank_time; });
}

extern "C" int orb_stream_set_adc(int index, int gain, int range, int resolution, int timeout_ms) {
    if (gain < 0 || gain > 1 || range < 0 || range > 255 || resolution < 0 || resolution > 1)
        return ORB_STREAM_ERR_INVALID;
    const int gain_res = gain << 1 | resolution;
    auto write = [=](libusb_device_handle* h, const Deadline& d) -> int {
        return write_pair_checked(h, 19, range, 20, gain_res, 35, 40, g_iSleepTime, d);
    };
    return change(index, timeout_ms, write, [=](orb_stream_settings& s) {
        s.adc_range = range;
        s.adc_gain = gain;
        s.adc_resolution = resolution;
    });
}

extern "C" int orb_stream_set_onboard_average(int index, int count, int timeout_ms) {
    if (count < 0 || count > 255) return ORB_STREAM_ERR_INVALID;
    auto write = [=](libusb_device_handle* h, const Deadline& d) -> int {
        unsigned char got = 0;
        for (int attempt = 0; attempt < 2; attempt++) {
            int r;
            if ((r = register_access(h, 54, count, d, nullptr)) != ORB_STREAM_OK) return r;
            if ((r = rest(kOnboardPauseMs, d)) != ORB_STREAM_OK) return r;
            if ((r = register_access(h, 53, 0, d, &got)) != ORB_STREAM_OK) return r;
            if ((r = rest(kOnboardPauseMs, d)) != ORB_STREAM_OK) return r;
            if (got == count) return ORB_STREAM_OK;
        }
        return ORB_STREAM_ERR_VERIFY;
    };
    return change(index, timeout_ms, write, [=](orb_stream_settings& s) { s.onboard_average = count; });
}

// Settings changed while a stream runs, and the frames that must not
// outlive them.

#include "settings_change.h"

#include <functional>

#include "link_seam.h"
#include "presence.h"
#include "sensor_requests.h"
#include "stream_session.h"
#include "../efm32com/orb_exposure.h"
#include "../efm32com/orb_stm_commands.h"

namespace orbstream {

namespace {

using Write = std::function<int(libusb_device_handle*, const Deadline&)>;
using Apply = std::function<void(orb_stream_settings&)>;

// Frames waiting in the ring, and every frame completed until two have
// completed after the writes, were exposed (at least partly) before the
// change: they are discarded as stale, and the next frame says how many.
int change(int index, int timeout_ms, const Write& write, const Apply& apply) {
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

int set_shutter_speed(int index, int shutter_speed, int timeout_ms) {
    const int blank = shutter_speed + kBlankTimeMargin;
    auto write = [=](libusb_device_handle* h, const Deadline& d) -> int {
        int r;
        // The blank time rides with the shutter speed, written first, as the
        // link writes them, and with the link's shorter shutter pauses.
        if ((r = register_access(h, kWrBlankHigh, blank >> 8, d, nullptr)) != ORB_STREAM_OK) return r;
        if ((r = rest(kShutterStepPauseMs, d)) != ORB_STREAM_OK) return r;
        if ((r = register_access(h, kWrBlankLow, blank & 0xFF, d, nullptr)) != ORB_STREAM_OK) return r;
        if ((r = rest(kShutterStepPauseMs, d)) != ORB_STREAM_OK) return r;
        r = write_pair_checked(h, kWrShutterHigh, shutter_speed >> 8, kWrShutterLow, shutter_speed & 0xFF,
                               kRdShutterHigh, kRdShutterLow, kShutterStepPauseMs, d);
        link::record_shutter_speed(shutter_speed, blank);
        return r;
    };
    return change(index, timeout_ms, write, [=](orb_stream_settings& s) {
        s.shutter_speed = shutter_speed;
        s.blank_time = blank;
    });
}

int set_blank_time(int index, int blank_time, int timeout_ms) {
    auto write = [=](libusb_device_handle* h, const Deadline& d) -> int {
        int r = write_pair_checked(h, kWrBlankHigh, blank_time >> 8, kWrBlankLow, blank_time & 0xFF, kRdBlankHigh,
                                   kRdBlankLow, link::register_pause_ms(), d);
        link::record_blank_time(blank_time);
        return r;
    };
    return change(index, timeout_ms, write, [=](orb_stream_settings& s) { s.blank_time = blank_time; });
}

int set_adc(int index, int gain, int range, int resolution, int timeout_ms) {
    const int gain_res = gain << 1 | resolution;
    auto write = [=](libusb_device_handle* h, const Deadline& d) -> int {
        return write_pair_checked(h, kWrAdcRange, range, kWrAdcGainRes, gain_res, kRdAdcRange, kRdAdcGainRes,
                                  link::register_pause_ms(), d);
    };
    return change(index, timeout_ms, write, [=](orb_stream_settings& s) {
        s.adc_range = range;
        s.adc_gain = gain;
        s.adc_resolution = resolution;
    });
}

int set_onboard_average(int index, int count, int timeout_ms) {
    auto write = [=](libusb_device_handle* h, const Deadline& d) -> int {
        unsigned char got = 0;
        for (int attempt = 0; attempt < 2; attempt++) {
            int r;
            if ((r = register_access(h, kWrFrameAverage, count, d, nullptr)) != ORB_STREAM_OK) return r;
            if ((r = rest(kFrameAveragePauseMs, d)) != ORB_STREAM_OK) return r;
            if ((r = register_access(h, kRdFrameAverage, 0, d, &got)) != ORB_STREAM_OK) return r;
            if ((r = rest(kFrameAveragePauseMs, d)) != ORB_STREAM_OK) return r;
            if (got == count) return ORB_STREAM_OK;
        }
        return ORB_STREAM_ERR_VERIFY;
    };
    return change(index, timeout_ms, write, [=](orb_stream_settings& s) { s.onboard_average = count; });
}

}  // namespace orbstream

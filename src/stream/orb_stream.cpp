// The streaming layer's C entry points (orb_stream.h), all of them: each
// checks its arguments and hands over to the part of the layer that owns
// the work.

#include "orb_stream.h"

#include <algorithm>
#include <vector>

#include "auto_exposure.h"
#include "frame_watch.h"
#include "presence.h"
#include "settings_change.h"
#include "single_shot.h"
#include "stream_session.h"
#include "../efm32com/orb_exposure.h"

using namespace orbstream;

namespace {

bool valid_index(int index) { return index >= 0 && index < kMaxStreams; }

}  // namespace

extern "C" int orb_stream_start(int index, int ring_frames, int timeout_ms) {
    if (ring_frames < 0 || ring_frames > ORB_STREAM_MAX_RING || timeout_ms < 0) return ORB_STREAM_ERR_INVALID;
    return start_stream(index, static_cast<uint32_t>(ring_frames), timeout_ms);
}

extern "C" int orb_stream_read(int index, orb_stream_frame* frame, int timeout_ms) {
    if (!valid_index(index) || frame == nullptr || timeout_ms < 0) return ORB_STREAM_ERR_INVALID;
    return read_frame(index, *frame, timeout_ms);
}

extern "C" int orb_stream_stop(int index, int timeout_ms) {
    if (!valid_index(index) || timeout_ms < 0) return ORB_STREAM_ERR_INVALID;
    return stop_stream(index, timeout_ms);
}

extern "C" int orb_stream_get_stats(int index, orb_stream_stats* stats) {
    if (!valid_index(index) || stats == nullptr) return ORB_STREAM_ERR_INVALID;
    return stream_stats(index, *stats);
}

extern "C" int orb_stream_get_settings(int index, orb_stream_settings* settings, int timeout_ms) {
    if (settings == nullptr || timeout_ms < 0) return ORB_STREAM_ERR_INVALID;
    return current_settings(index, *settings, timeout_ms);
}

extern "C" int orb_stream_set_shutter_speed(int index, int shutter_speed, int timeout_ms) {
    // The blank time that comes with it must fit its registers too.
    if (shutter_speed < kMinShutterSpeed || shutter_speed > kMaxRegisterPairValue - kBlankTimeMargin ||
        timeout_ms < 0)
        return ORB_STREAM_ERR_INVALID;
    return set_shutter_speed(index, shutter_speed, timeout_ms);
}

extern "C" int orb_stream_set_blank_time(int index, int blank_time, int timeout_ms) {
    if (blank_time < 0 || blank_time > kMaxRegisterPairValue || timeout_ms < 0) return ORB_STREAM_ERR_INVALID;
    return set_blank_time(index, blank_time, timeout_ms);
}

extern "C" int orb_stream_set_adc(int index, int gain, int range, int resolution, int timeout_ms) {
    if (gain < 0 || gain > 1 || range < 0 || range > 255 || resolution < 0 || resolution > 1 || timeout_ms < 0)
        return ORB_STREAM_ERR_INVALID;
    return set_adc(index, gain, range, resolution, timeout_ms);
}

extern "C" int orb_stream_set_onboard_average(int index, int count, int timeout_ms) {
    if (count < 0 || count > 255 || timeout_ms < 0) return ORB_STREAM_ERR_INVALID;
    return set_onboard_average(index, count, timeout_ms);
}

extern "C" int orb_single_shot(int index, double* output, int averages, int timeout_ms) {
    if (output == nullptr || averages < 1 || timeout_ms < 0) return ORB_STREAM_ERR_INVALID;
    return single_shot(index, output, averages, timeout_ms);
}

extern "C" int orb_frame_activity_get(int index, orb_frame_activity* activity) {
    if (!valid_index(index) || activity == nullptr) return ORB_STREAM_ERR_INVALID;
    return frame_activity(index, *activity);
}

extern "C" int orb_sensor_present(int index) {
    // Any index at all: one never opened answers NOT_CONNECTED.
    if (index < 0) return ORB_STREAM_ERR_INVALID;
    return present(index);
}

extern "C" int orb_stream_auto_expose(int index, const int* filters, int filter_count, int target, int tolerance,
                                      int timeout_ms, orb_exposure_result* result) {
    if (!valid_index(index) || result == nullptr || timeout_ms < 0 || filter_count < 0 ||
        filter_count > ORB_STREAM_FILTERS || (filter_count > 0 && filters == nullptr) || target < 0 ||
        target > ORB_STREAM_SATURATED || tolerance < 0 || tolerance > ORB_STREAM_SATURATED)
        return ORB_STREAM_ERR_INVALID;
    std::vector<int> chosen;
    for (int i = 0; i < filter_count; i++) {
        if (filters[i] < 1 || filters[i] > ORB_STREAM_FILTERS) return ORB_STREAM_ERR_INVALID;
        chosen.push_back(filters[i] - 1);
    }
    if (target == 0) target = ORB_EXPOSURE_DEFAULT_TARGET;
    if (tolerance == 0) tolerance = std::max(1, target * ORB_EXPOSURE_DEFAULT_TOLERANCE_PERCENT / 100);
    return auto_expose(index, chosen, target, tolerance, timeout_ms, *result);
}

extern "C" const char* orb_exposure_outcome_text(int outcome) {
    switch (outcome) {
    case ORB_EXPOSURE_ON_TARGET: return "on target";
    case ORB_EXPOSURE_TOO_DIM: return "too dim at the longest exposure";
    case ORB_EXPOSURE_TOO_BRIGHT: return "too bright at the shortest exposure";
    case ORB_EXPOSURE_LIGHT_CHANGED: return "the light changed while it searched";
    default: return "unknown outcome";
    }
}

extern "C" const char* orb_stream_result_text(int result) {
    switch (result) {
    case ORB_STREAM_OK: return "ok";
    case ORB_STREAM_ERR_TIMEOUT: return "timed out";
    case ORB_STREAM_ERR_LOST: return "sensor lost";
    case ORB_STREAM_ERR_ENDED: return "frame transfer ended";
    case ORB_STREAM_ERR_NOT_CONNECTED: return "no sensor at that index";
    case ORB_STREAM_ERR_INVALID: return "invalid argument";
    case ORB_STREAM_ERR_BUSY: return "busy";
    case ORB_STREAM_ERR_NOT_STREAMING: return "not streaming";
    case ORB_STREAM_ERR_USB: return "request refused by the sensor";
    case ORB_STREAM_ERR_VERIFY: return "setting did not read back";
    case ORB_STREAM_ERR_NO_MEMORY: return "out of memory";
    case ORB_STREAM_ERR_UNSUPPORTED: return "not supported with the frame moving average";
    case ORB_STREAM_ERR_SHORT_FRAME: return "frames came short and were not replaced in time";
    case ORB_STREAM_ERR_STALLED: return "frame endpoint stalled";
    default: return "unknown result";
    }
}

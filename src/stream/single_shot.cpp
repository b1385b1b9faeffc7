// duGetFilterData with a time-out. It takes the link's single shot step by
// step (mode 3 of get_filter_data_from_sensor: the same requests, pauses,
// frame window and average), waiting on the same queue and condition, but
// never past the caller's deadline and never once the event loop has ended.

#include "single_shot.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "frame_watch.h"
#include "link_seam.h"
#include "presence.h"
#include "sensor_requests.h"
#include "stream_session.h"
#include "../efm32com/orb_frame_samples.h"

namespace orbstream {

namespace {

// After a time-out the stream is stopped with one request this short: the
// caller's time has run out.
constexpr int kStopAfterTimeoutMs = 50;

// The link's pause, cut at the deadline. usleep, like the link's pauses, so
// that a single shot keeps their exact lengths.
bool pause_until(int ms, const Deadline& d) {
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(d.at - Clock::now()).count();
    long long us = std::min<long long>(static_cast<long long>(ms) * 1000, std::max<long long>(left, 0));
    if (us > 0) usleep(static_cast<useconds_t>(us));
    return static_cast<long long>(ms) * 1000 <= left;
}

// acquire_frame_data_bulk: the pause after a streaming request is reckoned
// from the shutter speed before the request is sent. The sensor's answer
// goes to *answer.
int paced_request(libusb_device_handle* h, int code, const Deadline& d, int* answer = nullptr) {
    const int settle_ms = link::stream_request_pause_ms();
    int r = stream_request(h, code, d);
    if (answer != nullptr) *answer = r;
    // The link ignores what a streaming request answers; only a vanished
    // sensor or the end of the caller's time stops this one.
    if (r == ORB_STREAM_ERR_LOST) return r;
    return pause_until(settle_ms, d) ? ORB_STREAM_OK : ORB_STREAM_ERR_TIMEOUT;
}

// *start_answer: what the sensor said to the start request.
int start_streaming(libusb_device_handle* h, const Deadline& d, int* start_answer) {
    int r = paced_request(h, kCmdStreamStop, d);
    if (r == ORB_STREAM_OK) r = pause_until(kStreamGapMs, d) ? ORB_STREAM_OK : ORB_STREAM_ERR_TIMEOUT;
    if (r == ORB_STREAM_OK) r = paced_request(h, kCmdStreamStart, d, start_answer);
    return r;
}

int stop_streaming(libusb_device_handle* h, const Deadline& d) {
    int r = paced_request(h, kCmdStreamStop, d);
    for (int i = 0; i < 2 && r == ORB_STREAM_OK; i++) {
        r = pause_until(kStreamGapMs, d) ? ORB_STREAM_OK : ORB_STREAM_ERR_TIMEOUT;
        if (r == ORB_STREAM_OK) r = paced_request(h, kCmdStreamStop, d);
    }
    link::mark_streaming(false);
    return r;
}

// A single shot timed out and its stop went unanswered.
std::atomic<bool> stop_owed{false};

bool any_stream_running() {
    for (int i = 0; i < kMaxStreams; i++) {
        Session& s = session_at(i);
        std::lock_guard<std::mutex> guard(s.lock);
        if (s.active) return true;
    }
    return false;
}

}  // namespace

int single_shot(int index, double* output, int averages, int timeout_ms) {
    libusb_device_handle* handle = nullptr;
    int r = usable(index, &handle);
    if (r != ORB_STREAM_OK) return r;
    // One frame queue serves every acquisition of the process.
    if (any_stream_running()) return ORB_STREAM_ERR_BUSY;
    if (link::moving_average_on()) return ORB_STREAM_ERR_UNSUPPORTED;
    const Deadline deadline = Deadline::in_ms(timeout_ms);

    begin_shot_watch(averages);
    link::arm_single_shot(averages);
    // After a time-out whose stop went unanswered, the sensor may or may
    // not stream: it is restarted, not trusted to.
    int start_answer = ORB_STREAM_OK;
    if (!link::streaming() || stop_owed.exchange(false)) {
        link::mark_streaming(true);
        r = start_streaming(handle, deadline, &start_answer);
    }

    double sum[orbframe::kSamples];
    uint32_t dropped = 0;
    if (r != ORB_STREAM_OK) link::drop_single_shot();
    while (r == ORB_STREAM_OK) {
        std::fill(sum, sum + orbframe::kSamples, 0.0);
        r = link::take_single_shot(averages, deadline, sum);
        const uint32_t short_ones = end_shot_watch();
        if (r != ORB_STREAM_OK || short_ones == 0) break;
        // The link unpacks a short frame with its tail at zero: every frame
        // of this average goes, and the sensor, still streaming, gives the
        // next ones as it does to a second duGetFilterData.
        dropped += short_ones;
        begin_shot_watch(averages);
        link::arm_single_shot(averages);
    }
    end_shot_watch();
    if (dropped > 0) count_dropped(index, dropped);

    if (r != ORB_STREAM_OK) {
        // Left streaming, a sensor would keep the bus busy; one stop, best
        // effort. If it did not get through, the next single shot restarts
        // the sensor instead of waiting on frames it may not send.
        if (r == ORB_STREAM_ERR_TIMEOUT && !link::ended()) {
            if (stream_request(handle, kCmdStreamStop, Deadline::in_ms(kStopAfterTimeoutMs)) == ORB_STREAM_OK)
                link::mark_streaming(false);
            else
                stop_owed = true;
        }
        if (r != ORB_STREAM_ERR_TIMEOUT) return loss_result(handle);
        // Said for what it was: frames that came short, or a start the
        // sensor refused, after which no frame came.
        if (dropped > 0) return ORB_STREAM_ERR_SHORT_FRAME;
        return start_answer == ORB_STREAM_ERR_USB ? ORB_STREAM_ERR_USB : r;
    }
    // Stops, with the link's frame queue released: the stop requests wait
    // for libusb's event lock, held by the callback while it takes the
    // queue's lock.
    if (link::streaming()) stop_streaming(handle, deadline);
    for (int j = 0; j < orbframe::kSamples; j++) output[j] = sum[j] / averages;
    return ORB_STREAM_OK;
}

}  // namespace orbstream

// duGetFilterData with a time-out. It takes the link's single shot step by
// step (mode 3 of get_filter_data_from_sensor: the same requests, pauses,
// frame window and average), waiting on the same queue and condition, but
// never past the caller's deadline and never once the event loop has ended.

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "orb_device_interface_device_settings.h"
#include "orb_device_interface_stm.h"
#include "presence.h"
#include "sensor_requests.h"
#include "stream_session.h"

namespace orbstream {

namespace {

constexpr int kModeSingleShot = 3;
constexpr int kFilters = 1024;
// exit_cond is on the realtime clock; waiting on it in short slices, with
// the deadline kept on the steady clock, keeps a clock step from stretching
// the wait, and sees do_exit even when request_exit's one signal woke
// another waiter.
constexpr long kWaitSliceNs = 20 * 1000 * 1000;
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
// from the shutter speed before the request is sent.
int paced_request(libusb_device_handle* h, int code, const Deadline& d) {
    const int settle_ms = get_sleep_time_for_shutter_speed(g_iCurShutterSpeed);
    int r = stream_request(h, code, d);
    // The link ignores what a streaming request answers; only a vanished
    // sensor or the end of the caller's time stops this one.
    if (r == ORB_STREAM_ERR_LOST) return r;
    return pause_until(settle_ms, d) ? ORB_STREAM_OK : ORB_STREAM_ERR_TIMEOUT;
}

int start_streaming(libusb_device_handle* h, const Deadline& d) {
    int r = paced_request(h, kCmdStreamStop, d);
    if (r == ORB_STREAM_OK) r = pause_until(kStreamGapMs, d) ? ORB_STREAM_OK : ORB_STREAM_ERR_TIMEOUT;
    if (r == ORB_STREAM_OK) r = paced_request(h, kCmdStreamStart, d);
    return r;
}

int stop_streaming(libusb_device_handle* h, const Deadline& d) {
    int r = paced_request(h, kCmdStreamStop, d);
    for (int i = 0; i < 2 && r == ORB_STREAM_OK; i++) {
        r = pause_until(kStreamGapMs, d) ? ORB_STREAM_OK : ORB_STREAM_ERR_TIMEOUT;
        if (r == ORB_STREAM_OK) r = paced_request(h, kCmdStreamStop, d);
    }
    bulkModeStarted = false;
    return r;
}

timespec realtime_in(long ns) {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_nsec += ns;
    ts.tv_sec += ts.tv_nsec / 1000000000;
    ts.tv_nsec %= 1000000000;
    return ts;
}

// Under exit_cond_lock: until `wanted` frames are queued, the deadline
// passes or the event loop ends.
int wait_for_frames(int wanted, const Deadline& d) {
    while (static_cast<int>(frameDataQueue.size()) < wanted) {
        if (do_exit != 0) return ORB_STREAM_ERR_ENDED;
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(d.at - Clock::now()).count();
        if (left <= 0) return ORB_STREAM_ERR_TIMEOUT;
        timespec until = realtime_in(std::min<long long>(left, kWaitSliceNs));
        pthread_cond_timedwait(&exit_cond, &exit_cond_lock, &until);
    }
    return ORB_STREAM_OK;
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

}  // namespace orbstream

using namespace orbstream;

extern "C" int orb_single_shot(int index, double* output, int averages, int timeout_ms) {
    if (output == nullptr || averages < 1 || timeout_ms < 0) return ORB_STREAM_ERR_INVALID;
    libusb_device_handle* handle = nullptr;
    int r = usable(index, &handle);
    if (r != ORB_STREAM_OK) return r;
    // One frame queue serves every acquisition of the process.
    if (any_stream_running()) return ORB_STREAM_ERR_BUSY;
    if (g_enable_FMA) return ORB_STREAM_ERR_UNSUPPORTED;
    const Deadline deadline = Deadline::in_ms(timeout_ms);

    iCurrAcqMode = kModeSingleShot;
    g_count = 0;
    iCurrAvgNum = averages;
    // After a time-out whose stop went unanswered, the sensor may or may
    // not stream: it is restarted, not trusted to.
    if (!bulkModeStarted || stop_owed.exchange(false)) {
        bulkModeStarted = true;
        r = start_streaming(handle, deadline);
    }

    double sum[kFilters] = {};
    pthread_mutex_lock(&exit_cond_lock);
    if (r == ORB_STREAM_OK) r = wait_for_frames(averages, deadline);
    if (r == ORB_STREAM_OK)
        for (int k = 0; k < averages; k++)
            for (int j = 0; j < kFilters; j++) sum[j] += frameDataQueue[k][j];
    // Whatever happened, the callback queues nothing more for this call.
    frameDataQueue.clear();
    iCurrAvgNum = 0;
    pthread_mutex_unlock(&exit_cond_lock);

    if (r != ORB_STREAM_OK) {
        // Left streaming, a sensor would keep the bus busy; one stop, best
        // effort. If it did not get through, the next single shot restarts
        // the sensor instead of waiting on frames it may not send.
        if (r == ORB_STREAM_ERR_TIMEOUT && do_exit == 0) {
            if (stream_request(handle, kCmdStreamStop, Deadline::in_ms(kStopAfterTimeoutMs)) == ORB_STREAM_OK)
                bulkModeStarted = false;
            else
                stop_owed = true;
        }
        return r == ORB_STREAM_ERR_TIMEOUT ? r : loss_result(handle);
    }
    // Stops, with the lock released: the stop requests wait for libusb's
    // event lock, held by the callback while it takes exit_cond_lock.
    if (bulkModeStarted) stop_streaming(handle, deadline);
    for (int j = 0; j < kFilters; j++) output[j] = sum[j] / averages;
    return ORB_STREAM_OK;
}

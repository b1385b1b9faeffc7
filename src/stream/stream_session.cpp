// Streams: start, read, stop, and the tap that fills their rings.

#include "stream_session.h"

#include <stddef.h>

#include "frame_tap.h"
#include "frame_watch.h"
#include "link_seam.h"
#include "presence.h"
#include "stream_transfers.h"
#include "sensor_requests.h"
#include "../efm32com/orb_frame_samples.h"
#include "../efm32com/orb_stm_commands.h"

namespace orbstream {

namespace {
void on_frame_transfer(const libusb_transfer* t);
}

// From the start: the frame watch sees a stall that ends the frame path
// before the host's first call of this layer.
std::atomic<FrameTap> g_frame_tap{on_frame_transfer};

static_assert(ORB_STREAM_FILTERS == orbframe::kSamples && ORB_STREAM_SATURATED == orbframe::kSampleMax,
              "a stream's frame is the sensor's frame");
static_assert(offsetof(orb_stream_frame, missed_before) + sizeof(uint32_t) == sizeof(orb_stream_frame) &&
                  offsetof(orb_stream_stats, missed) + sizeof(uint32_t) == sizeof(orb_stream_stats),
              "the missed counts sit in what was the records' tail padding");

namespace {

// Sessions live as long as the process: the event-loop thread may still be
// in the tap when the host's last call returns.
Session* sessions() {
    static Session* table = new Session[kMaxStreams];
    return table;
}

void take(Session& s, const libusb_transfer* t, uint64_t now_ns) {
    std::lock_guard<std::mutex> guard(s.lock);
    // Stopped (or restarted for another handle) since the tap looked.
    if (!s.active || s.handle.load(std::memory_order_relaxed) != t->dev_handle) return;
    // A du... acquisition takes frames from the link's transfer: the
    // stream's own ones stop sharing them.
    if (link::collecting_frames()) let_own_lapse_locked(s);
    take_locked(s, t, now_ns);
}

void on_frame_transfer(const libusb_transfer* t) {
    Session* table = sessions();
    if (t == nullptr) {
        // The event loop is ending: wake every wait to see it.
        for (int i = 0; i < kMaxStreams; i++) {
            std::lock_guard<std::mutex> guard(table[i].lock);
            table[i].arrived.notify_all();
        }
        wake_rests();
        return;
    }
    const uint64_t now_ns = monotonic_ns();
    watch_completion(t, now_ns);
    for (int i = 0; i < kMaxStreams; i++)
        if (t->dev_handle != nullptr && table[i].handle.load(std::memory_order_acquire) == t->dev_handle) {
            take(table[i], t, now_ns);
            return;
        }
}

// Frames carry the settings they were exposed with: the stream learns them
// from the sensor at its start, and from its own changes after that.
int read_settings(libusb_device_handle* h, const Deadline& d, orb_stream_settings& out) {
    static const int kCodes[] = {kRdShutterHigh, kRdShutterLow, kRdBlankHigh,   kRdBlankLow,
                                 kRdAdcRange,    kRdAdcGainRes, kRdFrameAverage};
    unsigned char v[7] = {};
    for (int i = 0; i < 7; i++) {
        int r = register_access(h, kCodes[i], 0, d, &v[i]);
        if (r != ORB_STREAM_OK) return r;
    }
    out.shutter_speed = v[0] << 8 | v[1];
    out.blank_time = v[2] << 8 | v[3];
    out.adc_range = v[4];
    out.adc_gain = (v[5] >> 1) & 1;
    out.adc_resolution = v[5] & 1;
    out.onboard_average = v[6];
    return ORB_STREAM_OK;
}

int failed(int result, libusb_device_handle* handle) {
    return result == ORB_STREAM_ERR_LOST || result == ORB_STREAM_ERR_ENDED ? loss_result(handle) : result;
}

}  // namespace

void begin_stream_locked(Session& s, FrameRing ring, const orb_stream_settings& settings,
                         libusb_device_handle* handle) {
    s.ring = std::move(ring);
    s.active = s.started_once = true;
    s.skip_at_start = kFramesInFlight;
    s.stale_pending = 0;
    s.changing = false;
    s.failure = 0;
    s.settings = settings;
    s.stats = orb_stream_stats{};
    s.stats.capacity = s.ring.capacity();
    s.lost_since = s.stale_since = s.missed_since = 0;
    s.interval_ns = frame_interval_ns(settings.shutter_speed);
    s.missed_frames.restart();
    s.handle.store(handle, std::memory_order_release);
}

void take_locked(Session& s, const libusb_transfer* t, uint64_t now_ns) {
    if (t->status != LIBUSB_TRANSFER_COMPLETED) {
        // The callback ends the event loop after this: no frame will come.
        s.failure = t->status == LIBUSB_TRANSFER_NO_DEVICE ? ORB_STREAM_ERR_LOST : ORB_STREAM_ERR_ENDED;
        s.arrived.notify_all();
        return;
    }
    if (s.skip_at_start > 0) {
        s.skip_at_start--;
        return;
    }
    orb_stream_stats& st = s.stats;
    const uint64_t sequence = st.completed++;
    // Around a change the pace is the old one or the new one: the reckoning
    // starts again after it.
    if (!s.changing && s.stale_pending == 0) {
        const uint32_t missed = s.missed_frames.after_frame(now_ns, s.interval_ns);
        st.missed += missed;
        s.missed_since += missed;
    }
    if (s.changing || s.stale_pending > 0) {
        if (!s.changing) s.stale_pending--;
        st.stale++;
        s.stale_since++;
        return;
    }
    if (t->actual_length != orbframe::kFrameBytes) {
        st.lost++;
        st.short_frames++;
        s.lost_since++;
        return;
    }
    if (s.ring.full()) {
        // The newest frame goes: what the host has not read yet stays whole
        // and in order, and the next frame it gets says how many it missed.
        st.lost++;
        s.lost_since++;
        return;
    }
    orb_stream_frame& f = s.ring.back();
    f.sequence = sequence;
    f.timestamp_ns = now_ns;
    f.lost_before = s.lost_since;
    f.stale_before = s.stale_since;
    f.missed_before = s.missed_since;
    f.settings = s.settings;
    f.saturated = orbframe::unpack_to_u16(t->buffer, f.values, ORB_STREAM_SATURATED);
    s.ring.push();
    s.lost_since = s.stale_since = s.missed_since = 0;
    if (s.ring.size() > st.max_queued) st.max_queued = s.ring.size();
    s.arrived.notify_one();
}

bool pop_locked(Session& s, orb_stream_frame& out) {
    if (s.ring.empty()) return false;
    out = s.ring.front();
    s.ring.pop();
    s.stats.delivered++;
    return true;
}

void begin_change_locked(Session& s) {
    s.changing = true;
    // Gaps stay exact: what the flushed frames said they followed carries
    // over to the next frame delivered.
    while (!s.ring.empty()) {
        s.lost_since += s.ring.front().lost_before;
        s.stale_since += s.ring.front().stale_before + 1;
        s.missed_since += s.ring.front().missed_before;
        s.stats.stale++;
        s.ring.pop();
    }
}

void end_change_locked(Session& s) {
    s.changing = false;
    s.interval_ns = frame_interval_ns(s.settings.shutter_speed);
    s.missed_frames.restart();
    s.stale_pending = kFramesInFlight;
}

Session& session_at(int index) { return sessions()[index]; }

int start_stream(int index, uint32_t ring_frames, int timeout_ms) {
    libusb_device_handle* handle = nullptr;
    int r = usable(index, &handle);
    if (r != ORB_STREAM_OK) return r;
    // A sensor without the frame transfer (one brought up before the event
    // loop ran) would stream into nothing.
    if (!link::has_frame_transfer(index)) return ORB_STREAM_ERR_NOT_CONNECTED;
    Session& s = session_at(index);
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (s.active) return ORB_STREAM_ERR_BUSY;
    }
    const Deadline deadline = Deadline::in_ms(timeout_ms);
    orb_stream_settings settings{};
    if ((r = read_settings(handle, deadline, settings)) != ORB_STREAM_OK) return failed(r, handle);

    FrameRing ring;
    if (!ring.allocate(ring_frames == 0 ? ORB_STREAM_DEFAULT_RING : ring_frames))
        return ORB_STREAM_ERR_NO_MEMORY;

    // A stop first, as the link starts a stream; the sensor may miss it
    // while busy, so its refusal does not count. Frames are taken from the
    // start request on, and the first two, possibly of an earlier stream,
    // are passed over.
    r = stream_request(handle, kCmdStreamStop, deadline);
    if (r == ORB_STREAM_ERR_LOST || r == ORB_STREAM_ERR_TIMEOUT) return failed(r, handle);
    if ((r = rest(kStreamGapMs, deadline)) != ORB_STREAM_OK) return failed(r, handle);
    {
        std::lock_guard<std::mutex> guard(s.lock);
        begin_stream_locked(s, std::move(ring), settings, handle);
    }
    r = stream_request(handle, kCmdStreamStart, deadline);
    if (r != ORB_STREAM_OK) {
        std::lock_guard<std::mutex> guard(s.lock);
        s.handle.store(nullptr, std::memory_order_release);
        s.active = false;
        s.ring.release();
        return failed(r, handle);
    }
    {
        // Frames from now on have a transfer waiting while another one is
        // reaped and resubmitted.
        std::lock_guard<std::mutex> guard(s.lock);
        submit_own_locked(s, handle);
    }
    // What continuous acquisition leaves behind: a later single shot of
    // the link then takes frames of this stream instead of restarting it.
    link::mark_streaming(true);
    return ORB_STREAM_OK;
}

int read_frame(int index, orb_stream_frame& frame, int timeout_ms) {
    Session& s = session_at(index);
    const Deadline deadline = Deadline::in_ms(timeout_ms);
    int failure = 0;
    {
        std::unique_lock<std::mutex> lock(s.lock);
        if (!s.active) return ORB_STREAM_ERR_NOT_STREAMING;
        s.arrived.wait_until(lock, deadline.at, [&s] { return !s.ring.empty() || s.failure || link::ended(); });
        failure = s.failure ? s.failure : link::ended() ? ORB_STREAM_ERR_ENDED : 0;
        if (!failure) return pop_locked(s, frame) ? ORB_STREAM_OK : ORB_STREAM_ERR_TIMEOUT;
    }
    return loss_result(link::handle_at(index));
}

int stop_stream(int index, int timeout_ms) {
    Session& s = session_at(index);
    int failure = 0;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (!s.active) return ORB_STREAM_ERR_NOT_STREAMING;
        s.handle.store(nullptr, std::memory_order_release);
        s.active = false;
        s.stats.queued = s.ring.size();
        s.ring.release();
        failure = s.failure;
        // Whatever it takes from now on is the sensor's last frames.
        let_own_lapse_locked(s);
    }
    const Deadline deadline = Deadline::in_ms(timeout_ms);
    libusb_device_handle* handle = link::handle_at(index);
    if (handle == nullptr || failure || link::ended()) {
        retire_own(s, deadline);
        return handle == nullptr ? ORB_STREAM_ERR_NOT_CONNECTED : loss_result(handle);
    }
    // Three stops, as the link stops a stream: the controller can miss one
    // while it is busy with a frame. The stream's transfers go after them, not
    // before: one cancelled while the sensor fills it would leave the rest of
    // that frame to the link's transfer.
    int r = stream_request(handle, kCmdStreamStop, deadline);
    for (int i = 0; i < 2 && r == ORB_STREAM_OK; i++) {
        r = rest(kStreamGapMs, deadline);
        if (r == ORB_STREAM_OK) r = stream_request(handle, kCmdStreamStop, deadline);
    }
    retire_own(s, deadline);
    if (r == ORB_STREAM_OK) link::mark_streaming(false);
    return failed(r, handle);
}

int current_settings(int index, orb_stream_settings& settings, int timeout_ms) {
    libusb_device_handle* handle = nullptr;
    int r = usable(index, &handle);
    if (r != ORB_STREAM_OK) return r;
    Session& s = session_at(index);
    {
        // A stream knows them, and asking the sensor now would hold its
        // frames back behind the requests.
        std::lock_guard<std::mutex> guard(s.lock);
        if (s.active && !s.failure) {
            settings = s.settings;
            return ORB_STREAM_OK;
        }
    }
    orb_stream_settings read{};
    r = read_settings(handle, Deadline::in_ms(timeout_ms), read);
    if (r == ORB_STREAM_OK) settings = read;
    return failed(r, handle);
}

int stream_stats(int index, orb_stream_stats& stats) {
    Session& s = session_at(index);
    int result;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (!s.started_once) return ORB_STREAM_ERR_NOT_STREAMING;
        stats = s.stats;
        if (s.active) stats.queued = s.ring.size();
        result = s.failure ? s.failure : !s.active ? ORB_STREAM_ERR_NOT_STREAMING : ORB_STREAM_OK;
    }
    if (result == ORB_STREAM_OK && link::ended()) result = ORB_STREAM_ERR_ENDED;
    return failed(result, link::handle_at(index));
}

}  // namespace orbstream

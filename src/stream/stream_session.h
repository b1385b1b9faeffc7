#ifndef ORB_STREAM_STREAM_SESSION_H
#define ORB_STREAM_STREAM_SESSION_H

// One stream per sensor index: its ring and counters, shared by the host's
// thread and the event-loop thread, where the frame tap fills the ring.

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include <libusb.h>

#include "frame_pace.h"
#include "frame_ring.h"
#include "orb_stream.h"
#include "../efm32com/orb_stm_commands.h"

namespace orbstream {

// Frames under way when a stream starts or a setting changes: the one on
// the bus and the one being exposed, as many as the single shot drops.
constexpr int kFramesInFlight = kSingleShotSkip;

struct Session {
    std::mutex lock;
    std::condition_variable arrived;  // a frame, a failure, or the end of the event loop
    // The tap's key: non-null while frames are taken. Read without the lock
    // on every completion, so that other sensors' frames cost no lock.
    std::atomic<libusb_device_handle*> handle{nullptr};

    // The rest under `lock`.
    bool active = false;  // started and not stopped
    bool started_once = false;
    FrameRing ring;
    int skip_at_start = 0;  // not counted: before the stream's first frame
    int stale_pending = 0;  // counted as stale: exposed before a change
    bool changing = false;  // a change is being written: everything is stale
    int failure = 0;        // ORB_STREAM_ERR_LOST or _ENDED once the transfer failed
    orb_stream_settings settings{};
    orb_stream_stats stats{};
    uint32_t lost_since = 0;   // since the last frame queued
    uint32_t stale_since = 0;
    uint32_t missed_since = 0;
    uint64_t interval_ns = 0;    // the sensor's pace at the stream's settings
    MissedFrames missed_frames;  // from the sensor's pace

    // The stream's own frame transfers beside the link's (stream_transfers.h):
    // allocated at the first stream and kept for the life of the process.
    std::array<libusb_transfer*, kOwnTransfers> own{};
    std::array<bool, kOwnTransfers> own_in_flight{};
    bool own_retiring = false;  // not submitted again once they complete
    std::condition_variable own_idle;
};

// The streams as the C entry points (orb_stream.cpp) drive them, their
// arguments checked there; ring_frames 0 is the default ring.
int start_stream(int index, uint32_t ring_frames, int timeout_ms);
int read_frame(int index, orb_stream_frame& frame, int timeout_ms);
int stop_stream(int index, int timeout_ms);
// Those of the running stream, else read from the sensor.
int current_settings(int index, orb_stream_settings& settings, int timeout_ms);
int stream_stats(int index, orb_stream_stats& stats);

Session& session_at(int index);  // index checked by the caller

// Under the lock: the session takes frames of `handle` into `ring` from now
// on, numbered from 0 after the frames in flight, with these settings.
void begin_stream_locked(Session& s, FrameRing ring, const orb_stream_settings& settings,
                         libusb_device_handle* handle);

// What the tap does with one completion of the session's sensor, under
// the session's lock: frames are numbered, passed over, discarded as stale,
// counted lost or queued with their time and settings, and the time since
// the previous one tells how many the host missed.
void take_locked(Session& s, const libusb_transfer* t, uint64_t now_ns);
// Under the lock: the oldest queued frame into `out`, if there is one.
bool pop_locked(Session& s, orb_stream_frame& out);
// Under the lock, around a settings change: the queue is flushed as stale
// and every completion until the change ends is stale; after it, the
// frames in flight are.
void begin_change_locked(Session& s);
void end_change_locked(Session& s);

}  // namespace orbstream

#endif

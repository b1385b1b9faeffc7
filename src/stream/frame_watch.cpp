// The frame watch (frame_watch.h): atomics only, as the tap runs on the
// event-loop thread for every completion of every sensor.

#include "frame_watch.h"

#include <time.h>

#include <algorithm>
#include <atomic>

#include "link_seam.h"
#include "presence.h"
#include "../efm32com/orb_exposure.h"
#include "../efm32com/orb_frame_samples.h"
#include "../efm32com/orb_stm_commands.h"

namespace orbstream {

namespace {

struct Watched {
    std::atomic<libusb_device_handle*> handle{nullptr};
    std::atomic<uint64_t> completed{0};
    std::atomic<uint64_t> short_frames{0};
    std::atomic<uint64_t> dropped_short{0};
    std::atomic<uint64_t> last_ns{0};
};

// As long as the process: the tap may run after the host's last call.
Watched* table() {
    static Watched* entries = new Watched[kMaxStreams];
    return entries;
}

// Handles whose frame transfer stalled, watched or not: a stall can end the
// frame path before the host's first call on the sensor.
std::atomic<libusb_device_handle*> stalled_handles[kMaxStreams];

void remember_stall(libusb_device_handle* handle) {
    for (auto& slot : stalled_handles) {
        libusb_device_handle* empty = nullptr;
        if (slot.load(std::memory_order_acquire) == handle ||
            slot.compare_exchange_strong(empty, handle, std::memory_order_acq_rel))
            return;
    }
}

std::atomic<bool> shot_open{false};
std::atomic<uint32_t> shot_seen{0};
std::atomic<uint32_t> shot_last{0};
std::atomic<uint32_t> shot_short{0};

// The longest pause between two completions of the link's auto-exposure
// search at shutter speed `s`: the three stops after a trial and the stop
// and start before the next, each followed by the streaming pause, the
// register writes of the new shutter speed and its blank period, two frames,
// and a margin for a loaded machine.
constexpr uint32_t kPatienceMarginMs = 1000;
constexpr int kShutterWrites = 8;

uint32_t patience_ms() {
    const int s = std::clamp(link::shutter_speed(), kMinShutterSpeed, kMaxShutterSpeed);
    const int blank_ms = static_cast<int>((s + kBlankTimeMargin) * 0.7 + 10.0);
    const int frame_ms = exposure_ticks(s) / 10000 + 2;
    return static_cast<uint32_t>(5 * link::stream_request_pause_ms() + 4 * kStreamGapMs +
                                 kShutterWrites * link::register_pause_ms() + blank_ms + 2 * frame_ms) +
           kPatienceMarginMs;
}

}  // namespace

uint64_t monotonic_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

void watch_completion(const libusb_transfer* t, uint64_t now_ns) {
    const bool whole = t->status == LIBUSB_TRANSFER_COMPLETED && t->actual_length == orbframe::kFrameBytes;
    if (t->status == LIBUSB_TRANSFER_COMPLETED && shot_open.load(std::memory_order_acquire)) {
        const uint32_t n = shot_seen.fetch_add(1, std::memory_order_acq_rel);
        if (!whole && n >= 1 && n <= shot_last.load(std::memory_order_relaxed))
            shot_short.fetch_add(1, std::memory_order_acq_rel);
    }
    if (t->status == LIBUSB_TRANSFER_STALL) remember_stall(t->dev_handle);
    Watched* w = table();
    for (int i = 0; i < kMaxStreams; i++) {
        if (t->dev_handle == nullptr || w[i].handle.load(std::memory_order_acquire) != t->dev_handle) continue;
        if (t->status == LIBUSB_TRANSFER_COMPLETED) {
            w[i].completed.fetch_add(1, std::memory_order_relaxed);
            if (!whole) w[i].short_frames.fetch_add(1, std::memory_order_relaxed);
            w[i].last_ns.store(now_ns, std::memory_order_relaxed);
        }
    }
}

int frame_activity(int index, orb_frame_activity& out) {
    libusb_device_handle* handle = nullptr;
    int r = usable(index, &handle);
    if (handle == nullptr) return r;
    activity_of(index, out, monotonic_ns());
    // The event loop may run on a while a sensor that left has no transfer
    // to fail.
    if (r == ORB_STREAM_OK && !on_bus(handle)) r = ORB_STREAM_ERR_LOST;
    return r;
}

void watch_index(int index, libusb_device_handle* handle) {
    Watched& w = table()[index];
    if (w.handle.load(std::memory_order_acquire) == handle) return;
    w.completed = 0;
    w.short_frames = 0;
    w.dropped_short = 0;
    w.last_ns = monotonic_ns();
    w.handle.store(handle, std::memory_order_release);
}

void activity_of(int index, orb_frame_activity& out, uint64_t now_ns) {
    const Watched& w = table()[index];
    out.completed = w.completed.load(std::memory_order_relaxed);
    out.short_frames = w.short_frames.load(std::memory_order_relaxed);
    out.dropped_short = w.dropped_short.load(std::memory_order_relaxed);
    const uint64_t last = w.last_ns.load(std::memory_order_relaxed);
    out.idle_ms = static_cast<uint32_t>(std::min<uint64_t>(now_ns > last ? (now_ns - last) / 1000000 : 0, UINT32_MAX));
    out.patience_ms = patience_ms();
}

bool stalled(libusb_device_handle* handle) {
    for (const auto& slot : stalled_handles)
        if (handle != nullptr && slot.load(std::memory_order_acquire) == handle) return true;
    return false;
}

void begin_shot_watch(int averages) {
    shot_seen.store(0, std::memory_order_relaxed);
    shot_short.store(0, std::memory_order_relaxed);
    shot_last.store(static_cast<uint32_t>(kSingleShotSkip + averages), std::memory_order_relaxed);
    shot_open.store(true, std::memory_order_release);
}

uint32_t end_shot_watch() {
    shot_open.store(false, std::memory_order_release);
    return shot_short.exchange(0, std::memory_order_acq_rel);
}

void count_dropped(int index, uint32_t frames) {
    table()[index].dropped_short.fetch_add(frames, std::memory_order_relaxed);
}

}  // namespace orbstream

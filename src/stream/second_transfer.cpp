// A stream's second frame transfer (second_transfer.h).

#include "second_transfer.h"

#include <new>

#include "frame_watch.h"
#include "link_seam.h"
#include "../efm32com/orb_frame_samples.h"
#include "../efm32com/orb_stm_commands.h"

namespace orbstream {

namespace {

// How long one turn of handling events lasts while a retirement waits on an
// ended event loop: short, so that the deadline is kept.
constexpr long kEventTurnUs = 10 * 1000;

// On the event-loop thread. Resubmitting under the session's lock means a
// retirement, which cancels under it, never finds the transfer between its
// completion and its next submission.
void LIBUSB_CALL second_completed(libusb_transfer* t) {
    Session& s = *static_cast<Session*>(t->user_data);
    const uint64_t now_ns = monotonic_ns();
    // Counted and a stall remembered as the link's completions are: a stall
    // may reach this transfer first.
    watch_completion(t, now_ns);
    std::lock_guard<std::mutex> guard(s.lock);
    // A cancelled transfer is this layer's doing, not the sensor's; a failed
    // one tells the stream as the link's would.
    if (t->status != LIBUSB_TRANSFER_CANCELLED && s.active && s.handle.load(std::memory_order_relaxed) == t->dev_handle)
        take_locked(s, t, now_ns);
    if (!s.second_retiring && t->status == LIBUSB_TRANSFER_COMPLETED && libusb_submit_transfer(t) == 0) return;
    s.second_in_flight = false;
    s.second_idle.notify_all();
}

}  // namespace

bool submit_second_locked(Session& s, libusb_device_handle* handle) {
    if (s.second_in_flight) return false;
    if (s.second == nullptr) {
        auto* buffer = new (std::nothrow) unsigned char[orbframe::kFrameBytes]();
        libusb_transfer* t = buffer ? libusb_alloc_transfer(0) : nullptr;
        if (t == nullptr) {
            delete[] buffer;
            return false;
        }
        t->buffer = buffer;
        s.second = t;
    }
    // No time-out, as the link's: the stream may run for as long as the host
    // likes, and a stop or a loss ends the transfer.
    libusb_fill_bulk_transfer(s.second, handle, kFrameEndpoint, s.second->buffer, orbframe::kFrameBytes,
                              second_completed, &s, 0);
    s.second_retiring = false;
    s.second_in_flight = libusb_submit_transfer(s.second) == 0;
    return s.second_in_flight;
}

void let_second_lapse_locked(Session& s) { s.second_retiring = true; }

void retire_second(Session& s, const Deadline& deadline) {
    std::unique_lock<std::mutex> lock(s.lock);
    s.second_retiring = true;
    if (!s.second_in_flight) return;
    // libusb_close takes a handle's transfers out of flight and forgets their
    // handle: nothing completes such a transfer, and it cannot be cancelled.
    if (s.second->dev_handle == nullptr) {
        s.second_in_flight = false;
        return;
    }
    // Refused only when it has completed already: its callback is then
    // waiting for the lock and sees the retirement.
    libusb_cancel_transfer(s.second);
    while (s.second_in_flight && !deadline.passed()) {
        if (!link::ended()) {
            s.second_idle.wait_until(lock, deadline.at);
            continue;
        }
        lock.unlock();
        timeval turn = {0, kEventTurnUs};
        libusb_handle_events_timeout_completed(nullptr, &turn, nullptr);
        lock.lock();
    }
}

}  // namespace orbstream

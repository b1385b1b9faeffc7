// A stream's own frame transfers (stream_transfers.h).

#include "stream_transfers.h"

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

int slot_of(const Session& s, const libusb_transfer* t) {
    for (int i = 0; i < kOwnTransfers; i++)
        if (s.own[i] == t) return i;
    return -1;
}

// On the event-loop thread. Resubmitting under the session's lock means a
// retirement, which cancels under it, never finds a transfer between its
// completion and its next submission.
void LIBUSB_CALL own_completed(libusb_transfer* t) {
    Session& s = *static_cast<Session*>(t->user_data);
    const uint64_t now_ns = monotonic_ns();
    // Counted and a stall remembered as the link's completions are: a stall
    // may reach one of these transfers first.
    watch_completion(t, now_ns);
    std::lock_guard<std::mutex> guard(s.lock);
    // A cancelled transfer is this layer's doing. A failure (a stall, the
    // sensor gone) fails the link's transfer as well, whose callback tells
    // the stream and ends the event loop: the stream ends then, as it always
    // has, not before the link has had its say.
    if (t->status == LIBUSB_TRANSFER_COMPLETED && s.active && s.handle.load(std::memory_order_relaxed) == t->dev_handle)
        take_locked(s, t, now_ns);
    if (!s.own_retiring && t->status == LIBUSB_TRANSFER_COMPLETED && libusb_submit_transfer(t) == 0) return;
    s.own_in_flight[slot_of(s, t)] = false;
    s.own_idle.notify_all();
}

bool any_in_flight(const Session& s) {
    for (bool f : s.own_in_flight)
        if (f) return true;
    return false;
}

libusb_transfer* allocated(libusb_transfer*& t) {
    if (t != nullptr) return t;
    auto* buffer = new (std::nothrow) unsigned char[orbframe::kFrameBytes]();
    t = buffer ? libusb_alloc_transfer(0) : nullptr;
    if (t == nullptr) {
        delete[] buffer;
        return nullptr;
    }
    t->buffer = buffer;
    return t;
}

}  // namespace

int submit_own_locked(Session& s, libusb_device_handle* handle) {
    if (any_in_flight(s)) return 0;
    s.own_retiring = false;
    int submitted = 0;
    for (int i = 0; i < kOwnTransfers; i++) {
        libusb_transfer* t = allocated(s.own[i]);
        if (t == nullptr) break;
        // No time-out, as the link's: the stream may run for as long as the
        // host likes, and a stop or a loss ends the transfer.
        libusb_fill_bulk_transfer(t, handle, kFrameEndpoint, t->buffer, orbframe::kFrameBytes, own_completed, &s, 0);
        if (libusb_submit_transfer(t) != 0) break;
        s.own_in_flight[i] = true;
        submitted++;
    }
    return submitted;
}

void let_own_lapse_locked(Session& s) { s.own_retiring = true; }

void retire_own(Session& s, const Deadline& deadline) {
    std::unique_lock<std::mutex> lock(s.lock);
    s.own_retiring = true;
    for (int i = 0; i < kOwnTransfers; i++) {
        if (!s.own_in_flight[i]) continue;
        // libusb_close takes a handle's transfers out of flight and forgets
        // their handle: nothing completes such a transfer, and it cannot be
        // cancelled.
        if (s.own[i]->dev_handle == nullptr) {
            s.own_in_flight[i] = false;
            continue;
        }
        // Refused only when it has completed already: its callback is then
        // waiting for the lock and sees the retirement.
        libusb_cancel_transfer(s.own[i]);
    }
    while (any_in_flight(s) && !deadline.passed()) {
        if (!link::ended()) {
            s.own_idle.wait_until(lock, deadline.at);
            continue;
        }
        lock.unlock();
        timeval turn = {0, kEventTurnUs};
        libusb_handle_events_timeout_completed(nullptr, &turn, nullptr);
        lock.lock();
    }
}

}  // namespace orbstream

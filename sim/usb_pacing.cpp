// When transfers complete: bulk IN transfers get their frames as the model
// makes them due, and control transfers finish once their bus time is over.
// A ticker thread does what falls due after a submission, so that
// umockdev's worker thread, which serves every device, never waits.

#include <algorithm>
#include <cstring>
#include <future>

#include "usb_transport.h"

namespace orbsim {

void Testbed::Impl::pump(Device& d, Clock::time_point now) {
    for (auto it = d.pending.begin(); it != d.pending.end();) {
        if (it->type != USBDEVFS_URB_TYPE_BULK) {
            ++it;
            continue;
        }
        // The endpoint fills its transfers in the order they were submitted:
        // one held with part of a frame keeps the rest from those behind it.
        if (it->held) return;
        BulkReply r = d.sensor->bulk_in(now, it->length, it->submitted);
        if (r.outcome == BulkReply::Nothing) return;
        if (r.outcome == BulkReply::Held) {
            if (!r.data.empty()) std::memcpy(it->buffer->data, r.data.data(), r.data.size());
            it->filled = r.data.size();
            it->held = true;
            ++it;
            continue;
        }
        Urb urb = *it;
        it = d.pending.erase(it);
        if (r.outcome == BulkReply::Stall) {
            finish(d, urb, -EPIPE, 0);
        } else {
            std::memcpy(urb.buffer->data, r.data.data(), r.data.size());
            finish(d, urb, 0, r.data.size());
        }
    }
}

// Finishes the control transfers whose bus time is over; returns when the
// next one will be, max() if none waits.
Clock::time_point Testbed::Impl::land_controls(Device& d, Clock::time_point now) {
    auto next = Clock::time_point::max();
    for (auto it = d.pending.begin(); it != d.pending.end();) {
        if (it->due > now) {
            next = std::min(next, it->due);
            ++it;
            continue;
        }
        finish(d, *it, it->due_status, it->due_actual);
        it = d.pending.erase(it);
    }
    return next;
}

void Testbed::Impl::start_ticker() {
    // Returns once the ticker runs: a test that ends at once would otherwise
    // exit while the thread is still being set up, and LeakSanitizer reports
    // what the thread library had allocated for it by then.
    std::promise<void> running;
    std::future<void> started = running.get_future();
    ticker = std::thread([this, running = std::move(running)]() mutable {
        running.set_value();
        run_ticker();
    });
    started.wait();
}

void Testbed::Impl::stop_ticker() {
    {
        std::lock_guard<std::mutex> lock(tick_mu);
        tick_quit = true;
    }
    tick_cv.notify_one();
    ticker.join();
}

void Testbed::Impl::run_ticker() {
    std::unique_lock<std::mutex> tick(tick_mu);
    while (!tick_quit) {
        tick_wake = false;
        tick.unlock();
        auto deadline = Clock::time_point::max();
        {
            std::lock_guard<std::mutex> lock(mu);
            const auto now = Clock::now();
            for (auto& d : devices) {
                if (d->unplugged || d->pending.empty()) continue;
                pump(*d, now);
                deadline = std::min(deadline, land_controls(*d, now));
                sync_fifo(*d);
                for (const Urb& u : d->pending) {
                    if (u.type != USBDEVFS_URB_TYPE_BULK) continue;
                    if (!u.held) deadline = std::min(deadline, d->sensor->next_bulk_due(now));
                    break;
                }
            }
        }
        tick.lock();
        auto woken = [this] { return tick_wake || tick_quit; };
        if (deadline == Clock::time_point::max())
            tick_cv.wait(tick, woken);
        else
            tick_cv.wait_until(tick, deadline, woken);
    }
}

}  // namespace orbsim

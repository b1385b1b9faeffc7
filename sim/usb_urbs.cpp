// The usbfs side of each emulated device node: the ioctls libusb makes,
// answered from the sensor's model. Control transfers go to the model at
// once (the ticker finishes those still crossing the bus); bulk IN transfers
// wait in `pending` until the model has frame data for them.

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "usb_transport.h"

namespace orbsim {

namespace {

// Copies out the small struct an ioctl's argument points to.
template <typename T>
bool read_arg(UMockdevIoctlData* arg, T* out) {
    UMockdevIoctlData* p = umockdev_ioctl_data_resolve(arg, 0, sizeof(T), nullptr);
    if (!p) return false;
    std::memcpy(out, p->data, sizeof(T));
    g_object_unref(p);
    return true;
}

// umockdev copies a resolved buffer back to the client only when it differs
// from what it read there, while the kernel writes the whole reply whatever
// the buffer held. A reply equal to those bytes would stay as libusb's fresh
// buffer was: right, but uninitialised to memcheck. Such a reply goes back
// twice: with its first byte inverted when the submission completes, then,
// read back and put right, at the reap; the client looks only after that.
void answer_in(Urb& urb, const uint8_t* reply, std::size_t n) {
    uint8_t* data = urb.buffer->data + 8;
    urb.restore_first_byte = n > 0 && std::memcmp(data, reply, n) == 0;
    if (urb.restore_first_byte) data[0] ^= 0xFF;
    else std::memcpy(data, reply, n);
}

void restore_answer(Urb& urb) {
    if (umockdev_ioctl_data_reload(urb.buffer, nullptr)) urb.buffer->data[8] ^= 0xFF;
}

void complete(UMockdevIoctlClient* client, long result, int error) {
    umockdev_ioctl_client_complete(client, result, error);
}

gboolean on_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer device) {
    auto* d = static_cast<Device*>(device);
    return d->testbed->handle(*d, client);
}

void on_open(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer device) {
    auto* d = static_cast<Device*>(device);
    d->testbed->add_client(*d, client);
    d->sensor->record(Event::Open, 0);
}


}  // namespace

UMockdevIoctlBase* usbfs_handler(Device& d) {
    UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
    g_signal_connect(handler, "handle-ioctl", G_CALLBACK(on_ioctl), &d);
    g_signal_connect(handler, "client-connected", G_CALLBACK(on_open), &d);
    return handler;
}

gboolean Testbed::Impl::handle(Device& d, UMockdevIoctlClient* client) {
    const gulong request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    std::lock_guard<std::mutex> lock(mu);
    forget_closed_clients(d);

    if (request == USBDEVFS_REAPURBNDELAY) {
        reap(d, client, arg);
        return TRUE;
    }
    if (d.unplugged) {
        complete(client, -1, ENODEV);
        return TRUE;
    }
    Sensor& s = *d.sensor;
    unsigned int n = 0;
    switch (request) {
    case USBDEVFS_GET_CAPABILITIES: {
        UMockdevIoctlData* p = umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), nullptr);
        if (!p) break;
        const uint32_t caps = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION |
                              USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
        std::memcpy(p->data, &caps, sizeof caps);
        complete(client, 0, 0);
        g_object_unref(p);
        return TRUE;
    }
    case USBDEVFS_CLAIMINTERFACE: {
        if (!read_arg(arg, &n)) break;
        s.record(Event::Claim, static_cast<int>(n));
        const int error = n != 0 ? ENOENT : s.claim_refused() ? EBUSY : 0;
        complete(client, error ? -1 : 0, error);
        return TRUE;
    }
    case USBDEVFS_RELEASEINTERFACE:
        if (!read_arg(arg, &n)) break;
        s.record(Event::Release, static_cast<int>(n));
        complete(client, n == 0 ? 0 : -1, n == 0 ? 0 : EINVAL);
        return TRUE;
    case USBDEVFS_SETCONFIGURATION: {
        int config = 0;
        if (!read_arg(arg, &config)) break;
        s.record(Event::SetConfiguration, config);
        complete(client, config == 1 || config == 0 || config == -1 ? 0 : -1, EINVAL);
        return TRUE;
    }
    case USBDEVFS_SETINTERFACE: {
        usbdevfs_setinterface si{};
        if (!read_arg(arg, &si)) break;
        s.record(Event::SetInterface, static_cast<int>(si.altsetting));
        complete(client, si.interface == 0 && si.altsetting == 0 ? 0 : -1, EINVAL);
        return TRUE;
    }
    case USBDEVFS_CLEAR_HALT:
        if (!read_arg(arg, &n)) break;
        s.record(Event::ClearHalt, static_cast<int>(n));
        complete(client, 0, 0);
        return TRUE;
    case USBDEVFS_RESETEP:
        complete(client, 0, 0);
        return TRUE;
    case USBDEVFS_RESET:
        s.record(Event::Reset, 0);
        complete(client, 0, 0);
        return TRUE;
    case USBDEVFS_GETDRIVER:
        complete(client, -1, ENODATA);  // no kernel driver bound
        return TRUE;
    case USBDEVFS_SUBMITURB:
        submit(d, client, arg);
        return TRUE;
    case USBDEVFS_DISCARDURB:
        discard(d, client, arg);
        return TRUE;
    default:
        return FALSE;  // umockdev answers ENOTTY
    }
    complete(client, -1, EFAULT);
    return TRUE;
}

void Testbed::Impl::submit(Device& d, UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
    UMockdevIoctlData* urbd = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
    if (!urbd) {
        complete(client, -1, EFAULT);
        return;
    }
    const auto* f = reinterpret_cast<const usbdevfs_urb*>(urbd->data);
    Urb urb{client, urbd, nullptr, urbd->client_addr, f->type, static_cast<std::size_t>(std::max(f->buffer_length, 0))};
    const uint8_t endpoint = f->endpoint;
    if (urb.length > 0) {
        urb.buffer = umockdev_ioctl_data_resolve(urbd, offsetof(usbdevfs_urb, buffer), urb.length, nullptr);
        if (!urb.buffer) {
            urb.release();
            complete(client, -1, EFAULT);
            return;
        }
    }

    if (urb.type == USBDEVFS_URB_TYPE_CONTROL && endpoint == 0 && urb.length >= 8) {
        const uint8_t* b = urb.buffer->data;
        ControlRequest setup{b[0], b[1], static_cast<uint16_t>(b[2] | b[3] << 8), static_cast<uint16_t>(b[4] | b[5] << 8),
                             static_cast<uint16_t>(b[6] | b[7] << 8)};
        const std::size_t room = std::min<std::size_t>(setup.wLength, urb.length - 8);
        const bool in = setup.bmRequestType & 0x80;
        std::vector<uint8_t> out;
        if (!in) out.assign(b + 8, b + 8 + room);
        const auto now = Clock::now();
        ControlReply reply = d.sensor->handle_control(setup, out, now);
        int status = 0;
        std::size_t actual = room;
        if (reply.outcome == ControlReply::Stall) {
            status = -EPIPE;
            actual = 0;
        } else if (reply.outcome == ControlReply::Data && in) {
            actual = std::min(room, reply.data.size());
            answer_in(urb, reply.data.data(), actual);
        }
        if (reply.outcome == ControlReply::NoReply) {
            d.pending.push_back(urb);
        } else if (reply.done_at > now) {
            // Still on the bus: the ticker finishes it, so that umockdev's
            // worker, which serves every device, never waits for it.
            urb.due = reply.done_at;
            urb.due_status = status;
            urb.due_actual = actual;
            d.pending.push_back(urb);
            poke();
        } else {
            finish(d, urb, status, actual);
        }
    } else if (urb.type == USBDEVFS_URB_TYPE_BULK && endpoint == kBulkInEndpoint) {
        d.pending.push_back(urb);
        std::size_t in_flight = 0;
        for (const auto* list : {&d.pending, &d.done})
            for (const Urb& u : *list) in_flight += u.type == USBDEVFS_URB_TYPE_BULK;
        d.most_bulk_in_flight = std::max(d.most_bulk_in_flight, in_flight);
        pump(d, Clock::now());
        // A frame that is not due yet is the ticker's to deliver.
        if (!d.pending.empty()) poke();
    } else {
        urb.release();
        complete(client, -1, endpoint == kBulkInEndpoint || endpoint == 0 ? EINVAL : ENOENT);
        return;
    }
    sync_fifo(d);
    complete(client, 0, 0);
}

void Testbed::Impl::finish(Device& d, Urb urb, int status, std::size_t actual) {
    usbdevfs_urb* f = urb.fields();
    f->status = status;
    f->actual_length = static_cast<int>(actual);
    d.done.push_back(urb);
}

void Testbed::Impl::reap(Device& d, UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
    auto it = std::find_if(d.done.begin(), d.done.end(), [&](const Urb& u) { return u.owner == client; });
    if (it == d.done.end()) {
        complete(client, -1, d.unplugged ? ENODEV : EAGAIN);
        return;
    }
    Urb urb = *it;
    d.done.erase(it);
    sync_fifo(d);
    UMockdevIoctlData* slot = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
    if (!slot) {
        urb.release();
        complete(client, -1, EFAULT);
        return;
    }
    if (urb.restore_first_byte) restore_answer(urb);
    umockdev_ioctl_data_set_ptr(slot, 0, urb.urb);
    complete(client, 0, 0);
    g_object_unref(slot);
    urb.release();
}

void Testbed::Impl::discard(Device& d, UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
    unsigned long addr = 0;
    std::memcpy(&addr, arg->data, std::min<std::size_t>(sizeof addr, static_cast<std::size_t>(arg->data_len)));
    auto it = std::find_if(d.pending.begin(), d.pending.end(),
                           [&](const Urb& u) { return u.owner == client && u.client_addr == addr; });
    if (it == d.pending.end()) {
        complete(client, -1, EINVAL);
        return;
    }
    Urb urb = *it;
    d.pending.erase(it);
    finish(d, urb, -ENOENT, urb.filled);
    sync_fifo(d);
    complete(client, 0, 0);
}

// poll() calls a regular file always ready, which would keep libusb's event
// thread spinning on REAPURBNDELAY. The node is a FIFO instead: full (not
// writable) while nothing is reapable, drained (writable, as usbfs signals a
// finished URB) while something is, or once the device is gone.
void Testbed::Impl::sync_fifo(Device& d) {
    const bool ready = !d.done.empty() || d.unplugged;
    char page[4096];
    if (ready && d.fifo_full) {
        while (read(d.fifo_fd, page, sizeof page) > 0) {
        }
        d.fifo_full = false;
    } else if (!ready && !d.fifo_full) {
        std::memset(page, 0, sizeof page);
        while (write(d.fifo_fd, page, sizeof page) > 0) {
        }
        d.fifo_full = true;
    }
}

void Testbed::Impl::add_client(Device& d, UMockdevIoctlClient* client) {
    std::lock_guard<std::mutex> lock(mu);
    d.clients.push_back(UMOCKDEV_IOCTL_CLIENT(g_object_ref(client)));
}

// A closed client's URBs go, so that its pending frame transfers neither
// take frames nor keep the node looking reapable to the other hosts. Only
// umockdev's worker calls this: it is the thread that closes clients.
void Testbed::Impl::forget_closed_clients(Device& d) {
    const auto closed = std::partition(d.clients.begin(), d.clients.end(), umockdev_ioctl_client_get_connected);
    if (closed == d.clients.end()) return;
    for (auto c = closed; c != d.clients.end(); ++c) {
        for (auto* list : {&d.pending, &d.done}) {
            list->remove_if([&](const Urb& u) {
                if (u.owner != *c) return false;
                u.release();
                return true;
            });
        }
        d.sensor->record(Event::Close, 0);
        g_object_unref(*c);
    }
    d.clients.erase(closed, d.clients.end());
    sync_fifo(d);
}

}  // namespace orbsim

// The USB side of the emulated sensor: umockdev's testbed with one sysfs
// device per sensor, and a usbfs ioctl handler per device node that turns the
// URBs libusb submits into calls on the sensor's model.

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <list>
#include <future>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>

#include "orb_sim.h"

namespace orbsim {

namespace {

using Clock = SensorModel::Clock;

std::atomic<bool> g_testbed_alive{false};

// A URB between SUBMITURB and its reap. The resolved copies of the client's
// urb and buffer are kept: what we write into them reaches the client when
// the reap that hands the URB out completes.
struct Urb {
    UMockdevIoctlClient* owner;
    UMockdevIoctlData* urb;
    UMockdevIoctlData* buffer;  // null for a zero-length buffer
    unsigned long client_addr;
    uint8_t type;
    std::size_t length;
    std::size_t filled = 0;  // bytes already in a held transfer
    bool held = false;
    bool restore_first_byte = false;  // a reply sent twice, see answer_in()
    Clock::time_point submitted = Clock::now();  // since when the host has been waiting
    // A control transfer still crossing the bus: it finishes at `due` with
    // this status and length. max(): not answered or not a control transfer.
    Clock::time_point due = Clock::time_point::max();
    int due_status = 0;
    std::size_t due_actual = 0;

    usbdevfs_urb* fields() const { return reinterpret_cast<usbdevfs_urb*>(urb->data); }
    void release() const {
        g_object_unref(urb);
        if (buffer) g_object_unref(buffer);
    }
};

std::string hex(const std::vector<uint8_t>& bytes) {
    std::string s;
    char b[3];
    for (uint8_t v : bytes) {
        std::snprintf(b, sizeof b, "%02x", v);
        s += b;
    }
    return s;
}

std::vector<uint8_t> string_descriptor(const std::string& text) {
    std::vector<uint8_t> d{static_cast<uint8_t>(2 + 2 * text.size()), 3};
    for (char c : text) {
        d.push_back(static_cast<uint8_t>(c));
        d.push_back(0);
    }
    return d;
}

struct UsbIdentity {
    uint16_t vid, pid, bcd_device;
    uint8_t device_class;
    std::vector<uint8_t> config;  // configuration descriptor with its interface and endpoints
    std::string manufacturer, product;
};

std::vector<uint8_t> device_descriptor(const UsbIdentity& id) {
    return {18, 1, 0x00, 0x02, id.device_class, 0, id.device_class == 9 ? uint8_t{1} : uint8_t{0}, 64,
            static_cast<uint8_t>(id.vid), static_cast<uint8_t>(id.vid >> 8), static_cast<uint8_t>(id.pid),
            static_cast<uint8_t>(id.pid >> 8), static_cast<uint8_t>(id.bcd_device),
            static_cast<uint8_t>(id.bcd_device >> 8), 1, 2, 3, 1};
}

// One configuration, interface 0 with a bulk IN endpoint 0x81 of 512 bytes (high speed).
const std::vector<uint8_t> kBulkConfig = {9, 2, 25, 0, 1, 1, 0, 0x80, 50,      // configuration 1, 100 mA
                                          9, 4, 0, 0, 1, 0xFF, 0, 0, 0,        // interface 0, vendor class
                                          7, 5, 0x81, 2, 0x00, 0x02, 0};       // bulk IN 0x81
const std::vector<uint8_t> kHubConfig = {9, 2, 25, 0, 1, 1, 0, 0xE0, 0,
                                         9, 4, 0, 0, 1, 9, 0, 0, 0,
                                         7, 5, 0x81, 3, 4, 0, 12};  // status change endpoint

}  // namespace

// One appearance of a sensor on the bus, from plug to unplug. A replug is a
// new appearance with its own address and node; an old one keeps answering
// ENODEV to the hosts that still hold it open.
struct Device {
    Testbed::Impl* testbed;
    Sensor* sensor;
    int address = 0;
    std::string syspath;  // /sys/devices/...
    std::string node;     // /dev/bus/usb/BBB/AAA
    std::string fifo;     // the device node as a file in the testbed
    int fifo_fd = -1;
    bool fifo_full = false;
    UMockdevIoctlBase* handler = nullptr;
    bool handler_attached = false;
    std::list<Urb> pending;  // submitted, not finished, in submission order
    std::list<Urb> done;     // finished, waiting to be reaped
    // The hosts that opened the node, each held until it is seen closed:
    // umockdev 0.17 never says a client vanished, and a client freed while
    // it had URBs here could leave its address to a new one, which would
    // then reap the URBs of a dead process and wait for ever on its answer.
    std::vector<UMockdevIoctlClient*> clients;
    bool unplugged = false;
};

// An emulated 0483:5740 device across its appearances: it keeps its sysfs
// place (its port), so it comes back where it was, at a new address.
struct Slot {
    std::unique_ptr<Sensor> sensor;
    SensorModel::Kind kind;
    int bus;
    std::string parent, name;
    bool open_refused = false;
    Device* current = nullptr;  // the latest appearance; unplugged or not
};

struct Testbed::Impl {
    UMockdevTestbed* tb = nullptr;
    std::string root;

    // Serialises changes to the emulated buses. The ioctl handlers never take
    // it, so the umockdev calls made under it cannot wait on a handler that
    // waits on us.
    std::mutex add_mu;
    std::map<int, std::set<int>> addresses;  // in use, per bus
    std::map<int, int> last_address;         // per bus, the one given last
    std::map<int, int> next_port;            // per bus, counting down
    int sensors_made = 0;

    // Guards `slots`, `devices` and every Device's URB lists, FIFO and
    // unplugged flag. Taken before a sensor's own lock, never after it.
    std::mutex mu;
    std::vector<std::unique_ptr<Slot>> slots;      // the 0483:5740 devices, in order added
    std::vector<std::unique_ptr<Device>> devices;  // every appearance of them, in order

    // The frame ticker: completes bulk URBs whose frames come due later than
    // their submission. Waits on a condition variable, never on usleep, which
    // a test's virtual clock may have replaced.
    std::mutex tick_mu;
    std::condition_variable tick_cv;
    bool tick_wake = false;
    bool tick_quit = false;
    std::thread ticker;

    void poke() {
        {
            std::lock_guard<std::mutex> lock(tick_mu);
            tick_wake = true;
        }
        tick_cv.notify_one();
    }

    // Where a new device goes: its address, and its sysfs parent and name.
    struct Place {
        int address;
        std::string parent, name;
    };
    Place place(int bus, int address);
    // The address a replugged device gets: like the kernel, the next free
    // one after the last one given, wrapping from 127 to 2.
    int fresh_address(int bus) const;
    // Puts the slot's sensor on the bus at `address` as a new appearance.
    void plug(Slot& slot, int address);
    void unplug(Slot& slot);
    Slot& slot_of(const Sensor& sensor);
    std::string add_usb_device(int bus, int address, const std::string& parent, const std::string& name,
                               const UsbIdentity& id, const std::string& serial);

    gboolean handle(Device& d, UMockdevIoctlClient* client);
    void submit(Device& d, UMockdevIoctlClient* client, UMockdevIoctlData* arg);
    void reap(Device& d, UMockdevIoctlClient* client, UMockdevIoctlData* arg);
    void discard(Device& d, UMockdevIoctlClient* client, UMockdevIoctlData* arg);
    void finish(Device& d, Urb urb, int status, std::size_t actual);
    void pump(Device& d, Clock::time_point now);
    Clock::time_point land_controls(Device& d, Clock::time_point now);
    void sync_fifo(Device& d);
    void add_client(Device& d, UMockdevIoctlClient* client);
    void forget_closed_clients(Device& d);
    void run_ticker();
};

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

void Testbed::Impl::pump(Device& d, Clock::time_point now) {
    for (auto it = d.pending.begin(); it != d.pending.end();) {
        if (it->type != USBDEVFS_URB_TYPE_BULK || it->held) {
            ++it;
            continue;
        }
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
                    if (u.type != USBDEVFS_URB_TYPE_BULK || u.held) continue;
                    deadline = std::min(deadline, d->sensor->next_bulk_due(now));
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

Testbed::Impl::Place Testbed::Impl::place(int bus, int address) {
    if (bus < 1 || bus > 127) throw std::invalid_argument("orbsim: bus numbers run from 1 to 127");
    // libusb lists devices in the reverse of udev's path order: the host
    // controllers are named so that lower bus numbers come out first.
    char controller[64], hub[16];
    std::snprintf(controller, sizeof controller, "/devices/platform/orbsim_hcd.%03d", 255 - bus);
    std::snprintf(hub, sizeof hub, "usb%d", bus);
    if (!addresses.count(bus)) {
        add_usb_device(bus, 1, controller, hub,
                       UsbIdentity{0x1d6b, 0x0002, 0x0601, 9, kHubConfig, "Linux orbsim", "EHCI Host Controller"},
                       "orbsim");
        addresses[bus].insert(1);
        next_port[bus] = 99;
    }
    std::set<int>& used = addresses[bus];
    if (address == 0) {
        address = 2;
        while (used.count(address)) address++;
    }
    if (address < 2 || address > 127 || used.count(address))
        throw std::invalid_argument("orbsim: address " + std::to_string(address) + " is taken or out of range on bus " +
                                    std::to_string(bus));
    // Ports count down from 99 so that, reversed by libusb, devices come out in
    // the order they were added; two digits keep udev's string order numeric.
    if (next_port[bus] < 10) throw std::length_error("orbsim: at most 90 devices per bus");
    used.insert(address);
    last_address[bus] = std::max(last_address[bus], address);
    return Place{address, std::string(controller) + "/" + hub, std::to_string(bus) + "-" + std::to_string(next_port[bus]--)};
}

std::string Testbed::Impl::add_usb_device(int bus, int address, const std::string& parent, const std::string& name,
                                          const UsbIdentity& id, const std::string& serial) {
    const std::string syspath = parent + "/" + name;
    char node[32];
    std::snprintf(node, sizeof node, "bus/usb/%03d/%03d", bus, address);
    char text[2048];
    std::snprintf(text, sizeof text,
                  "P: %s\nN: %s\n"
                  "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DEVNAME=/dev/%s\n"
                  "E: BUSNUM=%03d\nE: DEVNUM=%03d\nE: PRODUCT=%x/%x/%x\n"
                  "A: busnum=%d\nA: devnum=%d\nA: speed=480\nA: bConfigurationValue=1\nA: bNumConfigurations=1\n"
                  "A: bNumInterfaces= 1\nA: bDeviceClass=%02x\nA: idVendor=%04x\nA: idProduct=%04x\n"
                  "A: bcdDevice=%04x\nA: manufacturer=%s\nA: product=%s\nA: serial=%s\n"
                  "H: descriptors=%s%s\n",
                  syspath.c_str(), node, node, bus, address, id.vid, id.pid, id.bcd_device, bus, address,
                  id.device_class, id.vid, id.pid, id.bcd_device, id.manufacturer.c_str(), id.product.c_str(),
                  serial.c_str(), hex(device_descriptor(id)).c_str(), hex(id.config).c_str());
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(tb, text, &error)) {
        std::string why = error ? error->message : "unknown error";
        g_clear_error(&error);
        throw std::runtime_error("orbsim: cannot add " + syspath + ": " + why);
    }
    return "/sys" + syspath;
}

Testbed::Testbed() : impl_(std::make_unique<Impl>()) {
    if (g_testbed_alive.exchange(true)) throw std::logic_error("orbsim: only one Testbed may exist per process");
    impl_->tb = umockdev_testbed_new();
    gchar* root = umockdev_testbed_get_root_dir(impl_->tb);
    impl_->root = root;
    g_free(root);
    // Returns once the ticker runs: a test that ends at once would otherwise
    // exit while the thread is still being set up, and LeakSanitizer reports
    // what the thread library had allocated for it by then.
    std::promise<void> running;
    std::future<void> started = running.get_future();
    impl_->ticker = std::thread([this, running = std::move(running)]() mutable {
        running.set_value();
        impl_->run_ticker();
    });
    started.wait();
}

Testbed::~Testbed() {
    impl_->poke();
    {
        std::lock_guard<std::mutex> lock(impl_->tick_mu);
        impl_->tick_quit = true;
    }
    impl_->tick_cv.notify_one();
    impl_->ticker.join();
    {
        std::lock_guard<std::mutex> lock(impl_->mu);
        for (auto& d : impl_->devices) {
            for (const Urb& u : d->pending) u.release();
            for (const Urb& u : d->done) u.release();
            for (UMockdevIoctlClient* c : d->clients) g_object_unref(c);
            d->pending.clear();
            d->done.clear();
            d->clients.clear();
            if (d->fifo_fd >= 0) close(d->fifo_fd);
        }
    }
    g_object_unref(impl_->tb);
    for (auto& d : impl_->devices) g_object_unref(d->handler);
    g_testbed_alive = false;
}

Sensor& Testbed::add_sensor(int bus, int address) { return add(SensorModel::Kind::Sensor, bus, address); }

Sensor& Testbed::add_led_module(int bus, int address) { return add(SensorModel::Kind::LedModule, bus, address); }

Sensor& Testbed::add(SensorModel::Kind kind, int bus, int address) {
    Impl& t = *impl_;
    std::lock_guard<std::mutex> adding(t.add_mu);
    const Impl::Place where = t.place(bus, address);

    std::array<uint8_t, 5> identity{};
    if (kind == SensorModel::Kind::Sensor) {
        // C1234-7-x-33-1 with the die's x coordinate counting up from 20.
        const int x = (20 + t.sensors_made++) % 128;
        identity = {0x10, 0x9A, 0x47, static_cast<uint8_t>(x << 1), 0x85};
    }
    auto slot = std::make_unique<Slot>();
    slot->sensor.reset(new Sensor(kind, identity, bus, where.address));
    slot->kind = kind;
    slot->bus = bus;
    slot->parent = where.parent;
    slot->name = where.name;
    Slot& s = *slot;
    s.sensor->on_bulk_change([&t] { t.poke(); });
    {
        std::lock_guard<std::mutex> lock(t.mu);
        t.slots.push_back(std::move(slot));
    }
    t.plug(s, where.address);
    return *s.sensor;
}

void Testbed::Impl::plug(Slot& slot, int address) {
    const bool led = slot.kind == SensorModel::Kind::LedModule;
    const int bus = slot.bus;
    auto d = std::make_unique<Device>();
    d->testbed = this;
    d->sensor = slot.sensor.get();
    d->address = address;

    char node[32], serial[16];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", bus, address);
    std::snprintf(serial, sizeof serial, "ORB%03d%03d", bus, address);
    const UsbIdentity id{kVendorId, kProductId, 0x0200, 0, kBulkConfig, "orbsim",
                         led ? "Emulated LED module" : "Emulated spectral sensor"};
    Sensor& s = *slot.sensor;
    s.set_descriptor(1, 0, device_descriptor(id));
    s.set_descriptor(2, 0, kBulkConfig);
    s.set_descriptor(3, 0, {4, 3, 0x09, 0x04});
    s.set_descriptor(3, 1, string_descriptor(id.manufacturer));
    s.set_descriptor(3, 2, string_descriptor(id.product));
    s.set_descriptor(3, 3, string_descriptor(serial));

    // An earlier appearance at this address (the addresses wrapped) gives
    // its node up, outside `mu`, which its handler may be waiting for; the
    // new handler must be in place before the device appears.
    bool taken = false;
    {
        std::lock_guard<std::mutex> lock(mu);
        for (auto& old : devices) {
            if (old->unplugged && old->handler_attached && old->node == node) {
                old->handler_attached = false;
                taken = true;
            }
        }
    }
    if (taken) umockdev_testbed_detach_ioctl(tb, node, nullptr);
    d->node = node;
    d->handler = umockdev_ioctl_base_new();
    g_signal_connect(d->handler, "handle-ioctl", G_CALLBACK(on_ioctl), d.get());
    g_signal_connect(d->handler, "client-connected", G_CALLBACK(on_open), d.get());
    GError* error = nullptr;
    if (!umockdev_testbed_attach_ioctl(tb, node, d->handler, &error)) {
        std::string why = error ? error->message : "unknown error";
        g_clear_error(&error);
        g_object_unref(d->handler);
        throw std::runtime_error(std::string("orbsim: cannot emulate ") + node + ": " + why);
    }
    d->handler_attached = true;
    d->syspath = add_usb_device(bus, address, slot.parent, slot.name, id, serial);

    d->fifo = root + node;
    if (unlink(d->fifo.c_str()) != 0 || mkfifo(d->fifo.c_str(), 0666) != 0 ||
        (d->fifo_fd = open(d->fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) < 0)
        throw std::runtime_error("orbsim: cannot make the device node " + d->fifo + ": " + std::strerror(errno));
    chmod(d->fifo.c_str(), slot.open_refused ? 0 : 0666);  // mkfifo's mode went through the umask
    fcntl(d->fifo_fd, F_SETPIPE_SZ, 4096);
    sync_fifo(*d);

    std::lock_guard<std::mutex> lock(mu);
    slot.current = d.get();
    s.move_to(address);
    devices.push_back(std::move(d));
}

void Testbed::Impl::unplug(Slot& slot) {
    std::string syspath;
    {
        std::lock_guard<std::mutex> lock(mu);
        Device* d = slot.current;
        if (!d || d->unplugged) return;
        d->unplugged = true;
        for (const Urb& u : d->pending) finish(*d, u, -ESHUTDOWN, 0);
        d->pending.clear();
        sync_fifo(*d);
        syspath = d->syspath;
        addresses[slot.bus].erase(d->address);
    }
    umockdev_testbed_uevent(tb, syspath.c_str(), "remove");
    umockdev_testbed_remove_device(tb, syspath.c_str());
}

int Testbed::Impl::fresh_address(int bus) const {
    const std::set<int>& used = addresses.at(bus);
    const int last = last_address.at(bus);
    for (int step = 1; step <= 126; step++) {
        const int a = 2 + (last - 2 + step) % 126;
        if (!used.count(a)) return a;
    }
    throw std::length_error("orbsim: no free address on bus " + std::to_string(bus));
}

Slot& Testbed::Impl::slot_of(const Sensor& sensor) {
    std::lock_guard<std::mutex> lock(mu);
    for (auto& s : slots)
        if (s->sensor.get() == &sensor) return *s;
    throw std::invalid_argument("orbsim: not a sensor of this testbed");
}

void Testbed::add_other_device(uint16_t vid, uint16_t pid, int bus, int address) {
    Impl& t = *impl_;
    std::lock_guard<std::mutex> adding(t.add_mu);
    const Impl::Place where = t.place(bus, address);
    char serial[16];
    std::snprintf(serial, sizeof serial, "OTH%03d%03d", bus, where.address);
    t.add_usb_device(bus, where.address, where.parent, where.name,
                     UsbIdentity{vid, pid, 0x0100, 0, kBulkConfig, "orbsim", "Other device"}, serial);
}

void Testbed::refuse_open(Sensor& sensor, bool refused) {
    Slot& slot = impl_->slot_of(sensor);
    std::lock_guard<std::mutex> lock(impl_->mu);
    slot.open_refused = refused;
    chmod(slot.current->fifo.c_str(), refused ? 0 : 0666);
}

void Testbed::unplug(Sensor& sensor) {
    Slot& slot = impl_->slot_of(sensor);
    std::lock_guard<std::mutex> adding(impl_->add_mu);
    impl_->unplug(slot);
}

void Testbed::replug(Sensor& sensor) {
    Impl& t = *impl_;
    Slot& slot = t.slot_of(sensor);
    std::lock_guard<std::mutex> adding(t.add_mu);
    t.unplug(slot);
    sensor.power_on();
    const int address = t.fresh_address(slot.bus);
    t.addresses[slot.bus].insert(address);
    t.last_address[slot.bus] = address;
    t.plug(slot, address);
}

bool Testbed::plugged(const Sensor& sensor) const {
    Slot& slot = impl_->slot_of(sensor);
    std::lock_guard<std::mutex> lock(impl_->mu);
    return !slot.current->unplugged;
}

bool Testbed::bulk_waiting(Sensor& sensor) const {
    Slot& slot = impl_->slot_of(sensor);
    std::lock_guard<std::mutex> lock(impl_->mu);
    for (const Urb& u : slot.current->pending)
        if (u.type == USBDEVFS_URB_TYPE_BULK) return true;
    return false;
}

std::size_t Testbed::size() const {
    std::lock_guard<std::mutex> lock(impl_->mu);
    return impl_->slots.size();
}

Sensor& Testbed::sensor(std::size_t i) {
    std::lock_guard<std::mutex> lock(impl_->mu);
    return *impl_->slots.at(i)->sensor;
}

std::string Testbed::root_dir() const { return impl_->root; }

}  // namespace orbsim

// umockdev's testbed and the emulated buses on it: the sysfs devices with
// their descriptors, and what plugging, unplugging and replugging a sensor
// does to them (addresses, device nodes, uevents).

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "usb_transport.h"

namespace orbsim {

namespace {

std::atomic<bool> g_testbed_alive{false};

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
    impl_->start_ticker();
}

Testbed::~Testbed() {
    impl_->stop_ticker();
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
    d->handler = usbfs_handler(*d);
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

std::size_t Testbed::take_most_bulk_in_flight(Sensor& sensor) {
    Slot& slot = impl_->slot_of(sensor);
    std::lock_guard<std::mutex> lock(impl_->mu);
    std::size_t most = slot.current->most_bulk_in_flight;
    // What is in flight now counts towards the next reading.
    std::size_t now = 0;
    for (const auto* list : {&slot.current->pending, &slot.current->done})
        for (const Urb& u : *list) now += u.type == USBDEVFS_URB_TYPE_BULK;
    slot.current->most_bulk_in_flight = now;
    return most;
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

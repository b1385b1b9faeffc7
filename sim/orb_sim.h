#ifndef ORB_SIM_ORB_SIM_H
#define ORB_SIM_ORB_SIM_H

// The emulated sensor as a test, the demo or a user without hardware sees
// it: a testbed of emulated USB devices that the real libusb-1.0 finds and
// talks to through umockdev's sysfs and usbfs emulation.
//
// The process must run with umockdev's preload in front of libc (linked into
// the test binaries first, or LD_PRELOAD=libumockdev-preload.so.0; the
// orb-emulate launcher does the latter for any program). Create the Testbed
// and add every device before the first libusb_init, and destroy it (if at
// all) after libusb_exit.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "sensor_model.h"

namespace orbsim {

// One emulated 0483:5740 device: the sensor's firmware model (registers,
// identity, LED state, frames, faults, request log) plus where it sits on USB.
class Sensor : public SensorModel {
public:
    int bus() const { return bus_; }
    // Where it is now: a replug gives it a new address.
    int address() const { return address_; }

private:
    friend class Testbed;
    void move_to(int address) { address_ = address; }
    Sensor(Kind kind, std::array<uint8_t, 5> identity, int bus, int address)
        : SensorModel(kind, identity), bus_(bus), address_(address) {}
    const int bus_;
    std::atomic<int> address_;
};

// The emulated USB buses. Exactly one may exist per process.
//
// libusb lists the devices bus by bus in ascending bus number, and on each bus
// in the order they were added; every bus gets a root hub at address 1, which
// libusb lists after the bus's other devices, as it does on real machines.
class Testbed {
public:
    Testbed();
    ~Testbed();
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    // `address` 0 takes the lowest free address from 2 up; an explicit one
    // must be free and within 2..127. Buses run from 1 to 127.
    // Sensors get distinct identities by default: C1234-7-20-33-1,
    // C1234-7-21-33-1, ... (the die's x coordinate counts up).
    Sensor& add_sensor(int bus = 1, int address = 0);
    // Same USB identity as a sensor; its identity bytes are zero and it
    // streams no frames.
    Sensor& add_led_module(int bus = 1, int address = 0);
    // A device the library must pass over. It is listed but not openable for I/O.
    void add_other_device(uint16_t vid, uint16_t pid, int bus = 1, int address = 0);

    // The device node gets mode 0000. Root opens it anyway unless the opening
    // thread holds a DropDacOverride. `false` gives everyone access again.
    void refuse_open(Sensor& sensor, bool refused = true);
    // Pending transfers end with -ESHUTDOWN (libusb: LIBUSB_TRANSFER_NO_DEVICE),
    // later calls fail with ENODEV, and a "remove" uevent is queued for libusb
    // before this returns, so the next device list no longer has it.
    void unplug(Sensor& sensor);
    // Unplugs the sensor if it is plugged, then brings it back where it was,
    // as a new device at the bus's next free address: registers at their
    // power-on values, streaming off, firmware faults gone (a refused open
    // stays: it belongs to the host's permissions). An "add" uevent reaches
    // libusb before this returns.
    void replug(Sensor& sensor);
    bool plugged(const Sensor& sensor) const;
    // A bulk transfer of the host's waits on the sensor's endpoint 0x81 for
    // data (or holds what it got so far).
    bool bulk_waiting(Sensor& sensor) const;
    // The most bulk transfers on 0x81 the host had at once (submitted, not
    // yet reaped) since the sensor appeared or the last call; resets it.
    std::size_t take_most_bulk_in_flight(Sensor& sensor);

    // The 0483:5740 devices (sensors and LED modules) in the order added.
    std::size_t size() const;
    Sensor& sensor(std::size_t i);

    // Where umockdev keeps the emulated /sys and /dev (UMOCKDEV_DIR).
    std::string root_dir() const;

    struct Impl;

private:
    Sensor& add(SensorModel::Kind kind, int bus, int address);
    std::unique_ptr<Impl> impl_;
};

// Drops CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH from the calling thread's
// effective set for its lifetime, so that a mode-0000 node refuses open even
// to root. Without those capabilities in the first place it changes nothing.
class DropDacOverride {
public:
    DropDacOverride();
    ~DropDacOverride();
    DropDacOverride(const DropDacOverride&) = delete;
    DropDacOverride& operator=(const DropDacOverride&) = delete;

private:
    bool dropped_ = false;
};

}  // namespace orbsim

#endif

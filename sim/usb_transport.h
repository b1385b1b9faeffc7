#ifndef ORB_SIM_USB_TRANSPORT_H
#define ORB_SIM_USB_TRANSPORT_H

// The USB side of the emulated sensor, in three parts that share what is
// declared here (private to sim/; tests and hosts use orb_sim.h):
//   usb_plugging.cpp  umockdev's testbed and its sysfs devices: plugging,
//                     unplugging and replugging them, with their uevents
//   usb_urbs.cpp      the usbfs ioctl handler of each device node, which
//                     turns the URBs libusb submits into calls on the model
//   usb_pacing.cpp    the ticker that completes transfers when their frame
//                     or their bus time comes due

#include <linux/usbdevice_fs.h>
#include <umockdev.h>

#include <condition_variable>
#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "orb_sim.h"

namespace orbsim {

using Clock = SensorModel::Clock;

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

// What a device tells the host about itself: the descriptors and sysfs attributes.
struct UsbIdentity {
    uint16_t vid, pid, bcd_device;
    uint8_t device_class;
    std::vector<uint8_t> config;  // configuration descriptor with its interface and endpoints
    std::string manufacturer, product;
};

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
    // The most bulk transfers the host had on 0x81 at once (submitted and
    // not yet reaped), since the appearance or the last reset.
    std::size_t most_bulk_in_flight = 0;
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

    // The ticker's thread: started before the first device, stopped before
    // the devices go.
    void start_ticker();
    void stop_ticker();
    void run_ticker();
};

// A usbfs handler for the device node of `d`, its signals connected to it.
UMockdevIoctlBase* usbfs_handler(Device& d);

}  // namespace orbsim

#endif

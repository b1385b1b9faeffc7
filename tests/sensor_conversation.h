#ifndef ORB_TESTS_SENSOR_CONVERSATION_H
#define ORB_TESTS_SENSOR_CONVERSATION_H

// What the host says to the emulated sensor, written the way the firmware's
// command list reads, time-outs included, and compared as hex so a mismatch
// shows both sides.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "usb_log.h"
#include "emulated_bus.h"
#include "orb_device_interface_stm_usb.h"
#include "virtual_clock.h"

namespace talk {

using orbsim::ControlRequest;

// A request as the host sends it: what the sensor sees, and the time-out the
// host gives it, which only the host knows.
struct Request {
    ControlRequest setup;
    unsigned int timeout_ms;
    operator ControlRequest() const { return setup; }
};
using Requests = std::vector<Request>;

// A firmware command: class read with a data stage (writes carry the value).
// The controller is given 2 s for the identity and the two long reads (codes
// 2 and 27), 1 s for everything else.
inline Request cmd(uint8_t code, uint16_t value = 0, uint16_t length = 1) {
    const bool slow = code == 1 || code == 2 || code == 27;
    return {{0xA1, code, value, 0, length}, slow ? 2000u : 1000u};
}
// A streaming request: class command to interface 1, no data stage, 2 s.
inline Request stream(uint8_t code) { return {{0x21, code, 0, 1, 0}, 2000}; }

inline Requests join(std::initializer_list<Requests> parts) {
    Requests all;
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

inline std::string hex(const Requests& requests) {
    std::string out;
    char line[80];
    for (const auto& r : requests) {
        snprintf(line, sizeof line, "%02X %3u wValue=%04X wIndex=%u wLength=%u timeout=%u\n", r.setup.bmRequestType,
                 r.setup.bRequest, r.setup.wValue, r.setup.wIndex, r.setup.wLength, r.timeout_ms);
        out += line;
    }
    return out;
}

// What the sensor saw since its log was last cleared, with the time-outs the
// host gave each request.
inline Requests said(const orbsim::Sensor& sensor) {
    Requests out;
    for (const auto& s : usblog::said_to(sensor)) out.push_back({s.setup, s.timeout_ms});
    return out;
}

// The library's pauses in ms.
inline std::vector<uint64_t> pauses_ms() {
    std::vector<uint64_t> ms;
    for (uint64_t us : vclock::pauses()) ms.push_back(us / 1000);
    return ms;
}

// A sensor connected as index 0, its connection's traffic and pauses forgotten.
inline orbsim::Sensor& connected_sensor() {
    orbsim::Sensor& s = testbed().add_sensor();
    printed_by([] { EXPECT_EQ(connect_device(0u), 1); });
    s.clear_log();
    vclock::reset();
    return s;
}

}  // namespace talk

#define EXPECT_SAID(sensor, ...) EXPECT_EQ(talk::hex(talk::said(sensor)), talk::hex(talk::Requests(__VA_ARGS__)))

#endif

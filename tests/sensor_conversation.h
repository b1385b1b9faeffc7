#ifndef ORB_TESTS_SENSOR_CONVERSATION_H
#define ORB_TESTS_SENSOR_CONVERSATION_H

// What the host says to the emulated sensor, written the way the firmware's
// command list reads, and compared as hex so a mismatch shows both sides.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "emulated_bus.h"
#include "orb_device_interface_stm_usb.h"
#include "virtual_clock.h"

namespace talk {

using orbsim::ControlRequest;

// A firmware command: class read with a data stage (writes carry the value).
inline ControlRequest cmd(uint8_t code, uint16_t value = 0, uint16_t length = 1) {
    return {0xA1, code, value, 0, length};
}
// A streaming request: class command to interface 1, no data stage.
inline ControlRequest stream(uint8_t code) { return {0x21, code, 0, 1, 0}; }

inline std::vector<ControlRequest> join(std::initializer_list<std::vector<ControlRequest>> parts) {
    std::vector<ControlRequest> all;
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

inline std::string hex(const std::vector<ControlRequest>& requests) {
    std::string out;
    char line[64];
    for (const auto& r : requests) {
        snprintf(line, sizeof line, "%02X %3u wValue=%04X wIndex=%u wLength=%u\n", r.bmRequestType, r.bRequest,
                 r.wValue, r.wIndex, r.wLength);
        out += line;
    }
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

#define EXPECT_SAID(sensor, ...) EXPECT_EQ(talk::hex((sensor).requests()), talk::hex(__VA_ARGS__))

#endif

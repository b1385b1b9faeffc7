#ifndef ORB_SIM_SENSOR_MODEL_H
#define ORB_SIM_SENSOR_MODEL_H

// The firmware of the emulated sensor, with no USB in it: registers, identity,
// LED state, the frame stream and the faults a test can switch on. The USB
// transport (usb_transport.h) feeds it the requests the host sent and carries
// its answers back; tests can also drive it directly.

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <vector>

namespace orbsim {

inline constexpr uint16_t kVendorId = 0x0483;
inline constexpr uint16_t kProductId = 0x5740;
inline constexpr uint8_t kBulkInEndpoint = 0x81;
inline constexpr std::size_t kFilters = 1024;
inline constexpr std::size_t kFrameBytes = 2 * kFilters;
inline constexpr uint16_t kMaxSample = 4095;
inline constexpr double kDarkLevel = 64;  // what a filter reads with no light, in DN

// Class requests with no data stage (bmRequestType 0x21).
inline constexpr uint8_t kStartStreaming = 70;
inline constexpr uint8_t kStopStreaming = 71;
inline constexpr uint8_t kLedState = 9;
// Class read (bmRequestType 0xA1) answered with the 5 identity bytes.
inline constexpr uint8_t kIdentity = 1;

struct ControlRequest {
    uint8_t bmRequestType = 0;
    uint8_t bRequest = 0;
    uint16_t wValue = 0;
    uint16_t wIndex = 0;
    uint16_t wLength = 0;
};
bool operator==(const ControlRequest& a, const ControlRequest& b);
inline bool operator!=(const ControlRequest& a, const ControlRequest& b) { return !(a == b); }

// One thing the device saw, in arrival order. `setup` is meaningful for
// Control; `value` carries the interface (Claim, Release), the configuration
// (SetConfiguration), the alternate setting (SetInterface) or the endpoint
// (ClearHalt) of the other kinds. Open and Close mark a host opening and
// closing the device node.
struct Event {
    enum Kind { Control, Claim, Release, SetConfiguration, SetInterface, ClearHalt, Reset, Open, Close } kind;
    ControlRequest setup;
    int value;
};

// What the device does with a control request.
struct ControlReply {
    enum Outcome { Data, Stall, NoReply } outcome = Data;
    // For device-to-host requests: exactly wLength bytes.
    std::vector<uint8_t> data;
    // When the transfer has crossed the bus and may complete; the clock's
    // epoch (the default) means at once.
    std::chrono::steady_clock::time_point done_at{};
};

// What the bulk IN endpoint has for a waiting transfer right now.
struct BulkReply {
    // Held: the bytes arrive but the transfer never completes; the host's
    // time-out ends it with those bytes.
    enum Outcome { Bytes, Held, Stall, Nothing } outcome = Nothing;
    std::vector<uint8_t> data;
};

struct FrameInfo {
    uint32_t number;   // 1 for the first frame after streaming (re)started
    uint16_t shutter;  // (reg 37 << 8) | reg 5 when the frame was taken
    // When the frame's exposure ended, in seconds since the sensor was
    // created. Not reset when streaming restarts, so a light that changes
    // over time keeps changing across acquisitions.
    double seconds = 0;
};
// Fills the 1024 filter values of one frame; values above 4095 are clamped
// on the wire. Runs under the sensor's lock: it must not call the sensor.
using FrameGenerator = std::function<void(const FrameInfo&, std::array<uint16_t, kFilters>&)>;

// Every filter of frame k holds k mod 4096 (k as in FrameInfo::number), so a
// host's average tells which frames it took.
FrameGenerator counter_frames();
FrameGenerator constant_frames(uint16_t value);
// A lamp seen through the filters: light_value() for every filter.
FrameGenerator light_frames(double gain = 1.0);
// Dark level plus a response that peaks mid-array, proportional to the
// shutter speed and saturating at 4095. With gain 1 the brightest filter
// saturates at a shutter speed of about 1000, the dimmest never below 3000.
uint16_t light_value(std::size_t filter, uint16_t shutter, double gain = 1.0);
// A linear sensor: filter i reads dark + sensitivity[i] * shutter (counts per
// shutter step), rounded and saturating at 4095.
FrameGenerator linear_frames(const std::array<double, kFilters>& sensitivity, double dark = 0.0);

// The wire form of a frame: sample i in bytes 2i and 2i+1 as a big-endian
// word whose upper 12 bits are the value. The low nibble is not data; the
// sensor leaves 0x5 there so that a host which keeps it shows up in tests.
std::vector<uint8_t> encode_frame(const std::array<uint16_t, kFilters>& values);

// How fast the emulated sensor goes.
//  Fast: frames whenever the host asks (or one per set_frame_period()), and
//    control transfers complete at once: the emulator as fast as the host.
//  Realistic: a full-speed sensor on a full-speed bus. A frame needs its
//    exposure, and its 2048 bytes need kFrameBusTime on the bus; the next
//    exposure runs while a frame is on the bus, so frames follow each other
//    by the longer of the two. A control transfer takes kControlBusTime.
enum class Timing { Fast, Realistic };

// 32 packets of 64 bytes at most 19 to a 1 ms USB frame: 32/19 ms, to the
// nanosecond (the rounding slips 0.47 ns a frame, under 6 us over 20 s).
inline constexpr std::chrono::nanoseconds kFrameBusTime{1684211};
// The setup and data stages go in one 1 ms USB frame, the status stage in
// the next: on average a control transfer completes one frame after it was
// submitted, whatever the phase of the bus's frame clock.
inline constexpr std::chrono::nanoseconds kControlBusTime{1000000};
// Exposure for a shutter speed at the 10 MHz master clock:
// (shutter x 912 + 160) / 10000 ms, 107.2 us at 1, 76.2 ms at 835.
constexpr std::chrono::nanoseconds exposure_time(uint16_t shutter) {
    return std::chrono::nanoseconds((int64_t{shutter} * 912 + 160) * 100);
}
inline double exposure_ms(uint16_t shutter) {
    return std::chrono::duration<double, std::milli>(exposure_time(shutter)).count();
}

class SensorModel {
public:
    using Clock = std::chrono::steady_clock;
    enum class Kind { Sensor, LedModule };

    // An LED module answers the same requests but never streams frames.
    explicit SensorModel(Kind kind = Kind::Sensor, std::array<uint8_t, 5> identity = {});
    SensorModel(const SensorModel&) = delete;
    SensorModel& operator=(const SensorModel&) = delete;
    virtual ~SensorModel() = default;

    Kind kind() const { return kind_; }
    void set_identity(std::array<uint8_t, 5> bytes);
    std::array<uint8_t, 5> identity() const;

    // Registers are named by the code that writes them (37 shutter high, ...).
    uint8_t reg(uint8_t write_code) const;
    void set_reg(uint8_t write_code, uint8_t value);
    uint16_t shutter() const;
    uint16_t led_state() const;
    bool streaming() const;

    std::vector<Event> events() const;
    std::vector<ControlRequest> requests() const;
    void clear_log();

    // Faults. Each lasts until clear_faults() unless said otherwise.
    void echo_wrong(uint8_t read_code, uint8_t value);  // that read answers `value`
    void stall(uint8_t bRequest);                       // control requests stall
    void no_reply(uint8_t bRequest);                    // control requests never complete
    void refuse_claim();                                // claiming interface 0 is refused
    // The next frame, or frame `number` of a stream (as in FrameInfo), stops
    // after `bytes`; once.
    void short_frame(std::size_t bytes, uint32_t number = 0);
    void stall_bulk();                                  // 0x81 halts until a clear-halt
    void trickle(std::size_t bytes);                    // the next bulk transfer gets `bytes`, then hangs
    // The firmware hangs: no control request is answered and no frame sent.
    void hang();
    void clear_faults();

    // What a power cycle (a replug) does: registers, LED state, the stream
    // and the firmware's faults back to their power-on state. The identity,
    // the frame generator and the log stay.
    void power_on();

    // Streaming. The default is light_frames() as fast as the host reads.
    // A new generator is what the sensor sees from `now` on: in realistic
    // timing the exposure under way is thrown away and a new one starts, so
    // the next frame sent comes an exposure and its bus time later and
    // shows only the new light; no frame exposed before `now` is sent after
    // it (but the rest of a frame already partly sent).
    void set_frame_generator(FrameGenerator generator, Clock::time_point now = Clock::now());
    // Minimum time from one frame to the next; the first frame comes one
    // period after streaming starts. Zero: whenever the host asks.
    void set_frame_period(std::chrono::microseconds period);
    uint64_t frames_sent() const;
    // Realistic timing: the sensor's slots that passed with no frame sent
    // (each frame it could have sent at its pace and did not: no transfer of
    // the host waited, or a late wake-up of the emulator was not made good
    // before the host fell behind), in whole slots.
    uint64_t slots_missed() const;
    // Fast (the default) or Realistic; see Timing. In realistic timing the
    // frame period is a floor under the sensor's own frame interval. A
    // change applies from the next frame scheduled.
    void set_timing(Timing timing);
    Timing timing() const;
    // Time from one frame to the next for a host that keeps up, at the
    // current registers: the frame period in fast timing (0: none), the
    // longest of the period, the exposure and kFrameBusTime in realistic.
    std::chrono::nanoseconds frame_interval() const;

    // ---- Device side: what the USB transport calls. ----

    // Answers and logs a control request that reached the device at `now`.
    // `out` is the host's data stage of a host-to-device request.
    ControlReply handle_control(const ControlRequest& setup, const std::vector<uint8_t>& out = {},
                                Clock::time_point now = Clock::now());
    // Logs a non-control operation; a clear-halt of 0x81 also clears a bulk stall.
    void record(Event::Kind kind, int value);
    bool claim_refused() const;
    // Standard descriptors the device reports to GET_DESCRIPTOR, by
    // (type << 8) | index. Set up by the transport.
    void set_descriptor(uint8_t type, uint8_t index, std::vector<uint8_t> bytes);
    // Data for a bulk IN transfer of `capacity` bytes, if the endpoint has any
    // at `now`. A frame larger than the transfer carries over to the next one.
    // `waiting_since`: when the transfer was submitted. In realistic timing a
    // host is behind only by its own delay: from the frame's slot, or from
    // the moment the previous frame left if that was later, to when its
    // transfer began to wait, however late the emulator gets round to it.
    BulkReply bulk_in(Clock::time_point now, std::size_t capacity,
                      Clock::time_point waiting_since = Clock::time_point::max());
    // When bulk_in() will next have something; max() when it depends on the
    // host (not streaming).
    Clock::time_point next_bulk_due(Clock::time_point now) const;
    // Called, outside the lock, after a change that may let a waiting bulk
    // transfer complete (streaming started, a stall, a new period...).
    void on_bulk_change(std::function<void()> notify);

private:
    ControlReply answer(const ControlRequest& setup, Clock::time_point now);
    void clear_faults_locked();
    void changed();
    uint16_t shutter_locked() const { return static_cast<uint16_t>(regs_[37] << 8 | regs_[5]); }
    std::chrono::nanoseconds interval_locked(uint16_t shutter) const;
    void schedule_next_locked(Clock::time_point now, Clock::time_point host_ready);

    const Kind kind_;
    mutable std::mutex mu_;
    std::array<uint8_t, 5> identity_;
    std::array<uint8_t, 256> regs_{};
    uint16_t led_state_ = 0;
    std::vector<Event> log_;
    std::map<uint16_t, std::vector<uint8_t>> descriptors_;

    std::map<uint8_t, uint8_t> wrong_echo_;
    std::set<uint8_t> stalled_;
    std::set<uint8_t> silent_;
    bool refuse_claim_ = false;
    bool bulk_halted_ = false;
    std::size_t short_frame_bytes_ = 0;
    uint32_t short_frame_number_ = 0;
    bool short_frame_armed_ = false;
    std::size_t trickle_bytes_ = 0;
    bool trickle_armed_ = false;
    bool hung_ = false;

    bool streaming_ = false;
    FrameGenerator generator_;
    std::chrono::microseconds period_{0};
    Timing timing_ = Timing::Fast;
    Clock::time_point next_due_{};
    uint16_t next_shutter_ = 0;         // realistic: the exposure of the frame due next
    Clock::time_point last_sent_{};     // realistic: when the previous frame left
    Clock::time_point control_free_{};  // realistic: end of the last control transfer
    uint32_t frame_number_ = 0;
    uint64_t frames_sent_ = 0;
    double slots_late_ = 0;  // realistic: see slots_missed()
    const Clock::time_point created_ = Clock::now();  // the origin of FrameInfo::seconds
    std::vector<uint8_t> carry_;  // rest of a frame that did not fit the last transfer

    std::function<void()> notify_;
};

}  // namespace orbsim

#endif

#include "sensor_model.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace orbsim {

namespace {

// The firmware stores the low byte of wValue for these codes and echoes it.
bool is_write_code(uint8_t code) {
    switch (code) {
    case 3: case 5: case 19: case 20: case 33: case 34: case 37:
    case 54: case 56: case 57: case 80: case 81: case 255:
        return true;
    default:
        return false;
    }
}

// Read code -> the write code whose register it returns; 0 when it has none.
uint8_t register_read_by(uint8_t code) {
    switch (code) {
    case 36: return 37;  // shutter high
    case 4: return 5;    // shutter low
    case 39: return 34;  // blank time high
    case 38: return 33;  // blank time low
    case 35: return 19;  // ADC, first register
    case 40: return 20;  // ADC, second register
    case 53: return 54;  // on-board frame average count
    default: return 0;
    }
}

constexpr uint8_t kClassIn = 0xA1;
constexpr uint8_t kClassOut = 0x21;
constexpr uint8_t kGetDescriptor = 6;
constexpr uint8_t kLowNibble = 0x5;

bool is_standard(uint8_t bmRequestType) { return (bmRequestType & 0x60) == 0; }
bool is_in(uint8_t bmRequestType) { return (bmRequestType & 0x80) != 0; }

}  // namespace

bool operator==(const ControlRequest& a, const ControlRequest& b) {
    return a.bmRequestType == b.bmRequestType && a.bRequest == b.bRequest && a.wValue == b.wValue &&
           a.wIndex == b.wIndex && a.wLength == b.wLength;
}

FrameGenerator counter_frames() {
    return [](const FrameInfo& f, std::array<uint16_t, kFilters>& v) {
        v.fill(static_cast<uint16_t>(f.number % 4096));
    };
}

FrameGenerator constant_frames(uint16_t value) {
    return [value](const FrameInfo&, std::array<uint16_t, kFilters>& v) { v.fill(value); };
}

FrameGenerator light_frames(double gain) {
    return [gain](const FrameInfo& f, std::array<uint16_t, kFilters>& v) {
        for (std::size_t i = 0; i < kFilters; i++) v[i] = light_value(i, f.shutter, gain);
    };
}

FrameGenerator linear_frames(const std::array<double, kFilters>& sensitivity, double dark) {
    return [sensitivity, dark](const FrameInfo& f, std::array<uint16_t, kFilters>& v) {
        for (std::size_t i = 0; i < kFilters; i++) {
            const double counts = std::round(dark + sensitivity[i] * f.shutter);
            v[i] = static_cast<uint16_t>(std::clamp(counts, 0.0, static_cast<double>(kMaxSample)));
        }
    };
}

uint16_t light_value(std::size_t filter, uint16_t shutter, double gain) {
    const double x = (static_cast<double>(filter) - 512.0) / 200.0;
    const double counts_per_step = 0.5 + 3.5 * std::exp(-x * x);
    const double v = kDarkLevel + std::round(gain * shutter * counts_per_step);
    return static_cast<uint16_t>(std::clamp(v, 0.0, static_cast<double>(kMaxSample)));
}

std::vector<uint8_t> encode_frame(const std::array<uint16_t, kFilters>& values) {
    std::vector<uint8_t> wire(kFrameBytes);
    for (std::size_t i = 0; i < kFilters; i++) {
        const uint16_t v = std::min(values[i], kMaxSample);
        wire[2 * i] = static_cast<uint8_t>(v >> 4);
        wire[2 * i + 1] = static_cast<uint8_t>(((v & 0xF) << 4) | kLowNibble);
    }
    return wire;
}

SensorModel::SensorModel(Kind kind, std::array<uint8_t, 5> identity)
    : kind_(kind), identity_(identity), generator_(light_frames()) {}

void SensorModel::set_identity(std::array<uint8_t, 5> bytes) {
    std::lock_guard<std::mutex> lock(mu_);
    identity_ = bytes;
}

std::array<uint8_t, 5> SensorModel::identity() const {
    std::lock_guard<std::mutex> lock(mu_);
    return identity_;
}

uint8_t SensorModel::reg(uint8_t write_code) const {
    std::lock_guard<std::mutex> lock(mu_);
    return regs_[write_code];
}

void SensorModel::set_reg(uint8_t write_code, uint8_t value) {
    std::lock_guard<std::mutex> lock(mu_);
    regs_[write_code] = value;
}

uint16_t SensorModel::shutter() const {
    std::lock_guard<std::mutex> lock(mu_);
    return shutter_locked();
}

uint16_t SensorModel::led_state() const {
    std::lock_guard<std::mutex> lock(mu_);
    return led_state_;
}

bool SensorModel::streaming() const {
    std::lock_guard<std::mutex> lock(mu_);
    return streaming_;
}

std::vector<Event> SensorModel::events() const {
    std::lock_guard<std::mutex> lock(mu_);
    return log_;
}

std::vector<ControlRequest> SensorModel::requests() const {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<ControlRequest> out;
    for (const Event& e : log_)
        if (e.kind == Event::Control) out.push_back(e.setup);
    return out;
}

void SensorModel::clear_log() {
    std::lock_guard<std::mutex> lock(mu_);
    log_.clear();
}

void SensorModel::echo_wrong(uint8_t read_code, uint8_t value) {
    std::lock_guard<std::mutex> lock(mu_);
    wrong_echo_[read_code] = value;
}

void SensorModel::stall(uint8_t bRequest) {
    std::lock_guard<std::mutex> lock(mu_);
    stalled_.insert(bRequest);
}

void SensorModel::no_reply(uint8_t bRequest) {
    std::lock_guard<std::mutex> lock(mu_);
    silent_.insert(bRequest);
}

void SensorModel::refuse_claim() {
    std::lock_guard<std::mutex> lock(mu_);
    refuse_claim_ = true;
}

void SensorModel::short_frame(std::size_t bytes, uint32_t number) {
    std::lock_guard<std::mutex> lock(mu_);
    short_frame_bytes_ = bytes;
    short_frame_number_ = number;
    short_frame_armed_ = true;
}

void SensorModel::trickle(std::size_t bytes) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        trickle_bytes_ = bytes;
        trickle_armed_ = true;
    }
    changed();
}

void SensorModel::stall_bulk() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        bulk_halted_ = true;
    }
    changed();
}

void SensorModel::hang() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        hung_ = true;
    }
    changed();
}

void SensorModel::clear_faults() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        clear_faults_locked();
    }
    changed();
}

void SensorModel::power_on() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        clear_faults_locked();
        regs_.fill(0);
        led_state_ = 0;
        streaming_ = false;
        carry_.clear();
        frame_number_ = 0;
    }
    changed();
}

void SensorModel::clear_faults_locked() {
    wrong_echo_.clear();
    stalled_.clear();
    silent_.clear();
    refuse_claim_ = false;
    bulk_halted_ = false;
    short_frame_armed_ = false;
    trickle_armed_ = false;
    hung_ = false;
}

void SensorModel::set_frame_generator(FrameGenerator generator, Clock::time_point now) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        generator_ = std::move(generator);
        if (streaming_ && timing_ == Timing::Realistic) {
            next_shutter_ = shutter_locked();
            next_due_ = std::max(next_due_, now + std::max<std::chrono::nanoseconds>(
                                                      period_, exposure_time(next_shutter_) + kFrameBusTime));
        }
    }
    changed();
}

void SensorModel::set_frame_period(std::chrono::microseconds period) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        // A frame already scheduled keeps its slot only if it still fits the
        // new period, so a test that shortens the period sees the effect at once.
        // In realistic timing the sensor's own interval rules, and a new
        // floor waits for the next frame scheduled like any other change.
        if (streaming_ && timing_ == Timing::Fast) next_due_ = std::min(next_due_, Clock::now() + period);
        period_ = period;
    }
    changed();
}

uint64_t SensorModel::frames_sent() const {
    std::lock_guard<std::mutex> lock(mu_);
    return frames_sent_;
}

uint64_t SensorModel::slots_missed() const {
    std::lock_guard<std::mutex> lock(mu_);
    return static_cast<uint64_t>(slots_late_);
}

void SensorModel::set_timing(Timing timing) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        timing_ = timing;
    }
    changed();
}

Timing SensorModel::timing() const {
    std::lock_guard<std::mutex> lock(mu_);
    return timing_;
}

std::chrono::nanoseconds SensorModel::frame_interval() const {
    std::lock_guard<std::mutex> lock(mu_);
    return interval_locked(shutter_locked());
}

std::chrono::nanoseconds SensorModel::interval_locked(uint16_t shutter) const {
    if (timing_ == Timing::Fast) return period_;
    return std::max({std::chrono::nanoseconds(period_), exposure_time(shutter), kFrameBusTime});
}

void SensorModel::schedule_next_locked(Clock::time_point now, Clock::time_point host_ready) {
    next_shutter_ = shutter_locked();
    if (timing_ == Timing::Fast) {
        next_due_ = std::max(next_due_, now) + period_;
        return;
    }
    // Each slot follows the previous slot, not the host's arrival, so the
    // ticker's late wake-ups cost the host nothing as long as it keeps up.
    // The host is behind only by what is its own doing: from the later of the
    // slot and the moment the previous frame reached it. More than a frame
    // behind starts a fresh schedule: one frame at once, then the sensor's
    // pace, never a burst of the slots it missed.
    const std::chrono::nanoseconds interval = interval_locked(next_shutter_);
    const Clock::time_point owed_from = std::max(next_due_, last_sent_);
    const auto late = host_ready - owed_from;
    // A fresh schedule leaves out every slot from this frame's to the next
    // one's but this frame: those the host kept the sensor from, and those
    // a late wake-up of the emulator had not caught up yet. A host cannot
    // tell the two apart, so both are missed.
    if (late > interval) {
        slots_late_ += std::chrono::duration<double>(now - next_due_) / interval;
        next_due_ = now + interval;
    } else {
        next_due_ += interval;
    }
    last_sent_ = now;
}

ControlReply SensorModel::handle_control(const ControlRequest& setup, const std::vector<uint8_t>&,
                                         Clock::time_point now) {
    ControlReply reply;
    bool streaming_changed;
    {
        std::lock_guard<std::mutex> lock(mu_);
        log_.push_back({Event::Control, setup, 0});
        const bool was_streaming = streaming_;
        reply = answer(setup, now);
        streaming_changed = streaming_ != was_streaming;
        // One control transfer at a time crosses the bus; a request the
        // device never answers holds nothing.
        if (timing_ == Timing::Realistic && reply.outcome != ControlReply::NoReply) {
            reply.done_at = std::max(now, control_free_) + kControlBusTime;
            control_free_ = reply.done_at;
        }
    }
    if (streaming_changed) changed();
    return reply;
}

ControlReply SensorModel::answer(const ControlRequest& setup, Clock::time_point now) {
    ControlReply reply;
    if (hung_) {
        reply.outcome = ControlReply::NoReply;
        return reply;
    }
    if (stalled_.count(setup.bRequest)) {
        reply.outcome = ControlReply::Stall;
        return reply;
    }
    if (silent_.count(setup.bRequest)) {
        reply.outcome = ControlReply::NoReply;
        return reply;
    }
    const uint8_t code = setup.bRequest;
    const uint8_t low = static_cast<uint8_t>(setup.wValue & 0xFF);

    if (!is_in(setup.bmRequestType)) {
        if (setup.bmRequestType != kClassOut) return reply;
        if (code == kStartStreaming && !streaming_) {
            streaming_ = true;
            frame_number_ = 0;
            next_shutter_ = shutter_locked();
            last_sent_ = Clock::time_point::min();
            // The first frame of a realistic stream is exposed, then crosses
            // the bus; later exposures overlap the previous frame's transfer.
            next_due_ = now + (timing_ == Timing::Fast
                                   ? std::chrono::nanoseconds(period_)
                                   : std::max<std::chrono::nanoseconds>(period_, exposure_time(next_shutter_) + kFrameBusTime));
        } else if (code == kStopStreaming) {
            streaming_ = false;
            carry_.clear();
        } else if (code == kLedState) {
            led_state_ = setup.wValue;
        }
        return reply;
    }

    reply.data.assign(setup.wLength, 0);
    if (is_standard(setup.bmRequestType) && code == kGetDescriptor) {
        auto it = descriptors_.find(setup.wValue);
        if (it == descriptors_.end()) {
            reply.outcome = ControlReply::Stall;
            reply.data.clear();
        } else {
            reply.data.assign(it->second.begin(),
                              it->second.begin() + std::min<std::size_t>(setup.wLength, it->second.size()));
        }
        return reply;
    }
    if (setup.bmRequestType != kClassIn || reply.data.empty()) return reply;

    if (code == kIdentity) {
        std::copy_n(identity_.begin(), std::min(identity_.size(), reply.data.size()), reply.data.begin());
    } else if (is_write_code(code)) {
        regs_[code] = low;
        reply.data[0] = low;
    } else if (uint8_t reg = register_read_by(code)) {
        reply.data[0] = regs_[reg];
    }
    auto wrong = wrong_echo_.find(code);
    if (wrong != wrong_echo_.end()) reply.data[0] = wrong->second;
    return reply;
}

void SensorModel::record(Event::Kind kind, int value) {
    bool unhalted = false;
    {
        std::lock_guard<std::mutex> lock(mu_);
        log_.push_back({kind, ControlRequest{}, value});
        if (kind == Event::ClearHalt && value == kBulkInEndpoint && bulk_halted_) {
            bulk_halted_ = false;
            unhalted = true;
        }
    }
    if (unhalted) changed();
}

bool SensorModel::claim_refused() const {
    std::lock_guard<std::mutex> lock(mu_);
    return refuse_claim_;
}

void SensorModel::set_descriptor(uint8_t type, uint8_t index, std::vector<uint8_t> bytes) {
    std::lock_guard<std::mutex> lock(mu_);
    descriptors_[static_cast<uint16_t>(type << 8 | index)] = std::move(bytes);
}

BulkReply SensorModel::bulk_in(Clock::time_point now, std::size_t capacity, Clock::time_point waiting_since) {
    std::lock_guard<std::mutex> lock(mu_);
    BulkReply reply;
    if (bulk_halted_) {
        reply.outcome = BulkReply::Stall;
        return reply;
    }
    if (hung_) return reply;
    if (carry_.empty()) {
        if (!streaming_ || kind_ == Kind::LedModule || now < next_due_) return reply;
        std::array<uint16_t, kFilters> values{};
        // A realistic frame was exposed at the shutter speed it was scheduled with.
        const uint16_t shutter = timing_ == Timing::Realistic ? next_shutter_ : shutter_locked();
        generator_(FrameInfo{++frame_number_, shutter, std::chrono::duration<double>(now - created_).count()},
                   values);
        carry_ = encode_frame(values);
        if (short_frame_armed_ && (short_frame_number_ == 0 || short_frame_number_ == frame_number_)) {
            carry_.resize(std::min(carry_.size(), short_frame_bytes_));
            short_frame_armed_ = false;
        }
        frames_sent_++;
        schedule_next_locked(now, std::min(now, waiting_since));
    }
    std::size_t n = std::min(capacity, carry_.size());
    reply.outcome = BulkReply::Bytes;
    if (trickle_armed_) {
        n = std::min(n, trickle_bytes_);
        reply.outcome = BulkReply::Held;
        trickle_armed_ = false;
    }
    reply.data.assign(carry_.begin(), carry_.begin() + n);
    carry_.erase(carry_.begin(), carry_.begin() + n);
    return reply;
}

SensorModel::Clock::time_point SensorModel::next_bulk_due(Clock::time_point now) const {
    std::lock_guard<std::mutex> lock(mu_);
    if (hung_) return Clock::time_point::max();
    if (bulk_halted_ || !carry_.empty()) return now;
    if (!streaming_ || kind_ == Kind::LedModule) return Clock::time_point::max();
    return next_due_;
}

void SensorModel::on_bulk_change(std::function<void()> notify) {
    std::lock_guard<std::mutex> lock(mu_);
    notify_ = std::move(notify);
}

void SensorModel::changed() {
    std::function<void()> notify;
    {
        std::lock_guard<std::mutex> lock(mu_);
        notify = notify_;
    }
    if (notify) notify();
}

}  // namespace orbsim

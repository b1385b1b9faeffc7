#ifndef ORB_BENCH_RIG_H
#define ORB_BENCH_RIG_H

// One emulated sensor, connected through duConnect for the whole run, and
// what the benchmarks need to know about it: when each frame of the current
// stream left the sensor, and the CPU time of the threads involved.

#include <time.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "orb_sim.h"

class Rig {
public:
    using Clock = std::chrono::steady_clock;

    // The emulated bus must exist before libusb starts: the sensor is added
    // before any other use of the library.
    void add_sensor();
    // Adds the sensor and connects it through duConnect.
    bool start();
    orbsim::Sensor& sensor() { return *m_sensor; }
    // Frames reach the host only while the sensor is connected and the
    // library's event-loop thread runs.
    bool frames_flow() const;

    // What the sensor streams, at most one frame per `period` (0: as fast
    // as the host takes them). Send times are kept per stream.
    void stream(orbsim::FrameGenerator frames, std::chrono::microseconds period);
    std::chrono::microseconds period() const { return m_period; }
    void forget_frames();
    // When frame `number` (1 for the first after the start request) left.
    std::optional<Clock::time_point> sent_at(uint32_t number) const;
    // The number of the last frame sent since the frames were forgotten.
    uint32_t last_sent() const;

    // CPU seconds of the caller's thread, the library's event-loop thread,
    // and the whole process (which holds the emulator's threads too).
    double caller_cpu() const { return cpu_seconds(CLOCK_THREAD_CPUTIME_ID); }
    double loop_cpu() const { return cpu_seconds(m_loop_clock); }
    double process_cpu() const { return cpu_seconds(CLOCK_PROCESS_CPUTIME_ID); }

private:
    static double cpu_seconds(clockid_t clock);
    void sent(uint32_t number);

    orbsim::Testbed m_testbed;
    orbsim::Sensor* m_sensor = nullptr;
    bool m_connected = false;
    clockid_t m_loop_clock{};
    std::chrono::microseconds m_period{0};
    mutable std::mutex m_lock;
    std::vector<Clock::time_point> m_sent;  // by frame number - 1
};

// The one rig of the run, set up by main.
Rig& rig();

#endif

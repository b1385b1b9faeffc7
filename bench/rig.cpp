#include "rig.h"

#include <pthread.h>

#include <utility>

#include "orb_device_api.h"
#include "orb_device_interface_stm.h"
#include "pause_clock.h"

void Rig::add_sensor() {
    m_sensor = &m_testbed.add_sensor();
    stream(orbsim::constant_frames(2000), std::chrono::microseconds(0));
}

bool Rig::start() {
    add_sensor();
    // Bring-up takes a second of pauses that no benchmark here measures.
    pauses::sleep_for_real(false);
    m_connected = duConnect() == 1;
    pauses::take();
    if (m_connected) pthread_getcpuclockid(usbEventLoop_thread, &m_loop_clock);
    return m_connected;
}

bool Rig::frames_flow() const { return m_connected && do_exit == 0; }

void Rig::stream(orbsim::FrameGenerator frames, std::chrono::microseconds period) {
    m_period = period;
    m_sensor->set_frame_period(period);
    m_sensor->set_frame_generator([this, frames = std::move(frames)](const orbsim::FrameInfo& f,
                                                                    std::array<uint16_t, orbsim::kFilters>& v) {
        sent(f.number);
        frames(f, v);
    });
}

void Rig::sent(uint32_t number) {
    auto now = Clock::now();
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_sent.size() < number) m_sent.resize(number);
    m_sent[number - 1] = now;
}

void Rig::forget_frames() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_sent.clear();
}

std::optional<Rig::Clock::time_point> Rig::sent_at(uint32_t number) const {
    std::lock_guard<std::mutex> lock(m_lock);
    if (number == 0 || number > m_sent.size() || m_sent[number - 1] == Clock::time_point{}) return std::nullopt;
    return m_sent[number - 1];
}

uint32_t Rig::last_sent() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return static_cast<uint32_t>(m_sent.size());
}

double Rig::cpu_seconds(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

Rig& rig() {
    static Rig* const the_rig = new Rig;  // lives until _exit, like libusb's context
    return *the_rig;
}

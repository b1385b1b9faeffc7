// Faults of the emulated sensor as a host meets them through the C entry
// points: what each call returns and prints, the settings counters, and that
// the process carries on. A call that may block runs on a thread of its own
// with a bounded wait, so a hang fails the test instead of stalling it.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "orb_device_api.h"
#include "orb_device_interface_led.h"
#include "orb_device_interface_stm.h"
#include "sensor_conversation.h"

using namespace std::chrono_literals;
using talk::cmd;
using E = orbsim::Event;

namespace {

const std::string kRefusedLines =
    "Device open failed due to a permission denied error.\n"
    "libusb requires write access to USB device nodes.\n"
    "could not open device, error -3\n";
const std::string kClaimLines = "[Info] Reading first configuration descriptor:\n[Info] nb interfaces: 1\n";
const std::string kOneSensorLine = "**** [orb_device_api] Total number of sensors: 1\n";

// The verified-settings counters: attempted, read back equal, read back different.
struct Counts {
    int total, success, fail;
    bool operator==(const Counts& o) const { return total == o.total && success == o.success && fail == o.fail; }
};
Counts counts_since(const Counts& before) {
    return {iTotalCount - before.total, iSuccessCount - before.success, iFailCount - before.fail};
}
Counts counts_now() { return {iTotalCount, iSuccessCount, iFailCount}; }

// Runs a host call on a thread of its own. One that never returns stays
// blocked there until the process ends, touching nothing of the test's.
std::future<int> start(std::function<int()> call) {
    auto result = std::make_shared<std::promise<int>>();
    std::future<int> future = result->get_future();
    std::thread([result, call] { result->set_value(call()); }).detach();
    return future;
}

// The call's result, or nothing when it has not returned within `limit`.
std::optional<int> within(std::chrono::milliseconds limit, std::function<int()> call) {
    std::future<int> future = start(std::move(call));
    if (future.wait_for(limit) != std::future_status::ready) return std::nullopt;
    return future.get();
}

template <typename Condition>
bool comes_true_within(std::chrono::milliseconds limit, Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Filter data lives as long as the process: an acquisition left blocked
// would otherwise write into a finished test's stack if it ever woke.
std::vector<double>& frame() {
    static auto* data = new std::vector<double>(1024, -1.0);
    return *data;
}
std::optional<int> acquire_within(std::chrono::milliseconds limit, int frames = 1) {
    return within(limit, [frames] { return duGetFilterData(frame().data(), frames); });
}
long filters_at(double value) { return std::count(frame().begin(), frame().end(), value); }

orbsim::Sensor& connected_sensor(orbsim::FrameGenerator frames = orbsim::counter_frames()) {
    orbsim::Sensor& s = testbed().add_sensor();
    s.set_frame_generator(std::move(frames));
    printed_by([] { EXPECT_EQ(duConnect(), 1); });
    s.clear_log();
    return s;
}

// A blocked acquisition that waits on the frame queue's condition, not
// inside a request, leaves the queue's lock free.
bool waits_for_frames() {
    if (pthread_mutex_trylock(&exit_cond_lock) != 0) return false;
    pthread_mutex_unlock(&exit_cond_lock);
    return true;
}

std::string current_id() {
    char id[26] = {};
    EXPECT_EQ(duGetSensorID(id), 1);
    return id;
}

}  // namespace

TEST(Faults, RefusedDeviceNodeIsReportedAndAConnectAfterAccessIsGivenWorks) {
    orbsim::Sensor& s = testbed().add_sensor();
    s.set_frame_generator(orbsim::counter_frames());
    testbed().refuse_open(s);
    std::string out;
    {
        orbsim::DropDacOverride not_root;
        out = printed_by([] { EXPECT_EQ(duConnect(), -1); });
    }
    // Once for the sensor, once more for the LED driver, which takes the
    // first device of the sensor's identity.
    EXPECT_EQ(out, kRefusedLines + kRefusedLines);
    EXPECT_EQ(duGetTotalSensors(), 0);
    EXPECT_TRUE(s.requests().empty());

    // The refused bring-up of index 0 already started the event loop; the
    // next one gives the sensor its frame transfer.
    testbed().refuse_open(s, false);
    out = printed_by([] { EXPECT_EQ(duConnect(), 1); });
    EXPECT_EQ(out, kClaimLines + kOneSensorLine);
    EXPECT_EQ(acquire_within(5s), 1);
    EXPECT_EQ(filters_at(3.0), 1024);
}

TEST(Faults, RefusedClaimConnectsASensorThatHearsNothing) {
    orbsim::Sensor& s = testbed().add_sensor();
    s.refuse_claim();
    const Counts before = counts_now();
    EXPECT_EQ(printed_by([] { EXPECT_EQ(duConnect(), 1); }), kClaimLines + kOneSensorLine);
    EXPECT_EQ(seen(s, E::Claim), std::vector<int>{0});
    // Opened for the sensor, given up at once, and again as the LED driver,
    // which claims nothing.
    EXPECT_EQ(seen(s, E::Open).size(), 2u);

    // Without a handle every read-back is 1: the bring-up's ADC and shutter
    // checks all failed, and so does each later setting, unreported.
    EXPECT_EQ(counts_since(before), (Counts{3, 0, 3}));
    EXPECT_EQ(printed_by([] { EXPECT_EQ(duSetShutterSpeed(500), 1); }), "");
    EXPECT_EQ(duGetShutterSpeed(), 500);
    EXPECT_EQ(counts_since(before), (Counts{4, 0, 4}));
    EXPECT_EQ(current_id(), "A0-0-0-0-0");
    EXPECT_TRUE(s.requests().empty());
    // No frame transfer was submitted and no stream started: an acquisition
    // gets as far as the gap between its stream requests, which go nowhere,
    // and waits for frames that never come.
    vclock::reset();
    EXPECT_EQ(acquire_within(300ms), std::nullopt);
    EXPECT_EQ(talk::pauses_ms(), std::vector<uint64_t>{20});
    EXPECT_TRUE(waits_for_frames());
}

TEST(Faults, WrongEchoesAreWrittenOnceMoreCountedAndReadBackAsTheSensorHasThem) {
    orbsim::Sensor& s = connected_sensor();
    Counts before = counts_now();
    s.echo_wrong(4, 0);  // the shutter's low byte
    EXPECT_EQ(printed_by([] { EXPECT_EQ(duSetShutterSpeed(1000), 1); }), "");
    const auto requests = s.requests();
    EXPECT_EQ(std::count(requests.begin(), requests.end(), cmd(37, 0x03)), 2);
    EXPECT_EQ(std::count(requests.begin(), requests.end(), cmd(34, 0x04)), 1);  // the blank time is not repeated
    EXPECT_EQ(counts_since(before), (Counts{1, 0, 1}));
    EXPECT_EQ(duGetShutterSpeed(), 1000);
    EXPECT_EQ(s.shutter(), 1000);

    before = counts_now();
    s.echo_wrong(35, 0);  // the ADC range
    EXPECT_EQ(duSetSensorParameters(1, 200), 1);
    const auto adc = s.requests();
    EXPECT_EQ(std::count(adc.begin(), adc.end(), cmd(19, 200)), 2);
    EXPECT_EQ(counts_since(before), (Counts{1, 0, 1}));
    int gain = -1, range = -1;
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(duGetSensorParameters(&gain, &range), 1); }),
              "[STM] ADC range: 0, Gain: 1, Res: 0, Device Id: 0\n");
    EXPECT_EQ(std::make_pair(gain, range), std::make_pair(1, 0));
}

TEST(Faults, StalledAndSilentRequestsReadAsZerosAndNeverFailACall) {
    orbsim::Sensor& s = connected_sensor();
    // A stalled write leaves the sensor's old high byte; the host is told 1
    // and keeps reporting the speed it asked for.
    const Counts before = counts_now();
    s.stall(37);
    EXPECT_EQ(duSetShutterSpeed(1000), 1);
    EXPECT_EQ(s.shutter(), 0x00E8);
    EXPECT_EQ(duGetShutterSpeed(), 1000);
    EXPECT_EQ(counts_since(before), (Counts{1, 0, 1}));

    // Reads that stall or time out come back as zeros; the silent one costs
    // its 1 s time-out, in real time.
    s.clear_faults();
    EXPECT_EQ(duSetSensorParameters(1, 200), 1);
    s.stall(35);
    s.no_reply(40);
    int gain = -1, range = -1;
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(duGetSensorParameters(&gain, &range), 1); }),
              "[STM] ADC range: 0, Gain: 0, Res: 0, Device Id: 0\n");
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 1s);
    EXPECT_EQ(std::make_pair(gain, range), std::make_pair(0, 0));

    // Stalled stream stops: the frame still arrives, but the sensor streams
    // on. The next acquisition's stops get through, but a frame of the old
    // stream still in flight takes one of its two skipped places (so it
    // typically keeps frame 2 of the new stream): which frame depends on
    // timing, yet it is one whole frame.
    s.clear_faults();
    s.stall(71);
    EXPECT_EQ(acquire_within(5s), 1);
    EXPECT_EQ(filters_at(3.0), 1024);
    EXPECT_TRUE(s.streaming());
    s.clear_faults();
    EXPECT_EQ(acquire_within(5s), 1);
    EXPECT_GE(frame()[0], 1.0);
    EXPECT_EQ(filters_at(frame()[0]), 1024);
    EXPECT_FALSE(s.streaming());
}

TEST(Faults, ShortFrameReadsZeroWhereItStopped) {
    orbsim::Sensor& s = connected_sensor(orbsim::constant_frames(4095));
    s.short_frame(1024, 3);  // the first frame a single shot keeps
    EXPECT_EQ(acquire_within(5s), 1);
    EXPECT_EQ(filters_at(4095.0), 512);
    EXPECT_EQ(filters_at(0.0), 512);
    EXPECT_EQ(frame()[511], 4095.0);
    // Nothing of it is left for the next acquisition.
    EXPECT_EQ(acquire_within(5s), 1);
    EXPECT_EQ(filters_at(4095.0), 1024);
}

TEST(Faults, SensorUnpluggedWhileStreamingEndsTheEventLoopAndTheHostCarriesOn) {
    orbsim::Sensor& s = connected_sensor();
    s.set_frame_period(50ms);
    testing::internal::CaptureStderr();
    std::future<int> acquisition = start([] { return duGetFilterData(frame().data(), 100); });
    // Unplugged while its frame transfer waits for the next frame: after a
    // few frames the sensor falls silent (the frame already scheduled still
    // comes), and once that frame is out the transfer waiting is the one the
    // host resubmitted, however late its event thread gets to run.
    ASSERT_TRUE(comes_true_within(5s, [] { return g_count >= 3; }));
    s.set_frame_period(std::chrono::hours(1));
    ASSERT_TRUE(comes_true_within(5s, [&s] {
        const auto now = orbsim::SensorModel::Clock::now();
        return s.next_bulk_due(now) > now + std::chrono::minutes(1) && testbed().bulk_waiting(s);
    }));
    testbed().unplug(s);
    ASSERT_TRUE(comes_true_within(5s, [] { return do_exit != 0; }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "bulk data transfer status 5?\n");
    EXPECT_EQ(do_exit, 2);
    // The acquisition under way waits for frames that can no longer come.
    EXPECT_EQ(acquisition.wait_for(300ms), std::future_status::timeout);
    EXPECT_TRUE(waits_for_frames());

    // Every later call returns. Reads of the vanished sensor are zeros.
    const Counts before = counts_now();
    EXPECT_EQ(within(5s, [] { return duSetShutterSpeed(100); }), 1);
    EXPECT_EQ(counts_since(before), (Counts{1, 0, 1}));
    EXPECT_EQ(within(5s, [] { return current_id() == "A0-0-0-0-0" ? 1 : 0; }), 1);
    std::string out = printed_by([] { EXPECT_EQ(within(5s, [] { return duDisconnect(); }), 1); });
    EXPECT_EQ(out, "Sensor is disconnected.\n");
    out = printed_by([] { EXPECT_EQ(within(5s, [] { return duConnect(); }), -1); });
    EXPECT_EQ(out, "");
}

TEST(Faults, WithoutAnLedModuleTheFirstSensorServesAsItsDriver) {
    orbsim::Sensor& first = testbed().add_sensor();
    orbsim::Sensor& second = testbed().add_sensor();
    std::string out = printed_by([] { EXPECT_EQ(duConnect(), 2); });
    EXPECT_EQ(out, kClaimLines + kClaimLines + "**** [orb_device_api] Total number of sensors: 2\n");
    EXPECT_EQ(is_led_driver_open(), 1);
    EXPECT_EQ(seen(first, E::Open).size(), 2u);
    EXPECT_EQ(seen(second, E::Open).size(), 1u);

    // Closing the driver unconfigures the first sensor, not the second.
    out = printed_by([] { EXPECT_EQ(duDisconnect(), 1); });
    EXPECT_EQ(out, "Sensor is disconnected.\n");
    EXPECT_EQ(is_led_driver_open(), 0);
    EXPECT_EQ(seen(first, E::SetConfiguration), std::vector<int>{-1});
    EXPECT_TRUE(seen(second, E::SetConfiguration).empty());
}

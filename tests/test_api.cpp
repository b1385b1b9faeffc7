// The C entry points end to end against emulated sensors: the sensor table,
// the current sensor, clamped arguments, and failures as negative results.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "emulated_bus.h"
#include "orb_device_api.h"
#include "orb_device_interface_ae.h"
#include "sensor_conversation.h"

namespace {

const std::string kExceptionLine = "[orb_device_api] ORB_BASE_EXCEPTION happened: ";

// `n` emulated sensors, connected through the entry point.
void connect(int n) {
    for (int i = 0; i < n; i++) testbed().add_sensor();
    printed_by([n] { EXPECT_EQ(duConnect(), n); });
}

std::string current_id() {
    char id[26] = {};
    EXPECT_EQ(duGetSensorID(id), 1);
    return id;
}

}  // namespace

TEST(Api, WithoutSensorsNothingIsConnectedAndNothingIsTalkedTo) {
    double frame[1024];
    char id[26];
    EXPECT_EQ(duGetShutterSpeed(), -1);  // before any connect
    EXPECT_EQ(printed_by([] { EXPECT_EQ(duConnect(), -1); }), "");
    EXPECT_EQ(duGetTotalSensors(), 0);
    // No current sensor: refused quietly, not sent to the object the failed
    // scan left behind.
    std::string out = printed_by([&] {
        EXPECT_EQ(duSetShutterSpeed(100), -1);
        EXPECT_EQ(duGetSensorID(id), -1);
        EXPECT_EQ(duGetFilterData(frame, 1), -1);
        EXPECT_EQ(duSetSensorParameters(1, 100), -1);
    });
    EXPECT_EQ(out, "");
    // Picking index 0 reaches that object, which was never brought up.
    EXPECT_EQ(duActivateSensorWithIndex(-5), 1);
    out = printed_by([] { EXPECT_EQ(duGetShutterSpeed(), -26); });
    EXPECT_EQ(out, kExceptionLine + "vn_ec_initialization_required\n");
}

TEST(Api, AtMostTenSensorsAreConnected) {
    for (int i = 0; i < 12; i++) testbed().add_sensor();
    std::string out = printed_by([] { EXPECT_EQ(duConnect(), 10); });
    EXPECT_NE(out.find("**** [orb_device_api] Total number of sensors: 10\n"), std::string::npos);
    EXPECT_EQ(duGetTotalSensors(), 10);
    EXPECT_TRUE(testbed().sensor(10).requests().empty());
}

TEST(Api, ASensorThatDoesNotComeUpEndsTheScan) {
    for (int i = 0; i < 3; i++) testbed().add_sensor();
    testbed().refuse_open(testbed().sensor(1));
    {
        orbsim::DropDacOverride not_root;
        printed_by([] { EXPECT_EQ(duConnect(), 1); });
    }
    EXPECT_EQ(duGetTotalSensors(), 1);
    EXPECT_TRUE(testbed().sensor(2).requests().empty());
}

TEST(Api, SettingsAreClampedOnTheirWayToTheSensorAndExposureConverts) {
    connect(1);
    orbsim::Sensor& s = testbed().sensor(0);
    EXPECT_EQ(duSetShutterSpeed(0), 1);
    EXPECT_EQ(s.shutter(), 1);
    EXPECT_EQ(duSetShutterSpeed(5000), 1);
    EXPECT_EQ(s.shutter(), 3000);
    int lo = 0, hi = 0;
    EXPECT_EQ(duGetShutterSpeedLimits(&lo, &hi), 1);
    EXPECT_EQ(std::make_pair(lo, hi), std::make_pair(1, 3000));
    EXPECT_EQ(duGetShutterSpeedLimits(nullptr, &hi), -1);

    // Range in register 19; gain and resolution share register 20.
    EXPECT_EQ(duSetSensorParameters(2, 300), 1);
    EXPECT_EQ(s.reg(19), 132);
    EXPECT_EQ(s.reg(20), 0);
    int gain = -1, range = -1;
    EXPECT_EQ(duSetSensorParameters(1, 255), 1);
    printed_by([&] { EXPECT_EQ(duGetSensorParameters(&gain, &range), 1); });
    EXPECT_EQ(std::make_pair(gain, range), std::make_pair(1, 255));
    EXPECT_EQ(duGetSensorParameters(&gain, nullptr), -1);

    double ms = 0.0;
    EXPECT_EQ(duShutterSpeedToExposureTime(20, 250, &ms), 1);
    int shutter = 0;
    EXPECT_EQ(duExposureTimeToShutterSpeed(20, ms, &shutter), 1);
    EXPECT_EQ(std::make_pair(ms, shutter), std::make_pair(11.0, 415));
    // Any clock converts whose product with 1000 is a non-zero int; the
    // quotient is truncated toward zero.
    EXPECT_EQ(duShutterSpeedToExposureTime(-10, 100, &ms), 1);
    EXPECT_EQ(ms, -9.0);
    EXPECT_EQ(duShutterSpeedToExposureTime(-2147483, 1, &ms), 1);
    EXPECT_EQ(ms, 0.0);
    ms = 5.0;
    for (int clock : {0, 2147484, -2147484}) EXPECT_EQ(duShutterSpeedToExposureTime(clock, 250, &ms), -1) << clock;
    EXPECT_EQ(ms, 5.0);
    EXPECT_EQ(duExposureTimeToShutterSpeed(20, 11.0, nullptr), -1);
}

TEST(Api, TheCurrentSensorIsPickedByIndexOrById) {
    for (int i = 0; i < 3; i++) testbed().add_sensor();
    std::string out = printed_by([] { EXPECT_EQ(duConnect(), 3); });
    EXPECT_NE(out.find("**** [orb_device_api] Total number of sensors: 3\n"), std::string::npos);
    EXPECT_EQ(current_id(), "C1234-7-20-33-1");
    EXPECT_EQ(duActivateSensorWithIndex(99), 1);
    EXPECT_EQ(current_id(), "C1234-7-22-33-1");

    char wanted[] = "C1234-7-21-33-1", unknown[] = "C1234-7-99-33-1";
    EXPECT_EQ(duActivateSensorWithID(wanted), 1);
    EXPECT_EQ(current_id(), wanted);
    EXPECT_EQ(duActivateSensorWithID(unknown), -1);
    EXPECT_EQ(current_id(), wanted);

    out = printed_by([] { EXPECT_EQ(duActivateSensorWithID(nullptr), -8); });
    EXPECT_EQ(out, kExceptionLine + "vn_ec_sensor_id_is_empty\n");
    out = printed_by([] { EXPECT_EQ(duGetSensorID(nullptr), -2); });
    EXPECT_EQ(out, kExceptionLine + "vn_ec_memory_is_null\n");
    // Any other exception is -1 and its own line; "happed" is the line's
    // spelling as hosts know it and stays.
    usblog::throw_on_next_request();
    out = printed_by([] { EXPECT_EQ(duSetShutterSpeed(100), -1); });
    EXPECT_EQ(out, "[orb_device_api] std::exception happed !!\n");

    // Connecting again first disconnects what is connected.
    out = printed_by([] { duConnect(); });
    EXPECT_EQ(out.rfind("Sensor is disconnected.\n", 0), 0u) << out;
}

TEST(Api, TheSensorListNamesEverySensorInItsOwnBuffer) {
    connect(2);
    char** list = nullptr;
    std::string out = printed_by([&] { list = duGetSensorList(); });
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(out,
              "[orb_device_api] Total sensors in your system = 2).\n"
              "[orb_device_api] Sensor ID: C1234-7-20-33-1\n"
              "[orb_device_api] Sensor ID: C1234-7-21-33-1\n");
    for (int i = 0; i < duGetTotalSensors(); i++) free(list[i]);
    free(list);

    out = printed_by([] { EXPECT_EQ(duDisconnect(), 1); });
    EXPECT_NE(out.find("Sensor is disconnected.\n"), std::string::npos);
    EXPECT_EQ(duGetTotalSensors(), 0);
    EXPECT_EQ(duGetShutterSpeed(), -1);
}

TEST(Api, FilterDataIsTheAverageOfTheFramesTheSensorSent) {
    connect(1);
    orbsim::Sensor& s = testbed().sensor(0);
    s.set_frame_generator(orbsim::counter_frames());
    std::vector<double> frame(1024, -1.0);
    printed_by([&] { EXPECT_EQ(duGetFilterData(frame.data(), 4), 1); });
    // Frames 1 and 2 of the stream are skipped: 3 to 6 make 4.5.
    EXPECT_EQ(std::count(frame.begin(), frame.end(), 4.5), 1024);

    s.clear_log();
    EXPECT_EQ(duGetFilterData(nullptr, 4), -1);
    EXPECT_EQ(duGetFilterData(frame.data(), 0), -1);
    EXPECT_EQ(duGetFilterData(frame.data(), -3), -1);
    EXPECT_TRUE(s.requests().empty());
}

TEST(Api, OptimalShutterSpeedBringsTheChosenFiltersBelowSaturation) {
    connect(1);
    orbsim::Sensor& s = testbed().sensor(0);
    int ss = 0;
    vclock::reset();
    printed_by([&] { ss = duGetOptimalShutterSpeed(nullptr, 0); });
    ASSERT_GT(ss, 1);
    EXPECT_EQ(m_gAEParams.upper_dn_value, 3500);
    // Each trial lets the sensor settle 10 ms after its new speed.
    const auto pauses = talk::pauses_ms();
    EXPECT_NE(std::find(pauses.begin(), pauses.end(), 10u), pauses.end());
    // Accepted when the peak lands in 2900..3500; the brightest default
    // filter is number 514 (index 513), next to the array's brightest.
    const uint16_t peak = orbsim::light_value(513, static_cast<uint16_t>(ss));
    EXPECT_GE(peak, 2900);
    EXPECT_LE(peak, 3500);

    // A negative count copies none of the host's filters, and an empty list
    // means all 1024: only the last filter is lit, at a level the search
    // accepts at its first speed.
    s.set_frame_generator([](const orbsim::FrameInfo&, std::array<uint16_t, orbsim::kFilters>& v) {
        v.fill(0);
        v[1023] = 3200;
    });
    int filters[] = {500, 501};
    printed_by([&] { ss = duGetOptimalShutterSpeed(filters, -1); });
    EXPECT_EQ(ss, m_gAEParams.initial_ss);
    printed_by([&] { ss = duGetOptimalShutterSpeed(filters, 2); });
    EXPECT_NE(ss, m_gAEParams.initial_ss);
}

// The control channel around the emulated sensors: its command language, replug as a
// host on the bus sees it, the control socket under two controllers, and
// timed scripts.

#include <gtest/gtest.h>
#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "control_commands.h"
#include "control_script.h"
#include "control_socket.h"
#include "scenes.h"
#include "sim_usb.h"

using namespace std::chrono_literals;

namespace {

struct ControlChannel : testing::Test {
    orbsim::Testbed tb;
    orbsim::Sensor& s0 = tb.add_sensor();
    orbsim::Sensor& s1 = tb.add_sensor();
    orbsim::Sensor& led = tb.add_led_module();
    orbsim::ControlCommands control{tb, 7};

    orbsim::ControlReply ask(orbsim::Sensor& s, uint8_t code, uint16_t value = 0) {
        return s.handle_control({0xA1, code, value, 0, 1});
    }
};

TEST_F(ControlChannel, RefusesWhatItCannotDoAndNamesTheCulprit) {
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"", "empty command"},
        {"jump 0", "unknown command 'jump'"},
        {"unplug", "unplug needs a device index"},
        {"unplug 3", "no device '3': the emulator has 3 devices, 0 to 2"},
        {"replug -1", "no device '-1'"},
        {"clear 0x1", "no device '0x1'"},
        {"unplug 0 now", "usage: unplug N"},
        {"status 0", "usage: status"},
        {"fault 0", "fault needs a kind"},
        {"fault 0 melt", "unknown fault 'melt'"},
        {"fault 0 stall 256", "the request code must be a whole number from 0 to 255, not '256'"},
        {"fault 0 stall", "usage: fault N stall REQ"},
        {"fault 0 wrong-echo 36", "usage: fault N wrong-echo CODE VALUE"},
        {"fault 0 short-frame 2048", "the byte count must be a whole number from 0 to 2047, not '2048'"},
        {"fault 0 hang now", "usage: fault N hang"},
        {"frames 0 counting", "usage: frames N light|counter|constant=V"},
        {"frames 0 constant=4096", "usage: frames N"},
        {"frames 2 counter", "device 2 is an LED module"},
        {"scene 0 candle", "candle"},
        {"scene 0 line 0.5", "'line' needs --nm"},
        {"units 0", "usage: units N nominal|own"},
        {"units 0 mine", "usage: units N nominal|own"},
        {"units 2 nominal", "device 2 is an LED module"},
    };
    for (const auto& [line, why] : refused) {
        const std::string answer = control.run(line);
        EXPECT_EQ(answer.rfind("error: ", 0), 0u) << line << " -> " << answer;
        EXPECT_NE(answer.find(why), std::string::npos) << line << " -> " << answer;
        EXPECT_FALSE(orbsim::ControlCommands::succeeded(answer)) << line;
    }
    // Nothing of it reached a device.
    EXPECT_TRUE(tb.plugged(s0));
    EXPECT_EQ(ask(s0, 36).outcome, orbsim::ControlReply::Data);
    EXPECT_EQ(control.run("status").substr(0, 2), "0 ");
}

TEST_F(ControlChannel, FaultsReachTheFirmwareOfOneDeviceUntilCleared) {
    EXPECT_EQ(control.run("fault 1 stall 36"), "ok");
    EXPECT_EQ(control.run("fault 1 no-reply 4"), "ok");
    EXPECT_EQ(control.run("fault 1 wrong-echo 19 7"), "ok");
    EXPECT_EQ(control.run("fault 1 refuse-claim"), "ok");
    EXPECT_EQ(ask(s1, 36).outcome, orbsim::ControlReply::Stall);
    EXPECT_EQ(ask(s1, 4).outcome, orbsim::ControlReply::NoReply);
    EXPECT_EQ(ask(s1, 19, 132).data.at(0), 7);
    EXPECT_TRUE(s1.claim_refused());
    EXPECT_EQ(ask(s0, 36).outcome, orbsim::ControlReply::Data);  // the other sensor is fine

    EXPECT_EQ(control.run("fault 1 hang"), "ok");
    EXPECT_EQ(ask(s1, 33, 1).outcome, orbsim::ControlReply::NoReply);
    EXPECT_EQ(control.run("clear 1"), "ok");
    EXPECT_EQ(ask(s1, 36).outcome, orbsim::ControlReply::Data);
    EXPECT_EQ(ask(s1, 19, 132).data.at(0), 132);
    EXPECT_FALSE(s1.claim_refused());
}

TEST_F(ControlChannel, FramesAndScenesChangeWhatTheSensorSends) {
    s0.handle_control({0x21, orbsim::kStartStreaming, 0, 1, 0});
    const auto frame = [&] {
        auto r = s0.bulk_in(orbsim::SensorModel::Clock::now(), orbsim::kFrameBytes);
        return r.data.size() == orbsim::kFrameBytes ? (r.data[1000] << 4 | r.data[1001] >> 4) : -1;
    };
    EXPECT_EQ(control.run("frames 0 constant=1234"), "ok");
    EXPECT_EQ(frame(), 1234);
    EXPECT_EQ(control.run("frames 0 counter"), "ok");
    EXPECT_EQ(frame(), 2);  // the stream's second frame
    EXPECT_EQ(control.run("scene 0 dark"), "ok");
    EXPECT_NEAR(frame(), 64, 20);  // dark level and read noise
}

// A sweep shows one line after another and averages the first frames of
// each: were each scene's noise drawn afresh from the same seed, every step
// would average the same noise, and the calibration would carry it into
// every spectrum made with it.
TEST_F(ControlChannel, ASceneShownAgainDrawsNoiseOfItsOwn) {
    s0.handle_control({0x21, orbsim::kStartStreaming, 0, 1, 0});
    const auto frame = [&] {
        const auto r = s0.bulk_in(orbsim::SensorModel::Clock::now(), orbsim::kFrameBytes);
        std::vector<int> v(orbsim::kFilters);
        for (std::size_t i = 0; i < orbsim::kFilters; i++) v[i] = r.data.at(2 * i) << 4 | r.data.at(2 * i + 1) >> 4;
        return v;
    };
    EXPECT_EQ(control.run("scene 0 dark"), "ok");
    const std::vector<int> first = frame();
    EXPECT_EQ(control.run("scene 0 dark"), "ok");
    const std::vector<int> again = frame();
    int same = 0;
    for (std::size_t i = 0; i < first.size(); i++) same += first[i] == again[i];
    EXPECT_LT(same, 300) << "of 1024 filters read the same after the scene was shown again";
}

TEST_F(ControlChannel, StatusSaysWhereEachDeviceIsAndWhatItDoes) {
    s0.handle_control({0xA1, 37, 3, 0, 1});
    s0.handle_control({0xA1, 5, 67, 0, 1});
    s1.handle_control({0x21, orbsim::kStartStreaming, 0, 1, 0});
    s1.bulk_in(orbsim::SensorModel::Clock::now(), orbsim::kFrameBytes);
    tb.unplug(led);
    EXPECT_EQ(control.run("status"),
              "0 001/002 sensor plugged=yes streaming=no shutter=835 frames=0 missed=0 unit=109a472885\n"
              "1 001/003 sensor plugged=yes streaming=yes shutter=0 frames=1 missed=0 unit=109a472a85\n"
              "2 001/004 led plugged=no streaming=no shutter=0 frames=0 missed=0 unit=none\n"
              "ok");
}

// Each sensor is its own unit until made nominal, and back: under one line
// the two sensors' frames differ as two units do, the nominal ones do not.
TEST_F(ControlChannel, UnitsAreEachSensorsOwnUntilMadeNominal) {
    const auto frame = [](orbsim::Sensor& s) {
        s.handle_control({0x21, orbsim::kStartStreaming, 0, 1, 0});
        const auto r = s.bulk_in(orbsim::SensorModel::Clock::now(), orbsim::kFrameBytes);
        std::array<double, orbsim::kFilters> v{};
        for (std::size_t i = 0; i < orbsim::kFilters; i++) v[i] = r.data.at(2 * i) << 4 | r.data.at(2 * i + 1) >> 4;
        return v;
    };
    // How far a frame's lit filters are from the noise-free frame of a
    // unit, in standard deviations.
    const auto misfit = [](const std::array<double, orbsim::kFilters>& v, const orbsim::Unit& unit) {
        orbsim::Scene line;
        std::string why;
        EXPECT_TRUE(orbsim::parse_scene({"line", "--nm", "532.4", "0.2"}, &line, &why));
        const auto mean = orbsim::scene_mean(line, 20, 0, unit);
        double sum = 0;
        int lit = 0;
        for (std::size_t i = 0; i < orbsim::kFilters; i++) {
            if (mean[i] - orbsim::kDarkLevel < 20) continue;
            sum += std::abs(v[i] - mean[i]) / std::sqrt((mean[i] - orbsim::kDarkLevel) / orbsim::kConversionGain + 9);
            lit++;
        }
        EXPECT_GT(lit, 10);
        return sum / lit;
    };
    for (auto* s : {&s0, &s1}) s->set_reg(37, 0), s->set_reg(5, 20);
    EXPECT_EQ(control.run("scene 0 line --nm 532.4 0.2"), "ok");
    EXPECT_EQ(control.run("scene 1 line --nm 532.4 0.2"), "ok");
    const auto own0 = frame(s0), own1 = frame(s1);
    const orbsim::Unit &unit0 = orbsim::Unit::of(s0.identity()), &unit1 = orbsim::Unit::of(s1.identity());
    EXPECT_LT(misfit(own0, unit0), 1.2);  // noise alone: about 0.8
    EXPECT_LT(misfit(own1, unit1), 1.2);
    EXPECT_GT(misfit(own0, unit1), 1.5);
    EXPECT_GT(misfit(own1, unit0), 1.5);

    EXPECT_EQ(control.run("units 0 nominal"), "ok");  // the scene in place, through nominal filters
    EXPECT_LT(misfit(frame(s0), orbsim::Unit::nominal()), 1.2);
    EXPECT_NE(control.run("status").find("0 001/002 sensor plugged=yes streaming=yes shutter=20 frames=2 missed=0 unit=nominal\n"),
              std::string::npos);
    EXPECT_EQ(control.run("units 0 own"), "ok");
    EXPECT_LT(misfit(frame(s0), unit0), 1.2);

    // The launcher's --units nominal.
    orbsim::ControlCommands nominal(tb, 7, true);
    EXPECT_NE(nominal.run("status").find(" unit=nominal\n1 "), std::string::npos);
}

// A scene from a file that cannot be used is refused with the file's line
// and why; the sensor goes on showing what it showed.
TEST_F(ControlChannel, ABadSpectrumFileLeavesTheSceneInPlace) {
    const std::string path = tb.root_dir() + "/lamp.csv";
    std::ofstream(path) << "wavelength_nm,value\n400,1\n380,2\n";
    EXPECT_EQ(control.run("scene 0 constant"), "error: unknown scene 'constant' (one of dark, halogen, white-led, "
                                               "fluorescent, laser, sun, line, file)");
    EXPECT_EQ(control.run("frames 0 constant=777"), "ok");
    EXPECT_EQ(control.run("scene 0 file " + path),
              "error: " + path + " line 3: wavelength 380 nm is not above the one before (400 nm)");
    s0.handle_control({0x21, orbsim::kStartStreaming, 0, 1, 0});
    const auto r = s0.bulk_in(orbsim::SensorModel::Clock::now(), orbsim::kFrameBytes);
    EXPECT_EQ(r.data.at(0) << 4 | r.data.at(1) >> 4, 777);
    std::ofstream(path) << "400,1\n500,1\n";
    EXPECT_EQ(control.run("scene 0 file " + path + " 0.5 + laser --nm 700 0.1"), "ok");
}

// A cover darkens the sensor without touching what it looks at: the dark is
// the unit's own, a scene or unit set meanwhile waits under it, and the
// latest scene comes back when it is lifted.
TEST_F(ControlChannel, ACoverDarkensTheSensorAndKeepsItsScene) {
    for (const auto& [line, why] : std::vector<std::pair<std::string, std::string>>{
             {"cover 0", "usage: cover N on|off"},
             {"cover 0 maybe", "usage: cover N on|off"},
             {"cover 2 on", "device 2 is an LED module"},
             {"cover 0 on", "device 0 shows test frames, not a scene"}})
        EXPECT_NE(control.run(line).find(why), std::string::npos) << line;
    s0.set_reg(37, 3), s0.set_reg(5, 132);  // shutter speed 900
    s0.handle_control({0x21, orbsim::kStartStreaming, 0, 1, 0});
    const auto mean = [&] {
        const auto r = s0.bulk_in(orbsim::SensorModel::Clock::now(), orbsim::kFrameBytes);
        double sum = 0;
        for (std::size_t i = 0; i < orbsim::kFilters; i++) sum += r.data.at(2 * i) << 4 | r.data.at(2 * i + 1) >> 4;
        return sum / orbsim::kFilters;
    };
    EXPECT_EQ(control.run("scene 0 dark"), "ok");
    const double dark = mean();
    EXPECT_EQ(control.run("scene 0 halogen"), "ok");
    const double halogen = mean();
    EXPECT_GT(halogen, dark + 500);
    EXPECT_EQ(control.run("cover 0 on"), "ok");
    EXPECT_NEAR(mean(), dark, 2);
    EXPECT_EQ(control.run("scene 0 white-led"), "ok");
    EXPECT_EQ(control.run("units 0 nominal"), "ok");
    EXPECT_LT(mean(), dark + 10);  // the nominal unit's dark current differs a little
    EXPECT_EQ(control.run("units 0 own"), "ok");
    EXPECT_EQ(control.run("cover 0 off"), "ok");
    const double led = mean();
    EXPECT_GT(led, dark + 300);
    EXPECT_GT(std::abs(led - halogen), 50);  // the scene set under the cover, not the one before
    EXPECT_EQ(control.run("cover 0 on"), "ok");
    EXPECT_EQ(control.run("frames 0 constant=777"), "ok");  // test frames take the cover off
    EXPECT_NEAR(mean(), 777, 0.5);
    EXPECT_NE(control.run("cover 0 on").find("not a scene"), std::string::npos);
}

// A replugged sensor is a new device to a host: its old handle is dead, it
// lists at a new address, its registers and stream start over, and it is
// the same sensor (identity) where it was plugged.
TEST_F(ControlChannel, ReplugComesBackAsANewDeviceAtPowerOn) {
    Usb usb;
    libusb_device_handle* h = usb.open(s0);
    ASSERT_NE(h, nullptr);
    unsigned char b = 0;
    ASSERT_EQ(libusb_control_transfer(h, 0xA1, 37, 3, 0, &b, 1, 1000), 1);
    ASSERT_EQ(libusb_control_transfer(h, 0x21, orbsim::kStartStreaming, 0, 1, nullptr, 0, 1000), 0);
    const int old_address = s0.address();
    const auto identity = s0.identity();

    EXPECT_EQ(control.run("unplug 0"), "ok");
    EXPECT_EQ(control.run("unplug 0"), "error: device 0 is not plugged in");
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 36, 0, 0, &b, 1, 1000), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(control.run("replug 0"), "ok");
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 36, 0, 0, &b, 1, 1000), LIBUSB_ERROR_NO_DEVICE);
    libusb_close(h);

    EXPECT_TRUE(tb.plugged(s0));
    EXPECT_NE(s0.address(), old_address);
    EXPECT_GT(s0.address(), led.address());  // the next address after the last one given
    EXPECT_FALSE(s0.streaming());
    EXPECT_EQ(s0.identity(), identity);
    const auto listed = usb.list();
    EXPECT_EQ(std::count(listed.begin(), listed.end(), std::array<int, 4>{1, s0.address(), 0x0483, 0x5740}), 1);
    EXPECT_EQ(std::count(listed.begin(), listed.end(), std::array<int, 4>{1, old_address, 0x0483, 0x5740}), 0);
    // It keeps its place: the first sensor on the bus is still the first listed.
    EXPECT_EQ(listed.front()[1], s0.address());

    h = usb.open(s0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 36, 0, 0, &b, 1, 1000), 1);
    EXPECT_EQ(b, 0);
    libusb_close(h);
}

// A sweep changes the scene while the sensor streams at its real pace. Each
// `scene` answers at once (the median within 5 ms), and from the answer on
// the host gets only frames exposed under the new light: the frame being
// exposed at the change is not sent, the next one comes a whole exposure
// later, and no frame is a mix of two lights.
TEST(ControlChannelTiming, ASceneAnswersAtOnceAndNoFrameOfTheOldOneFollows) {
    using Clock = std::chrono::steady_clock;
    orbsim::Testbed tb;
    orbsim::Sensor& s = tb.add_sensor();
    s.set_timing(orbsim::Timing::Realistic);
    orbsim::ControlCommands control(tb, 3);
    ASSERT_EQ(control.run("scene 0 dark"), "ok");
    constexpr uint16_t kShutter = 300;  // 27.4 ms

    // What each light looks like, to tell every frame's light by all its filters.
    const orbsim::Unit& unit = orbsim::Unit::of(s.identity());
    std::array<std::array<double, orbsim::kFilters>, 2> means;
    for (int k = 0; k < 2; k++) {
        orbsim::Scene scene;
        std::string why;
        ASSERT_TRUE(orbsim::parse_scene({k ? "halogen" : "dark", "0.5"}, &scene, &why));
        means[k] = orbsim::scene_mean(scene, kShutter, 0, unit);
    }
    const auto light_of = [&](const std::vector<uint8_t>& data) {
        int fits[2] = {0, 0};
        for (std::size_t i = 0; i < orbsim::kFilters; i++) {
            const double v = data[2 * i] << 4 | data[2 * i + 1] >> 4;
            for (int k = 0; k < 2; k++) {
                const double sd = std::sqrt((means[k][i] - orbsim::kDarkLevel) / orbsim::kConversionGain + 9);
                fits[k] += std::abs(v - means[k][i]) < 6 * sd;
            }
        }
        return fits[0] == int(orbsim::kFilters) ? 0 : fits[1] == int(orbsim::kFilters) ? 1 : -1;  // -1: a mix
    };

    Usb usb;
    libusb_device_handle* h = usb.open(s);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(libusb_claim_interface(h, 0), 0);
    unsigned char b = 0;
    ASSERT_EQ(libusb_control_transfer(h, 0xA1, 37, kShutter >> 8, 0, &b, 1, 1000), 1);
    ASSERT_EQ(libusb_control_transfer(h, 0xA1, 5, kShutter & 0xFF, 0, &b, 1, 1000), 1);
    ASSERT_EQ(libusb_control_transfer(h, 0x21, orbsim::kStartStreaming, 0, 0, nullptr, 0, 1000), 0);

    struct Received {
        int light;
        Clock::time_point at;
    };
    std::vector<Received> received;  // in the order sent: the n-th is the sensor's n-th frame
    std::mutex mu;
    std::atomic<bool> stop{false};
    std::thread host([&] {
        std::vector<uint8_t> data(orbsim::kFrameBytes);
        while (!stop) {
            int got = 0;
            const int r = libusb_bulk_transfer(h, orbsim::kBulkInEndpoint, data.data(), int(data.size()), &got, 1000);
            if (r != 0 || got != int(data.size())) continue;
            std::lock_guard<std::mutex> lock(mu);
            received.push_back({light_of(data), Clock::now()});
        }
    });
    struct Change {
        int light;
        uint64_t sent_before, sent_by_answer;
        Clock::time_point at;
        double answer_ms;
    };
    std::vector<Change> changes;
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    for (int k = 0; k < 12; k++) {
        const int light = (k + 1) % 2;
        Change c{light, s.frames_sent(), 0, Clock::now(), 0};
        EXPECT_EQ(control.run(light ? "scene 0 halogen 0.5" : "scene 0 dark 0.5"), "ok");
        c.answer_ms = std::chrono::duration<double, std::milli>(Clock::now() - c.at).count();
        c.sent_by_answer = s.frames_sent();
        changes.push_back(c);
        std::this_thread::sleep_for(std::chrono::milliseconds(90 + 7 * k));  // two to four frames, at any phase
    }
    stop = true;
    host.join();
    libusb_close(h);

    std::vector<double> answers;
    for (const Change& c : changes) answers.push_back(c.answer_ms);
    std::sort(answers.begin(), answers.end());
    RecordProperty("scene_answer_ms_median", std::to_string(answers[answers.size() / 2]));
    RecordProperty("scene_answer_ms_max", std::to_string(answers.back()));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(answers[answers.size() / 2], 5.0);
#endif
    std::lock_guard<std::mutex> lock(mu);
    ASSERT_GT(received.size(), changes.back().sent_by_answer);
    for (std::size_t n = 0; n < received.size(); n++) ASSERT_NE(received[n].light, -1) << "frame " << n + 1 << " is a mix";
    for (std::size_t k = 0; k < changes.size(); k++) {
        SCOPED_TRACE(k);
        const Change& c = changes[k];
        const uint64_t end = k + 1 < changes.size() ? changes[k + 1].sent_before : received.size();
        ASSERT_LT(c.sent_by_answer, end);  // at least one frame of every light
        // Every frame sent after the answer is the new light's...
        for (uint64_t n = c.sent_by_answer; n < end; n++) EXPECT_EQ(received[n].light, c.light) << "frame " << n + 1;
        // ...and the first of them was exposed after the change.
        EXPECT_GE(received[c.sent_by_answer].at - c.at, orbsim::exposure_time(kShutter));
    }
}

TEST(ControlSocket, TwoControllersAtOnceEachGetWholeAnswers) {
    orbsim::Testbed tb;
    tb.add_sensor();
    tb.add_sensor();
    orbsim::ControlCommands control(tb, 1);
    const std::string path = tb.root_dir() + "/control";
    orbsim::ControlServer server(path, [&](const std::string& line) { return control.run(line); });

    std::atomic<int> bad{0};
    const auto controller = [&](const std::vector<std::string>& lines) {
        for (int round = 0; round < 20; round++) {
            for (const auto& line : lines) {
                std::string answer, why;
                if (!orbsim::send_command(path, line, &answer, &why) || !orbsim::ControlCommands::succeeded(answer))
                    bad++;
                if (line == "status" && std::count(answer.begin(), answer.end(), '\n') != 3) bad++;
            }
        }
    };
    std::thread a(controller, std::vector<std::string>{"replug 0", "status", "fault 1 stall 36"});
    std::thread b(controller, std::vector<std::string>{"status", "clear 1", "frames 1 counter", "replug 1"});
    a.join();
    b.join();
    EXPECT_EQ(bad, 0);

    std::string answer, why;
    ASSERT_TRUE(orbsim::send_command(path, "jump", &answer, &why)) << why;
    EXPECT_EQ(answer, "error: unknown command 'jump' (try help)\n");
    ASSERT_TRUE(orbsim::send_command(path, "status", &answer, &why));
    EXPECT_NE(answer.find("0 001/"), std::string::npos);
    EXPECT_FALSE(orbsim::send_command(tb.root_dir() + "/nobody", "status", &answer, &why));
    EXPECT_NE(why.find("cannot reach the emulator"), std::string::npos);
}

TEST(ControlScript, ReadsTimedCommandsAndRefusesAnythingElse) {
    std::istringstream good("# a replug\n\nat 2.5s unplug 0\n  at 300ms status  \nat 2.5s replug 0\nat 0s help\n");
    std::vector<orbsim::TimedCommand> timed;
    std::string why;
    ASSERT_TRUE(orbsim::parse_script(good, &timed, &why)) << why;
    ASSERT_EQ(timed.size(), 4u);
    EXPECT_EQ(timed[0].command, "help");
    EXPECT_EQ(timed[1].at, 300ms);
    EXPECT_EQ(timed[1].command, "status  ");
    EXPECT_EQ(timed[2].command, "unplug 0");  // equal times keep the order written
    EXPECT_EQ(timed[2].line, 3);
    EXPECT_EQ(timed[3].at, 2500ms);

    for (const char* bad : {"at 2.5 unplug 0", "at -1s status", "after 1s status", "at 1s", "at 1e9s status"}) {
        std::istringstream in(std::string("at 1s status\n") + bad + "\n");
        EXPECT_FALSE(orbsim::parse_script(in, &timed, &why)) << bad;
        EXPECT_EQ(why.rfind("line 2: ", 0), 0u) << why;
    }
}

}  // namespace

#include "control_commands.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "scenes.h"

namespace orbsim {

namespace {

// Thrown while a command is read; its text becomes the "error:" answer.
struct Refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

long number(const std::string& word, const char* what, long lo, long hi) {
    long v = 0;
    if (!parse_long(word, lo, hi, &v))
        throw Refusal(std::string(what) + " must be a whole number from " + std::to_string(lo) + " to " +
                      std::to_string(hi) + ", not '" + word + "'");
    return v;
}

void expect_count(const std::vector<std::string>& words, std::size_t lo, std::size_t hi, const char* form) {
    if (words.size() < lo || words.size() > hi) throw Refusal(std::string("usage: ") + form);
}

}  // namespace

bool parse_long(const std::string& text, long lo, long hi, long* out) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (errno || text.empty() || *end || v < lo || v > hi) return false;
    *out = v;
    return true;
}

bool parse_frames(const std::string& word, FrameGenerator* out) {
    long v = 0;
    if (word == "light") *out = light_frames();
    else if (word == "counter") *out = counter_frames();
    else if (word.rfind("constant=", 0) == 0 && parse_long(word.substr(9), 0, kMaxSample, &v))
        *out = constant_frames(static_cast<uint16_t>(v));
    else return false;
    return true;
}

std::vector<std::string> split_words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

ControlCommands::ControlCommands(Testbed& testbed, uint64_t seed, bool nominal_units)
    : testbed_(testbed), seed_(seed), nominal_units_(nominal_units) {
    prepare_scenes();
    for (std::size_t i = 0; i < testbed_.size(); i++)
        if (testbed_.sensor(i).kind() == SensorModel::Kind::Sensor) unit_of(i);
}

ControlCommands::Light& ControlCommands::light_of(std::size_t index) {
    while (lights_.size() <= index) lights_.push_back(Light{nominal_units_, false, false, Scene{}});
    return lights_[index];
}

const Unit& ControlCommands::unit_of(std::size_t index) {
    return light_of(index).nominal ? Unit::nominal() : Unit::of(testbed_.sensor(index).identity());
}

void ControlCommands::show(std::size_t index, const Scene& scene) {
    std::lock_guard<std::mutex> lock(mu_);
    show_locked(index, scene);
}

void ControlCommands::show_locked(std::size_t index, const Scene& scene) {
    Light& light = light_of(index);
    light.scene = scene;
    light.has_scene = true;
    // A covered sensor keeps its scene for when it is uncovered, and sees
    // the dark of its own unit meanwhile.
    Scene covered;
    if (light.covered) {
        covered.lights.emplace_back();
        covered.lights.back().name = "dark";
    }
    const uint64_t seed = seed_ + index + (light.shown++ << 32);
    testbed_.sensor(index).set_frame_generator(scene_frames(light.covered ? covered : scene, seed, unit_of(index)));
}

const char* ControlCommands::usage() {
    return "commands:\n"
           "  status                      one line per device\n"
           "  unplug N | replug N         take device N off the bus / bring it back at a new address\n"
           "  fault N KIND [ARGS]         stall REQ | no-reply REQ | wrong-echo CODE VALUE | refuse-claim |\n"
           "                              refuse-open | short-frame BYTES [FRAME] | stall-bulk |\n"
           "                              trickle BYTES | hang\n"
           "  clear N                     end every fault of device N\n"
           "  scene N LIGHT [+ LIGHT]     what sensor N looks at; LIGHT is one of\n"
           "                              NAME [BRIGHTNESS] [--flicker HZ] [--depth D] [--drift SECONDS]\n"
           "                                NAME: dark, halogen, white-led, fluorescent, sun,\n"
           "                                laser [--nm NM]\n"
           "                              line --nm NM [--fwhm NM] [BRIGHTNESS]   a monochromator's band\n"
           "                              file PATH [BRIGHTNESS]   CSV rows wavelength_nm,value\n"
           "  units N nominal|own         sensor N's filters: the nominal model, or its own unit's\n"
           "  cover N on|off              a cap over sensor N: dark frames, its scene kept for later\n"
           "  frames N light|counter|constant=V\n";
}

bool ControlCommands::is_command(const std::string& verb) {
    for (const char* v : {"status", "help", "unplug", "replug", "fault", "clear", "scene", "frames", "units", "cover"})
        if (verb == v) return true;
    return false;
}

bool ControlCommands::succeeded(const std::string& answer) {
    std::string a = answer;
    while (!a.empty() && a.back() == '\n') a.pop_back();
    return a == "ok" || (a.size() > 3 && a.compare(a.size() - 3, 3, "\nok") == 0);
}

std::string ControlCommands::run(const std::string& line) {
    const std::vector<std::string> words = split_words(line);
    std::lock_guard<std::mutex> lock(mu_);
    try {
        return run_locked(words);
    } catch (const std::exception& e) {
        return std::string("error: ") + e.what();
    }
}

std::string ControlCommands::run_locked(const std::vector<std::string>& words) {
    if (words.empty()) throw Refusal("empty command");
    const std::string& verb = words[0];
    if (verb == "status") {
        expect_count(words, 1, 1, "status");
        return status() + "ok";
    }
    if (verb == "help") return std::string(usage()) + "ok";

    if (!is_command(verb)) throw Refusal("unknown command '" + verb + "' (try help)");
    if (words.size() < 2) throw Refusal(verb + " needs a device index");
    const std::size_t count = testbed_.size();
    long index = 0;
    if (!parse_long(words[1], 0, static_cast<long>(count) - 1, &index))
        throw Refusal("no device '" + words[1] + "': the emulator has " + std::to_string(count) +
                      (count == 1 ? " device" : " devices") + (count ? ", 0 to " + std::to_string(count - 1) : ""));
    Sensor& sensor = testbed_.sensor(static_cast<std::size_t>(index));
    const std::vector<std::string> rest(words.begin() + 2, words.end());

    if (verb == "unplug" || verb == "replug" || verb == "clear") {
        expect_count(rest, 0, 0, (verb + " N").c_str());
        if (verb == "unplug") {
            if (!testbed_.plugged(sensor)) throw Refusal("device " + words[1] + " is not plugged in");
            testbed_.unplug(sensor);
        } else if (verb == "replug") {
            testbed_.replug(sensor);
        } else {
            sensor.clear_faults();
            testbed_.refuse_open(sensor, false);
        }
        return "ok";
    }
    if (verb == "fault") return fault(sensor, rest);
    return light_source(sensor, static_cast<std::size_t>(index), words);
}

std::string ControlCommands::fault(Sensor& sensor, const std::vector<std::string>& words) {
    if (words.empty())
        throw Refusal("fault needs a kind: stall, no-reply, wrong-echo, refuse-claim, refuse-open, short-frame, "
                      "stall-bulk, trickle or hang");
    const std::string& kind = words[0];
    const auto request = [&](std::size_t i) {
        return static_cast<uint8_t>(number(words[i], "the request code", 0, 255));
    };
    if (kind == "stall" || kind == "no-reply") {
        expect_count(words, 2, 2, ("fault N " + kind + " REQ").c_str());
        if (kind == "stall") sensor.stall(request(1));
        else sensor.no_reply(request(1));
    } else if (kind == "wrong-echo") {
        expect_count(words, 3, 3, "fault N wrong-echo CODE VALUE");
        sensor.echo_wrong(request(1), static_cast<uint8_t>(number(words[2], "the echoed value", 0, 255)));
    } else if (kind == "short-frame") {
        expect_count(words, 2, 3, "fault N short-frame BYTES [FRAME]");
        const auto bytes = number(words[1], "the byte count", 0, kFrameBytes - 1);
        const auto frame = words.size() > 2 ? number(words[2], "the frame number", 1, UINT32_MAX) : 0;
        sensor.short_frame(static_cast<std::size_t>(bytes), static_cast<uint32_t>(frame));
    } else if (kind == "trickle") {
        expect_count(words, 2, 2, "fault N trickle BYTES");
        sensor.trickle(static_cast<std::size_t>(number(words[1], "the byte count", 0, kFrameBytes)));
    } else {
        expect_count(words, 1, 1, ("fault N " + kind).c_str());
        if (kind == "refuse-claim") sensor.refuse_claim();
        else if (kind == "refuse-open") testbed_.refuse_open(sensor, true);
        else if (kind == "stall-bulk") sensor.stall_bulk();
        else if (kind == "hang") sensor.hang();
        else throw Refusal("unknown fault '" + kind + "'");
    }
    return "ok";
}

std::string ControlCommands::light_source(Sensor& sensor, std::size_t index, const std::vector<std::string>& words) {
    if (sensor.kind() == SensorModel::Kind::LedModule)
        throw Refusal("device " + words[1] + " is an LED module: it sends no frames");
    const std::vector<std::string> rest(words.begin() + 2, words.end());
    Light& light = light_of(index);
    if (words[0] == "frames") {
        FrameGenerator generator;
        if (rest.size() != 1 || !parse_frames(rest[0], &generator))
            throw Refusal("usage: frames N light|counter|constant=V (V from 0 to 4095)");
        sensor.set_frame_generator(std::move(generator));
        light.has_scene = false;
        light.covered = false;
        return "ok";
    }
    if (words[0] == "cover") {
        if (rest.size() != 1 || (rest[0] != "on" && rest[0] != "off")) throw Refusal("usage: cover N on|off");
        if (!light.has_scene)
            throw Refusal("device " + words[1] + " shows test frames, not a scene: a cover changes nothing on them");
        light.covered = rest[0] == "on";
        show_locked(index, light.scene);
        return "ok";
    }
    if (words[0] == "units") {
        if (rest.size() != 1 || (rest[0] != "nominal" && rest[0] != "own")) throw Refusal("usage: units N nominal|own");
        light.nominal = rest[0] == "nominal";
        if (light.has_scene) show_locked(index, light.scene);
        return "ok";
    }
    Scene scene;
    std::string why;
    if (!parse_scene(rest, &scene, &why)) throw Refusal(why);
    show_locked(index, scene);
    return "ok";
}

std::string ControlCommands::status() {
    std::string out;
    for (std::size_t i = 0; i < testbed_.size(); i++) {
        Sensor& s = testbed_.sensor(i);
        const bool led = s.kind() == SensorModel::Kind::LedModule;
        char line[224];
        std::snprintf(line, sizeof line,
                      "%zu %03d/%03d %s plugged=%s streaming=%s shutter=%u frames=%llu missed=%llu unit=%s\n", i,
                      s.bus(), s.address(), led ? "led" : "sensor", testbed_.plugged(s) ? "yes" : "no",
                      s.streaming() ? "yes" : "no", s.shutter(), static_cast<unsigned long long>(s.frames_sent()),
                      static_cast<unsigned long long>(s.slots_missed()), led ? "none" : unit_of(i).name().c_str());
        out += line;
    }
    return out;
}

}  // namespace orbsim

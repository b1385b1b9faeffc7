// The words of the control channel's `scene` command (also --scene,
// timed scripts and orb-scene-dump).

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "scenes.h"
#include "spectrum_file.h"

namespace orbsim {

namespace {

struct Option {
    const char* word;
    double SceneSettings::*field;
    double min, max;
    const char* unit;
};

// Ranges: light no more than a thousand times the default; a laser or a
// line on the filters' grid; flicker that an exposure of 0.1 ms can still
// follow; a drift slow beside any exposure (a drift is evaluated once per
// frame).
constexpr double kMaxBrightness = 1000;
const Option kOptions[] = {
    {"--nm", &SceneSettings::nm, kMinNm, kMaxNm, "nm"},
    {"--fwhm", &SceneSettings::fwhm_nm, kMinLineFwhmNm, kMaxLineFwhmNm, "nm"},
    {"--flicker", &SceneSettings::flicker_hz, 0, 10000, "Hz"},
    {"--depth", &SceneSettings::flicker_depth, 0, 1, ""},
    {"--drift", &SceneSettings::drift_s, 0, 1e6, "s"},
};

const char kKnown[] = "one of dark, halogen, white-led, fluorescent, laser, sun, line, file";

std::string range_text(double min, double max, const char* unit) {
    std::string u = *unit ? std::string(" ") + unit : "";
    return number_text(min) + u + " to " + number_text(max) + u;
}

bool parse_light(const std::vector<std::string>& words, SceneSettings* out, std::string* why) {
    auto fail = [why](std::string reason) {
        *why = std::move(reason);
        return false;
    };
    if (words.empty()) return fail(std::string("no light given (") + kKnown + ")");

    SceneSettings s;
    bool known = words[0] == "line" || words[0] == "file";
    for (const std::string& n : scene_names()) known = known || n == words[0];
    if (!known) return fail("unknown scene '" + words[0] + "' (" + kKnown + ")");
    s.name = words[0];

    std::size_t k = 1;
    if (s.name == "file") {
        if (words.size() < 2) return fail("'file' needs the path of a spectrum");
        s.path = words[1];
        if (!read_spectrum_file(s.path, &s.samples, why)) return false;
        k = 2;
    }
    bool have_brightness = false, have_nm = false;
    for (; k < words.size(); k++) {
        const std::string& w = words[k];
        const Option* option = nullptr;
        for (const Option& o : kOptions)
            if (w == o.word) option = &o;
        if (!option) {
            double v;
            if (w.rfind("--", 0) == 0) return fail("unknown option '" + w + "'");
            if (have_brightness) return fail("unexpected '" + w + "' after the brightness");
            if (!parse_number(w, &v)) return fail("brightness '" + w + "' is not a number");
            if (v < 0 || v > kMaxBrightness)
                return fail("brightness '" + w + "' is out of range (" + range_text(0, kMaxBrightness, "") + ")");
            s.brightness = v;
            have_brightness = true;
            continue;
        }
        if (option->field == &SceneSettings::nm && s.name != "laser" && s.name != "line")
            return fail("'" + w + "' is for a laser or a line only");
        if (option->field == &SceneSettings::fwhm_nm && s.name != "line") return fail("'" + w + "' is for a line only");
        if (k + 1 == words.size()) return fail("'" + w + "' needs a value");
        const std::string& value_word = words[++k];
        double v;
        if (!parse_number(value_word, &v)) return fail(w + " '" + value_word + "' is not a number");
        if (v < option->min || v > option->max)
            return fail(w + " '" + value_word + "' is out of range (" +
                        range_text(option->min, option->max, option->unit) + ")");
        if (option->field == &SceneSettings::drift_s && v > 0 && v < 1)
            return fail("--drift '" + value_word + "' is too fast (0 for none, else at least 1 s)");
        have_nm = have_nm || option->field == &SceneSettings::nm;
        s.*(option->field) = v;
    }
    if (s.name == "line" && !have_nm) return fail("'line' needs --nm, the line's centre");
    if (s.name == "line" && !have_brightness) s.brightness = kLineDefaultBrightness;
    *out = std::move(s);
    return true;
}

}  // namespace

std::vector<std::string> scene_names() { return {"dark", "halogen", "white-led", "fluorescent", "laser", "sun"}; }

bool parse_scene(const std::vector<std::string>& words, Scene* out, std::string* why) {
    std::string reason;
    Scene scene;
    std::vector<std::string> part;
    for (std::size_t k = 0; k <= words.size(); k++) {
        if (k < words.size() && words[k] != "+") {
            part.push_back(words[k]);
            continue;
        }
        if (part.empty() && !words.empty()) {
            if (why) *why = "'+' joins two lights: a light before and after it";
            return false;
        }
        SceneSettings light;
        if (!parse_light(part, &light, &reason)) {
            if (why) *why = reason;
            return false;
        }
        scene.lights.push_back(std::move(light));
        part.clear();
    }
    *out = std::move(scene);
    return true;
}

}  // namespace orbsim

// The words of the control channel's `scene` command.

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "scenes.h"

namespace orbsim {

namespace {

// The whole word must be a finite number.
bool to_number(const std::string& word, double* value) {
    if (word.empty()) return false;
    const char* begin = word.c_str();
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(begin, &end);
    if (end != begin + word.size() || errno == ERANGE || !std::isfinite(v)) return false;
    *value = v;
    return true;
}

struct Option {
    const char* word;
    double SceneSettings::*field;
    double min, max;
    const char* unit;
};

// Ranges: light no more than a thousand times the default; a laser on the
// filters' grid; flicker that an exposure of 0.1 ms can still follow; a
// drift slow beside any exposure (a drift is evaluated once per frame).
constexpr double kMaxBrightness = 1000;
const Option kOptions[] = {
    {"--nm", &SceneSettings::laser_nm, kMinNm, kMaxNm, "nm"},
    {"--flicker", &SceneSettings::flicker_hz, 0, 10000, "Hz"},
    {"--depth", &SceneSettings::flicker_depth, 0, 1, ""},
    {"--drift", &SceneSettings::drift_s, 0, 1e6, "s"},
};

std::string range_text(double min, double max, const char* unit) {
    auto text = [](double v) {
        std::string s = std::to_string(v);
        s.erase(s.find_last_not_of('0') + 1);
        if (s.back() == '.') s.pop_back();
        return s;
    };
    std::string u = *unit ? std::string(" ") + unit : "";
    return text(min) + u + " to " + text(max) + u;
}

}  // namespace

std::vector<std::string> scene_names() { return {"dark", "halogen", "white-led", "fluorescent", "laser", "sun"}; }

bool parse_scene(const std::vector<std::string>& words, SceneSettings* out, std::string* why) {
    auto fail = [why](std::string reason) {
        if (why) *why = std::move(reason);
        return false;
    };
    if (words.empty()) return fail("no scene given (one of dark, halogen, white-led, fluorescent, laser, sun)");

    SceneSettings s;
    bool known = false;
    for (const std::string& n : scene_names()) known = known || n == words[0];
    if (!known)
        return fail("unknown scene '" + words[0] + "' (one of dark, halogen, white-led, fluorescent, laser, sun)");
    s.name = words[0];

    bool have_brightness = false;
    for (std::size_t k = 1; k < words.size(); k++) {
        const std::string& w = words[k];
        const Option* option = nullptr;
        for (const Option& o : kOptions)
            if (w == o.word) option = &o;
        if (!option) {
            double v;
            if (w.rfind("--", 0) == 0) return fail("unknown option '" + w + "'");
            if (have_brightness) return fail("unexpected '" + w + "' after the brightness");
            if (!to_number(w, &v)) return fail("brightness '" + w + "' is not a number");
            if (v < 0 || v > kMaxBrightness)
                return fail("brightness '" + w + "' is out of range (" + range_text(0, kMaxBrightness, "") + ")");
            s.brightness = v;
            have_brightness = true;
            continue;
        }
        if (option->field == &SceneSettings::laser_nm && s.name != "laser")
            return fail("'" + w + "' is for the laser only");
        if (k + 1 == words.size()) return fail("'" + w + "' needs a value");
        const std::string& value_word = words[++k];
        double v;
        if (!to_number(value_word, &v)) return fail(w + " '" + value_word + "' is not a number");
        if (v < option->min || v > option->max)
            return fail(w + " '" + value_word + "' is out of range (" +
                        range_text(option->min, option->max, option->unit) + ")");
        if (option->field == &SceneSettings::drift_s && v > 0 && v < 1)
            return fail("--drift '" + value_word + "' is too fast (0 for none, else at least 1 s)");
        s.*(option->field) = v;
    }
    *out = s;
    return true;
}

}  // namespace orbsim

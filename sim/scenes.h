#ifndef ORB_SIM_SCENES_H
#define ORB_SIM_SCENES_H

// What the emulated sensor looks at: a light source (light_sources.h), or the
// sum of several, seen through the filters of one unit (units.h), turned into
// 12-bit frames with the noise of a real photodiode array. A model, not a
// measured sensor.
//
// Filter i reads  dark + exposure x (dark current + scene . curve i)  in DN,
// plus shot noise (variance = the signal in electrons) and read noise, rounded
// and held to 0..4095. Every named light and every spectrum from a file is
// scaled so that at brightness 1 its brightest filter on the nominal unit just
// saturates at shutter speed 900 (82 ms); a line has a brightness of its own
// (kLineSaturationMs); `brightness` scales from there. The scale belongs to the
// light, so a unit whose filters pass less reads less.

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "light_sources.h"
#include "sensor_model.h"
#include "units.h"

namespace orbsim {

inline constexpr double kConversionGain = 4;    // electrons per DN
inline constexpr double kReadNoiseDn = 3;       // standard deviation
inline constexpr uint16_t kSaturatingShutter = 900;
// A line at brightness 1 saturates the brightest filter of the nominal unit
// after this long at the wavelength where the sensor responds best, so that
// a sweep's exposures stay short (sim/README.md, "The monochromator").
inline constexpr double kLineSaturationMs = 1.0;
// A line with no brightness word is as dim as a monochromator's exit slit:
// its brightest filter stays below saturation up to a mid shutter speed
// (1500, 137 ms) everywhere in the range, and saturates after about 150 ms
// at best. A sweep asks for brightness 1 to keep its exposures short.
inline constexpr double kLineDefaultBrightness = kLineSaturationMs / 150;
// A line's width: from 0.1 nm (narrower makes no difference to any filter) to
// far wider than one.
inline constexpr double kMinLineFwhmNm = 0.1;
inline constexpr double kMaxLineFwhmNm = 100;
// A drifting light dims to this share of itself at the middle of each period;
// a halogen filament also cools to kDriftKelvin, which dims the blue more.
inline constexpr double kDriftDim = 0.7;
inline constexpr double kDriftKelvin = 2650;

// One light, as `NAME [BRIGHTNESS] [OPTIONS]` sets it.
struct SceneSettings {
    // dark, halogen, white-led, fluorescent, laser, sun, line, file
    std::string name = "halogen";
    double brightness = 1.0;      // scales the light; 0 gives the dark frame
    double nm = 650;              // the laser's line, the line's centre
    double fwhm_nm = 1;           // the line's full width at half maximum
    std::string path;             // file: where the spectrum came from
    std::vector<std::pair<double, double>> samples;  // file: (nm, power per nm), ascending
    double flicker_hz = 0;        // 0: steady; else the light is modulated (e.g. mains flicker)
    double flicker_depth = 0.3;   // the modulation: light x (1 + depth x cos(2 pi f t))
    // 0: none; else the light dims (kDriftDim; halogen also cools to kDriftKelvin) and recovers
    // with this period: 1 - cos, so it starts as set and is dimmest half a period later.
    double drift_s = 0;
};

// What a sensor looks at: the sum of its lights (one, or several joined by '+').
struct Scene {
    std::vector<SceneSettings> lights;
};

// Parses the words after the device index: one light, or several joined by a '+' word, e.g.
// {"halogen", "0.5", "--flicker", "100"}, {"line", "--nm", "532.4", "--fwhm", "1"},
// {"file", "lamp.csv", "0.5"} or {"halogen", "+", "laser", "--nm", "532", "0.1"}. A light is
//   NAME [BRIGHTNESS] [--nm NM] [--fwhm NM] [--flicker HZ] [--depth D] [--drift SECONDS]
//   file PATH [BRIGHTNESS] [OPTIONS]
// options in any order; unset values keep the defaults of SceneSettings; a line needs --nm.
// A file is read here (spectrum_file.h). On bad input returns false with a one-line reason
// naming the bad word (or the file and line) in *why, and leaves *out alone.
bool parse_scene(const std::vector<std::string>& words, Scene* out, std::string* why);
// The lights that need nothing but their name.
std::vector<std::string> scene_names();

// Works out, once per process, what every scene needs whatever it is (the nominal filter bank,
// the scale of each named light), so that setting a scene later takes about a millisecond.
void prepare_scenes();

// The light of the scene as it reaches the sensor, every light at its own brightness and
// scale, before any drift or flicker: filter i of unit u reads, per ms of exposure,
// sum over the grid (continuum x nm / 550 x curve) + sum over lines (power x nm / 550 x curve).
Spectrum scene_spectrum(const Scene& scene);

// A FrameGenerator (see sensor_model.h) drawing frames of this scene through the filters of
// `unit`; deterministic for a given unit, seed and sequence of FrameInfo. A light that
// parse_scene would refuse is dark. The light it integrates over each exposure ends at
// FrameInfo::seconds. Setting it up costs about a millisecond; a frame, O(1024) per light.
FrameGenerator scene_frames(const Scene& scene, uint64_t seed, const Unit& unit = Unit::nominal());
// The noise-free mean output of each filter (for tests and the plotting script), for the exposure
// that ends `seconds` after the sensor was created.
std::array<double, kFilters> scene_mean(const Scene& scene, uint16_t shutter, double seconds = 0,
                                        const Unit& unit = Unit::nominal());

}  // namespace orbsim

#endif

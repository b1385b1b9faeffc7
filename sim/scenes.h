#ifndef ORB_SIM_SCENES_H
#define ORB_SIM_SCENES_H

// What the emulated sensor looks at: a light source (light_sources.h) seen
// through the filter model (filter_model.h), turned into 12-bit frames with
// the noise of a real photodiode array. A model, not a measured sensor.
//
// Filter i reads  dark + gain x exposure x (scene . curve i)  in DN, plus shot
// noise (variance = the signal in electrons) and read noise, rounded and held
// to 0..4095. Every scene at brightness 1 is scaled so that its brightest filter
// just saturates at shutter speed 900 (82 ms); `brightness` scales from there.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "light_sources.h"
#include "sensor_model.h"

namespace orbsim {

inline constexpr double kConversionGain = 4;    // electrons per DN
inline constexpr double kReadNoiseDn = 3;       // standard deviation
inline constexpr uint16_t kSaturatingShutter = 900;
// A drifting light dims to this share of itself at the middle of each period;
// a halogen filament also cools to kDriftKelvin, which dims the blue more.
inline constexpr double kDriftDim = 0.7;
inline constexpr double kDriftKelvin = 2650;

struct SceneSettings {            // what `scene N NAME [brightness] [options]` sets
    std::string name = "halogen"; // dark, halogen, white-led, fluorescent, laser, sun
    double brightness = 1.0;      // scales the light; 0 gives the dark frame
    double laser_nm = 650;        // the laser's line
    double flicker_hz = 0;        // 0: steady; else the light is modulated (e.g. mains flicker)
    double flicker_depth = 0.3;   // the modulation: light x (1 + depth x cos(2 pi f t))
    // 0: none; else the light dims (kDriftDim; halogen also cools to kDriftKelvin) and recovers
    // with this period: 1 - cos, so it starts as set and is dimmest half a period later.
    double drift_s = 0;
};

// Parses the words after the device index, e.g. {"halogen", "0.5", "--flicker", "100"} or
// {"laser", "--nm", "532"}: NAME [BRIGHTNESS] [--nm NM] [--flicker HZ] [--depth D] [--drift SECONDS],
// options in any order. Unset values keep the defaults of SceneSettings. On bad input (unknown
// scene or option, bad number, out-of-range value, --nm for anything but a laser) returns false
// with a one-line reason naming the bad word in *why, and leaves *out alone.
bool parse_scene(const std::vector<std::string>& words, SceneSettings* out, std::string* why);
std::vector<std::string> scene_names();

// The scene's light at brightness 1, before any drift or flicker.
Spectrum scene_spectrum(const SceneSettings& scene);

// A FrameGenerator (see sensor_model.h) drawing frames of this scene; deterministic for a given
// seed and the same sequence of FrameInfo. A name that parse_scene would refuse is dark. The light it integrates over each exposure ends at
// FrameInfo::seconds. Setting it up costs about a millisecond; a frame, O(1024).
FrameGenerator scene_frames(const SceneSettings& scene, uint64_t seed);
// The noise-free mean output of each filter (for tests and the plotting script), for the exposure
// that ends `seconds` after the sensor was created.
std::array<double, kFilters> scene_mean(const SceneSettings& scene, uint16_t shutter, double seconds = 0);

}  // namespace orbsim

#endif

#include "scenes.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "filter_model.h"
#include "noise.h"

namespace orbsim {

namespace {

constexpr double kPi = 3.14159265358979323846;

// Each filter's signal per unit of the spectrum's power, in photons: power
// over photon energy, so x wavelength (in units of 550 nm to keep numbers near 1).
std::array<double, kFilters> photon_response(const Spectrum& s) {
    const FilterBank& bank = FilterBank::get();
    std::array<float, kGridPoints> weight;
    bool any = false;
    for (std::size_t k = 0; k < kGridPoints; k++) {
        weight[k] = static_cast<float>(s.continuum[k] * grid_nm(k) / 550 * kStepNm);
        any = any || weight[k] != 0;
    }
    std::array<double, kFilters> r{};
    for (std::size_t i = 0; i < kFilters; i++) {
        if (any) {
            const float* c = bank.curve(i);
            float sum = 0;
            for (std::size_t k = 0; k < kGridPoints; k++) sum += weight[k] * c[k];
            r[i] = sum;
        }
        for (const SpectralLine& line : s.lines) r[i] += line.power * line.nm / 550 * bank.at(i, line.nm);
    }
    return r;
}

// DN per ms per unit of photon_response for a named scene: what makes the
// scene, as it comes by default, saturate its brightest filter at
// kSaturatingShutter. A laser keeps the scale of its default line, so that
// its other lines are dimmer or brighter as the silicon sees them.
double scene_scale(const std::string& name) {
    static const std::vector<std::pair<std::string, double>> scales = [] {
        std::vector<std::pair<std::string, double>> out;
        for (const std::string& n : scene_names()) {
            SceneSettings reference;
            reference.name = n;
            const auto r = photon_response(scene_spectrum(reference));
            const double peak = *std::max_element(r.begin(), r.end());
            const double full = (kMaxSample - kDarkLevel) / exposure_ms(kSaturatingShutter);
            out.emplace_back(n, peak > 0 ? full / peak : 0.0);
        }
        return out;
    }();
    for (const auto& [n, scale] : scales)
        if (n == name) return scale;
    return 0;
}

// What a frame needs, worked out when the scene is set.
struct Rates {
    std::array<double, kFilters> steady;   // DN per ms of exposure, as set
    std::array<double, kFilters> drifted;  // the same at the far end of the drift
    double flicker_hz = 0;
    double flicker_depth = 0;
    double drift_s = 0;
};

Rates rates_for(const SceneSettings& scene) {
    Rates r;
    const double scale = scene_scale(scene.name) * scene.brightness;
    r.steady = photon_response(scene_spectrum(scene));
    for (double& v : r.steady) v *= scale;
    if (scene.drift_s > 0 && scene.name == "halogen") {
        r.drifted = photon_response(halogen_spectrum(kDriftKelvin));
        for (double& v : r.drifted) v *= scale;
    } else {
        for (std::size_t i = 0; i < kFilters; i++) r.drifted[i] = r.steady[i] * kDriftDim;
    }
    r.flicker_hz = scene.flicker_hz;
    r.flicker_depth = scene.flicker_depth;
    r.drift_s = scene.drift_s;
    return r;
}

// How far a frame is toward the drifted light, 0..1; the drift is slow
// beside any exposure, so the middle of the exposure stands for all of it.
double drift_share(const Rates& r, double seconds_mid) {
    if (r.drift_s <= 0) return 0;
    return 0.5 - 0.5 * std::cos(2 * kPi * seconds_mid / r.drift_s);
}

// The exposure in ms weighted by the flicker over the exposure window, which
// ends at `seconds`: a long exposure averages the flicker away, a short one
// catches a bright or a dark moment.
double light_ms(const Rates& r, double exposure, double seconds) {
    if (r.flicker_hz <= 0 || r.flicker_depth == 0) return exposure;
    const double w = 2 * kPi * r.flicker_hz;
    const double t = exposure / 1000;
    const double mean = 1 + r.flicker_depth * (std::sin(w * seconds) - std::sin(w * (seconds - t))) / (w * t);
    return exposure * mean;
}

// The two blend factors of a frame: DN = a x steady + b x drifted.
std::pair<double, double> frame_weights(const Rates& r, uint16_t shutter, double seconds) {
    const double exposure = exposure_ms(shutter);
    const double ms = light_ms(r, exposure, seconds);
    const double share = drift_share(r, seconds - exposure / 2000);
    return {ms * (1 - share), ms * share};
}

uint16_t to_sample(double dn) {
    return static_cast<uint16_t>(std::clamp(std::round(dn), 0.0, static_cast<double>(kMaxSample)));
}

}  // namespace

Spectrum scene_spectrum(const SceneSettings& scene) {
    const std::string& n = scene.name;
    if (n == "halogen") return halogen_spectrum();
    if (n == "white-led") return white_led_spectrum();
    if (n == "fluorescent") return fluorescent_spectrum();
    if (n == "laser") return laser_spectrum(scene.laser_nm);
    if (n == "sun") return sun_spectrum();
    return Spectrum{};  // dark
}

FrameGenerator scene_frames(const SceneSettings& scene, uint64_t seed) {
    auto rates = std::make_shared<const Rates>(rates_for(scene));
    return [rates, noise = Noise(seed)](const FrameInfo& f, std::array<uint16_t, kFilters>& v) mutable {
        const Rates& r = *rates;
        const auto [a, b] = frame_weights(r, f.shutter, f.seconds);
        // Shot noise (variance = electrons) and read noise in one Gaussian
        // draw. Where a Poisson count would look different from a Gaussian of
        // the same variance, below a few dozen electrons, the read noise of
        // 12 electrons hides it; a Poisson draw there would triple the cost
        // of a dim frame.
        constexpr double kReadVariance = kReadNoiseDn * kReadNoiseDn;
        for (std::size_t i = 0; i < kFilters; i++) {
            const double signal = std::max(0.0, a * r.steady[i] + b * r.drifted[i]);  // DN above dark
            const double sd = std::sqrt(signal / kConversionGain + kReadVariance);
            v[i] = to_sample(kDarkLevel + signal + sd * noise.normal());
        }
    };
}

std::array<double, kFilters> scene_mean(const SceneSettings& scene, uint16_t shutter, double seconds) {
    const Rates r = rates_for(scene);
    const auto [a, b] = frame_weights(r, shutter, seconds);
    std::array<double, kFilters> mean;
    for (std::size_t i = 0; i < kFilters; i++)
        mean[i] = std::min<double>(kMaxSample, kDarkLevel + a * r.steady[i] + b * r.drifted[i]);
    return mean;
}

}  // namespace orbsim

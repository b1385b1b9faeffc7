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
std::array<double, kFilters> photon_response(const Spectrum& s, const FilterBank& bank) {
    std::array<float, kGridPoints> weight;
    std::size_t first = kGridPoints, last = 0;
    for (std::size_t k = 0; k < kGridPoints; k++) {
        weight[k] = static_cast<float>(s.continuum[k] * grid_nm(k) / 550 * kStepNm);
        if (weight[k] != 0) first = std::min(first, k), last = k;
    }
    std::array<double, kFilters> r{};
    for (std::size_t i = 0; i < kFilters; i++) {
        const float* c = bank.curve(i);
        float sum = 0;
        for (std::size_t k = first; k <= last && first < kGridPoints; k++) sum += weight[k] * c[k];
        r[i] = sum;
        for (const SpectralLine& line : s.lines) r[i] += line.power * line.nm / 550 * bank.at(i, line.nm);
    }
    return r;
}

// The light of one part of a scene at brightness 1, in the light's own units.
Spectrum light_spectrum(const SceneSettings& light) {
    const std::string& n = light.name;
    if (n == "halogen") return halogen_spectrum();
    if (n == "white-led") return white_led_spectrum();
    if (n == "fluorescent") return fluorescent_spectrum();
    if (n == "laser") return laser_spectrum(light.nm);
    if (n == "sun") return sun_spectrum();
    if (n == "line") return line_spectrum(light.nm, light.fwhm_nm);
    if (n == "file") return piecewise_spectrum(light.samples);
    return Spectrum{};  // dark
}

// DN per ms per unit of photon_response that makes a light's brightest
// filter on the nominal unit saturate at kSaturatingShutter.
double saturating_scale(const Spectrum& s) {
    const auto r = photon_response(s, FilterBank::nominal());
    const double peak = *std::max_element(r.begin(), r.end());
    return peak > 0 ? (kMaxSample - kDarkLevel) / exposure_ms(kSaturatingShutter) / peak : 0.0;
}

// What every named light needs, worked out once. A laser keeps the scale of
// its default line, so that its other lines are dimmer or brighter as the
// silicon sees them. A line of one unit of photons fills the nominal unit's
// most responsive filter, at its best wavelength, in kLineSaturationMs.
struct Scales {
    std::vector<std::pair<std::string, double>> named;
    double line = 0;
};

const Scales& scales() {
    static const Scales s = [] {
        Scales out;
        for (const std::string& n : scene_names()) {
            SceneSettings reference;
            reference.name = n;
            out.named.emplace_back(n, saturating_scale(light_spectrum(reference)));
        }
        const FilterBank& bank = FilterBank::nominal();
        float best = 0;
        for (std::size_t i = 0; i < kFilters; i++) best = std::max(best, *std::max_element(bank.curve(i), bank.curve(i) + kGridPoints));
        out.line = (kMaxSample - kDarkLevel) / kLineSaturationMs / best;
        return out;
    }();
    return s;
}

// DN per ms per unit of photon_response for one light at brightness 1,
// whose spectrum is `s`.
double light_scale(const SceneSettings& light, const Spectrum& s) {
    if (light.name == "line") return scales().line;
    if (light.name == "file") return saturating_scale(s);
    for (const auto& [n, scale] : scales().named)
        if (n == light.name) return scale;
    return 0;
}

// What a frame needs of one light, worked out when the scene is set.
struct Rates {
    std::array<double, kFilters> steady;   // DN per ms of exposure, as set
    std::array<double, kFilters> drifted;  // the same at the far end of the drift
    double flicker_hz = 0;
    double flicker_depth = 0;
    double drift_s = 0;
};

Rates rates_for(const SceneSettings& light, const FilterBank& bank) {
    Rates r;
    const Spectrum s = light_spectrum(light);
    const double scale = light_scale(light, s) * light.brightness;
    r.steady = photon_response(s, bank);
    for (double& v : r.steady) v *= scale;
    if (light.drift_s > 0 && light.name == "halogen") {
        r.drifted = photon_response(halogen_spectrum(kDriftKelvin), bank);
        for (double& v : r.drifted) v *= scale;
    } else {
        for (std::size_t i = 0; i < kFilters; i++) r.drifted[i] = r.steady[i] * kDriftDim;
    }
    r.flicker_hz = light.flicker_hz;
    r.flicker_depth = light.flicker_depth;
    r.drift_s = light.drift_s;
    return r;
}

// A scene through one unit: the rates of each light, and the unit's dark current.
struct SceneRates {
    std::vector<Rates> lights;
    std::array<double, kFilters> dark_current;  // DN per ms
};

SceneRates rates_for(const Scene& scene, const Unit& unit) {
    SceneRates r;
    for (const SceneSettings& light : scene.lights) r.lights.push_back(rates_for(light, unit.bank()));
    for (std::size_t i = 0; i < kFilters; i++) r.dark_current[i] = unit.dark_current(i);
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

// The signal of every filter above the dark level, in DN, for one exposure:
// each light's blend of its steady and drifted rates, and the dark current.
void signal_of(const SceneRates& r, uint16_t shutter, double seconds, std::array<double, kFilters>& out) {
    const double exposure = exposure_ms(shutter);
    for (std::size_t i = 0; i < kFilters; i++) out[i] = exposure * r.dark_current[i];
    for (const Rates& light : r.lights) {
        const double ms = light_ms(light, exposure, seconds);
        const double share = drift_share(light, seconds - exposure / 2000);
        const double a = ms * (1 - share), b = ms * share;
        for (std::size_t i = 0; i < kFilters; i++) out[i] += a * light.steady[i] + b * light.drifted[i];
    }
}

uint16_t to_sample(double dn) {
    return static_cast<uint16_t>(std::clamp(std::round(dn), 0.0, static_cast<double>(kMaxSample)));
}

}  // namespace

void prepare_scenes() { scales(); }

Spectrum scene_spectrum(const Scene& scene) {
    Spectrum sum;
    for (const SceneSettings& light : scene.lights) {
        const Spectrum s = light_spectrum(light);
        const double scale = light_scale(light, s) * light.brightness;
        for (std::size_t k = 0; k < kGridPoints; k++) sum.continuum[k] += scale * s.continuum[k];
        for (const SpectralLine& line : s.lines) sum.lines.push_back({line.nm, scale * line.power});
    }
    return sum;
}

FrameGenerator scene_frames(const Scene& scene, uint64_t seed, const Unit& unit) {
    auto rates = std::make_shared<const SceneRates>(rates_for(scene, unit));
    return [rates, noise = Noise(seed), signal = std::array<double, kFilters>{}](
               const FrameInfo& f, std::array<uint16_t, kFilters>& v) mutable {
        signal_of(*rates, f.shutter, f.seconds, signal);
        // Shot noise (variance = electrons) and read noise in one Gaussian
        // draw. Where a Poisson count would look different from a Gaussian of
        // the same variance, below a few dozen electrons, the read noise of
        // 12 electrons hides it; a Poisson draw there would triple the cost
        // of a dim frame.
        constexpr double kReadVariance = kReadNoiseDn * kReadNoiseDn;
        for (std::size_t i = 0; i < kFilters; i++) {
            const double dn = std::max(0.0, signal[i]);
            const double sd = std::sqrt(dn / kConversionGain + kReadVariance);
            v[i] = to_sample(kDarkLevel + dn + sd * noise.normal());
        }
    };
}

std::array<double, kFilters> scene_mean(const Scene& scene, uint16_t shutter, double seconds, const Unit& unit) {
    std::array<double, kFilters> mean;
    signal_of(rates_for(scene, unit), shutter, seconds, mean);
    for (double& m : mean) m = std::min<double>(kMaxSample, kDarkLevel + std::max(0.0, m));
    return mean;
}

}  // namespace orbsim

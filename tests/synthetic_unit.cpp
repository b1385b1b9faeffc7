#include "synthetic_unit.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace synthetic {

namespace {

constexpr double kFullScale = 4095;
constexpr double kReadNoise = 3.0;     // counts, one frame
constexpr double kCountsPerElectron = 1.0 / 16;  // shot noise: variance = counts / 16

double gauss(double x, double centre, double sigma) { return std::exp(-0.5 * std::pow((x - centre) / sigma, 2)); }

// Silicon: weak in the blue, best in the red, nearly blind past 1060 nm.
double silicon(double nm) { return gauss(nm, 720, 230) / (1 + std::exp((nm - 1040) / 18)); }

}  // namespace

Unit::Unit(unsigned seed, double centre_shift_nm) : rng_(seed) {
    std::uniform_real_distribution<double> jitter(-0.5, 0.5), gain(0.8, 1.2);
    for (int i = 0; i < ORB_SPECTRUM_FILTERS; ++i) {
        centre_.push_back(335 + i * 770.0 / 1023 + jitter(rng_) + centre_shift_nm);
        fwhm_.push_back(6 + 12.0 * i / 1023 + jitter(rng_));
        gain_.push_back(gain(rng_));
        dark_.push_back(100 + draw(5));
        noise_.push_back(kReadNoise * gain(rng_));
    }
    for (int i : dead) gain_[static_cast<size_t>(i)] = 0;
    noise_[hot] = 200;
}

double Unit::response(int i, double nm) const {
    const auto k = static_cast<size_t>(i);
    const double c = centre_[k], w = fwhm_[k], s = w / 2.3548;
    const double shape = gauss(nm, c, s) + 0.04 * gauss(nm, c + 1.9 * w, s) + 0.03 * gauss(nm, c - 2.3 * w, 1.5 * s);
    return 40 * gain_[k] * silicon(nm) * shape;
}

void Unit::calibrate(const std::string& path, double first_nm, double last_nm, double step_nm,
                     const std::string& sensor_id, int frames, int dark_frames) {
    std::vector<double> nm, exposure;
    for (double x = first_nm; x <= last_nm + 1e-9; x += step_nm) nm.push_back(x);
    const size_t n = nm.size();
    std::vector<double> measured(ORB_SPECTRUM_FILTERS * n), error(ORB_SPECTRUM_FILTERS * n);
    // Exposures on a ladder of 1.25x, each with its own dark shared by the
    // steps that use it.
    std::vector<double> dark_exposure;
    std::vector<std::vector<double>> darks;
    for (size_t j = 0; j < n; ++j) {
        double brightest = 0;
        for (int i = 0; i < ORB_SPECTRUM_FILTERS; ++i) brightest = std::max(brightest, response(i, nm[j]));
        const double wanted = 0.6 * (kFullScale - 100) / brightest;
        const double t = std::pow(1.25, std::floor(std::log(wanted) / std::log(1.25)));
        size_t e = 0;
        while (e < dark_exposure.size() && dark_exposure[e] != t) ++e;
        if (e == dark_exposure.size()) {
            dark_exposure.push_back(t);
            std::vector<double> d;
            for (int i = 0; i < ORB_SPECTRUM_FILTERS; ++i) d.push_back(dark_level(i) + draw(noise(i) / std::sqrt(dark_frames)));
            darks.push_back(d);
        }
        exposure.push_back(t);
        for (int i = 0; i < ORB_SPECTRUM_FILTERS; ++i) {
            const double counts = t * response(i, nm[j]);
            const double sigma = std::sqrt(noise(i) * noise(i) + counts * kCountsPerElectron) / std::sqrt(frames);
            const double raw = dark_level(i) + counts + draw(sigma);
            error[static_cast<size_t>(i) * n + j] =
                std::sqrt(sigma * sigma + std::pow(noise(i), 2) / dark_frames) / t;
            measured[static_cast<size_t>(i) * n + j] = (raw - darks[e][static_cast<size_t>(i)]) / t;
        }
    }
    std::vector<double> dark_rows;
    for (const auto& d : darks) dark_rows.insert(dark_rows.end(), d.begin(), d.end());

    orb_calibration_data data{};
    data.sensor_id = sensor_id.c_str();
    data.wavelength_count = static_cast<int>(n);
    data.wavelength_nm = nm.data();
    data.response = measured.data();
    data.response_error = error.data();
    data.noise = noise_.data();
    data.step_exposure_ms = exposure.data();
    data.dark_count = static_cast<int>(dark_exposure.size());
    data.dark_exposure_ms = dark_exposure.data();
    data.dark = dark_rows.data();
    data.adc_gain = 1;
    data.adc_range = 1;
    data.adc_resolution = 12;
    data.onboard_average = 1;
    data.sweep_start_nm = first_nm;
    data.sweep_stop_nm = last_nm;
    data.sweep_step_nm = step_nm;
    data.frames_averaged = frames;
    data.dark_frames = dark_frames;
    data.source = "synthetic";
    data.source_power = "";
    char message[512];
    if (orb_calibration_write(path.c_str(), &data, message, sizeof message) != ORB_SPECTRUM_OK)
        throw std::runtime_error(message);
}

std::vector<double> Unit::signal_per_ms(const Spectrum& s, const std::vector<Line>& lines) const {
    std::vector<double> y(ORB_SPECTRUM_FILTERS, 0.0);
    if (s) {
        const double h = 0.25;
        for (double nm = 320; nm <= 1120; nm += h) {
            const double v = s(nm) * h;
            if (v == 0) continue;
            for (int i = 0; i < ORB_SPECTRUM_FILTERS; ++i) y[static_cast<size_t>(i)] += response(i, nm) * v;
        }
    }
    for (const Line& l : lines)
        for (int i = 0; i < ORB_SPECTRUM_FILTERS; ++i) y[static_cast<size_t>(i)] += response(i, l.nm) * l.power;
    return y;
}

Unit::Frame Unit::frame(const Spectrum& s, const std::vector<Line>& lines, int averages, double level) {
    const std::vector<double> y = signal_per_ms(s, lines);
    double brightest = 0;
    for (double v : y) brightest = std::max(brightest, v);
    Frame f;
    f.exposure_ms = level * (kFullScale - 100) / brightest;
    for (int i = 0; i < ORB_SPECTRUM_FILTERS; ++i) {
        const double counts = f.exposure_ms * y[static_cast<size_t>(i)];
        const double sigma = std::sqrt(noise(i) * noise(i) + std::max(counts, 0.0) * kCountsPerElectron);
        f.filters.push_back(dark_level(i) + counts + draw(sigma / std::sqrt(averages)));
        f.dark.push_back(dark_level(i) + draw(noise(i) / std::sqrt(averages)));
    }
    return f;
}

TempDir::TempDir() {
    char pattern[] = "/tmp/orb_spectrum_XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace synthetic

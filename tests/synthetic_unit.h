#ifndef ORB_TESTS_SYNTHETIC_UNIT_H
#define ORB_TESTS_SYNTHETIC_UNIT_H

// A sensor unit defined here and nowhere else: 1024 Gaussian filters of 6 to
// 18 nm with side lobes on a silicon-like response, a dark pattern, read and
// shot noise, three dead filters and a hot one. A swept-line calibration is
// "measured" from it the way a lab makes one (frames averaged, darks shared
// by the steps of one exposure), and frames of any spectrum are drawn from it.

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "orb_spectrum.h"

namespace synthetic {

using Spectrum = std::function<double(double nm)>;  // density, power per nm

struct Line {
    double nm, power;
};

class Unit {
public:
    explicit Unit(unsigned seed = 1, double centre_shift_nm = 0);

    // counts per ms per unit power of filter i to a line at nm
    double response(int i, double nm) const;
    double dark_level(int i) const { return dark_[static_cast<size_t>(i)]; }
    double noise(int i) const { return noise_[static_cast<size_t>(i)]; }

    // A calibration swept from first to last nm, written to path.
    void calibrate(const std::string& path, double first_nm, double last_nm, double step_nm,
                   const std::string& sensor_id = "SYNTH-1", int frames = 16, int dark_frames = 256);

    // Expected counts above the dark per ms.
    std::vector<double> signal_per_ms(const Spectrum& s, const std::vector<Line>& lines) const;
    // A frame of `averages` frames averaged, the brightest filter at `level`
    // of the range above the dark; its dark (as many frames) and exposure.
    struct Frame {
        std::vector<double> filters, dark;
        double exposure_ms;
    };
    Frame frame(const Spectrum& s, const std::vector<Line>& lines, int averages, double level = 0.7);

    static constexpr int dead[3] = {100, 500, 900};
    static constexpr int hot = 700;

private:
    std::vector<double> centre_, fwhm_, gain_, dark_, noise_;
    std::mt19937 rng_;
    double draw(double sigma) { return std::normal_distribution<double>(0.0, sigma)(rng_); }
};

// A temporary directory removed with the object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace synthetic

#endif

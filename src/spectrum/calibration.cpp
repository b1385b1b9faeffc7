// What a calibration must hold to be used, and which filters it rules out.

#include "calibration.h"

#include <algorithm>
#include <cmath>

#include "engine_error.h"

namespace orbspectrum {

namespace {

// A filter whose strongest response is below this fraction of the typical
// filter's is dead (a broken pixel, or one behind a defect); one whose dark
// noise is this many times the typical filter's is hot. Either would only add
// noise to every wavelength it weighs in.
constexpr double kDeadResponseFraction = 0.02;
constexpr double kHotNoiseFactor = 10.0;

[[noreturn]] void damaged(const std::string& path, const std::string& what) {
    throw EngineError(ORB_SPECTRUM_ERR_DAMAGED, "calibration " + path + " is damaged: " + what);
}

double median(std::vector<double> v) {
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

}  // namespace

void Calibration::validate_and_flag(const std::string& path) {
    const Eigen::Index n = static_cast<Eigen::Index>(wavelength_nm.size());
    if (n < 8) damaged(path, "it has " + std::to_string(n) + " wavelengths, fewer than 8");
    for (Eigen::Index j = 0; j < n; ++j) {
        if (!std::isfinite(wavelength_nm[j])) damaged(path, "a wavelength is not a number");
        if (j > 0 && wavelength_nm[j] <= wavelength_nm[j - 1])
            damaged(path, "the wavelengths are not strictly ascending at " + std::to_string(wavelength_nm[j]) + " nm");
    }
    if (response.rows() != kFilters || response.cols() != n)
        damaged(path, "the response is " + std::to_string(response.rows()) + " x " + std::to_string(response.cols()) +
                          ", not 1024 x " + std::to_string(n));
    if (!response.allFinite()) damaged(path, "the response holds values that are not numbers");
    if (noise.size() != kFilters) damaged(path, "the noise has " + std::to_string(noise.size()) + " values, not 1024");
    if (!noise.allFinite() || noise.minCoeff() < 0) damaged(path, "the noise holds negative values or not numbers");
    if (static_cast<Eigen::Index>(step_exposure_ms.size()) != n)
        damaged(path, "the step exposures number " + std::to_string(step_exposure_ms.size()) + ", not " +
                          std::to_string(n));
    if (dark_exposure_ms.empty() || dark.rows() != static_cast<Eigen::Index>(dark_exposure_ms.size()) ||
        dark.cols() != kFilters)
        damaged(path, "the darks are " + std::to_string(dark.rows()) + " x " + std::to_string(dark.cols()) + " for " +
                          std::to_string(dark_exposure_ms.size()) + " exposures");
    if (!dark.allFinite()) damaged(path, "the darks hold values that are not numbers");

    std::vector<double> peak(kFilters), sigma(noise.data(), noise.data() + kFilters);
    for (int i = 0; i < kFilters; ++i) peak[i] = response.row(i).cwiseAbs().maxCoeff();
    const double typical_peak = median(peak), typical_noise = median(sigma);
    unusable.assign(kFilters, false);
    for (int i = 0; i < kFilters; ++i)
        unusable[i] = peak[i] < kDeadResponseFraction * typical_peak || noise[i] > kHotNoiseFactor * typical_noise;
}

}  // namespace orbspectrum

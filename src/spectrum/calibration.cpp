// What a calibration must hold to be used, and which filters it rules out.

#include "calibration.h"

#include <algorithm>
#include <cmath>

#include "engine_error.h"

namespace orbspectrum {

namespace {

// A filter whose response is nowhere this many standard errors above zero is
// dead (a broken pixel, or one behind a defect); one whose dark noise is this
// many times the typical filter's is hot. Either would only add noise to
// every wavelength it weighs in. A filter that is merely weak (at the ends of
// the range, where silicon is nearly blind) is kept: it is all there is there.
constexpr double kDeadSignificance = 8.0;
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
    if (response_error.rows() != kFilters || response_error.cols() != n)
        damaged(path, "the response error is " + std::to_string(response_error.rows()) + " x " +
                          std::to_string(response_error.cols()) + ", not 1024 x " + std::to_string(n));
    if (!response_error.allFinite() || response_error.minCoeff() < 0)
        damaged(path, "the response error holds negative values or not numbers");
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

    const double typical_noise = median(std::vector<double>(noise.data(), noise.data() + kFilters));
    unusable.assign(kFilters, false);
    for (int i = 0; i < kFilters; ++i) {
        double significance = 0;
        for (Eigen::Index j = 0; j < n; ++j)
            significance = std::max(significance, response(i, j) / std::max(response_error(i, j), 1e-300));
        unusable[static_cast<size_t>(i)] = significance < kDeadSignificance || noise[i] > kHotNoiseFactor * typical_noise;
    }
}

}  // namespace orbspectrum

// The noise a frame's counts carry, for the refinement's weights and its
// choice between models (docs/spectra.md, "Reconstruction").

#include "frame_noise.h"

#include <algorithm>
#include <cmath>

#include "sample_grid.h"

namespace orbspectrum {

namespace {

// The ADC's quantisation noise (1/sqrt 12 counts): a filter's dark noise is
// never believed to be less, as the operator does.
constexpr double kQuantisationNoise = 0.29;

double dark_variance(const Calibration& c, int filter) {
    return std::pow(std::max(c.noise[filter], kQuantisationNoise), 2);
}

}  // namespace

double shot_noise_gain(const Calibration& c, const std::vector<int>& filters) {
    // A step of F frames at scale s (exposure times power) holds R s counts,
    // and its error is sqrt((n^2 + g R s) / F + n^2 / D) / s with D dark
    // frames: F error^2 = n^2 (1 + F / D) / s^2 + g R / s, linear in the two
    // knowns n^2 and R. Their coefficients, a = 1 / s^2 and b = g / s, give g
    // without the step's power, which the file does not hold.
    const double frames = std::max(c.frames_averaged, 1);
    const double dark_share = c.dark_frames > 0 ? frames / c.dark_frames : 0;
    std::vector<double> gains;
    for (Eigen::Index j = 0; j < c.response.cols(); ++j) {
        double xx = 0, xr = 0, rr = 0, xy = 0, ry = 0;
        for (int f : filters) {
            const double x = dark_variance(c, f) * (1 + dark_share), r = c.response(f, j);
            const double y = frames * c.response_error(f, j) * c.response_error(f, j);
            xx += x * x;
            xr += x * r;
            rr += r * r;
            xy += x * y;
            ry += r * y;
        }
        const double det = xx * rr - xr * xr;
        if (!(det > 0)) continue;
        const double a = (rr * xy - xr * ry) / det, b = (xx * ry - xr * xy) / det;
        if (a > 0) gains.push_back(b / std::sqrt(a));
    }
    if (gains.empty()) return 0;
    // The median: a step whose light flickered or whose exposure was short
    // says little, and says it loudly.
    auto middle = gains.begin() + static_cast<std::ptrdiff_t>(gains.size() / 2);
    std::nth_element(gains.begin(), middle, gains.end());
    return std::max(*middle, 0.0);
}

FrameNoise::FrameNoise(const Calibration& c, const std::vector<int>& filters, int averages)
    : wavelength_nm_(c.wavelength_nm), frames_(std::max(averages, 1)) {
    const Eigen::Index m = static_cast<Eigen::Index>(filters.size());
    dark_variance_.resize(m);
    response_error_.resize(m, c.response_error.cols());
    for (Eigen::Index r = 0; r < m; ++r) {
        const int f = filters[static_cast<size_t>(r)];
        dark_variance_[r] = dark_variance(c, f) / frames_;
        response_error_.row(r) = c.response_error.row(f);
    }
    shot_ = shot_noise_gain(c, filters) / frames_;
}

double FrameNoise::response_error(Eigen::Index row, double nm) const {
    const auto [lower, t] = bracket(wavelength_nm_, nm);
    const auto a = static_cast<Eigen::Index>(lower);
    // Mixed as variances: between two samples the interpolation adds an
    // error of their order.
    return std::sqrt((1 - t) * std::pow(response_error_(row, a), 2) + t * std::pow(response_error_(row, a + 1), 2));
}

}  // namespace orbspectrum

// Peaks: local maxima kept by their topographic prominence, each placed
// between samples by the vertex through its top three.

#include "spectral_peaks.h"

#include <algorithm>
#include <cmath>

namespace orbspectrum {

namespace {

// Vertex of the parabola through three points (any spacing); returns its
// curvature (the coefficient of the square).
double vertex(const double x[3], const double y[3], double& at, double& top) {
    const double d1 = (y[1] - y[0]) / (x[1] - x[0]), d2 = (y[2] - y[1]) / (x[2] - x[1]);
    const double curvature = (d2 - d1) / (x[2] - x[0]);
    if (!(curvature < 0)) {
        at = x[1];
        top = y[1];
        return curvature;
    }
    const double slope_mid = d1 + curvature * (x[1] - x[0]);  // slope at x[1]
    at = std::clamp(x[1] - slope_mid / (2 * curvature), x[0], x[2]);
    top = y[1] + slope_mid * (at - x[1]) + curvature * (at - x[1]) * (at - x[1]);
    return curvature;
}

// Where the spectrum falls through `level`, walking from sample i by step.
double crossing(const double* nm, const double* v, int count, int i, int step, double level) {
    for (int j = i; j + step >= 0 && j + step < count; j += step) {
        const int k = j + step;
        if (v[k] < level) return nm[j] + (nm[k] - nm[j]) * (v[j] - level) / (v[j] - v[k]);
    }
    return NAN;
}

}  // namespace

double line_width(const double* nm, const double* value, int count, int i, double height) {
    const double at = nm[i];
    const double left = at - crossing(nm, value, count, i, -1, 0.5 * height);
    const double right = crossing(nm, value, count, i, +1, 0.5 * height) - at;
    if (std::isnan(left)) return 2 * right;
    if (std::isnan(right)) return 2 * left;
    return 2 * std::min(left, right);
}

std::vector<orb_spectrum_peak> find_peaks(const double* nm, const double* v, int count, double min_prominence) {
    std::vector<orb_spectrum_peak> peaks;
    if (count < 3) return peaks;
    const double highest = *std::max_element(v, v + count);
    if (!(highest > 0)) return peaks;
    const double threshold = min_prominence * highest;
    for (int i = 1; i + 1 < count; ++i) {
        if (!(v[i] > v[i - 1] && v[i] >= v[i + 1])) continue;
        // The lowest point on each side before a higher sample (or the end).
        double left = v[i], right = v[i];
        for (int j = i - 1; j >= 0 && v[j] <= v[i]; --j) left = std::min(left, v[j]);
        for (int j = i + 1; j < count && v[j] <= v[i]; ++j) right = std::min(right, v[j]);
        const double prominence = v[i] - std::max(left, right);
        if (prominence < threshold || prominence <= 0) continue;

        orb_spectrum_peak p{};
        const double x[3] = {nm[i - 1], nm[i], nm[i + 1]};
        double log_curvature = NAN;
        if (v[i - 1] > 0 && v[i + 1] > 0) {
            // A Gaussian through the three: a parabola in the log.
            const double y[3] = {std::log(v[i - 1]), std::log(v[i]), std::log(v[i + 1])};
            double top = 0;
            log_curvature = vertex(x, y, p.wavelength_nm, top);
            p.height = std::exp(top);
        } else {
            const double y[3] = {v[i - 1], v[i], v[i + 1]};
            vertex(x, y, p.wavelength_nm, p.height);
        }
        const double half = 0.5 * p.height;
        if (half < v[i]) {
            p.fwhm_nm = crossing(nm, v, count, i, +1, half) - crossing(nm, v, count, i, -1, half);
        } else {
            // Narrower than the samples (a line drawn into two of them): the
            // samples never reach half the vertex, so the width is the
            // Gaussian's through the three, exp(c (x - at)^2) with c < 0.
            p.fwhm_nm = log_curvature < 0 ? 2 * std::sqrt(std::log(2.0) / -log_curvature) : NAN;
        }
        p.prominence = p.height - std::max(left, right);
        peaks.push_back(p);
    }
    std::sort(peaks.begin(), peaks.end(), [](const auto& a, const auto& b) { return a.height > b.height; });
    return peaks;
}

}  // namespace orbspectrum

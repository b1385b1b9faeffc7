// The smoothness prior, measured in the sensor's own resolution. A second
// difference over the calibration's step means little where the filters are
// 18 nm wide and much where they are 6: the sensor cannot tell apart
// structure narrower than its filters, so each second difference is weighted
// by the filters' width there (the change of slope across one filter).
// Uniform weights let the red end, where the filters are widest and silicon
// is nearly blind, ring at the strength the blue needs. The square of the
// width smooths the red further still, but costs the fast result its line
// positions there. Widths are measured from the calibration's own rows.

#include "smoothness_prior.h"

#include <algorithm>
#include <cmath>

namespace orbspectrum {

namespace {

// Fewer measured filters than this and the widths are not believed: the
// prior stays uniform.
constexpr int kMinFiltersMeasured = 16;

// The width at half height of one row around its peak, interpolated between
// samples; NaN when the row does not fall to half on both sides.
double row_width(const Eigen::RowVectorXd& row, const std::vector<double>& nm, Eigen::Index& peak) {
    row.maxCoeff(&peak);
    const double half = row[peak] / 2;
    if (!(half > 0)) return NAN;
    Eigen::Index lo = peak, hi = peak;
    while (lo > 0 && row[lo] > half) --lo;
    while (hi + 1 < row.size() && row[hi] > half) ++hi;
    if (row[lo] > half || row[hi] > half) return NAN;
    auto crossing = [&](Eigen::Index out, Eigen::Index in) {
        const double f = (half - row[out]) / (row[in] - row[out]);
        return nm[static_cast<size_t>(out)] + f * (nm[static_cast<size_t>(in)] - nm[static_cast<size_t>(out)]);
    };
    return crossing(hi, hi - 1) - crossing(lo, lo + 1);
}

}  // namespace

std::vector<double> filter_width_nm(const Calibration& cal) {
    const std::vector<double>& nm = cal.wavelength_nm;
    std::vector<double> at, width;
    for (int i = 0; i < kFilters; ++i) {
        if (cal.unusable[static_cast<size_t>(i)]) continue;
        Eigen::Index peak = 0;
        const double w = row_width(cal.response.row(i), nm, peak);
        if (std::isfinite(w)) {
            at.push_back(nm[static_cast<size_t>(peak)]);
            width.push_back(w);
        }
    }
    if (static_cast<int>(at.size()) < kMinFiltersMeasured) return std::vector<double>(nm.size(), 1.0);
    // Least squares in a centred, scaled variable keeps the cubic well conditioned.
    const double mid = 0.5 * (nm.front() + nm.back()), half = std::max(0.5 * (nm.back() - nm.front()), 1e-9);
    Eigen::MatrixXd basis(static_cast<Eigen::Index>(at.size()), 4);
    Eigen::VectorXd target(static_cast<Eigen::Index>(at.size()));
    for (size_t k = 0; k < at.size(); ++k) {
        const double x = (at[k] - mid) / half;
        basis.row(static_cast<Eigen::Index>(k)) << 1, x, x * x, x * x * x;
        target[static_cast<Eigen::Index>(k)] = width[k];
    }
    const Eigen::Vector4d c = basis.colPivHouseholderQr().solve(target);
    // The fit is not trusted below the narrowest width measured (beyond the
    // filters' peaks a cubic may dive).
    const double narrowest = *std::min_element(width.begin(), width.end());
    std::vector<double> out(nm.size());
    for (size_t j = 0; j < nm.size(); ++j) {
        const double x = (nm[j] - mid) / half;
        out[j] = std::max(narrowest, c[0] + x * (c[1] + x * (c[2] + x * c[3])));
    }
    return out;
}

Eigen::MatrixXd smoothness_prior(const Calibration& cal, double ridge) {
    const std::vector<double> width = filter_width_nm(cal);
    const double narrowest = *std::min_element(width.begin(), width.end());
    const Eigen::Index n = static_cast<Eigen::Index>(width.size());
    Eigen::MatrixXd prior = ridge * Eigen::MatrixXd::Identity(n, n);
    for (Eigen::Index j = 1; j + 1 < n; ++j) {
        const double weight = width[static_cast<size_t>(j)] / narrowest;
        const Eigen::Index idx[3] = {j - 1, j, j + 1};
        const double c[3] = {1, -2, 1};
        for (int p = 0; p < 3; ++p)
            for (int q = 0; q < 3; ++q) prior(idx[p], idx[q]) += weight * weight * c[p] * c[q];
    }
    return prior;
}

}  // namespace orbspectrum

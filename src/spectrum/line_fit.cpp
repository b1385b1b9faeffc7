// Lines of free position and power fitted to a frame: the responses are
// interpolated continuously between the calibration's wavelengths, which
// places a line between them to a hundredth of a nm.

#include "line_fit.h"

#include <algorithm>
#include <cmath>

#include "bounded_minimum.h"
#include "sample_grid.h"

namespace orbspectrum {

namespace {

constexpr int kIterations = 300;
constexpr double kMaxRelativePower = 10;  // of a seed's power

// 1/2 |weight (sum_k P_k r(nm_k) + u U - z)|^2 over positions, relative
// powers and (with U) u.
struct Lines {
    const WeightedResponse& w;
    const Eigen::VectorXd& weight;
    const Eigen::VectorXd& z;
    const std::vector<double>& unit;  // the power that a relative power of 1 stands for
    const Eigen::VectorXd& under;     // U, already scaled to a relative 1
    double scale;
    double operator()(const Eigen::VectorXd& x, Eigen::VectorXd& grad) const {
        const Eigen::Index n = static_cast<Eigen::Index>(unit.size());
        std::vector<Eigen::VectorXd> value(static_cast<size_t>(n)), slope(static_cast<size_t>(n));
        Eigen::VectorXd residual = -z;
        for (Eigen::Index k = 0; k < n; ++k) {
            const auto u = static_cast<size_t>(k);
            response_at(w, x[k], value[u], &slope[u]);
            residual += x[n + k] * unit[u] * value[u];
        }
        if (under.size() > 0) residual += x[2 * n] * under;
        // The gradient needs weight^2 times the residual.
        const Eigen::VectorXd weighted = residual.cwiseProduct(weight).cwiseProduct(weight);
        grad.resize(x.size());
        for (Eigen::Index k = 0; k < n; ++k) {
            const auto u = static_cast<size_t>(k);
            grad[k] = scale * x[n + k] * unit[u] * slope[u].dot(weighted);
            grad[n + k] = scale * unit[u] * value[u].dot(weighted);
        }
        if (under.size() > 0) grad[2 * n] = scale * under.dot(weighted);
        return 0.5 * scale * residual.dot(weighted);
    }
};

}  // namespace

void response_at(const WeightedResponse& w, double nm, Eigen::VectorXd& value, Eigen::VectorXd* slope) {
    const std::vector<double>& x = w.wavelength_nm;
    const auto [j, t] = bracket(x, nm);
    const double h = x[j + 1] - x[j];
    const double t2 = t * t, t3 = t2 * t;
    const auto a = static_cast<Eigen::Index>(j), b = a + 1;
    value = (2 * t3 - 3 * t2 + 1) * w.response.col(a) + (t3 - 2 * t2 + t) * h * w.slope.col(a) +
            (-2 * t3 + 3 * t2) * w.response.col(b) + (t3 - t2) * h * w.slope.col(b);
    if (slope)
        *slope = ((6 * t2 - 6 * t) * w.response.col(a) + (3 * t2 - 4 * t + 1) * h * w.slope.col(a) +
                  (-6 * t2 + 6 * t) * w.response.col(b) + (3 * t2 - 2 * t) * h * w.slope.col(b)) /
                 h;
}

FittedLines fit_lines(const WeightedResponse& w, const Eigen::VectorXd& weight, const Eigen::VectorXd& z,
                      const std::vector<LineSeed>& seeds, const Eigen::VectorXd& under) {
    const Eigen::Index n = static_cast<Eigen::Index>(seeds.size());
    const Eigen::Index size = 2 * n + (under.size() > 0 ? 1 : 0);
    std::vector<double> unit;
    Eigen::VectorXd x(size), lo(size), hi(size);
    for (Eigen::Index i = 0; i < n; ++i) {
        const LineSeed& s = seeds[static_cast<size_t>(i)];
        unit.push_back(s.power > 0 ? s.power : 1e-30);
        lo[i] = std::max(w.wavelength_nm.front(), s.lo);
        hi[i] = std::min(w.wavelength_nm.back(), s.hi);
        x[i] = std::clamp(s.nm, lo[i], hi[i]);
        x[n + i] = 1;
        lo[n + i] = 0;
        hi[n + i] = kMaxRelativePower;
    }
    // The light under the lines, scaled so that 1 stands for as much of the
    // frame as it all holds.
    const double z_norm = z.cwiseProduct(weight).norm();
    const double under_norm = under.size() > 0 ? under.cwiseProduct(weight).norm() : 0;
    const double under_unit = under.size() > 0 && under_norm > 0 ? z_norm / under_norm : 0;
    const Eigen::VectorXd scaled_under = under * under_unit;
    if (under.size() > 0) {
        x[2 * n] = 0;
        lo[2 * n] = 0;
        hi[2 * n] = under_unit > 0 ? kMaxRelativePower : 0;
    }
    const Lines objective{w, weight, z, unit, scaled_under, 1.0 / std::max(z_norm * z_norm, 1e-300)};
    if (size > 0) minimise(objective, x, lo, hi, kIterations);
    FittedLines fit;
    Eigen::VectorXd grad;
    fit.chi2 = size > 0 ? 2 * objective(x, grad) / objective.scale : z_norm * z_norm;
    for (Eigen::Index i = 0; i < n; ++i) fit.lines.push_back({x[i], x[n + i] * unit[static_cast<size_t>(i)]});
    if (under.size() > 0) fit.under = x[2 * n] * under_unit;
    return fit;
}

Eigen::VectorXd line_model(const WeightedResponse& w, const std::vector<orb_spectrum_line>& lines) {
    Eigen::VectorXd model = Eigen::VectorXd::Zero(w.response.rows()), value;
    for (const orb_spectrum_line& line : lines) {
        response_at(w, line.wavelength_nm, value, nullptr);
        model += line.power * value;
    }
    return model;
}

}  // namespace orbspectrum

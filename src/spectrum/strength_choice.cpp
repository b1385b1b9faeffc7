// The strength of the smoothness prior, by generalised cross-validation.
//
// With the prior whitened away, the problem is ridge regression on
// A~ = U S V^T, and for a strength l the influence matrix is
// H = U diag(s^2 / (s^2 + l)) U^T. GCV minimises
//   V(l) = m |(I - H) y|^2 / (m - tr H)^2.
// y is the reference frame (a flat spectrum at 70% of full scale) plus unit
// noise per row; its expected residual is computed in closed form rather
// than drawn, so the choice is the same on every build:
//   E|(I - H) y|^2 = sum f^2 c^2 + (|y|^2 - sum c^2) + (m - k) + sum f^2,
// with f = l / (s^2 + l), c = U^T y, k the number of singular values. Each
// score is O(k), so the scan is cheap once the SVD is done.

#include "strength_choice.h"

#include <cmath>
#include <limits>

namespace orbspectrum {

double gcv_score(const Eigen::VectorXd& s, const Eigen::VectorXd& c, double y_norm2, int m, double strength) {
    const Eigen::Index k = s.size();
    double fitted = 0, residual = 0, noise = 0;
    for (Eigen::Index i = 0; i < k; ++i) {
        const double s2 = s[i] * s[i];
        const double f = strength / (s2 + strength);
        fitted += s2 / (s2 + strength);
        residual += f * f * c[i] * c[i];
        noise += f * f;
    }
    const double outside = std::max(0.0, y_norm2 - c.squaredNorm());
    const double expected = residual + outside + static_cast<double>(m - k) + noise;
    const double dof = static_cast<double>(m) - fitted;
    return static_cast<double>(m) * expected / (dof * dof);
}

double gcv_strength(const Eigen::VectorXd& s, const Eigen::VectorXd& c, double y_norm2, int m) {
    // A log scan over fourteen decades below the largest s^2 and two above,
    // 40 points a decade, then a golden-section search between the best
    // point's neighbours.
    const double top = s.maxCoeff() * s.maxCoeff();
    const int points = 16 * 40;
    auto strength_at = [&](double e) { return top * std::pow(10.0, e); };
    double best_e = 0, best = std::numeric_limits<double>::infinity();
    for (int i = 0; i <= points; ++i) {
        const double e = -14.0 + 16.0 * i / points;
        const double v = gcv_score(s, c, y_norm2, m, strength_at(e));
        if (v < best) {
            best = v;
            best_e = e;
        }
    }
    double lo = best_e - 16.0 / points, hi = best_e + 16.0 / points;
    const double golden = 0.5 * (std::sqrt(5.0) - 1.0);
    for (int i = 0; i < 40; ++i) {
        const double a = hi - golden * (hi - lo), b = lo + golden * (hi - lo);
        if (gcv_score(s, c, y_norm2, m, strength_at(a)) < gcv_score(s, c, y_norm2, m, strength_at(b)))
            hi = b;
        else
            lo = a;
    }
    return strength_at(0.5 * (lo + hi));
}

}  // namespace orbspectrum

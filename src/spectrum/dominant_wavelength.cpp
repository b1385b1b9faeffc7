// Dominant (or complementary) wavelength and excitation purity.

#include "dominant_wavelength.h"

#include <cmath>

namespace orbspectrum {

namespace {

constexpr double kLocusFromNm = 380.0, kLocusToNm = 780.0;
// Closer to the white than this (in x, y) there is no direction to follow:
// the equal-energy spectrum itself lands within 1e-5 of (1/3, 1/3) through
// the tables' 5 nm sums.
constexpr double kAtWhite = 2e-5;

// Where the ray w + t d crosses the segment a + s (b - a), s in [0, 1].
bool cross(double wx, double wy, double dx, double dy, double ax, double ay, double bx, double by, double& t,
           double& s) {
    const double ex = bx - ax, ey = by - ay;
    const double den = dx * ey - dy * ex;
    if (std::fabs(den) < 1e-300) return false;
    t = ((ax - wx) * ey - (ay - wy) * ex) / den;
    s = ((ax - wx) * dy - (ay - wy) * dx) / den;
    return t > 0 && s >= 0 && s <= 1;
}

}  // namespace

SpectrumLocus::SpectrumLocus(const CieTables& tables) {
    for (size_t i = 0; i < tables.wavelength_nm.size(); i++) {
        const double nm = tables.wavelength_nm[i];
        if (nm < kLocusFromNm - 1e-9 || nm > kLocusToNm + 1e-9) continue;
        const double sum = tables.cmf_2deg[0][i] + tables.cmf_2deg[1][i] + tables.cmf_2deg[2][i];
        nm_.push_back(nm);
        x_.push_back(tables.cmf_2deg[0][i] / sum);
        y_.push_back(tables.cmf_2deg[1][i] / sum);
    }
}

bool SpectrumLocus::hit(double wx, double wy, double dx, double dy, double& t, double& nm) const {
    bool found = false;
    for (size_t i = 0; i + 1 < nm_.size(); i++) {
        double ti, si;
        if (cross(wx, wy, dx, dy, x_[i], y_[i], x_[i + 1], y_[i + 1], ti, si) && (!found || ti < t)) {
            found = true;
            t = ti;
            nm = nm_[i] + si * (nm_[i + 1] - nm_[i]);
        }
    }
    return found;
}

Dominant SpectrumLocus::dominant(double x, double y, double xw, double yw) const {
    const double dx = x - xw, dy = y - yw;
    if (std::hypot(dx, dy) < kAtWhite) return {NAN, 0.0};
    double t, nm;
    // The point sits at t = 1 on the ray: its purity is 1/t of the crossing's.
    if (hit(xw, yw, dx, dy, t, nm)) return {nm, 1.0 / t};
    double tc, nmc, tp, s;
    if (!hit(xw, yw, -dx, -dy, tc, nmc) ||
        !cross(xw, yw, dx, dy, x_.front(), y_.front(), x_.back(), y_.back(), tp, s))
        return {NAN, 0.0};
    return {-nmc, 1.0 / tp};
}

}  // namespace orbspectrum

// Correlated colour temperature and Duv by Ohno's combined method.

#include "planckian_locus.h"

#include <cmath>

#include "integration_grid.h"

namespace orbspectrum {

namespace {

constexpr double kC2 = 1.4388e-2;  // m K
// Ohno's table steps by 1% in temperature; his parabolic solution carries a
// correction factor tuned to that step.
constexpr double kStep = 1.01;
constexpr double kParabolicCorrection = 0.99991;
// Near the locus the triangular solution is the more accurate one.
constexpr double kTriangularDuvLimit = 0.002;
// The method's own error must not push a radiator at an end of the range out
// of it.
constexpr double kRangeSlack = 1e-3;
// The locus is a property of the continuous radiator: it is integrated at
// 1 nm (the CIE's own grid for it), the tables interpolated onto that.
constexpr double kLocusStepNm = 1.0;

}  // namespace

std::vector<double> planckian_spectrum(const std::vector<double>& grid_nm, double t_k) {
    std::vector<double> out(grid_nm.size());
    for (size_t i = 0; i < grid_nm.size(); i++) {
        const double l = grid_nm[i] * 1e-9;
        // Scaled by (560 nm)^5 to keep the values near 1 at every temperature's peak order.
        const double r = 560e-9 / l;
        out[i] = r * r * r * r * r / std::expm1(kC2 / (l * t_k));
    }
    return out;
}

PlanckianLocus::PlanckianLocus(const CieTables& base) {
    std::vector<double> grid;
    for (double nm = base.wavelength_nm.front(); nm <= base.wavelength_nm.back() + 1e-9; nm += kLocusStepNm)
        grid.push_back(nm);
    CieTables fine;
    const CieTables& tables = integration_tables(base, grid.data(), static_cast<int>(grid.size()), fine);
    // One step beyond each end, so that every temperature in range has a
    // neighbour on both sides.
    for (double t = kMinCctK / kStep; t < kMaxCctK * kStep * kStep; t *= kStep) {
        const Uv p = uv_1960(tristimulus(planckian_spectrum(tables.wavelength_nm, t), tables.cmf_2deg, tables.weight_nm));
        t_.push_back(t);
        u_.push_back(p.u);
        v_.push_back(p.v);
    }
}

CctDuv PlanckianLocus::cct(Uv p) const {
    const CctDuv none{NAN, NAN, false};
    size_t m = 0;
    double best = INFINITY;
    for (size_t i = 0; i < t_.size(); i++) {
        const double du = p.u - u_[i], dv = p.v - v_[i];
        const double d2 = du * du + dv * dv;
        if (d2 < best) {
            best = d2;
            m = i;
        }
    }
    if (m == 0 || m + 1 == t_.size()) return none;
    const double d0 = std::hypot(p.u - u_[m - 1], p.v - v_[m - 1]);
    const double d1 = std::sqrt(best);
    const double d2 = std::hypot(p.u - u_[m + 1], p.v - v_[m + 1]);
    const double t0 = t_[m - 1], t1 = t_[m], t2 = t_[m + 1];

    // Triangular: the foot of the perpendicular on the chord from m-1 to m+1.
    // Ohno interpolates T linearly along the chord; on this geometric table
    // ln T is the linear one, which halves the error on the locus (measured
    // by the Planckian radiators of tests/test_colour.cpp).
    const double l = std::hypot(u_[m + 1] - u_[m - 1], v_[m + 1] - v_[m - 1]);
    const double x = (d0 * d0 - d2 * d2 + l * l) / (2.0 * l);
    const double v_foot = v_[m - 1] + (v_[m + 1] - v_[m - 1]) * x / l;
    const double sign = p.v >= v_foot ? 1.0 : -1.0;
    double t = t0 * std::pow(t2 / t0, x / l);
    double duv = sign * std::sqrt(std::fmax(d0 * d0 - x * x, 0.0));

    if (std::fabs(duv) >= kTriangularDuvLimit) {
        // Parabolic: the distance as a quadratic in T through the three points.
        const double den = (t2 - t1) * (t0 - t2) * (t1 - t0);
        const double a = (t0 * (d2 - d1) + t1 * (d0 - d2) + t2 * (d1 - d0)) / den;
        const double b = -(t0 * t0 * (d2 - d1) + t1 * t1 * (d0 - d2) + t2 * t2 * (d1 - d0)) / den;
        const double c = -(d0 * (t2 - t1) * t1 * t2 + d1 * (t0 - t2) * t0 * t2 + d2 * (t1 - t0) * t0 * t1) / den;
        t = -b / (2.0 * a) * kParabolicCorrection;
        duv = sign * (a * t * t + b * t + c);
    }
    if (!(t >= kMinCctK * (1 - kRangeSlack) && t <= kMaxCctK * (1 + kRangeSlack))) return none;
    return {t, duv, true};
}

}  // namespace orbspectrum

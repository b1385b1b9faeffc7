// The grid a spectrum's colorimetry is summed on, and the tables on it.

#include "integration_grid.h"

#include <algorithm>
#include <cmath>

namespace orbspectrum {

namespace {

// Closer than this to a point of the tables' grid counts as on it.
constexpr double kOnGridNm = 1e-6;

bool on_table_grid(const CieTables& base, const double* wl, int count) {
    const double first = base.wavelength_nm.front(), last = base.wavelength_nm.back();
    const double step = base.weight_nm.front();
    for (int i = 0; i < count; i++) {
        if (wl[i] < first - kOnGridNm || wl[i] > last + kOnGridNm) continue;
        const double k = (wl[i] - first) / step;
        if (std::fabs(k - std::round(k)) * step > kOnGridNm) return false;
    }
    return true;
}

std::vector<double> trapezoid_weights(const std::vector<double>& nm) {
    std::vector<double> w(nm.size(), 0.0);
    for (size_t i = 0; i + 1 < nm.size(); i++) {
        const double half = 0.5 * (nm[i + 1] - nm[i]);
        w[i] += half;
        w[i + 1] += half;
    }
    return w;
}

std::array<std::vector<double>, 3> three_on(const std::vector<double>& from,
                                            const std::array<std::vector<double>, 3>& sets,
                                            const std::vector<double>& to) {
    return {sprague(from, sets[0], to), sprague(from, sets[1], to), sprague(from, sets[2], to)};
}

// Where Sprague's formula lacks neighbours: the cubic through the four
// points nearest the interval from k to k + 1 (x from 0 to 1 within it).
double cubic_near_end(const std::vector<double>& values, size_t k, double x) {
    const size_t first = std::min(k > 0 ? k - 1 : 0, values.size() - 4);
    const double t = x + static_cast<double>(k - first);
    double sum = 0;
    for (size_t j = 0; j < 4; j++) {
        double basis = 1;
        for (size_t m = 0; m < 4; m++)
            if (m != j) basis *= (t - static_cast<double>(m)) / (static_cast<double>(j) - static_cast<double>(m));
        sum += basis * values[first + j];
    }
    return sum;
}

}  // namespace

std::vector<double> sprague(const std::vector<double>& from, const std::vector<double>& values,
                            const std::vector<double>& to) {
    const size_t n = from.size();
    const double step = (from.back() - from.front()) / static_cast<double>(n - 1);
    std::vector<double> out(to.size(), 0.0);
    for (size_t i = 0; i < to.size(); i++) {
        const double pos = (to[i] - from.front()) / step;
        if (pos < -kOnGridNm / step || pos > static_cast<double>(n - 1) + kOnGridNm / step) continue;
        const size_t k = std::min(static_cast<size_t>(std::max(pos, 0.0)), n - 2);
        const double x = std::clamp(pos - static_cast<double>(k), 0.0, 1.0);
        if (k < 2 || k + 3 >= n) {
            out[i] = n < 4 ? values[k] + x * (values[k + 1] - values[k]) : cubic_near_end(values, k, x);
            continue;
        }
        const double fm2 = values[k - 2], fm1 = values[k - 1], f0 = values[k], f1 = values[k + 1],
                     f2 = values[k + 2], f3 = values[k + 3];
        // CIE 167:2005, the fifth-degree polynomial through f0 and f1 from six neighbours.
        const double a1 = (2 * fm2 - 16 * fm1 + 16 * f1 - 2 * f2) / 24;
        const double a2 = (-fm2 + 16 * fm1 - 30 * f0 + 16 * f1 - f2) / 24;
        const double a3 = (-9 * fm2 + 39 * fm1 - 70 * f0 + 66 * f1 - 33 * f2 + 7 * f3) / 24;
        const double a4 = (13 * fm2 - 64 * fm1 + 126 * f0 - 124 * f1 + 61 * f2 - 12 * f3) / 24;
        const double a5 = (-5 * fm2 + 25 * fm1 - 50 * f0 + 50 * f1 - 25 * f2 + 5 * f3) / 24;
        out[i] = f0 + x * (a1 + x * (a2 + x * (a3 + x * (a4 + x * a5))));
    }
    return out;
}

const CieTables& integration_tables(const CieTables& base, const double* wl, int count, CieTables& own) {
    if (on_table_grid(base, wl, count)) return base;
    const double lo = std::max(wl[0], base.wavelength_nm.front());
    const double hi = std::min(wl[count - 1], base.wavelength_nm.back());
    std::vector<double> nm;
    for (int i = 0; i < count; i++)
        if (wl[i] >= lo && wl[i] <= hi) nm.push_back(wl[i]);
    for (double g : base.wavelength_nm)
        if (g >= lo && g <= hi) nm.push_back(g);
    std::sort(nm.begin(), nm.end());
    // A sample within kOnGridNm of a table point is that point.
    nm.erase(std::unique(nm.begin(), nm.end(), [](double a, double b) { return b - a <= kOnGridNm; }), nm.end());

    const std::vector<double>& grid = base.wavelength_nm;
    own.wavelength_nm = nm;
    own.weight_nm = trapezoid_weights(nm);
    own.cmf_2deg = three_on(grid, base.cmf_2deg, nm);
    own.cmf_10deg = three_on(grid, base.cmf_10deg, nm);
    own.daylight = three_on(grid, base.daylight, nm);
    own.tcs.clear();
    for (const std::vector<double>& r : base.tcs) own.tcs.push_back(sprague(grid, r, nm));
    return own;
}

}  // namespace orbspectrum

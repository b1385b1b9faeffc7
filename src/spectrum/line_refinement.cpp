// The non-negative refinement for line spectra. The fast result finds where
// the lines are; within a window around each of its peaks the spectrum is
// fitted again as non-negative powers on a 0.25 nm grid (which separates lines
// closer than a filter's width), and each group of powers that forms a line is
// then fitted as one line of free position and power against the filters'
// responses interpolated between the calibration's wavelengths, which places
// it to a hundredth of a nm. Both fits are bound-constrained quasi-Newton
// (LBFGS++'s L-BFGS-B).

#include "line_refinement.h"

#include <LBFGSB.h>

#include <algorithm>
#include <cmath>

#include "spectral_peaks.h"

namespace orbspectrum {

namespace {

constexpr double kWindowHalfNm = 40.0;     // wider than the broadest filter with its side lobes
constexpr double kFineHalfNm = 12.0;
constexpr double kFineStepNm = 0.25;
constexpr double kCoarseStepNm = 1.0;
constexpr double kPeakProminence = 0.05;   // of the fast result's highest value
constexpr double kPeakSignificance = 5.0;  // times the fast result's noise
constexpr size_t kMaxWindows = 8;
constexpr double kLineShare = 0.01;        // of the strongest group's power: weaker groups stay as they are
constexpr double kMaxLineSpreadNm = 4.5;   // a group spread wider than this (rms) is broad light, not a line
constexpr double kDip = 0.7;
constexpr double kDoubleLineSpreadNm = 0.5; // a group spread wider than this is tried as two lines
constexpr double kTwoLineGain = 0.25;      // two lines must leave at most this share of one line's residual
constexpr double kSameLineNm = 0.3;
constexpr double kShadowNm = 1.5;          // a line this close to one twenty times stronger is its misfit
constexpr double kShadowShare = 0.05;
constexpr double kPositionFreedomNm = 1.0;

// The whitened responses of the filters used to a line at nm (Catmull-Rom
// between the calibration's wavelengths), and their slope along nm.
void response_at(const WeightedResponse& w, double nm, Eigen::VectorXd& value, Eigen::VectorXd* slope) {
    const std::vector<double>& x = w.wavelength_nm;
    size_t j = static_cast<size_t>(std::upper_bound(x.begin(), x.end(), nm) - x.begin());
    j = std::clamp<size_t>(j, 1, x.size() - 1) - 1;
    const double h = x[j + 1] - x[j];
    const double t = std::clamp((nm - x[j]) / h, 0.0, 1.0);
    const double t2 = t * t, t3 = t2 * t;
    const auto a = static_cast<Eigen::Index>(j), b = a + 1;
    value = (2 * t3 - 3 * t2 + 1) * w.response.col(a) + (t3 - 2 * t2 + t) * h * w.slope.col(a) +
            (-2 * t3 + 3 * t2) * w.response.col(b) + (t3 - t2) * h * w.slope.col(b);
    if (slope)
        *slope = ((6 * t2 - 6 * t) * w.response.col(a) + (3 * t2 - 4 * t + 1) * h * w.slope.col(a) +
                  (-6 * t2 + 6 * t) * w.response.col(b) + (3 * t2 - 2 * t) * h * w.slope.col(b)) /
                 h;
}

double interpolate(const std::vector<double>& x, const Eigen::VectorXd& y, double at) {
    size_t j = static_cast<size_t>(std::upper_bound(x.begin(), x.end(), at) - x.begin());
    j = std::clamp<size_t>(j, 1, x.size() - 1);
    const double f = std::clamp((at - x[j - 1]) / (x[j] - x[j - 1]), 0.0, 1.0);
    return (1 - f) * y[static_cast<Eigen::Index>(j - 1)] + f * y[static_cast<Eigen::Index>(j)];
}

struct Window {
    double lo, hi;
};

// Merges overlapping windows (given in ascending order of lo).
std::vector<Window> merged(std::vector<Window> w) {
    std::vector<Window> out;
    for (const Window& v : w) {
        if (!out.empty() && v.lo <= out.back().hi)
            out.back().hi = std::max(out.back().hi, v.hi);
        else
            out.push_back(v);
    }
    return out;
}

bool inside(const std::vector<Window>& windows, double nm) {
    return std::any_of(windows.begin(), windows.end(), [&](const Window& v) { return nm >= v.lo && nm <= v.hi; });
}

// Where the fast result is refitted: around the strongest kMaxWindows of its
// peaks that stand out from its noise (judged by the spread of its negative
// values: where there is no light a density swings about zero). The fine grid
// covers kFineHalfNm to either side of a peak; out to kWindowHalfNm, where a
// line's filters still answer through their side lobes, a 1 nm grid takes
// the place of the fast result, whose ringing would otherwise stay.
struct Region {
    std::vector<Window> outer, inner;
};

Region refit_region(const std::vector<double>& nm, const Eigen::VectorXd& density) {
    double swing = 0;
    int negative = 0;
    for (Eigen::Index j = 0; j < density.size(); ++j)
        if (density[j] < 0) {
            swing += density[j] * density[j];
            ++negative;
        }
    swing = negative > 0 ? std::sqrt(swing / negative) : 0;
    const auto peaks = find_peaks(nm.data(), density.data(), static_cast<int>(nm.size()), kPeakProminence);
    std::vector<double> at;
    for (const auto& p : peaks)
        if (p.prominence > kPeakSignificance * swing && at.size() < kMaxWindows) at.push_back(p.wavelength_nm);
    // A line near either end of the range, where the filters are wide and the
    // prior smooths most, may leave the fast result rising to its last sample
    // with no peak inside: the end itself then marks a window.
    const Eigen::Index last = density.size() - 1;
    const double highest = density.maxCoeff();
    for (Eigen::Index end : {Eigen::Index{0}, last}) {
        const Eigen::Index inner = end == 0 ? 1 : last - 1;
        if (last > 0 && density[end] > density[inner] && density[end] > kPeakSignificance * swing &&
            density[end] >= kPeakProminence * highest && at.size() < kMaxWindows)
            at.push_back(nm[static_cast<size_t>(end)]);
    }
    std::sort(at.begin(), at.end());
    std::vector<Window> outer, inner;
    for (double p : at) {
        outer.push_back({std::max(nm.front(), p - kWindowHalfNm), std::min(nm.back(), p + kWindowHalfNm)});
        inner.push_back({std::max(nm.front(), p - kFineHalfNm), std::min(nm.back(), p + kFineHalfNm)});
    }
    return {merged(outer), merged(inner)};
}

template <typename F>
void minimise(F& f, Eigen::VectorXd& x, const Eigen::VectorXd& lo, const Eigen::VectorXd& hi, int iterations) {
    LBFGSpp::LBFGSBParam<double> param;
    param.epsilon = 1e-9;
    param.epsilon_rel = 1e-9;
    param.max_iterations = iterations;
    LBFGSpp::LBFGSBSolver<double> solver(param);
    double fx = 0;
    try {
        solver.minimize(f, x, fx, lo, hi);
    } catch (const std::exception&) {
        // The line search could not improve on x any further (rounding near
        // the minimum): x is the best point found, which is what is wanted.
    }
}

// 1/2 a^T Q a - q^T a, scaled to be of order 1.
struct Quadratic {
    const Eigen::MatrixXd& q_matrix;
    const Eigen::VectorXd& q_vector;
    double scale;
    double operator()(const Eigen::VectorXd& a, Eigen::VectorXd& grad) const {
        const Eigen::VectorXd qa = q_matrix * a;
        grad = (qa - q_vector) * scale;
        return (0.5 * a.dot(qa) - q_vector.dot(a)) * scale;
    }
};

// 1/2 |sum_k P_k r(nm_k) - z|^2 over positions and relative powers.
struct Lines {
    const WeightedResponse& w;
    const Eigen::VectorXd& z;
    const std::vector<double>& unit;  // the power that a relative power of 1 stands for
    double scale;
    double operator()(const Eigen::VectorXd& x, Eigen::VectorXd& grad) const {
        const Eigen::Index n = static_cast<Eigen::Index>(unit.size());
        std::vector<Eigen::VectorXd> value(static_cast<size_t>(n)), slope(static_cast<size_t>(n));
        Eigen::VectorXd residual = -z;
        for (Eigen::Index k = 0; k < n; ++k) {
            response_at(w, x[k], value[static_cast<size_t>(k)], &slope[static_cast<size_t>(k)]);
            residual += x[n + k] * unit[static_cast<size_t>(k)] * value[static_cast<size_t>(k)];
        }
        grad.resize(2 * n);
        for (Eigen::Index k = 0; k < n; ++k) {
            const double power = x[n + k] * unit[static_cast<size_t>(k)];
            grad[k] = scale * power * slope[static_cast<size_t>(k)].dot(residual);
            grad[n + k] = scale * unit[static_cast<size_t>(k)] * value[static_cast<size_t>(k)].dot(residual);
        }
        return 0.5 * scale * residual.squaredNorm();
    }
};

// Adds a line of power P at nm to a density on grid, split between the two
// samples around it so that both its power and its centroid are kept.
void deposit(const std::vector<double>& grid, const std::vector<double>& width, double nm, double power,
             Eigen::VectorXd& density) {
    if (grid.size() < 2 || nm < grid.front() || nm > grid.back()) return;
    size_t j = static_cast<size_t>(std::upper_bound(grid.begin(), grid.end(), nm) - grid.begin());
    j = std::clamp<size_t>(j, 1, grid.size() - 1);
    const double f = (nm - grid[j - 1]) / (grid[j] - grid[j - 1]);
    density[static_cast<Eigen::Index>(j - 1)] += power * (1 - f) / width[j - 1];
    density[static_cast<Eigen::Index>(j)] += power * f / width[j];
}

std::vector<double> widths(const std::vector<double>& nm) {
    std::vector<double> w(nm.size());
    for (size_t j = 0; j < nm.size(); ++j)
        w[j] = 0.5 * (nm[std::min(j + 1, nm.size() - 1)] - nm[j == 0 ? 0 : j - 1]);
    return w;
}

struct Group {
    size_t first, last;
    double power, centroid, spread;
};

Group group(const Eigen::VectorXd& a, const std::vector<double>& fine, size_t first, size_t last) {
    Group g{first, last, 0, 0, 0};
    for (size_t c = first; c <= last; ++c) {
        g.power += a[static_cast<Eigen::Index>(c)];
        g.centroid += a[static_cast<Eigen::Index>(c)] * fine[c];
    }
    if (g.power > 0) g.centroid /= g.power;
    for (size_t c = first; c <= last; ++c) g.spread += a[static_cast<Eigen::Index>(c)] * std::pow(fine[c] - g.centroid, 2);
    if (g.power > 0) g.spread = std::sqrt(g.spread / g.power);
    return g;
}

// The fine-grid powers cut into groups: runs of non-zero powers, each cut
// again at every dip of its 0.5 nm running mean below kDip of the lower of
// the humps on either side (two lines closer than a filter's width come out
// of the non-negative fit as two humps that may touch).
std::vector<Group> line_groups(const Eigen::VectorXd& a, const std::vector<double>& fine) {
    const size_t k = fine.size();
    std::vector<double> mean(k, 0);
    for (size_t c = 0; c < k; ++c) {
        const size_t lo = c >= 2 ? c - 2 : 0, hi = std::min(c + 2, k - 1);
        for (size_t j = lo; j <= hi; ++j) mean[c] += a[static_cast<Eigen::Index>(j)];
        mean[c] /= static_cast<double>(hi - lo + 1);
    }
    const double floor = 1e-3 * a.maxCoeff();
    std::vector<Group> out;
    size_t c = 0;
    while (c < k) {
        if (!(a[static_cast<Eigen::Index>(c)] > floor)) {
            ++c;
            continue;
        }
        size_t end = c;
        while (end + 1 < k && a[static_cast<Eigen::Index>(end + 1)] > floor) ++end;
        // Cuts at deep dips between humps, left to right.
        std::vector<size_t> cuts;
        size_t hump = c;
        for (size_t j = c; j <= end; ++j) {
            if (mean[j] <= mean[hump] && j > hump) {
                // Still falling from (or level with) the current hump.
            }
            if (mean[j] > mean[hump]) {
                size_t dip = hump;
                for (size_t i = hump; i <= j; ++i)
                    if (mean[i] < mean[dip]) dip = i;
                const bool deep = dip != hump && mean[dip] < kDip * std::min(mean[hump], mean[j]);
                if (deep && (cuts.empty() || cuts.back() < dip)) cuts.push_back(dip);
                hump = j;
            }
        }
        size_t first = c;
        for (size_t cut : cuts) {
            out.push_back(group(a, fine, first, cut));
            first = cut + 1;
        }
        out.push_back(group(a, fine, first, end));
        c = end + 1;
    }
    return out;
}

struct LineFit {
    std::vector<orb_spectrum_line> lines;
    double residual = 0;
};

// Fits the groups as lines of free position and power (a split group as two,
// started a spread to either side of its centroid), in wavelength order.
LineFit fit_lines(const WeightedResponse& w, const Eigen::VectorXd& z, const std::vector<Group>& groups,
                  const std::vector<bool>& split) {
    std::vector<double> unit, seed, freedom;
    for (size_t g = 0; g < groups.size(); ++g) {
        const Group& group = groups[g];
        if (split[g]) {
            for (double side : {-1.0, 1.0}) {
                unit.push_back(group.power / 2);
                seed.push_back(group.centroid + side * group.spread);
                freedom.push_back(group.spread);
            }
        } else {
            unit.push_back(group.power);
            seed.push_back(group.centroid);
            freedom.push_back(kPositionFreedomNm);
        }
    }
    const Eigen::Index n = static_cast<Eigen::Index>(unit.size());
    Eigen::VectorXd x(2 * n), lo(2 * n), hi(2 * n);
    for (Eigen::Index i = 0; i < n; ++i) {
        const auto u = static_cast<size_t>(i);
        x[i] = seed[u];
        lo[i] = std::max(w.wavelength_nm.front(), seed[u] - freedom[u]);
        hi[i] = std::min(w.wavelength_nm.back(), seed[u] + freedom[u]);
        x[n + i] = 1;
        lo[n + i] = 0;
        hi[n + i] = 10;
    }
    LineFit fit;
    const Lines objective{w, z, unit, 1.0 / std::max(z.squaredNorm(), 1e-300)};
    if (n > 0) minimise(objective, x, lo, hi, 300);
    Eigen::VectorXd grad;
    fit.residual = n > 0 ? objective(x, grad) : 0.5;
    for (Eigen::Index i = 0; i < n; ++i) fit.lines.push_back({x[i], x[n + i] * unit[static_cast<size_t>(i)]});
    std::sort(fit.lines.begin(), fit.lines.end(),
              [](const auto& p, const auto& q) { return p.wavelength_nm < q.wavelength_nm; });
    return fit;
}

}  // namespace

Refined refine_lines(const Reconstruction& r, const double* filters, const double* dark, double exposure_ms) {
    const WeightedResponse& w = r.weighted();
    const Eigen::Index m = static_cast<Eigen::Index>(w.filters.size());
    Eigen::VectorXd fast = r.apply_at_calibration(filters, dark, exposure_ms);
    Eigen::VectorXd y(m);
    for (Eigen::Index i = 0; i < m; ++i) {
        const int f = w.filters[static_cast<size_t>(i)];
        y[i] = w.inverse_sigma[i] * (filters[f] - dark[f]) / exposure_ms;
    }

    const Region region = refit_region(w.wavelength_nm, fast);
    const Eigen::VectorXd before = fast;
    for (Eigen::Index j = 0; j < fast.size(); ++j)
        if (inside(region.outer, w.wavelength_nm[static_cast<size_t>(j)])) fast[j] = 0;
    const Eigen::VectorXd widths_cal = Eigen::Map<const Eigen::VectorXd>(w.width_nm.data(), fast.size());
    const Eigen::VectorXd z = y - w.response * fast.cwiseProduct(widths_cal);

    std::vector<double> fine;
    for (const Window& v : region.outer)
        for (double nm = v.lo; nm <= v.hi + 1e-9; nm += inside(region.inner, nm) ? kFineStepNm : kCoarseStepNm)
            fine.push_back(nm);
    const Eigen::Index k = static_cast<Eigen::Index>(fine.size());

    Refined out;
    const std::vector<double>& grid = r.wavelengths();
    const std::vector<double> grid_width = widths(grid);
    out.density = r.to_output(fast);
    if (k == 0) return out;

    // The non-negative fit on the fine grid.
    Eigen::MatrixXd basis(m, k);
    Eigen::VectorXd column;
    for (Eigen::Index c = 0; c < k; ++c) {
        response_at(w, fine[static_cast<size_t>(c)], column, nullptr);
        basis.col(c) = column;
    }
    // Solved for D a, D = sqrt(diag(B^T B)), which evens out the curvature
    // along the variables so that the solver converges in far fewer steps.
    Eigen::MatrixXd gram = basis.transpose() * basis;
    gram.diagonal().array() += 1e-9 * gram.diagonal().mean();
    const Eigen::VectorXd d = gram.diagonal().cwiseSqrt();
    const Eigen::MatrixXd gram_scaled = d.cwiseInverse().asDiagonal() * gram * d.cwiseInverse().asDiagonal();
    const Eigen::VectorXd target = (basis.transpose() * z).cwiseQuotient(d);
    const double scale = 1.0 / std::max(z.squaredNorm(), 1e-300);
    // Started from the fast result's own powers on the fine grid.
    Eigen::VectorXd b(k);
    for (Eigen::Index c = 0; c < k; ++c) {
        const double nm = fine[static_cast<size_t>(c)];
        const double step = inside(region.inner, nm) ? kFineStepNm : kCoarseStepNm;
        b[c] = std::max(0.0, interpolate(w.wavelength_nm, before, nm)) * step * d[c];
    }
    const Quadratic quadratic{gram_scaled, target, scale};
    // A line search that gives up early leaves a usable point; further runs
    // from it go on with a fresh curvature estimate.
    for (int run = 0; run < 3; ++run)
        minimise(quadratic, b, Eigen::VectorXd::Zero(k), Eigen::VectorXd::Constant(k, INFINITY), 1000);
    const Eigen::VectorXd a = b.cwiseQuotient(d);

    // Groups of powers that each look like one line; the rest stays as it is.
    std::vector<Group> groups = line_groups(a, fine);
    double strongest = 0;
    for (const Group& g : groups) strongest = std::max(strongest, g.power);
    std::vector<Group> lines;
    Eigen::VectorXd rest = a;
    for (const Group& g : groups) {
        if (g.power < kLineShare * strongest || g.spread > kMaxLineSpreadNm) continue;
        lines.push_back(g);
        for (size_t c = g.first; c <= g.last; ++c) rest[static_cast<Eigen::Index>(c)] = 0;
    }

    // Each line's position and power, against what the rest leaves. A group
    // spread wider than one line is fitted as two as well, and kept as two
    // when that explains the frame far better.
    const Eigen::VectorXd z_lines = z - basis * rest;
    std::vector<bool> split(lines.size(), false);
    LineFit fit = fit_lines(w, z_lines, lines, split);
    for (size_t g = 0; g < lines.size(); ++g) {
        if (lines[g].spread <= kDoubleLineSpreadNm) continue;
        split[g] = true;
        LineFit two = fit_lines(w, z_lines, lines, split);
        if (two.residual < kTwoLineGain * fit.residual)
            fit = std::move(two);
        else
            split[g] = false;
    }

    for (size_t c = 0; c < fine.size(); ++c)
        if (rest[static_cast<Eigen::Index>(c)] > 0)
            deposit(grid, grid_width, fine[c], rest[static_cast<Eigen::Index>(c)], out.density);
    // Two seeds that met are one line. A faint line just beside a strong one
    // is the strong line's misfit (its responses interpolated between the
    // calibration's wavelengths), not a line: its power goes to the strong
    // one, whose position stays.
    for (const orb_spectrum_line& line : fit.lines) {
        if (!(line.power > 0)) continue;
        const double apart = out.lines.empty() ? INFINITY : std::abs(out.lines.back().wavelength_nm - line.wavelength_nm);
        orb_spectrum_line* last = out.lines.empty() ? nullptr : &out.lines.back();
        if (apart < kSameLineNm) {
            const double power = last->power + line.power;
            last->wavelength_nm = (last->wavelength_nm * last->power + line.wavelength_nm * line.power) / power;
            last->power = power;
        } else if (apart < kShadowNm && std::min(last->power, line.power) < kShadowShare * std::max(last->power, line.power)) {
            if (line.power > last->power) last->wavelength_nm = line.wavelength_nm;
            last->power += line.power;
        } else {
            out.lines.push_back(line);
        }
    }
    for (const orb_spectrum_line& line : out.lines)
        deposit(grid, grid_width, line.wavelength_nm, line.power, out.density);
    std::sort(out.lines.begin(), out.lines.end(), [](const auto& p, const auto& q) { return p.power > q.power; });
    return out;
}

}  // namespace orbspectrum

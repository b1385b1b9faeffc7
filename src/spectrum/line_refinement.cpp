// The non-negative refinement for line spectra. The fast result finds where
// the lines are; within a window around each of its peaks the spectrum is
// fitted again as non-negative powers on a 0.25 nm grid (which separates lines
// closer than a filter's width), and each group of powers that forms a line is
// then fitted as lines of free position and power (line_fit.h). How many
// lines a group is, and whether neighbouring groups are one line, is judged
// by the frame's chi-square: every filter weighted by the noise its counts
// carry (frame_noise.h), shot noise and the calibration's error included.
// A line whose powers run on into broad light with no dip (404.7 nm on a
// tube's blue phosphor) is found from the fast result's peaks instead.
// The fits are bound-constrained quasi-Newton (LBFGS++'s L-BFGS-B).

#include "line_refinement.h"

#include <algorithm>
#include <cmath>

#include "bounded_minimum.h"
#include "line_fit.h"
#include "line_response.h"
#include "sample_grid.h"
#include "spectral_peaks.h"

namespace orbspectrum {

namespace {

constexpr double kWindowHalfNm = 40.0;     // wider than the broadest filter with its side lobes
constexpr double kFineHalfNm = 12.0;
constexpr double kFineStepNm = 0.25;
constexpr double kCoarseStepNm = 1.0;
constexpr double kBlockNm = 40.0;          // outside the windows, the fast result is scaled in blocks this wide
constexpr double kPeakProminence = 0.05;   // of the fast result's highest value
constexpr double kPeakSignificance = 5.0;  // times the fast result's noise
constexpr size_t kMaxWindows = 8;
constexpr double kLineShare = 0.01;        // of the strongest group's power: weaker groups stay as they are
constexpr double kMaxLineSpreadNm = 4.5;   // a group spread wider than this (rms) is not one line
constexpr double kMaxPairSpreadNm = 9.0;   // nor two, spread wider than this
constexpr double kWideSlack = 0.25;        // of what a wide group's own powers leave, that two lines may add
constexpr double kDip = 0.7;
constexpr double kMinHalfSplitNm = 0.25;   // two lines are first tried at least this far to either side
constexpr double kSeenShare = 0.01;        // a filter sees a line that puts this share of the brightest's counts on it
constexpr double kMinDrop = 25;            // one line more must take this much chi-square off (5 sigma)
constexpr double kTwoLineShare = 0.5;      // and leave at most this share of what was left
constexpr double kPolishNm = 0.5;          // how far the joint fits move a line
constexpr double kJoinNm = 8.0;            // lines closer are tried as one
constexpr double kUnderHalfNm = 8.0;       // the light a line stands on, to either side
constexpr double kUnderShare = 0.05;       // of the lines' power, beside them, for broad light
constexpr double kTwoLinesOnLight = 0.25;  // the share of one line's chi-square two may leave there
constexpr double kMaxLineOnLightSpreadNm = 2.5;  // a group spread wider is two lines, not one on light
constexpr double kSameLineNm = 0.3;
constexpr double kShadowNm = 1.5;          // a line this close to one twenty times stronger is its misfit
constexpr double kShadowShare = 0.05;
constexpr double kPositionFreedomNm = 1.0;
constexpr double kLineOverPowers = 1.25;   // what a line on light may leave, against the powers it replaces

double interpolate(const std::vector<double>& x, const Eigen::VectorXd& y, double at) {
    const auto [lower, f] = bracket(x, at);
    return (1 - f) * y[static_cast<Eigen::Index>(lower)] + f * y[static_cast<Eigen::Index>(lower + 1)];
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

// The calibration's wavelengths outside the windows, in blocks of at most
// kBlockNm: each one's block number, or -1 inside a window.
std::vector<int> outside_blocks(const std::vector<double>& nm, const std::vector<Window>& windows) {
    std::vector<int> block(nm.size(), -1);
    int current = -1;
    double start = 0;
    bool open = false;
    for (size_t j = 0; j < nm.size(); ++j) {
        if (inside(windows, nm[j])) {
            open = false;
            continue;
        }
        if (!open || nm[j] - start >= kBlockNm) {
            ++current;
            start = nm[j];
            open = true;
        }
        block[j] = current;
    }
    return block;
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

// Adds a line of power P at nm to a density on grid, split between the two
// samples around it so that both its power and its centroid are kept.
void deposit(const std::vector<double>& grid, const std::vector<double>& width, double nm, double power,
             Eigen::VectorXd& density) {
    if (grid.size() < 2 || nm < grid.front() || nm > grid.back()) return;
    const auto [lower, f] = bracket(grid, nm);
    density[static_cast<Eigen::Index>(lower)] += power * (1 - f) / width[lower];
    density[static_cast<Eigen::Index>(lower + 1)] += power * f / width[lower + 1];
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

// Each filter's weight: what turns a residual whitened as the operator's
// responses are into standard deviations of the frame (FrameNoise), the
// lines' calibration error included once they are known.
Eigen::VectorXd noise_weights(const WeightedResponse& w, const FrameNoise& noise, const Eigen::VectorXd& counts,
                              double exposure_ms, const std::vector<orb_spectrum_line>& lines) {
    Eigen::VectorXd weight(counts.size());
    for (Eigen::Index i = 0; i < counts.size(); ++i) {
        double calibration = 0;
        for (const orb_spectrum_line& line : lines)
            calibration += line.power * noise.response_error(i, line.wavelength_nm);
        const double variance = noise.variance(i, counts[i]) + std::pow(calibration * exposure_ms, 2);
        weight[i] = exposure_ms / (w.inverse_sigma[i] * std::sqrt(variance));
    }
    return weight;
}

// The chi-square of a residual (whitened as the responses) over the filters
// that see a model: those it puts at least kSeenShare of its brightest's
// counts on.
struct Local {
    Eigen::VectorXd seen;
    double threshold;
    double chi2(const Eigen::VectorXd& residual, const Eigen::VectorXd& weight) const {
        double sum = 0;
        for (Eigen::Index i = 0; i < seen.size(); ++i)
            if (seen[i] > threshold) sum += std::pow(residual[i] * weight[i], 2);
        return sum;
    }
    int count() const { return static_cast<int>((seen.array() > threshold).count()); }
};

Local seen_by(const Eigen::VectorXd& model, const Eigen::VectorXd& weight) {
    Local l{model.cwiseProduct(weight).cwiseAbs(), 0};
    l.threshold = kSeenShare * l.seen.maxCoeff();
    return l;
}

// One line more is a line: it takes more off the frame's chi-square than
// noise would, and at least half of what was left on the filters that see
// it. A line's misfit (the responses interpolated between the calibration's
// wavelengths, the calibration's own error) takes a few per cent; noise
// split into two humps, a few units.
bool more_lines_better(const FittedLines& one, const FittedLines& two, double left_one, double left_two) {
    return one.chi2 - two.chi2 > kMinDrop && left_two < kTwoLineShare * left_one;
}

// A line standing on broad light, against the light alone: what either
// leaves is not noise alone (a tube's lines are broader than the sweep's, the
// light under them is not flat), so the line must take kMinDrop off the
// chi-square of the filters that see it in units of what it leaves per
// filter (its reduced chi-square, at least 1): an F-test.
bool line_on_light_better(double left_light, double left_line, int seen) {
    const double per_filter = std::max(1.0, left_line / std::max(1, seen - 3));
    return left_light - left_line > kMinDrop * per_filter;
}

// Two lines, one to either side of centre, each within [lo, hi], started as
// far apart as a group's powers are spread and twice that: the better fit.
FittedLines two_lines(const WeightedResponse& w, const Eigen::VectorXd& weight, const Eigen::VectorXd& z, double centre,
                      double power, double spread, double lo, double hi, const Eigen::VectorXd& under) {
    FittedLines two;
    two.chi2 = INFINITY;
    for (double half : {std::max(spread, kMinHalfSplitNm), 2 * std::max(spread, kMinHalfSplitNm)}) {
        FittedLines t = fit_lines(w, weight, z,
                                  {{centre - half, std::max(lo, centre - 2 * half), centre, power / 2},
                                   {centre + half, centre, std::min(hi, centre + 2 * half), power / 2}},
                                  under);
        if (t.chi2 < two.chi2) two = std::move(t);
    }
    return two;
}

// What a fit puts on the filters, whitened as w is.
Eigen::VectorXd model_of(const WeightedResponse& w, const FittedLines& fit, const Eigen::VectorXd& under) {
    Eigen::VectorXd model = line_model(w, fit.lines);
    if (under.size() > 0) model += fit.under * under;
    return model;
}

// A group of powers as the lines it is, standing on light as broad as the
// group (under, whitened as w: a fluorescent tube's lines stand on its
// phosphors' light, which a second line would otherwise take the place of):
// none when the rule for one line more would not add one, two when it would
// add a second (among broad light, by kTwoLinesOnLight). z is the frame less
// all else.
FittedLines one_or_two(const WeightedResponse& w, const Eigen::VectorXd& weight, const Eigen::VectorXd& z,
                       const Group& g, const std::vector<double>& fine, const orb_spectrum_line& start,
                       const Eigen::VectorXd& under, bool broad_light) {
    const FittedLines one = fit_lines(
        w, weight, z, {{start.wavelength_nm, g.centroid - kPositionFreedomNm, g.centroid + kPositionFreedomNm, start.power}},
        under);
    // Whether it is a line at all is judged without the light under it,
    // which over a few nm a filter cannot tell from a line.
    const FittedLines alone = fit_lines(
        w, weight, z, {{start.wavelength_nm, g.centroid - kPositionFreedomNm, g.centroid + kPositionFreedomNm, start.power}});
    FittedLines none;
    none.chi2 = z.cwiseProduct(weight).squaredNorm();
    const Local local = seen_by(line_model(w, alone.lines), weight);
    const double lo = fine[g.first] - kPositionFreedomNm, hi = fine[g.last] + kPositionFreedomNm;
    if (!more_lines_better(none, alone, local.chi2(-z, weight), local.chi2(line_model(w, alone.lines) - z, weight))) {
        // Nor is it two lines that one line cannot stand for.
        const FittedLines pair = two_lines(w, weight, z, alone.lines[0].wavelength_nm, alone.lines[0].power, g.spread, lo,
                                           hi, Eigen::VectorXd());
        if (!more_lines_better(none, pair, local.chi2(-z, weight), local.chi2(line_model(w, pair.lines) - z, weight)))
            return none;
    }
    const double left_one = local.chi2(model_of(w, one, under) - z, weight);
    const FittedLines two =
        two_lines(w, weight, z, one.lines[0].wavelength_nm, one.lines[0].power, g.spread, lo, hi, under);
    const double left_two = local.chi2(model_of(w, two, under) - z, weight);
    // Among broad light a line's own breadth (a tube's lines are broader than
    // the sweep's) and the light's bands leave misfits two lines also take
    // away: there two must explain the whole frame far better.
    if (broad_light && !(two.chi2 < kTwoLinesOnLight * one.chi2)) return one;
    return more_lines_better(one, two, left_one, left_two) ? two : one;
}

// Neighbouring lines closer than kJoinNm (from two groups the non-negative
// fit cut apart, as noise does to one faint line) held to the same rule as
// a group tried as two lines: one line where two are not far better.
void join_neighbours(const WeightedResponse& w, const Eigen::VectorXd& weight, const Eigen::VectorXd& z,
                     std::vector<orb_spectrum_line>& lines) {
    std::sort(lines.begin(), lines.end(), [](const auto& p, const auto& q) { return p.wavelength_nm < q.wavelength_nm; });
    size_t i = 0;
    while (i + 1 < lines.size()) {
        const orb_spectrum_line p = lines[i], q = lines[i + 1];
        if (q.wavelength_nm - p.wavelength_nm >= kJoinNm) {
            ++i;
            continue;
        }
        const Eigen::VectorXd target = z - (line_model(w, lines) - line_model(w, {p, q}));
        const double power = p.power + q.power;
        const double centroid = (p.wavelength_nm * p.power + q.wavelength_nm * q.power) / power;
        const FittedLines one = fit_lines(
            w, weight, target, {{centroid, p.wavelength_nm - kPositionFreedomNm, q.wavelength_nm + kPositionFreedomNm, power}});
        const FittedLines two = fit_lines(w, weight, target,
                                          {{p.wavelength_nm, p.wavelength_nm - kPolishNm, p.wavelength_nm + kPolishNm, p.power},
                                           {q.wavelength_nm, q.wavelength_nm - kPolishNm, q.wavelength_nm + kPolishNm, q.power}});
        const Eigen::VectorXd one_model = line_model(w, one.lines);
        const Local local = seen_by(one_model, weight);
        const double left_one = local.chi2(one_model - target, weight);
        const double left_two = local.chi2(line_model(w, two.lines) - target, weight);
        if (more_lines_better(one, two, left_one, left_two)) {
            ++i;
            continue;
        }
        // One line: it may now meet the line before it.
        lines[i] = one.lines[0];
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(i) + 1);
        if (i > 0) --i;
    }
}

// All lines together, each held near where it is.
FittedLines polished(const WeightedResponse& w, const Eigen::VectorXd& weight, const Eigen::VectorXd& z,
                     const std::vector<orb_spectrum_line>& lines) {
    std::vector<LineSeed> seeds;
    for (const orb_spectrum_line& line : lines)
        seeds.push_back({line.wavelength_nm, line.wavelength_nm - kPolishNm, line.wavelength_nm + kPolishNm, line.power});
    return fit_lines(w, weight, z, seeds);
}

// Drops, weakest first, each line that the rule for one line more would not
// add to its neighbours (the lines within kJoinNm, refitted with it and
// without it); true when one was. A line that only made up for its
// neighbours' misfit goes.
bool drop_needless(const WeightedResponse& w, const Eigen::VectorXd& weight, const Eigen::VectorXd& z,
                   std::vector<orb_spectrum_line>& lines) {
    std::vector<size_t> order(lines.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t p, size_t q) { return lines[p].power < lines[q].power; });
    std::vector<bool> dropped(lines.size(), false);
    bool any = false;
    for (size_t i : order) {
        std::vector<orb_spectrum_line> near, others;
        for (size_t j = 0; j < lines.size(); ++j) {
            if (j == i || dropped[j]) continue;
            (std::abs(lines[j].wavelength_nm - lines[i].wavelength_nm) < kJoinNm ? near : others).push_back(lines[j]);
        }
        const Eigen::VectorXd target = z - line_model(w, others);
        std::vector<orb_spectrum_line> with = near;
        with.push_back(lines[i]);
        const FittedLines more = polished(w, weight, target, with), fewer = polished(w, weight, target, near);
        const Local local = seen_by(line_model(w, {more.lines.back()}), weight);
        if (more_lines_better(fewer, more, local.chi2(line_model(w, fewer.lines) - target, weight),
                              local.chi2(line_model(w, more.lines) - target, weight)))
            continue;
        dropped[i] = any = true;
    }
    std::vector<orb_spectrum_line> kept;
    for (size_t i = 0; i < lines.size(); ++i)
        if (!dropped[i]) kept.push_back(lines[i]);
    lines = std::move(kept);
    return any;
}

// A group spread too wide for one line may be two: it is, when two lines
// leave the filters that see it little more than its own non-negative powers
// do (broad light leaves far more). Among broad light (ramps non-empty: the
// two ramps of a straight density over the group's span) they must also be
// better than straight light by line_on_light_better: a stretch of a
// phosphor's band, which the powers fit no better than two lines do, is
// fitted as well by straight light (flat light leaves its slope, which two
// lines take up). z is the frame less all else.
// What the straight non-negative density over a span that fits z best puts
// on the filters: a non-negative mix of its two ramps (ramps' columns, as w
// whitens them), each filter weighted by weight.
Eigen::VectorXd straight_light(const Eigen::MatrixXd& ramps, const Eigen::VectorXd& weight, const Eigen::VectorXd& z) {
    const Eigen::MatrixXd a = weight.asDiagonal() * ramps;
    const Eigen::VectorXd b = z.cwiseProduct(weight);
    Eigen::Vector2d mix = a.colPivHouseholderQr().solve(b);
    if (mix.minCoeff() < 0) {
        // The best straight line dips below zero within the span: the better
        // of the two ramps alone.
        Eigen::Vector2d best = Eigen::Vector2d::Zero();
        double least = INFINITY;
        for (Eigen::Index c = 0; c < 2; ++c) {
            Eigen::Vector2d one = Eigen::Vector2d::Zero();
            one[c] = std::max(0.0, a.col(c).dot(b) / std::max(a.col(c).squaredNorm(), 1e-300));
            const double left = (a * one - b).squaredNorm();
            if (left < least) {
                least = left;
                best = one;
            }
        }
        mix = best;
    }
    return ramps * mix;
}

std::vector<orb_spectrum_line> wide_pair(const WeightedResponse& w, const Eigen::VectorXd& weight,
                                         const Eigen::VectorXd& z, const Group& g, const std::vector<double>& fine,
                                         const Eigen::VectorXd& powers_model, const Eigen::MatrixXd& ramps) {
    const FittedLines two =
        two_lines(w, weight, z, g.centroid, g.power, g.spread, fine[g.first], fine[g.last], Eigen::VectorXd());
    const Local local = seen_by(powers_model, weight);
    const double left_powers = local.chi2(powers_model - z, weight), left_two = local.chi2(line_model(w, two.lines) - z, weight);
    if (!(left_two < left_powers + std::max(kMinDrop, kWideSlack * left_powers))) return {};
    if (ramps.cols() > 0) {
        const Local near = seen_by(line_model(w, two.lines), weight);
        if (!line_on_light_better(near.chi2(straight_light(ramps, weight, z) - z, weight),
                                  near.chi2(line_model(w, two.lines) - z, weight), near.count()))
            return {};
    }
    return two.lines;
}

// A line on light that rises on one side of it (a tube's 404.7 nm on its
// blue phosphor) leaves no group of its own: its powers run on into the
// light with no dip between. Each peak of the fast result in the fine
// windows that no line took is tried as a line standing on flat light, and
// kept when line_on_light_better says so and it fits the frame nearly as
// well as the powers it replaces (broad light with a bend in it is fitted
// far better by those); the light replaces the powers around it.
void lines_on_rising_light(const WeightedResponse& w, const Eigen::VectorXd& weight, const Eigen::VectorXd& z,
                           const Eigen::MatrixXd& basis, const std::vector<double>& fine,
                           const std::vector<double>& fine_width, const std::vector<orb_spectrum_peak>& peaks, const std::vector<Window>& fine_windows,
                           std::vector<orb_spectrum_line>& chosen, Eigen::VectorXd& rest, std::vector<bool>& taken) {
    for (const orb_spectrum_peak& p : peaks) {
        const double at = p.wavelength_nm;
        if (!inside(fine_windows, at) || std::any_of(chosen.begin(), chosen.end(), [&](const orb_spectrum_line& l) {
                return std::abs(l.wavelength_nm - at) < kJoinNm / 2;
            }))
            continue;
        Eigen::VectorXd own = Eigen::VectorXd::Zero(rest.size()), flat = own;
        for (size_t c = 0; c < fine.size(); ++c)
            if (std::abs(fine[c] - at) <= kUnderHalfNm) {
                own[static_cast<Eigen::Index>(c)] = rest[static_cast<Eigen::Index>(c)];
                flat[static_cast<Eigen::Index>(c)] = fine_width[c];
            }
        const Eigen::VectorXd target = z - basis * (rest - own) - line_model(w, chosen);
        const Eigen::VectorXd under = basis * flat;
        const FittedLines light = fit_lines(w, weight, target, {}, under);
        const FittedLines line =
            fit_lines(w, weight, target, {{at, at - kPositionFreedomNm, at + kPositionFreedomNm, own.sum()}}, under);
        const Local local = seen_by(line_model(w, line.lines), weight);
        const double left_line = local.chi2(model_of(w, line, under) - target, weight);
        if (!line_on_light_better(local.chi2(model_of(w, light, under) - target, weight), left_line, local.count()) ||
            left_line > kLineOverPowers * local.chi2(basis * own - target, weight))
            continue;
        chosen.push_back(line.lines[0]);
        rest += line.under * flat - own;
        for (size_t c = 0; c < fine.size(); ++c)
            if (flat[static_cast<Eigen::Index>(c)] > 0) taken[c] = true;
    }
}

}  // namespace

Refined refine_lines(const Reconstruction& r, const LineResponse& line_response, const FrameNoise& noise,
                     const double* filters, const double* dark, double exposure_ms) {
    const WeightedResponse& w = r.weighted();
    const Eigen::Index m = static_cast<Eigen::Index>(w.filters.size());
    Eigen::VectorXd fast = r.apply_at_calibration(filters, dark, exposure_ms);
    Eigen::VectorXd y(m), counts(m);
    for (Eigen::Index i = 0; i < m; ++i) {
        const int f = w.filters[static_cast<size_t>(i)];
        counts[i] = filters[f] - dark[f];
        y[i] = w.inverse_sigma[i] * counts[i] / exposure_ms;
    }
    Eigen::VectorXd weight = noise_weights(w, noise, counts, exposure_ms, {});

    const Region region = refit_region(w.wavelength_nm, fast);
    std::vector<double> fine;
    for (const Window& v : region.outer)
        for (double nm = v.lo; nm <= v.hi + 1e-9; nm += inside(region.inner, nm) ? kFineStepNm : kCoarseStepNm)
            fine.push_back(nm);
    const Eigen::Index k = static_cast<Eigen::Index>(fine.size());
    Refined out;
    const std::vector<double>& grid = r.wavelengths();
    const std::vector<double> grid_width = sample_widths(grid);
    out.density = r.to_output(fast);
    const Eigen::VectorXd fast_output = out.density;
    if (k == 0) return out;

    // Outside the windows the fast result stays, in blocks each scaled by a
    // non-negative factor of the fit: where the light is broad a block keeps
    // its factor near 1; where there is none, the fast result's ripple would
    // otherwise stay in the frame the lines are fitted to, summed over
    // hundreds of filters far above their noise.
    const std::vector<int> block = outside_blocks(w.wavelength_nm, region.outer);
    const int blocks = block.empty() ? 0 : *std::max_element(block.begin(), block.end()) + 1;
    const Eigen::VectorXd widths_cal = Eigen::Map<const Eigen::VectorXd>(w.width_nm.data(), fast.size());
    Eigen::MatrixXd basis = Eigen::MatrixXd::Zero(m, k + blocks);
    Eigen::VectorXd column;
    for (Eigen::Index c = 0; c < k; ++c) {
        response_at(w, fine[static_cast<size_t>(c)], column, nullptr);
        basis.col(c) = column;
    }
    for (Eigen::Index j = 0; j < fast.size(); ++j)
        if (block[static_cast<size_t>(j)] >= 0)
            basis.col(k + block[static_cast<size_t>(j)]) += w.response.col(j) * (fast[j] * widths_cal[j]);
    const Eigen::VectorXd& z = y;

    // The non-negative fit, each filter weighted by its noise.
    const Eigen::MatrixXd weighted_basis = weight.asDiagonal() * basis;
    const Eigen::VectorXd weighted_z = z.cwiseProduct(weight);
    // Solved for D a, D = sqrt(diag(B^T B)), which evens out the curvature
    // along the variables so that the solver converges in far fewer steps.
    Eigen::MatrixXd gram = weighted_basis.transpose() * weighted_basis;
    gram.diagonal().array() += 1e-9 * gram.diagonal().mean();
    const Eigen::VectorXd d = gram.diagonal().cwiseSqrt();
    const Eigen::MatrixXd gram_scaled = d.cwiseInverse().asDiagonal() * gram * d.cwiseInverse().asDiagonal();
    const Eigen::VectorXd target = (weighted_basis.transpose() * weighted_z).cwiseQuotient(d);
    const double scale = 1.0 / std::max(weighted_z.squaredNorm(), 1e-300);
    // Started from the fast result's own powers on the fine grid, and the
    // blocks as they are.
    Eigen::VectorXd b(k + blocks);
    for (Eigen::Index c = 0; c < k; ++c) {
        const double nm = fine[static_cast<size_t>(c)];
        const double step = inside(region.inner, nm) ? kFineStepNm : kCoarseStepNm;
        b[c] = std::max(0.0, interpolate(w.wavelength_nm, fast, nm)) * step * d[c];
    }
    for (Eigen::Index c = k; c < k + blocks; ++c) b[c] = d[c];
    const Quadratic quadratic{gram_scaled, target, scale};
    // The solver stops a few steps from the fast result's powers: its
    // relative tolerance goes with the size of b, which the scaling makes
    // large, and further runs from there take a step or none. That early
    // stop keeps broad light smooth. Solved to convergence (a synthetic
    // tube's chi-square 95,000 -> 2,600) the fit breaks broad light into
    // spikes that the groups below take for lines, and lines from the bench
    // are placed worse (0.012 nm rms against 0.006).
    for (int run = 0; run < 3; ++run)
        minimise(quadratic, b, Eigen::VectorXd::Zero(k + blocks), Eigen::VectorXd::Constant(k + blocks, INFINITY), 1000);
    const Eigen::VectorXd a = b.cwiseQuotient(d);
    for (Eigen::Index j = 0; j < fast.size(); ++j)
        fast[j] = block[static_cast<size_t>(j)] >= 0 ? fast[j] * a[k + block[static_cast<size_t>(j)]] : 0;
    out.density = r.to_output(fast);

    // Groups of powers that each look like one line, and those spread too
    // wide for one that may be two; the rest stays as it is.
    Eigen::VectorXd rest = a;
    const std::vector<Group> groups = line_groups(a.head(k), fine);
    double strongest = 0;
    for (const Group& g : groups) strongest = std::max(strongest, g.power);
    std::vector<Group> lines, wide;
    std::vector<bool> taken(fine.size(), false);  // the powers lines took the place of
    const Eigen::VectorXd misfit = weighted_basis * a - weighted_z;
    for (const Group& g : groups) {
        if (g.power < kLineShare * strongest) {
            // A hump too faint to be a line that the frame does not need
            // either (noise, which one dim frame puts beside its line) goes.
            Eigen::VectorXd own = Eigen::VectorXd::Zero(a.size());
            for (size_t c = g.first; c <= g.last; ++c) own[static_cast<Eigen::Index>(c)] = a[static_cast<Eigen::Index>(c)];
            const Eigen::VectorXd model = weighted_basis * own;
            if ((misfit - model).squaredNorm() - misfit.squaredNorm() < kMinDrop)
                for (size_t c = g.first; c <= g.last; ++c) rest[static_cast<Eigen::Index>(c)] = 0;
            continue;
        }
        if (g.spread > kMaxPairSpreadNm) continue;
        if (g.spread > kMaxLineSpreadNm) {
            wide.push_back(g);
            continue;
        }
        lines.push_back(g);
        for (size_t c = g.first; c <= g.last; ++c) {
            rest[static_cast<Eigen::Index>(c)] = 0;
            taken[c] = true;
        }
    }

    // Each group as one line, all together, against what the rest leaves;
    // then the weights with the lines' calibration error.
    std::vector<LineSeed> seeds;
    for (const Group& g : lines)
        seeds.push_back({g.centroid, g.centroid - kPositionFreedomNm, g.centroid + kPositionFreedomNm, g.power});
    const FittedLines single = fit_lines(w, weight, z - basis * rest, seeds);
    const Eigen::VectorXd first_weight = weight;
    weight = noise_weights(w, noise, counts, exposure_ms, single.lines);

    // Each group again, one line or two, against the frame less the others.
    // Broad light in the windows (as much as a twentieth of the lines'
    // power: a fluorescent tube's phosphors) changes the rules: there a
    // line's own breadth and the light's bands leave misfits that a second
    // line, or two humps joined, would also take away.
    double line_power = 0;
    for (const Group& g : lines) line_power += g.power;
    const bool broad_light = rest.head(k).sum() > kUnderShare * line_power;
    std::vector<orb_spectrum_line> chosen;
    const Eigen::VectorXd all = line_model(w, single.lines);
    const std::vector<double> fine_width = sample_widths(fine);
    const Eigen::VectorXd rest_of_groups = rest;
    for (size_t g = 0; g < lines.size(); ++g) {
        const Eigen::VectorXd others = basis * rest_of_groups + all - line_model(w, {single.lines[g]});
        // The light under the group: a flat density over its span.
        const Group& group = lines[g];
        Eigen::VectorXd flat = Eigen::VectorXd::Zero(k + blocks);
        for (size_t c = 0; c < fine.size(); ++c)
            if (std::abs(fine[c] - group.centroid) <= kUnderHalfNm) flat[static_cast<Eigen::Index>(c)] = fine_width[c];
        // Only where the non-negative fit left such light at both ends of the
        // group (a group cut from its neighbour at a dip ends near zero on
        // its other side).
        const double level = std::min(a[static_cast<Eigen::Index>(group.first)] / fine_width[group.first],
                                      a[static_cast<Eigen::Index>(group.last)] / fine_width[group.last]);
        const bool on_light = group.spread < kMaxLineOnLightSpreadNm && level * 2 * kUnderHalfNm > kUnderShare * group.power;
        const Eigen::VectorXd under = on_light ? Eigen::VectorXd(basis * flat) : Eigen::VectorXd();
        const FittedLines found = one_or_two(w, weight, z - others, group, fine, single.lines[g], under, broad_light);
        chosen.insert(chosen.end(), found.lines.begin(), found.lines.end());
        if (under.size() > 0) rest += found.under * flat;
    }
    for (const Group& g : wide) {
        Eigen::VectorXd own = Eigen::VectorXd::Zero(a.size());
        for (size_t c = g.first; c <= g.last; ++c)
            own[static_cast<Eigen::Index>(c)] = a[static_cast<Eigen::Index>(c)];
        const Eigen::VectorXd powers_model = basis * own;
        Eigen::MatrixXd ramps = Eigen::MatrixXd::Zero(k + blocks, 2);
        for (size_t c = g.first; c <= g.last; ++c) {
            const double u = (fine[c] - fine[g.first]) / std::max(fine[g.last] - fine[g.first], 1e-9);
            ramps(static_cast<Eigen::Index>(c), 0) = (1 - u) * fine_width[c];
            ramps(static_cast<Eigen::Index>(c), 1) = u * fine_width[c];
        }
        const auto pair = wide_pair(w, weight, z - basis * rest + powers_model - all, g, fine, powers_model,
                                    broad_light ? Eigen::MatrixXd(basis * ramps) : Eigen::MatrixXd());
        if (pair.empty()) continue;
        chosen.insert(chosen.end(), pair.begin(), pair.end());
        rest -= own;
    }
    if (broad_light)
        lines_on_rising_light(w, weight, z, basis, fine, fine_width,
                              line_response.peaks(fast_output.data(), kPeakProminence), region.inner, chosen, rest,
                              taken);
    Eigen::VectorXd z_lines = z - basis * rest;
    if (!broad_light) join_neighbours(w, weight, z_lines, chosen);
    // And all together from there, each line held near where it was found.
    FittedLines fit = polished(w, weight, z_lines, chosen);
    // Lines the others, moved, no longer need are dropped, and the rest
    // polished again.
    if (drop_needless(w, weight, z_lines, fit.lines)) fit = polished(w, weight, z_lines, fit.lines);
    if (broad_light) {
        // The broad light again with the lines held (its powers were cut from
        // theirs by the humps' dips), and the lines again on it. Where lines
        // took the place of powers the light stays as their fits left it:
        // freed, it would take up what the lines leave.
        const Eigen::VectorXd held = line_model(w, fit.lines).cwiseProduct(first_weight);
        const Eigen::VectorXd again = (weighted_basis.transpose() * (weighted_z - held)).cwiseQuotient(d);
        Eigen::VectorXd powers = rest.cwiseProduct(d);
        Eigen::VectorXd lower = Eigen::VectorXd::Zero(k + blocks), upper = Eigen::VectorXd::Constant(k + blocks, INFINITY);
        for (Eigen::Index c = 0; c < k; ++c)
            if (taken[static_cast<size_t>(c)]) lower[c] = upper[c] = powers[c];
        const Quadratic rest_fit{gram_scaled, again, scale};
        minimise(rest_fit, powers, lower, upper, 1000);
        rest = powers.cwiseQuotient(d);
        z_lines = z - basis * rest;
        fit = polished(w, weight, z_lines, fit.lines);
    }
    std::sort(fit.lines.begin(), fit.lines.end(),
              [](const auto& p, const auto& q) { return p.wavelength_nm < q.wavelength_nm; });

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

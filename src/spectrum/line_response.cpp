// The operator's response to narrow lines, and the peak positions it corrects.

#include "line_response.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "sample_grid.h"
#include "spectral_peaks.h"

namespace orbspectrum {

namespace {

// A peak at most this much wider than a line's there is taken for a line and
// moved in full; one twice as wide or more is a band, whose peak the prior
// moves far less (it is smoothed by the band before the prior), and is left;
// in between the move is scaled down linearly.
constexpr double kLineLike = 1.5;
constexpr double kBand = 2.0;
// A line's peak lower than this share of its spectrum's highest value is
// not the line's (at the ends of the range it may be lost in the ringing).
constexpr double kLineProminence = 0.5;
// The prior's pull changes slowly along the range. On an output grid coarser
// than the calibration's, where a line falls between the samples moves its
// peak back and forth within a sample too (a few tenths of a nm on a 5 nm
// grid), which a table of lines a calibration step apart samples too sparsely
// to undo: there the offsets are averaged over this many output samples to
// either side, which keeps the pull and leaves the sampling's share alone.
constexpr double kSmoothingSamples = 2.0;

size_t nearest(const std::vector<double>& nm, double x) {
    const auto it = std::lower_bound(nm.begin(), nm.end(), x);
    if (it == nm.begin()) return 0;
    if (it == nm.end()) return nm.size() - 1;
    return static_cast<size_t>(x - *(it - 1) < *it - x ? it - 1 - nm.begin() : it - nm.begin());
}

double interpolate(const std::vector<double>& x, const std::vector<double>& y, double at) {
    const auto [lower, w] = bracket(x, at);
    return y[lower] + w * (y[lower + 1] - y[lower]);
}

}  // namespace

LineResponse::LineResponse(const Calibration& cal, const Reconstruction& rec) : grid_nm_(rec.wavelengths()) {
    const Eigen::Index n = static_cast<Eigen::Index>(cal.wavelength_nm.size());
    const Eigen::MatrixXd spectra = (rec.gain() * cal.response.cast<float>()).cast<double>();  // grid x N
    std::vector<double> column(grid_nm_.size());
    for (Eigen::Index j = 0; j < n; ++j) {
        Eigen::Map<Eigen::VectorXd>(column.data(), spectra.rows()) = spectra.col(j);
        const auto found = find_peaks(grid_nm_.data(), column.data(), static_cast<int>(column.size()), kLineProminence);
        if (found.empty()) continue;
        const double at = found.front().wavelength_nm;
        const double width = line_width(grid_nm_.data(), column.data(), static_cast<int>(column.size()),
                                        static_cast<int>(nearest(grid_nm_, at)), found.front().height);
        // Where the ends squeeze the peaks together the table would not be
        // one to one: only peaks further along than the last one are kept.
        if (!std::isfinite(width) || (!peak_nm_.empty() && at <= peak_nm_.back())) continue;
        peak_nm_.push_back(at);
        offset_nm_.push_back(cal.wavelength_nm[static_cast<size_t>(j)] - at);
        width_nm_.push_back(width);
    }
    const auto mean_step = [](const std::vector<double>& nm) {
        return nm.size() > 1 ? (nm.back() - nm.front()) / static_cast<double>(nm.size() - 1) : 0.0;
    };
    const double step = mean_step(grid_nm_);
    if (!(step > mean_step(cal.wavelength_nm) + 1e-9)) return;
    const double half_window = kSmoothingSamples * step;
    std::vector<double> smoothed(offset_nm_.size());
    for (size_t k = 0, lo = 0, hi = 0; k < peak_nm_.size(); ++k) {
        while (peak_nm_[lo] < peak_nm_[k] - half_window) ++lo;
        while (hi + 1 < peak_nm_.size() && peak_nm_[hi + 1] <= peak_nm_[k] + half_window) ++hi;
        double sum = 0;
        for (size_t i = lo; i <= hi; ++i) sum += offset_nm_[i];
        smoothed[k] = sum / static_cast<double>(hi - lo + 1);
    }
    offset_nm_ = std::move(smoothed);
}

std::vector<orb_spectrum_peak> LineResponse::peaks(const double* value, double min_prominence) const {
    const int count = static_cast<int>(grid_nm_.size());
    std::vector<orb_spectrum_peak> found = find_peaks(grid_nm_.data(), value, count, min_prominence);
    if (peak_nm_.size() < 2) return found;
    for (orb_spectrum_peak& p : found) {
        const double width = line_width(grid_nm_.data(), value, count,
                                        static_cast<int>(nearest(grid_nm_, p.wavelength_nm)), p.height);
        const double ratio = width / interpolate(peak_nm_, width_nm_, p.wavelength_nm);
        const double share = std::isfinite(ratio) ? std::clamp((kBand - ratio) / (kBand - kLineLike), 0.0, 1.0) : 0.0;
        p.wavelength_nm += share * interpolate(peak_nm_, offset_nm_, p.wavelength_nm);
    }
    return found;
}

}  // namespace orbspectrum

// The reconstruction operator: regularised least squares with a
// second-difference smoothness prior weighted by the filters' width and a
// small ridge, the filters weighted
// by their noise, reduced once to one float matrix that a frame meets in a
// single matrix-vector product.

#include "reconstruction.h"

#include <algorithm>
#include <cmath>

#include "engine_error.h"
#include "sample_grid.h"
#include "smoothness_prior.h"
#include "strength_choice.h"

namespace orbspectrum {

namespace {

// The ADC's full scale: the reference frame for the choice of strength puts
// its brightest filter at 70% of what is left of it above the dark.
constexpr double kFullScale = 4095.0;
constexpr double kReferenceLevel = 0.7;
// The ridge beside the smoothness prior, relative to it: enough to make the
// prior definite (a straight line is otherwise free), too small to bias
// anything the filters see.
constexpr double kRidge = 1e-3;
// Below the ADC's quantisation noise a filter's measured dark noise is not
// believed (a quiet filter would otherwise take all the weight).
constexpr double kNoiseFloor = 0.29;
constexpr double kLibraryFirstNm = 340.0, kLibraryLastNm = 1100.0, kLibraryStepNm = 5.0;

std::vector<double> output_grid(const std::vector<double>& cal, double grid) {
    if (grid == ORB_SPECTRUM_GRID_CALIBRATION) return cal;
    double first = cal.front(), last = cal.back(), step = grid;
    if (grid == ORB_SPECTRUM_GRID_LIBRARY) {
        first = kLibraryFirstNm;
        last = kLibraryLastNm;
        step = kLibraryStepNm;
    } else if (!(grid >= ORB_SPECTRUM_MIN_STEP_NM && grid <= ORB_SPECTRUM_MAX_STEP_NM)) {
        throw EngineError(ORB_SPECTRUM_ERR_STEP, "a grid step of " + std::to_string(grid) +
                                                     " nm; the step must be 0.5 to 10 nm (or the calibration's or "
                                                     "the library's grid)");
    }
    std::vector<double> out;
    for (int k = 0;; ++k) {
        const double nm = first + k * step;
        if (nm > last + 1e-9) break;
        out.push_back(nm);
    }
    return out;
}

// Linear interpolation from the calibration's wavelengths; 0 outside them.
Eigen::MatrixXd interpolation(const std::vector<double>& from, const std::vector<double>& to) {
    Eigen::MatrixXd t = Eigen::MatrixXd::Zero(static_cast<Eigen::Index>(to.size()), static_cast<Eigen::Index>(from.size()));
    for (size_t r = 0; r < to.size(); ++r) {
        const double x = to[r];
        if (x < from.front() - 1e-9 || x > from.back() + 1e-9) continue;
        const auto [lower, w] = bracket(from, x);
        t(static_cast<Eigen::Index>(r), static_cast<Eigen::Index>(lower)) = 1 - w;
        t(static_cast<Eigen::Index>(r), static_cast<Eigen::Index>(lower + 1)) = w;
    }
    return t;
}

// Catmull-Rom tangents along wavelength of each row.
Eigen::MatrixXd tangents(const Eigen::MatrixXd& r, const std::vector<double>& nm) {
    const Eigen::Index n = r.cols();
    Eigen::MatrixXd t(r.rows(), n);
    for (Eigen::Index j = 0; j < n; ++j) {
        const Eigen::Index a = std::max<Eigen::Index>(j - 1, 0), b = std::min<Eigen::Index>(j + 1, n - 1);
        t.col(j) = (r.col(b) - r.col(a)) / (nm[static_cast<size_t>(b)] - nm[static_cast<size_t>(a)]);
    }
    return t;
}

}  // namespace

Reconstruction::Reconstruction(const Calibration& cal, double grid, double strength, int averages) {
    output_nm_ = output_grid(cal.wavelength_nm, grid);
    const Eigen::Index n = static_cast<Eigen::Index>(cal.wavelength_nm.size());

    WeightedResponse& w = weighted_;
    for (int i = 0; i < kFilters; ++i)
        if (!cal.unusable[static_cast<size_t>(i)]) w.filters.push_back(i);
    const Eigen::Index m = static_cast<Eigen::Index>(w.filters.size());
    if (m < 2) throw EngineError(ORB_SPECTRUM_ERR_COMPUTE, "the calibration leaves fewer than 2 usable filters");
    w.wavelength_nm = cal.wavelength_nm;
    w.width_nm = sample_widths(cal.wavelength_nm);
    const Eigen::Map<const Eigen::VectorXd> width(w.width_nm.data(), n);

    // The reference exposure t0 puts a flat spectrum's brightest filter at
    // 70% of the ADC's range above the dark.
    double peak = 0;
    for (int f : w.filters) peak = std::max(peak, cal.response.row(f).dot(width));
    if (!(peak > 0)) throw EngineError(ORB_SPECTRUM_ERR_COMPUTE, "the calibration's filters see no light");
    const double t0 = kReferenceLevel * std::max(kFullScale - cal.dark.row(0).mean(), 1.0) / peak;

    // Each filter's noise in that frame: its own (over the frames averaged)
    // and what the calibration's errors put into a flat spectrum's counts.
    // The second is why a filter measured noisily at calibration weighs less.
    w.inverse_sigma.resize(m);
    w.response.resize(m, n);
    const double frames = std::max(1, averages);
    for (Eigen::Index r = 0; r < m; ++r) {
        const int f = w.filters[static_cast<size_t>(r)];
        const double own = std::pow(std::max(cal.noise[f], kNoiseFloor), 2) / frames;
        const double model = t0 * t0 * cal.response_error.row(f).cwiseProduct(width.transpose()).squaredNorm();
        w.inverse_sigma[r] = 1.0 / std::sqrt(own + model);
        w.response.row(r) = cal.response.row(f) * w.inverse_sigma[r];
    }
    w.slope = tangents(w.response, w.wavelength_nm);

    // The whitened system for a density S: counts at the reference exposure
    // over their noise, A = diag(1/sigma) R diag(width) t0.
    Eigen::MatrixXd a = w.response * width.asDiagonal();
    a *= t0;
    const Eigen::VectorXd flat = a.rowwise().sum();

    // The prior P = D^T W^2 D + ridge I = L L^T (smoothness_prior.cpp); z = L^T S
    // turns the problem into ridge regression on A L^-T, whose SVD gives both
    // GCV and the operator.
    const Eigen::MatrixXd prior = smoothness_prior(cal, kRidge);
    const Eigen::LLT<Eigen::MatrixXd> llt(prior);
    if (llt.info() != Eigen::Success) throw EngineError(ORB_SPECTRUM_ERR_COMPUTE, "the smoothness prior is not definite");
    const Eigen::MatrixXd whitened = llt.matrixL().solve(a.transpose()).transpose();  // A L^-T
    const Eigen::BDCSVD<Eigen::MatrixXd> svd(whitened, Eigen::ComputeThinU | Eigen::ComputeThinV);
    const Eigen::VectorXd& s = svd.singularValues();
    strength_ = strength > 0 ? strength
                             : gcv_strength(s, svd.matrixU().transpose() * flat, flat.squaredNorm(), static_cast<int>(m));

    const Eigen::VectorXd filter = s.array() / (s.array().square() + strength_);
    const Eigen::MatrixXd z_gain = svd.matrixV() * filter.asDiagonal() * svd.matrixU().transpose();
    const Eigen::MatrixXd density_gain = llt.matrixU().solve(z_gain);  // from whitened counts at t0
    // With the whitening and t0 folded in, the gain takes counts per ms.
    Eigen::MatrixXd full = Eigen::MatrixXd::Zero(n, kFilters);
    for (Eigen::Index r = 0; r < m; ++r)
        full.col(w.filters[static_cast<size_t>(r)]) = density_gain.col(r) * (w.inverse_sigma[r] * t0);
    if (output_nm_ == cal.wavelength_nm) {
        gain_ = full.cast<float>();
    } else {
        interpolation_ = interpolation(cal.wavelength_nm, output_nm_);
        gain_ = (interpolation_ * full).cast<float>();
        calibration_gain_ = full.cast<float>();
    }
}

}  // namespace orbspectrum

namespace orbspectrum {

void Reconstruction::apply(const double* filters, const double* dark, double exposure_ms, double* out) const {
    Eigen::Matrix<float, kFilters, 1> signal;
    for (int i = 0; i < kFilters; ++i) signal[i] = static_cast<float>(filters[i] - dark[i]);
    Eigen::VectorXf density(gain_.rows());
    density.noalias() = gain_ * signal;
    const double scale = 1.0 / exposure_ms;
    for (Eigen::Index j = 0; j < density.size(); ++j) out[j] = density[j] * scale;
}

Eigen::VectorXd Reconstruction::apply_at_calibration(const double* filters, const double* dark,
                                                     double exposure_ms) const {
    Eigen::Matrix<float, kFilters, 1> signal;
    for (int i = 0; i < kFilters; ++i) signal[i] = static_cast<float>(filters[i] - dark[i]);
    const Eigen::MatrixXf& g = calibration_gain_.size() > 0 ? calibration_gain_ : gain_;
    return (g * signal).cast<double>() / exposure_ms;
}

Eigen::VectorXd Reconstruction::to_output(const Eigen::VectorXd& density) const {
    return interpolation_.size() > 0 ? Eigen::VectorXd(interpolation_ * density) : density;
}

}  // namespace orbspectrum

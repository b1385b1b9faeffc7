#ifndef ORB_SPECTRUM_RECONSTRUCTION_H
#define ORB_SPECTRUM_RECONSTRUCTION_H

#include <Eigen/Dense>
#include <vector>

#include "calibration.h"

namespace orbspectrum {

// What the refinement needs of the calibration, restricted to the filters
// used and whitened by their noise.
struct WeightedResponse {
    std::vector<int> filters;        // the filters used, ascending
    Eigen::VectorXd inverse_sigma;   // 1 / noise of one frame, per filter used
    std::vector<double> wavelength_nm;
    std::vector<double> width_nm;    // the wavelength span each calibration sample stands for
    Eigen::MatrixXd response;        // filters used x N, whitened, counts per ms per unit power
    Eigen::MatrixXd slope;           // its Catmull-Rom tangents along wavelength, per nm
};

// The reconstruction operator (docs/spectra.md, "Reconstruction"): built once,
// then a spectrum is gain * (filters - dark) / exposure.
class Reconstruction {
public:
    Reconstruction(const Calibration& calibration, double grid, double strength, int averages);

    const std::vector<double>& wavelengths() const { return output_nm_; }
    double strength() const { return strength_; }
    int filters_used() const { return static_cast<int>(weighted_.filters.size()); }
    const WeightedResponse& weighted() const { return weighted_; }
    // Output grid x 1024: a frame's density is gain * (filters - dark) / exposure.
    const Eigen::MatrixXf& gain() const { return gain_; }

    // Density on the output grid; filters and dark are 1024 counts.
    void apply(const double* filters, const double* dark, double exposure_ms, double* out) const;
    // Density on the calibration's own wavelengths.
    Eigen::VectorXd apply_at_calibration(const double* filters, const double* dark, double exposure_ms) const;
    // Output-grid interpolation of a density on the calibration's wavelengths.
    Eigen::VectorXd to_output(const Eigen::VectorXd& density) const;

private:
    std::vector<double> output_nm_;
    WeightedResponse weighted_;
    double strength_ = 0;
    Eigen::MatrixXf gain_;              // output x 1024
    Eigen::MatrixXf calibration_gain_;  // N x 1024 (empty when the output grid is the calibration's)
    Eigen::MatrixXd interpolation_;     // output x N (empty when the output grid is the calibration's)
};

}  // namespace orbspectrum

#endif

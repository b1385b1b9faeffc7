#ifndef ORB_SPECTRUM_FRAME_NOISE_H
#define ORB_SPECTRUM_FRAME_NOISE_H

#include <Eigen/Dense>
#include <vector>

#include "calibration.h"

namespace orbspectrum {

// How far a frame's counts may be from what a spectrum predicts, per filter
// used: the dark's noise, the light's shot noise and the calibration's own
// error in the responses the prediction is made of. The operator's weights
// know only the first (and the calibration's error for a flat spectrum); a
// line puts hundreds of counts on a few filters, whose shot noise then
// outweighs the dark's several times over.
class FrameNoise {
public:
    FrameNoise(const Calibration& calibration, const std::vector<int>& filters, int averages);

    // Variance of each filter used (counts, of the frames averaged) given the
    // counts above the dark it holds.
    double variance(Eigen::Index row, double counts) const {
        return dark_variance_[row] + shot_ * std::max(counts, 0.0);
    }
    // The standard error of the response of a filter used to a line at nm,
    // counts per ms per unit power.
    double response_error(Eigen::Index row, double nm) const;
    // Counts of variance per count of light in one frame, as the calibration's
    // steps measured it.
    double shot_per_frame() const { return shot_ * frames_; }

private:
    std::vector<double> wavelength_nm_;
    Eigen::VectorXd dark_variance_;  // per filter used, of the frames averaged
    double shot_ = 0;                // of the frames averaged
    double frames_ = 1;
    Eigen::MatrixXd response_error_; // filters used x N
};

// The shot noise of the sensor, counts of variance per count (of one frame),
// from a calibration's steps: each step's scatter over its frames is the dark
// noise plus that share of the counts (0 when the steps tell nothing).
double shot_noise_gain(const Calibration& calibration, const std::vector<int>& filters);

}  // namespace orbspectrum

#endif

#ifndef ORB_SPECTRUM_LINE_FIT_H
#define ORB_SPECTRUM_LINE_FIT_H

#include <Eigen/Dense>
#include <vector>

#include "orb_spectrum.h"
#include "reconstruction.h"

namespace orbspectrum {

// The whitened responses of the filters used to a line at nm (cubic Hermite
// between the calibration's wavelengths with Catmull-Rom tangents), and
// their slope along nm.
void response_at(const WeightedResponse& w, double nm, Eigen::VectorXd& value, Eigen::VectorXd* slope);

// Where a line's fit starts and how far it may go.
struct LineSeed {
    double nm, lo, hi, power;
};

struct FittedLines {
    std::vector<orb_spectrum_line> lines;  // in the seeds' order
    double under = 0;                      // how much of the light under them
    double chi2 = 0;                       // |weight (model - z)|^2
};

// Lines of free position (each within its seed's bounds) and non-negative
// power fitted to z, a frame whitened as w is, each filter's residual
// multiplied by weight; with a non-empty under, also a non-negative multiple
// of it (light the lines stand on, as w whitens it).
FittedLines fit_lines(const WeightedResponse& w, const Eigen::VectorXd& weight, const Eigen::VectorXd& z,
                      const std::vector<LineSeed>& seeds, const Eigen::VectorXd& under = Eigen::VectorXd());

// What the lines put on the filters, whitened as w is.
Eigen::VectorXd line_model(const WeightedResponse& w, const std::vector<orb_spectrum_line>& lines);

}  // namespace orbspectrum

#endif

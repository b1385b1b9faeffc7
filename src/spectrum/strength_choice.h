#ifndef ORB_SPECTRUM_STRENGTH_CHOICE_H
#define ORB_SPECTRUM_STRENGTH_CHOICE_H

#include <Eigen/Dense>

namespace orbspectrum {

// Generalised cross-validation in the prior-whitened system (docs/spectra.md,
// "Choosing the strength"): singular values s of the whitened matrix (m rows),
// the reference frame's projections c = U^T y on its left singular vectors and
// |y|^2. Returns the strength that minimises the expected GCV score of the
// reference frame with unit noise per row.
double gcv_strength(const Eigen::VectorXd& s, const Eigen::VectorXd& c, double y_norm2, int m);

// The expected GCV score itself, for one strength.
double gcv_score(const Eigen::VectorXd& s, const Eigen::VectorXd& c, double y_norm2, int m, double strength);

}  // namespace orbspectrum

#endif

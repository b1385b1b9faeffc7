#ifndef ORB_SPECTRUM_SMOOTHNESS_PRIOR_H
#define ORB_SPECTRUM_SMOOTHNESS_PRIOR_H

#include <Eigen/Dense>
#include <vector>

#include "calibration.h"

namespace orbspectrum {

// The filters' width (FWHM, nm) at each of the calibration's wavelengths: a
// cubic in wavelength fitted to every usable filter's width as its response
// row shows it, against the wavelength of its peak.
std::vector<double> filter_width_nm(const Calibration& calibration);

// The prior P = D^T W^2 D + ridge I on the density at the calibration's
// wavelengths: D the second difference, W each one's weight, the filters'
// width there relative to the narrowest.
Eigen::MatrixXd smoothness_prior(const Calibration& calibration, double ridge);

}  // namespace orbspectrum

#endif

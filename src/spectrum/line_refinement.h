#ifndef ORB_SPECTRUM_LINE_REFINEMENT_H
#define ORB_SPECTRUM_LINE_REFINEMENT_H

#include <Eigen/Dense>
#include <vector>

#include "frame_noise.h"
#include "line_response.h"
#include "orb_spectrum.h"
#include "reconstruction.h"

namespace orbspectrum {

struct Refined {
    Eigen::VectorXd density;               // on the output grid
    std::vector<orb_spectrum_line> lines;  // strongest first
};

// The non-negative refinement for line spectra (docs/spectra.md).
Refined refine_lines(const Reconstruction& r, const LineResponse& line_response, const FrameNoise& noise,
                     const double* filters, const double* dark, double exposure_ms);

}  // namespace orbspectrum

#endif

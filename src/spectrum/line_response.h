#ifndef ORB_SPECTRUM_LINE_RESPONSE_H
#define ORB_SPECTRUM_LINE_RESPONSE_H

#include <vector>

#include "calibration.h"
#include "orb_spectrum.h"
#include "reconstruction.h"

namespace orbspectrum {

// Where the operator puts the peak of a narrow line: its own spectrum of each
// calibration line (the measured response to it), peaked as any spectrum is.
// The prior pulls a line's peak toward where the filters see more, by up to a
// few nm in the red where they are widest and silicon fades; the table turns
// a peak found back into the line that makes it.
class LineResponse {
public:
    LineResponse(const Calibration& calibration, const Reconstruction& reconstruction);

    // Peaks of a spectrum on the operator's grid, highest first; those as
    // narrow as a line moved to the line that makes them.
    std::vector<orb_spectrum_peak> peaks(const double* value, double min_prominence) const;

private:
    std::vector<double> grid_nm_;
    std::vector<double> peak_nm_;    // where a line's peak is found, ascending
    std::vector<double> offset_nm_;  // the line's wavelength less that
    std::vector<double> width_nm_;   // the line's peak's width (line_width)
};

}  // namespace orbspectrum

#endif

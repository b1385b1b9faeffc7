#ifndef ORB_SPECTRUM_SPECTRAL_PEAKS_H
#define ORB_SPECTRUM_SPECTRAL_PEAKS_H

#include <vector>

#include "orb_spectrum.h"

namespace orbspectrum {

// Peaks of a sampled spectrum, highest first (orb_spectrum_peaks). The
// samples at the ends are never peaks: nothing lies beyond them to place a
// vertex or measure a prominence against.
std::vector<orb_spectrum_peak> find_peaks(const double* nm, const double* value, int count, double min_prominence);

// A peak's width from the half-height crossings about sample i, its top:
// twice the narrower half width, which a peak has also where one side does
// not fall to half (at an end of the range); NaN where neither side does.
double line_width(const double* nm, const double* value, int count, int i, double height);

}  // namespace orbspectrum

#endif

#ifndef ORB_SPECTRUM_SPECTRAL_PEAKS_H
#define ORB_SPECTRUM_SPECTRAL_PEAKS_H

#include <vector>

#include "orb_spectrum.h"

namespace orbspectrum {

// Peaks of a sampled spectrum, highest first (orb_spectrum_peaks). The
// samples at the ends are never peaks: nothing lies beyond them to place a
// vertex or measure a prominence against.
std::vector<orb_spectrum_peak> find_peaks(const double* nm, const double* value, int count, double min_prominence);

}  // namespace orbspectrum

#endif

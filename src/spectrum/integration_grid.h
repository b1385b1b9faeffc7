#ifndef ORB_SPECTRUM_INTEGRATION_GRID_H
#define ORB_SPECTRUM_INTEGRATION_GRID_H

#include <vector>

#include "cie_tables.h"

namespace orbspectrum {

// The tables to sum a spectrum's colorimetry on. When every sample of the
// spectrum within the tables' range falls on their 5 nm grid (or the
// spectrum is coarser), that grid itself: the spectrum is interpolated onto
// it and summed as CIE 15 does, which the CIE's published values assume.
// Otherwise a spectrum sampled between the grid's points would be read only
// at them, and a line narrower than 5 nm under-weighted or missed: the grid
// is then the spectrum's own samples together with the tables' points over
// the range both cover, every table interpolated onto it by CIE 167's
// Sprague formula (in the outermost two steps, where the formula lacks
// neighbours, by the cubic through the nearest four points), with trapezoid weights. `own` holds those tables; the
// result refers to it or to `base`.
const CieTables& integration_tables(const CieTables& base, const double* wl, int count, CieTables& own);

// values, given on the uniform grid `from` (at least 2 points), at each
// wavelength of `to` within it, by the Sprague interpolation of CIE 167.
std::vector<double> sprague(const std::vector<double>& from, const std::vector<double>& values,
                            const std::vector<double>& to);

}  // namespace orbspectrum

#endif

#ifndef ORB_SPECTRUM_PEAK_CENTROID_H
#define ORB_SPECTRUM_PEAK_CENTROID_H

namespace orbspectrum {

inline constexpr double kVisibleFromNm = 380.0, kVisibleToNm = 780.0;

// On the spectrum's own samples (wl strictly ascending, covering the visible
// range), over 380 to 780 nm.

// The highest sample, moved to the vertex of the parabola through it and its
// two neighbours, so that a line between samples is placed between them.
double peak_wavelength(const double* wl, const double* value, int count);

// The power-weighted mean wavelength, integrated by the trapezoid rule
// between the samples (the ends interpolated at 380 and 780 nm); NaN when
// the integral of the values is not positive.
double centroid_wavelength(const double* wl, const double* value, int count);

}  // namespace orbspectrum

#endif

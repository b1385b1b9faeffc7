#ifndef ORB_SIM_LIGHT_SOURCES_H
#define ORB_SIM_LIGHT_SOURCES_H

// Spectra of the light sources the emulated sensor can look at, in arbitrary
// units of spectral power: the scenes scale them (scenes.h). Shapes follow the
// physics of each source; the numbers are plausible, not measured.

#include <array>
#include <utility>
#include <vector>

#include "filter_model.h"

namespace orbsim {

// An emission line far narrower than any filter: all its power at one wavelength.
struct SpectralLine {
    double nm;
    double power;
};

// The curves are linear between grid points, so a continuum meets them
// exactly through its average over each grid point's triangle (the point
// and its neighbours, weighted by distance): that is what `continuum`
// holds. A spectrum smooth on the scale of a nm is its value at the grid
// point; a band narrower than a step spreads over the two or three points
// around it, its power and its mean wavelength kept.
struct Spectrum {
    std::array<double, kGridPoints> continuum{};  // power per nm at grid_nm(k)
    std::vector<SpectralLine> lines;
};

// Planck's law, per nm, scaled so that the curve's maximum is 1 at 6500 K;
// a cooler body is dimmer by the same law.
double planck(double nm, double kelvin);

// A tungsten-halogen lamp: a blackbody at the filament's temperature
// (2856 K, as for the standard incandescent illuminant).
Spectrum halogen_spectrum(double kelvin = 2856);
// A blue InGaN die at 450 nm and the broad yellow hump of its cerium-doped
// garnet phosphor; nothing in the infrared.
Spectrum white_led_spectrum();
// A tri-phosphor fluorescent tube: mercury lines, the narrow terbium and
// europium phosphor lines, weak argon lines in the near infrared, a faint
// continuum under them.
Spectrum fluorescent_spectrum();
// One line.
Spectrum laser_spectrum(double nm);
// A monochromator's output: a Gaussian band of full width `fwhm` around
// `nm` (any fraction of a nm) that carries the same number of photons
// wherever it is centred: one unit of photons, counted as the scenes count
// them (power x nm / 550). What reaches past either end of the grid is seen
// at that end.
Spectrum line_spectrum(double nm, double fwhm);
// A spectrum given as (nm, power per nm) points in ascending order: linear
// between them, zero outside them and outside the grid.
Spectrum piecewise_spectrum(const std::vector<std::pair<double, double>>& points);
// Daylight: a 5778 K blackbody through the atmosphere (Rayleigh scattering,
// the strongest Fraunhofer lines, the oxygen and water bands).
Spectrum sun_spectrum();

}  // namespace orbsim

#endif

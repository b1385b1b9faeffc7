#ifndef ORB_SIM_FILTER_MODEL_H
#define ORB_SIM_FILTER_MODEL_H

// A model of the sensor's 1024 optical filters: for each filter, the
// fraction of photons at each wavelength that it passes and the silicon under
// it turns into electrons. A smooth, plausible family of curves (narrow
// Fabry-Perot-like pass bands with the neighbouring cavity orders as side
// lobes, on a silicon photodiode), not a measured sensor.

#include <cstddef>
#include <vector>

#include "sensor_model.h"

namespace orbsim {

// Every curve and spectrum is sampled on one wavelength grid.
inline constexpr double kMinNm = 340;
inline constexpr double kMaxNm = 1100;
inline constexpr double kStepNm = 1;
inline constexpr std::size_t kGridPoints = 761;  // (kMaxNm - kMinNm) / kStepNm + 1

inline constexpr double grid_nm(std::size_t k) { return kMinNm + kStepNm * static_cast<double>(k); }

// Filter i's pass band is centred here in the nominal model; the centres
// rise with the index and span the grid.
double filter_centre_nm(std::size_t filter);
// The nominal pass band's full width at half maximum: a constant resolving
// power, so the bands widen toward the infrared.
double filter_width_nm(std::size_t filter);

// One filter of the stack: where its main pass band sits, how wide it is,
// what it transmits at its centre, and what leaks through the blocking
// layers everywhere else. A real unit's filters differ from the nominal
// ones (units.h).
struct FilterShape {
    double centre_nm;
    double width_nm;  // full width at half maximum
    double peak;      // transmission at the centre, 0..1
    double leak;      // transmission far from every pass band
};
FilterShape nominal_shape(std::size_t filter);

// Quantum efficiency of the bare silicon photodiode (0..1).
double silicon_qe(double nm);
// The filter stack's transmission alone (0..1), computed, not sampled.
double filter_transmission(const FilterShape& filter, double nm);

// filter_transmission x silicon_qe, precomputed on the grid for a set of
// 1024 filters (a few tens of milliseconds, 3 MB).
class FilterBank {
public:
    // The nominal filters, made the first time they are asked for.
    static const FilterBank& nominal();
    explicit FilterBank(const std::vector<FilterShape>& filters);

    // kGridPoints samples of filter i's response.
    const float* curve(std::size_t filter) const { return &response_[filter * kGridPoints]; }
    // The response at any wavelength in range, linear between grid points;
    // 0 outside the grid. For spectral lines, which are narrower than a step.
    double at(std::size_t filter, double nm) const;

private:
    std::vector<float> response_;  // kFilters rows of kGridPoints
};

}  // namespace orbsim

#endif

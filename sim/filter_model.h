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

// Filter i's pass band is centred here; the centres rise with the index and
// span the grid.
double filter_centre_nm(std::size_t filter);
// The pass band's full width at half maximum: a constant resolving power,
// so the bands widen toward the infrared.
double filter_width_nm(std::size_t filter);

// Quantum efficiency of the bare silicon photodiode (0..1).
double silicon_qe(double nm);
// The filter stack's transmission alone (0..1), computed, not sampled.
double filter_transmission(std::size_t filter, double nm);

// filter_transmission x silicon_qe, precomputed on the grid for all filters
// the first time it is asked for (a few tens of milliseconds).
class FilterBank {
public:
    static const FilterBank& get();

    // kGridPoints samples of filter i's response.
    const float* curve(std::size_t filter) const { return &response_[filter * kGridPoints]; }
    // The response at any wavelength in range, linear between grid points;
    // 0 outside the grid. For spectral lines, which are narrower than a step.
    double at(std::size_t filter, double nm) const;

private:
    FilterBank();
    std::vector<float> response_;  // kFilters rows of kGridPoints
};

}  // namespace orbsim

#endif

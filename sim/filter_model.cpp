#include "filter_model.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace orbsim {

namespace {

// Resolving power lambda / FWHM of a pass band: 5.7 nm wide at 340 nm,
// 9.2 nm at 550 nm, 18 nm at 1100 nm. Wide enough that neighbouring filters
// (0.74 nm apart) overlap, as they do in a filter-array spectrometer.
constexpr double kResolvingPower = 60;

// The pass band is a cavity resonance of order 4; the resonances of orders 5
// and 3 (at 4/5 and 4/3 of the centre) leak through the blocking layers as
// side lobes.
constexpr double kOrder = 4;
constexpr double kShortLobe = 0.07;
constexpr double kLongLobe = 0.05;
// What the blocking layers let through everywhere else.
constexpr double kLeak = 0.0005;
// A resonance is mostly Gaussian with some Lorentzian in its wings.
constexpr double kLorentzShare = 0.1;

// The photodiode: a surface layer whose electrons recombine before they are
// collected, and a collection depth beyond which photons are lost. 25 um of
// silicon keeps some response up to 1050 nm; the band gap ends it near 1100.
constexpr double kDeadLayerUm = 0.01;
constexpr double kCollectionUm = 25;
constexpr double kSurfaceTransmission = 0.9;  // what the anti-reflection coating lets in

// Approximate absorption length of crystalline silicon at room temperature,
// in um, interpolated logarithmically.
constexpr std::array<std::pair<double, double>, 20> kAbsorptionUm{{
    {340, 0.0094}, {350, 0.0098}, {360, 0.0108}, {370, 0.015}, {380, 0.03}, {390, 0.06}, {400, 0.105}, {450, 0.39},
    {500, 0.91},   {550, 1.56},   {600, 2.44},  {650, 3.57},  {700, 5.26},  {800, 11.8},
    {850, 18.7},   {900, 32.7},   {950, 63.7},  {1000, 156},  {1050, 613},  {1100, 2857},
}};

double absorption_um(double nm) {
    if (nm <= kAbsorptionUm.front().first) return kAbsorptionUm.front().second;
    for (std::size_t k = 1; k < kAbsorptionUm.size(); k++) {
        const auto [x1, y1] = kAbsorptionUm[k];
        if (nm <= x1) {
            const auto [x0, y0] = kAbsorptionUm[k - 1];
            const double f = (nm - x0) / (x1 - x0);
            return std::exp(std::log(y0) + f * (std::log(y1) - std::log(y0)));
        }
    }
    return kAbsorptionUm.back().second;
}

// Unit-height resonance of full width `fwhm` at `centre`.
double resonance(double nm, double centre, double fwhm) {
    const double u = (nm - centre) / fwhm;
    const double gauss = std::exp(-4 * std::log(2.0) * u * u);
    const double lorentz = 1 / (1 + 4 * u * u);
    return (1 - kLorentzShare) * gauss + kLorentzShare * lorentz;
}

// The stack transmits best in the red; thin metal and dielectric layers lose
// more toward both ends.
double peak_transmission(double centre) {
    const double x = (centre - 700) / 400;
    return 0.85 - 0.25 * x * x;
}

}  // namespace

double filter_centre_nm(std::size_t filter) {
    return kMinNm + (kMaxNm - kMinNm) * static_cast<double>(filter) / static_cast<double>(kFilters - 1);
}

double filter_width_nm(std::size_t filter) { return filter_centre_nm(filter) / kResolvingPower; }

FilterShape nominal_shape(std::size_t filter) {
    const double c = filter_centre_nm(filter);
    return {c, filter_width_nm(filter), peak_transmission(c), kLeak};
}

double silicon_qe(double nm) {
    const double length = absorption_um(nm);
    return kSurfaceTransmission * (std::exp(-kDeadLayerUm / length) - std::exp(-kCollectionUm / length));
}

double filter_transmission(const FilterShape& f, double nm) {
    const double c = f.centre_nm;
    const double w = f.width_nm;
    const double shorter = c * kOrder / (kOrder + 1);
    const double longer = c * kOrder / (kOrder - 1);
    const double t = resonance(nm, c, w) + kShortLobe * resonance(nm, shorter, w * shorter / c) +
                     kLongLobe * resonance(nm, longer, w * longer / c);
    return std::min(1.0, f.peak * t + f.leak);
}

const FilterBank& FilterBank::nominal() {
    static const FilterBank bank = [] {
        std::vector<FilterShape> shapes(kFilters);
        for (std::size_t i = 0; i < kFilters; i++) shapes[i] = nominal_shape(i);
        return FilterBank(shapes);
    }();
    return bank;
}

FilterBank::FilterBank(const std::vector<FilterShape>& filters) : response_(kFilters * kGridPoints) {
    std::array<double, kGridPoints> qe;
    for (std::size_t k = 0; k < kGridPoints; k++) qe[k] = silicon_qe(grid_nm(k));
    for (std::size_t i = 0; i < kFilters; i++)
        for (std::size_t k = 0; k < kGridPoints; k++)
            response_[i * kGridPoints + k] = static_cast<float>(filter_transmission(filters.at(i), grid_nm(k)) * qe[k]);
}

double FilterBank::at(std::size_t filter, double nm) const {
    if (!(nm >= kMinNm && nm <= kMaxNm)) return 0;
    const double x = (nm - kMinNm) / kStepNm;
    const std::size_t k = std::min(static_cast<std::size_t>(x), kGridPoints - 2);
    const double f = x - static_cast<double>(k);
    const float* c = curve(filter);
    return (1 - f) * c[k] + f * c[k + 1];
}

}  // namespace orbsim

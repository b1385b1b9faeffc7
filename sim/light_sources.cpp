#include "light_sources.h"

#include <cmath>

namespace orbsim {

namespace {

constexpr double kSecondRadiationConstant = 1.4388e7;  // hc/k in nm K

double planck_raw(double nm, double kelvin) {
    return std::pow(nm, -5.0) / std::expm1(kSecondRadiationConstant / (nm * kelvin));
}

double gauss(double nm, double centre, double sigma) {
    const double u = (nm - centre) / sigma;
    return std::exp(-0.5 * u * u);
}

// A band steeper on one side than the other, as phosphor emission is.
double split_gauss(double nm, double centre, double sigma_below, double sigma_above) {
    return gauss(nm, centre, nm < centre ? sigma_below : sigma_above);
}

template <typename F>
Spectrum sampled(F power_per_nm) {
    Spectrum s;
    for (std::size_t k = 0; k < kGridPoints; k++) s.continuum[k] = power_per_nm(grid_nm(k));
    return s;
}

// An absorption feature of the solar spectrum at the ground.
struct Dip {
    double nm, depth, sigma;
};
constexpr Dip kSunDips[] = {
    // Fraunhofer lines: calcium K and H, the G band, hydrogen beta, magnesium b,
    // iron E, sodium D, hydrogen alpha. Narrower in the sun than here; the
    // filters could not tell.
    {393.4, 0.5, 1.0}, {396.8, 0.5, 1.0}, {430.8, 0.25, 1.2}, {486.1, 0.25, 0.8},
    {517.5, 0.25, 1.5}, {527.0, 0.15, 0.8}, {589.3, 0.25, 0.8}, {656.3, 0.3, 0.8},
    // The atmosphere: ozone's broad Chappuis band, oxygen B and A, water vapour.
    {600, 0.05, 50}, {687.0, 0.35, 2}, {720, 0.2, 8}, {760.5, 0.7, 2.5},
    {820, 0.25, 10}, {940, 0.8, 18}, {1125, 0.9, 20},
};

}  // namespace

double planck(double nm, double kelvin) {
    static const double peak_6500 = planck_raw(2.8978e6 / 6500, 6500);
    return planck_raw(nm, kelvin) / peak_6500;
}

Spectrum halogen_spectrum(double kelvin) {
    return sampled([kelvin](double nm) { return planck(nm, kelvin); });
}

Spectrum white_led_spectrum() {
    return sampled([](double nm) { return gauss(nm, 450, 8.5) + 0.5 * split_gauss(nm, 560, 45, 65); });
}

Spectrum fluorescent_spectrum() {
    // The europium-doped blue phosphor's weak band and the tails of the
    // others, between the lines.
    Spectrum s = sampled([](double nm) {
        const double tails = nm > 380 && nm < 720 ? 0.006 : 0.0;
        return 0.02 * gauss(nm, 450, 25) + tails;
    });
    s.lines = {
        // mercury
        {365.0, 0.05}, {404.7, 0.25}, {435.8, 0.9}, {546.1, 1.0}, {577.0, 0.08}, {579.1, 0.08}, {1014.0, 0.05},
        // terbium (green phosphor)
        {487.7, 0.35}, {543.5, 1.2}, {585.5, 0.12}, {621.0, 0.08},
        // europium (red phosphor)
        {587.6, 0.1}, {593.0, 0.08}, {611.6, 1.6}, {626.0, 0.1}, {631.0, 0.2}, {650.0, 0.05}, {707.0, 0.1},
        {710.0, 0.08},
        // the argon fill
        {696.5, 0.02}, {763.5, 0.05}, {811.5, 0.06}, {842.5, 0.03}, {912.3, 0.04},
    };
    return s;
}

Spectrum laser_spectrum(double nm) {
    Spectrum s;
    s.lines = {{nm, 1.0}};
    return s;
}

Spectrum sun_spectrum() {
    return sampled([](double nm) {
        // One and a half air masses of Rayleigh scattering and a light aerosol.
        const double um = nm / 1000;
        const double rayleigh = 0.0088 * std::pow(um, -4.05);
        const double aerosol = 0.1 * std::pow(um / 0.5, -1.3);
        double t = std::exp(-1.5 * (rayleigh + aerosol));
        for (const Dip& d : kSunDips) t *= 1 - d.depth * gauss(nm, d.nm, d.sigma);
        return planck(nm, 5778) * t;
    });
}

}  // namespace orbsim

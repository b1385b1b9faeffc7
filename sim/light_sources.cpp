#include "light_sources.h"

#include <algorithm>
#include <cmath>

namespace orbsim {

namespace {

constexpr double kSecondRadiationConstant = 1.4388e7;  // hc/k in nm K
constexpr double kPi = 3.14159265358979323846;

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

Spectrum line_spectrum(double nm, double fwhm) {
    // With unit area, the band's integrals over a stretch [a, b]:
    // area(a, b) and first(a, b) = the integral of (x - nm) x band.
    const double sigma = fwhm / std::sqrt(8 * std::log(2.0));
    const auto cdf = [&](double x) { return 0.5 * std::erfc(-(x - nm) / (sigma * std::sqrt(2.0))); };
    const auto pdf = [&](double x) { return gauss(x, nm, sigma) / (sigma * std::sqrt(2 * kPi)); };
    const auto area = [&](double a, double b) { return cdf(b) - cdf(a); };
    const auto first = [&](double a, double b) { return sigma * sigma * (pdf(a) - pdf(b)); };

    Spectrum s;
    const double reach = 8 * sigma + kStepNm;
    for (std::size_t k = 0; k < kGridPoints; k++) {
        const double x = grid_nm(k);
        if (std::abs(x - nm) > reach) continue;
        // The triangle of grid point k: rising from x - step, falling to x + step.
        const double left = x - kStepNm, right = x + kStepNm;
        double w = 0;
        // Beyond either end of the grid the curves are taken to go on as
        // they are at the end, so a band there is seen whole.
        if (k > 0) w += (first(left, x) + (nm - left) * area(left, x)) / kStepNm;
        else w += cdf(x);
        if (k + 1 < kGridPoints) w += ((right - nm) * area(x, right) - first(x, right)) / kStepNm;
        else w += 1 - cdf(x);
        // w photons, as power per nm at x.
        s.continuum[k] = w * 550 / x / kStepNm;
    }
    return s;
}

Spectrum piecewise_spectrum(const std::vector<std::pair<double, double>>& points) {
    Spectrum s;
    // Every stretch between consecutive breakpoints (the points' and the
    // grid's) is linear in both the spectrum and the triangles, so Simpson's
    // rule gives each triangle's share exactly.
    for (std::size_t j = 0; j + 1 < points.size(); j++) {
        const auto [x0, y0] = points[j];
        const auto [x1, y1] = points[j + 1];
        const auto value = [&](double x) { return y0 + (y1 - y0) * (x - x0) / (x1 - x0); };
        double a = std::max(x0, kMinNm);
        const double end = std::min(x1, kMaxNm);
        while (a < end) {
            const auto k = std::min(static_cast<std::size_t>((a - kMinNm) / kStepNm), kGridPoints - 2);
            const double g = grid_nm(k), b = std::min(end, g + kStepNm), m = (a + b) / 2;
            if (b <= a) break;  // rounding at the end of the grid
            const double fa = value(a), fm = value(m), fb = value(b);
            const auto rise = [&](double x) { return (x - g) / kStepNm; };  // grid point k + 1's triangle
            const double to_next = (b - a) / 6 * (fa * rise(a) + 4 * fm * rise(m) + fb * rise(b));
            const double stretch = (b - a) / 6 * (fa + 4 * fm + fb);
            s.continuum[k] += (stretch - to_next) / kStepNm;
            s.continuum[k + 1] += to_next / kStepNm;
            a = b;
        }
    }
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

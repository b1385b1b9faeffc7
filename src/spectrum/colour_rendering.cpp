// The CIE colour rendering index (CIE 13.3).

#include "colour_rendering.h"

#include <cmath>

#include "planckian_locus.h"

namespace orbspectrum {

namespace {

constexpr double kDaylightReferenceFromK = 5000.0;

// c and d of the von Kries transform in CIE 13.3.
struct Cd {
    double c, d;
};

Cd cd(Uv p) { return {(4.0 - p.u - 10.0 * p.v) / p.v, (1.708 * p.v + 0.404 - 1.481 * p.u) / p.v}; }

struct Uvw {
    double u, v, w;
};

// CIE 1964 U*V*W* of a sample of luminance factor y (source Y = 100) and
// chromaticity p, against the white w.
Uvw uvw(double y, Uv p, Uv white) {
    const double w = 25.0 * std::cbrt(y) - 17.0;
    return {13.0 * w * (p.u - white.u), 13.0 * w * (p.v - white.v), w};
}

}  // namespace

std::vector<double> daylight_spectrum(const CieTables& tables, double t_k) {
    const double t = t_k, t2 = t * t, t3 = t2 * t;
    const double x = t <= 7000.0 ? -4.6070e9 / t3 + 2.9678e6 / t2 + 0.09911e3 / t + 0.244063
                                 : -2.0064e9 / t3 + 1.9018e6 / t2 + 0.24748e3 / t + 0.237040;
    const double y = -3.000 * x * x + 2.870 * x - 0.275;
    const double m = 0.0241 + 0.2562 * x - 0.7341 * y;
    const double m1 = (-1.3515 - 1.7703 * x + 5.9114 * y) / m;
    const double m2 = (0.0300 - 31.4424 * x + 30.0717 * y) / m;
    std::vector<double> out(tables.wavelength_nm.size());
    for (size_t i = 0; i < out.size(); i++)
        out[i] = tables.daylight[0][i] + m1 * tables.daylight[1][i] + m2 * tables.daylight[2][i];
    return out;
}

ColourRendering colour_rendering(const CieTables& tables, const std::vector<double>& s, const Xyz& s_xyz,
                                 double cct_k) {
    const std::vector<double> ref = cct_k < kDaylightReferenceFromK
                                        ? planckian_spectrum(tables.wavelength_nm, cct_k)
                                        : daylight_spectrum(tables, cct_k);
    const Xyz r_xyz = tristimulus(ref, tables.cmf_2deg, tables.weight_nm);
    const Uv k = uv_1960(s_xyz), r = uv_1960(r_xyz);
    const Cd ck = cd(k), cr = cd(r);
    const double scale_k = 100.0 / s_xyz.Y, scale_r = 100.0 / r_xyz.Y;

    ColourRendering out{};
    out.delta_c = std::hypot(k.u - r.u, k.v - r.v);
    double sum = 0;
    for (int i = 0; i < kSpecialIndices; i++) {
        const std::vector<double>& tcs = tables.tcs[static_cast<size_t>(i)];
        const Xyz under_r = tristimulus(ref, tcs, tables.cmf_2deg, tables.weight_nm);
        const Xyz under_k = tristimulus(s, tcs, tables.cmf_2deg, tables.weight_nm);
        const Uv ri = uv_1960(under_r), ki = uv_1960(under_k);
        // The sample under the source, adapted to the reference's white.
        const Cd cki = cd(ki);
        const double c = cr.c / ck.c * cki.c, d = cr.d / ck.d * cki.d;
        const double den = 16.518 + 1.481 * c - d;
        const Uv adapted{(10.872 + 0.404 * c - 4.0 * d) / den, 5.520 / den};
        const Uvw a = uvw(under_r.Y * scale_r, ri, r);
        const Uvw b = uvw(under_k.Y * scale_k, adapted, r);
        const double de = std::sqrt((a.u - b.u) * (a.u - b.u) + (a.v - b.v) * (a.v - b.v) + (a.w - b.w) * (a.w - b.w));
        out.r[static_cast<size_t>(i)] = 100.0 - 4.6 * de;
        if (i < kGeneralIndexSamples) sum += out.r[static_cast<size_t>(i)];
    }
    out.ra = sum / kGeneralIndexSamples;
    return out;
}

}  // namespace orbspectrum

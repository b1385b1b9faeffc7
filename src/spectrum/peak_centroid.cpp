// Peak and centroid wavelengths over the visible range.

#include "peak_centroid.h"

#include <cmath>

namespace orbspectrum {

double peak_wavelength(const double* wl, const double* value, int count) {
    int m = -1;
    for (int i = 0; i < count; i++)
        if (wl[i] >= kVisibleFromNm && wl[i] <= kVisibleToNm && (m < 0 || value[i] > value[m])) m = i;
    if (m <= 0 || m + 1 >= count) return wl[m < 0 ? 0 : m];
    const double x0 = wl[m - 1], x1 = wl[m], x2 = wl[m + 1];
    const double y0 = value[m - 1], y1 = value[m], y2 = value[m + 1];
    const double den = (x0 - x1) * (x0 - x2) * (x1 - x2);
    const double a = (x2 * (y1 - y0) + x1 * (y0 - y2) + x0 * (y2 - y1)) / den;
    const double b = (x2 * x2 * (y0 - y1) + x1 * x1 * (y2 - y0) + x0 * x0 * (y1 - y2)) / den;
    // A plateau has no vertex to move to.
    if (!(a < 0)) return x1;
    const double lo = std::fmax(x0, kVisibleFromNm), hi = std::fmin(x2, kVisibleToNm);
    return std::fmin(std::fmax(-b / (2.0 * a), lo), hi);
}

double centroid_wavelength(const double* wl, const double* value, int count) {
    double power = 0, moment = 0;
    for (int i = 0; i + 1 < count; i++) {
        const double lo = std::fmax(wl[i], kVisibleFromNm), hi = std::fmin(wl[i + 1], kVisibleToNm);
        if (hi <= lo) continue;
        const double slope = (value[i + 1] - value[i]) / (wl[i + 1] - wl[i]);
        const double s_lo = value[i] + slope * (lo - wl[i]), s_hi = value[i] + slope * (hi - wl[i]);
        power += 0.5 * (s_lo + s_hi) * (hi - lo);
        moment += 0.5 * (lo * s_lo + hi * s_hi) * (hi - lo);
    }
    return power > 0 ? moment / power : NAN;
}

}  // namespace orbspectrum

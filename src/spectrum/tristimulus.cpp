// Tristimulus values by weighted sums on the tables' grid.

#include "tristimulus.h"

namespace orbspectrum {

void resample(const double* wl, const double* value, int count, const std::vector<double>& grid_nm,
              std::vector<double>& out) {
    out.assign(grid_nm.size(), 0.0);
    int k = 0;
    for (size_t i = 0; i < grid_nm.size(); i++) {
        const double g = grid_nm[i];
        if (g < wl[0] || g > wl[count - 1]) continue;
        // Both walk upwards: the whole resampling is one pass.
        while (k + 2 < count && wl[k + 1] < g) k++;
        const double f = (g - wl[k]) / (wl[k + 1] - wl[k]);
        out[i] = value[k] + f * (value[k + 1] - value[k]);
    }
}

Xyz tristimulus(const std::vector<double>& s, const std::array<std::vector<double>, 3>& cmf,
                const std::vector<double>& weight_nm) {
    double x = 0, y = 0, z = 0;
    for (size_t i = 0; i < s.size(); i++) {
        const double sw = s[i] * weight_nm[i];
        x += sw * cmf[0][i];
        y += sw * cmf[1][i];
        z += sw * cmf[2][i];
    }
    return {x, y, z};
}

Xyz tristimulus(const std::vector<double>& s, const std::vector<double>& reflectance,
                const std::array<std::vector<double>, 3>& cmf, const std::vector<double>& weight_nm) {
    double x = 0, y = 0, z = 0;
    for (size_t i = 0; i < s.size(); i++) {
        const double sr = s[i] * reflectance[i] * weight_nm[i];
        x += sr * cmf[0][i];
        y += sr * cmf[1][i];
        z += sr * cmf[2][i];
    }
    return {x, y, z};
}

Uv uv_1960(const Xyz& c) {
    const double d = c.X + 15.0 * c.Y + 3.0 * c.Z;
    return {4.0 * c.X / d, 6.0 * c.Y / d};
}

}  // namespace orbspectrum

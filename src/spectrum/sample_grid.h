#ifndef ORB_SPECTRUM_SAMPLE_GRID_H
#define ORB_SPECTRUM_SAMPLE_GRID_H

#include <algorithm>
#include <cstddef>
#include <vector>

namespace orbspectrum {

// Where at falls on ascending samples x (at least 2): between x[lower] and
// x[lower + 1], fraction of the way (0 before the first, 1 after the last).
struct Bracket {
    size_t lower;
    double fraction;
};

inline Bracket bracket(const std::vector<double>& x, double at) {
    size_t j = static_cast<size_t>(std::upper_bound(x.begin(), x.end(), at) - x.begin());
    j = std::clamp<size_t>(j, 1, x.size() - 1);
    return {j - 1, std::clamp((at - x[j - 1]) / (x[j] - x[j - 1]), 0.0, 1.0)};
}

// The span of wavelengths each sample stands for: half the distance between
// its neighbours (one neighbour at the ends).
inline std::vector<double> sample_widths(const std::vector<double>& nm) {
    const size_t n = nm.size();
    std::vector<double> w(n);
    for (size_t j = 0; j < n; ++j) w[j] = 0.5 * (nm[std::min(j + 1, n - 1)] - nm[j == 0 ? 0 : j - 1]);
    return w;
}

}  // namespace orbspectrum

#endif

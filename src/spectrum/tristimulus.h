#ifndef ORB_SPECTRUM_TRISTIMULUS_H
#define ORB_SPECTRUM_TRISTIMULUS_H

#include <array>
#include <cstddef>
#include <vector>

namespace orbspectrum {

struct Xyz {
    double X, Y, Z;
};

// CIE 1960 UCS (u, v); v' of CIE 1976 is 1.5 v.
struct Uv {
    double u, v;
};

// The value of a spectrum at each grid wavelength, by linear interpolation
// between its samples, 0 outside them. wl is strictly ascending.
void resample(const double* wl, const double* value, int count, const std::vector<double>& grid_nm,
              std::vector<double>& out);

// The sum over the tables' grid X = sum S(l) xbar(l) w(l), w the weights of
// CieTables::weight_nm.
Xyz tristimulus(const std::vector<double>& s, const std::array<std::vector<double>, 3>& cmf,
                const std::vector<double>& weight_nm);
// The same for S(l) R(l), a surface of reflectance R under S.
Xyz tristimulus(const std::vector<double>& s, const std::vector<double>& reflectance,
                const std::array<std::vector<double>, 3>& cmf, const std::vector<double>& weight_nm);

Uv uv_1960(const Xyz& c);

}  // namespace orbspectrum

#endif

#ifndef ORB_SPECTRUM_DOMINANT_WAVELENGTH_H
#define ORB_SPECTRUM_DOMINANT_WAVELENGTH_H

#include <vector>

#include "cie_tables.h"

namespace orbspectrum {

struct Dominant {
    double wavelength_nm;  // negative: the complementary wavelength of a purple
    double purity;         // excitation purity
};

// The 1931 spectrum locus from 380 to 780 nm (beyond, it barely moves and
// folds back on itself) closed by the purple line.
class SpectrumLocus {
public:
    explicit SpectrumLocus(const CieTables& tables);
    // Dominant wavelength and excitation purity of (x, y) seen from the white
    // (xw, yw) (CIE 15): where the ray from the white through the point
    // meets the locus. When it meets the purple line instead, the opposite ray
    // gives the complementary wavelength and the purity is measured to the
    // purple line. NaN and 0 at the white itself.
    Dominant dominant(double x, double y, double xw, double yw) const;

private:
    // The nearest crossing (ray parameter t > 0) of the ray from w along d
    // with the locus; false when it crosses none.
    bool hit(double wx, double wy, double dx, double dy, double& t, double& nm) const;

    std::vector<double> nm_, x_, y_;
};

}  // namespace orbspectrum

#endif

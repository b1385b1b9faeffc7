#ifndef ORB_SPECTRUM_PLANCKIAN_LOCUS_H
#define ORB_SPECTRUM_PLANCKIAN_LOCUS_H

#include <vector>

#include "cie_tables.h"
#include "tristimulus.h"

namespace orbspectrum {

// The range over which a correlated colour temperature is given.
inline constexpr double kMinCctK = 1000.0;
inline constexpr double kMaxCctK = 100000.0;

// Spectral radiance of a Planckian radiator by Planck's law (c2 = 1.4388e-2
// m K, as CIE 15 uses), relative: the scale is arbitrary but the same for
// every temperature.
std::vector<double> planckian_spectrum(const std::vector<double>& grid_nm, double t_k);

struct CctDuv {
    double cct_k;
    double duv;
    bool in_range;  // false (and both NaN) outside kMinCctK..kMaxCctK
};

// The Planckian locus in the CIE 1960 UCS, tabulated with the 1931
// colour-matching functions at 1 nm, and Ohno's combined triangular and parabolic
// search on it (LEUKOS 10(1), 2014).
class PlanckianLocus {
public:
    explicit PlanckianLocus(const CieTables& tables);
    CctDuv cct(Uv p) const;

private:
    std::vector<double> t_, u_, v_;
};

}  // namespace orbspectrum

#endif

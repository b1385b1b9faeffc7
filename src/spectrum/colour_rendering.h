#ifndef ORB_SPECTRUM_COLOUR_RENDERING_H
#define ORB_SPECTRUM_COLOUR_RENDERING_H

#include <array>
#include <vector>

#include "cie_tables.h"
#include "tristimulus.h"

namespace orbspectrum {

inline constexpr int kSpecialIndices = 14;
inline constexpr int kGeneralIndexSamples = 8;

// CIE daylight of correlated colour temperature t_k from S0, S1 and S2
// (CIE 15), relative. The chromaticity formula of 7000 to 25000 K serves
// beyond 25000 K as well.
std::vector<double> daylight_spectrum(const CieTables& tables, double t_k);

struct ColourRendering {
    double ra;
    std::array<double, kSpecialIndices> r;
    double delta_c;  // source to reference illuminant, CIE 1960 UCS
};

// CIE 13.3 for the spectrum s (on the tables' grid, tristimulus s_xyz for the
// 1931 observer) of correlated colour temperature cct_k: the reference is the
// Planckian radiator below 5000 K and CIE daylight from 5000 K, the samples are
// adapted by von Kries in the CIE 1960 UCS, and the colour differences taken
// in CIE 1964 U*V*W*.
ColourRendering colour_rendering(const CieTables& tables, const std::vector<double>& s, const Xyz& s_xyz,
                                 double cct_k);

}  // namespace orbspectrum

#endif

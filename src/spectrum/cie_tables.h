#ifndef ORB_SPECTRUM_CIE_TABLES_H
#define ORB_SPECTRUM_CIE_TABLES_H

#include <array>
#include <string>
#include <vector>

namespace orbspectrum {

// The CIE tables the colorimetry needs, all on one grid: as loaded, the grid
// of the 1931 colour-matching functions as colord-data has them (360 to
// 830 nm, 5 nm); for a spectrum sampled between those, the grid of
// integration_tables (integration_grid.h).
struct CieTables {
    std::vector<double> wavelength_nm;
    // Each sample's share of the integral: the grid's step on the tables' own
    // grid (CIE 15's summation), trapezoid weights on another.
    std::vector<double> weight_nm;
    std::array<std::vector<double>, 3> cmf_2deg;   // xbar, ybar, zbar, CIE 1931
    std::array<std::vector<double>, 3> cmf_10deg;  // CIE 1964
    std::array<std::vector<double>, 3> daylight;   // S0, S1, S2 (CIE 15)
    std::vector<std::vector<double>> tcs;          // reflectances of TCS01 to TCS14 (CIE 13.3)
};

// data_dir when not empty, else $ORB_COLORD_DIR when set and not empty, else
// /usr/share/colord.
std::string colord_dir(const char* data_dir);

// Reads cmf/CIE1931-2deg-XYZ.cmf, cmf/CIE1964-10deg-XYZ.cmf,
// ref/CIE-1986-daylight-SPD.cmf and ref/CIE-TCS.sp under dir. Throws
// ColourError (see read_spectral_file).
CieTables load_cie_tables(const std::string& dir);

}  // namespace orbspectrum

#endif

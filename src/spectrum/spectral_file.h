#ifndef ORB_SPECTRUM_SPECTRAL_FILE_H
#define ORB_SPECTRUM_SPECTRAL_FILE_H

#include <string>
#include <cstddef>
#include <vector>

namespace orbspectrum {

// One of colord-data's spectral tables (.cmf, .sp): CGATS-style text with
// SPECTRAL_START_NM, SPECTRAL_END_NM and SPECTRAL_BANDS in the header, the
// field names between BEGIN_DATA_FORMAT and END_DATA_FORMAT (SPEC_... for
// each band, optionally a SAMPLE_ID first), and NUMBER_OF_SETS sets of values
// between BEGIN_DATA and END_DATA, the bands evenly spaced from start to end.
struct SpectralFile {
    double start_nm = 0;
    double step_nm = 0;
    std::vector<std::string> ids;            // SAMPLE_ID of each set, when the file has them
    std::vector<std::vector<double>> sets;   // each one value per band

    double wavelength(size_t band) const { return start_nm + step_nm * static_cast<double>(band); }
    // A set linearly interpolated at the given wavelengths, 0 outside the file's range.
    std::vector<double> on_grid(size_t set, const std::vector<double>& grid_nm) const;
};

// Throws ColourError: vn_ec_fail_to_create_color_object when the file cannot
// be opened (the message names it and the package that carries it),
// vn_ec_fail_to_initialize_color_object when it is not such a table.
SpectralFile read_spectral_file(const std::string& path);

}  // namespace orbspectrum

#endif

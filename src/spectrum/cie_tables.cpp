// The CIE tables, from colord-data, on one grid.

#include "cie_tables.h"

#include <cstdlib>

#include "colour_error.h"
#include "orb_error_codes.h"
#include "spectral_file.h"

namespace orbspectrum {

namespace {

constexpr int kTestColourSamples = 14;

// Every computation integrates over 380 to 780 nm at least.
void check_covers_visible(const SpectralFile& f, const std::string& path) {
    const double last = f.wavelength(f.sets[0].size() - 1);
    if (f.start_nm > 380.0 + 1e-9 || last < 780.0 - 1e-9)
        throw ColourError(vn_ec_fail_to_initialize_color_object,
                          path + " does not cover 380 to 780 nm; reinstall the Debian package colord-data");
}

SpectralFile read_table(const std::string& path, size_t min_sets) {
    SpectralFile f = read_spectral_file(path);
    if (f.sets.size() < min_sets)
        throw ColourError(vn_ec_fail_to_initialize_color_object,
                          path + " has " + std::to_string(f.sets.size()) + " sets where " +
                              std::to_string(min_sets) + " are needed; reinstall the Debian package colord-data");
    check_covers_visible(f, path);
    return f;
}

std::array<std::vector<double>, 3> three(const SpectralFile& f, const std::vector<double>& grid) {
    return {f.on_grid(0, grid), f.on_grid(1, grid), f.on_grid(2, grid)};
}

}  // namespace

std::string colord_dir(const char* data_dir) {
    if (data_dir != nullptr && *data_dir != '\0') return data_dir;
    const char* env = std::getenv("ORB_COLORD_DIR");
    if (env != nullptr && *env != '\0') return env;
    return "/usr/share/colord";
}

CieTables load_cie_tables(const std::string& dir) {
    const SpectralFile cmf2 = read_table(dir + "/cmf/CIE1931-2deg-XYZ.cmf", 3);
    const SpectralFile cmf10 = read_table(dir + "/cmf/CIE1964-10deg-XYZ.cmf", 3);
    const SpectralFile daylight = read_table(dir + "/ref/CIE-1986-daylight-SPD.cmf", 3);
    const std::string tcs_path = dir + "/ref/CIE-TCS.sp";
    const SpectralFile tcs = read_table(tcs_path, kTestColourSamples);

    CieTables t;
    for (size_t i = 0; i < cmf2.sets[0].size(); i++) t.wavelength_nm.push_back(cmf2.wavelength(i));
    t.weight_nm.assign(t.wavelength_nm.size(), cmf2.step_nm);
    t.cmf_2deg = {cmf2.sets[0], cmf2.sets[1], cmf2.sets[2]};
    t.cmf_10deg = three(cmf10, t.wavelength_nm);
    t.daylight = three(daylight, t.wavelength_nm);
    // The file carries a fifteenth sample (CIE 13.3 has fourteen); they are
    // taken by name so that their order in the file does not matter.
    for (int i = 1; i <= kTestColourSamples; i++) {
        const std::string id = (i < 10 ? "TCS0" : "TCS") + std::to_string(i);
        size_t k = 0;
        while (k < tcs.ids.size() && tcs.ids[k] != id) k++;
        if (k == tcs.ids.size())
            throw ColourError(vn_ec_fail_to_initialize_color_object,
                              tcs_path + " has no sample " + id + "; reinstall the Debian package colord-data");
        t.tcs.push_back(tcs.on_grid(k, t.wavelength_nm));
    }
    return t;
}

}  // namespace orbspectrum

// Reading colord-data's spectral tables.

#include "spectral_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "colour_error.h"
#include "orb_error_codes.h"

namespace orbspectrum {

namespace {

[[noreturn]] void malformed(const std::string& path, const std::string& why) {
    throw ColourError(vn_ec_fail_to_initialize_color_object,
                      path + " is not a spectral table of the expected shape (" + why +
                          "); reinstall the Debian package colord-data");
}

// from_chars, unlike strtod, ignores the host's locale.
bool parse_number(const std::string& token, double& out) {
    const char* end = token.data() + token.size();
    auto [ptr, ec] = std::from_chars(token.data(), end, out);
    return ec == std::errc() && ptr == end && std::isfinite(out);
}

std::vector<std::string> tokens(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string t; in >> t;) out.push_back(t);
    return out;
}

}  // namespace

std::vector<double> SpectralFile::on_grid(size_t set, const std::vector<double>& grid_nm) const {
    const std::vector<double>& values = sets.at(set);
    std::vector<double> out(grid_nm.size(), 0.0);
    const double last = static_cast<double>(values.size() - 1);
    for (size_t i = 0; i < grid_nm.size(); i++) {
        const double pos = (grid_nm[i] - start_nm) / step_nm;
        // A hair of tolerance so that a grid point on the table's end is not lost to rounding.
        if (pos < -1e-9 || pos > last + 1e-9) continue;
        const double clamped = std::fmin(std::fmax(pos, 0.0), last);
        const size_t k = std::min(static_cast<size_t>(clamped), values.size() - 2);
        const double f = clamped - static_cast<double>(k);
        out[i] = values[k] + f * (values[k + 1] - values[k]);
    }
    return out;
}

SpectralFile read_spectral_file(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        const int err = errno;
        throw ColourError(vn_ec_fail_to_create_color_object,
                          "cannot open " + path + " (" + std::strerror(err) +
                              "): install the Debian package colord-data, or point ORB_COLORD_DIR at its "
                              "/usr/share/colord");
    }
    double start = NAN, end = NAN;
    long bands = -1, sets = -1;
    std::vector<std::string> fields;
    std::vector<std::string> data;
    enum { kHeader, kFormat, kData, kDone } state = kHeader;
    for (std::string line; std::getline(in, line) && state != kDone;) {
        std::vector<std::string> t = tokens(line);
        if (t.empty()) continue;
        switch (state) {
        case kHeader:
            if (t[0] == "BEGIN_DATA_FORMAT") state = kFormat;
            else if (t[0] == "BEGIN_DATA") state = kData;
            else if (t.size() == 2 && t[0] == "SPECTRAL_START_NM") parse_number(t[1], start);
            else if (t.size() == 2 && t[0] == "SPECTRAL_END_NM") parse_number(t[1], end);
            else if (t.size() == 2 && t[0] == "SPECTRAL_BANDS") bands = std::atol(t[1].c_str());
            else if (t.size() == 2 && t[0] == "NUMBER_OF_SETS") sets = std::atol(t[1].c_str());
            break;
        case kFormat:
            if (t[0] == "END_DATA_FORMAT") state = kHeader;
            else fields.insert(fields.end(), t.begin(), t.end());
            break;
        case kData:
            if (t[0] == "END_DATA") state = kDone;
            else data.insert(data.end(), t.begin(), t.end());
            break;
        case kDone:
            break;
        }
    }
    if (state != kDone) malformed(path, "no BEGIN_DATA ... END_DATA");
    if (!std::isfinite(start) || !std::isfinite(end) || bands < 2 || end <= start)
        malformed(path, "no valid SPECTRAL_START_NM, SPECTRAL_END_NM and SPECTRAL_BANDS");
    const bool with_ids = !fields.empty() && fields[0] == "SAMPLE_ID";
    const size_t per_set = static_cast<size_t>(bands) + (with_ids ? 1 : 0);
    if (fields.size() != per_set) malformed(path, "the field names do not match SPECTRAL_BANDS");
    if (sets < 1 || data.size() != per_set * static_cast<size_t>(sets))
        malformed(path, "the values do not fill NUMBER_OF_SETS sets");

    SpectralFile out;
    out.start_nm = start;
    out.step_nm = (end - start) / static_cast<double>(bands - 1);
    for (long s = 0; s < sets; s++) {
        size_t k = static_cast<size_t>(s) * per_set;
        if (with_ids) out.ids.push_back(data[k++]);
        std::vector<double> values(static_cast<size_t>(bands));
        for (double& v : values)
            if (!parse_number(data[k++], v)) malformed(path, "a value is not a number: " + data[k - 1]);
        out.sets.push_back(std::move(values));
    }
    return out;
}

}  // namespace orbspectrum

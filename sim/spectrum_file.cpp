#include "spectrum_file.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "filter_model.h"

namespace orbsim {

namespace {

std::string trimmed(const std::string& s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

std::string number_text(double v) {
    std::string s = std::to_string(v);
    s.erase(s.find_last_not_of('0') + 1);
    if (s.back() == '.') s.pop_back();
    return s;
}

bool parse_number(const std::string& word, double* value) {
    if (word.empty()) return false;
    const char* begin = word.c_str();
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(begin, &end);
    if (end != begin + word.size() || errno == ERANGE || !std::isfinite(v)) return false;
    *value = v;
    return true;
}

bool read_spectrum_file(const std::string& path, std::vector<std::pair<double, double>>* out, std::string* why) {
    std::ifstream in(path);
    if (!in) {
        *why = path + ": cannot read it (" + std::strerror(errno) + ")";
        return false;
    }
    std::vector<std::pair<double, double>> rows;
    bool first_row = true;
    std::string text;
    for (int n = 1; std::getline(in, text); n++) {
        const std::string line = trimmed(text.substr(0, text.find('#')));
        if (line.empty()) continue;
        const auto fail = [&](const std::string& what) {
            *why = path + " line " + std::to_string(n) + ": " + what;
            return false;
        };
        const auto comma = line.find(',');
        if (comma == std::string::npos || line.find(',', comma + 1) != std::string::npos)
            return fail("want 'wavelength_nm,value', not '" + line + "'");
        const std::string nm_word = trimmed(line.substr(0, comma)), value_word = trimmed(line.substr(comma + 1));
        double nm = 0, value = 0;
        const bool nm_ok = parse_number(nm_word, &nm), value_ok = parse_number(value_word, &value);
        const bool header = first_row && !nm_ok && !value_ok;
        first_row = false;
        if (header) continue;
        if (!nm_ok) return fail("wavelength '" + nm_word + "' is not a number");
        if (!value_ok) return fail("value '" + value_word + "' is not a number");
        if (nm < kMinNm || nm > kMaxNm)
            return fail("wavelength " + nm_word + " nm is outside " + number_text(kMinNm) + " to " +
                        number_text(kMaxNm) + " nm");
        if (!rows.empty() && nm <= rows.back().first)
            return fail("wavelength " + nm_word + " nm is not above the one before (" + number_text(rows.back().first) +
                        " nm)");
        if (value < 0) return fail("value " + value_word + " is negative");
        rows.emplace_back(nm, value);
    }
    if (in.bad()) {
        *why = path + ": cannot read it (" + std::strerror(errno) + ")";
        return false;
    }
    if (rows.size() < 2) {
        *why = path + (rows.empty() ? ": no rows of data" : ": one row of data is no spectrum (at least two)");
        return false;
    }
    *out = std::move(rows);
    return true;
}

}  // namespace orbsim

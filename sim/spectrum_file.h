#ifndef ORB_SIM_SPECTRUM_FILE_H
#define ORB_SIM_SPECTRUM_FILE_H

// A spectrum from a file, for the `file PATH` scene: CSV rows
// `wavelength_nm,value` (power per nm, any unit), wavelengths ascending
// within 340 to 1100 nm on any grid, values not negative. Blank lines and
// `#` comments (whole lines or the rest of one) are skipped, and the first
// row may be a header of two words that are not numbers.

#include <string>
#include <utility>
#include <vector>

namespace orbsim {

// false, with one line in *why naming the file, the line number where there
// is one, and what is wrong (unreadable, not a number, not ascending,
// negative, out of range, empty), and *out left alone.
bool read_spectrum_file(const std::string& path, std::vector<std::pair<double, double>>* out, std::string* why);

// Whether the whole word is one finite number.
bool parse_number(const std::string& word, double* value);
// A number as a person writes it: 340, 0.1, 1000000.
std::string number_text(double v);

}  // namespace orbsim

#endif

// File names and paths from hosts (output files, configuration tables): the
// pieces are always parts of the path they came from, never read past it.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "utils/orb_utils_interface.h"

namespace {

bool starts_with(const std::string& s, const std::string& prefix) { return s.compare(0, prefix.size(), prefix) == 0; }

bool ends_with(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string path(reinterpret_cast<const char*>(data), size);

    const std::string name = orb_utils_interface::get_file_name(path);
    if (name.find_first_of("\\ /") != std::string::npos || path.find(name) == std::string::npos) abort();

    const std::string folder = orb_utils_interface::get_file_path(path);
    if (!starts_with(path, folder)) abort();
    const std::string stem = orb_utils_interface::get_file_name_only(path);
    if (!starts_with(path.substr(folder.size()), stem)) abort();
    if (!ends_with(path, orb_utils_interface::get_file_extension(path))) abort();

    const std::string trimmed = orb_utils_interface::trim_string(path);
    if (path.find(trimmed) == std::string::npos) abort();
    if (!trimmed.empty() && (trimmed.front() == ' ' || trimmed.back() == ' ')) abort();

    if (orb_utils_interface::to_lower(path).size() != size || orb_utils_interface::to_upper(path).size() != size)
        abort();
    return 0;
}

// Where a sensor's calibration is looked for (docs/spectra.md): the
// directories of $ORB_CALIBRATION_PATH, the user's data directory, then the
// installed tree's share directory, found from where this library lies so
// that an installed tree can be moved.

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>

#include "calibration.h"
#include "engine_error.h"

namespace orbspectrum {

namespace {

bool is_file(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

// <prefix>/share/orb-sensor/calibrations for the <prefix>/lib that holds
// this library.
std::string installed_directory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&installed_directory), &info) == 0 || info.dli_fname == nullptr) return "";
    std::string lib(info.dli_fname);
    const size_t slash = lib.rfind('/');
    if (slash == std::string::npos) return "";
    return lib.substr(0, slash) + "/../share/orb-sensor/calibrations";
}

}  // namespace

std::string calibration_file_name(const std::string& sensor_id) {
    std::string name = sensor_id;
    for (char& ch : name) {
        const bool kept = (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9') ||
                          ch == '.' || ch == '_' || ch == '-';
        if (!kept) ch = '_';
    }
    return name + ".h5";
}

std::vector<std::string> calibration_directories() {
    std::vector<std::string> dirs;
    const std::string path = env(ORB_CALIBRATION_PATH_VARIABLE);
    size_t start = 0;
    while (start <= path.size()) {
        const size_t end = path.find(':', start);
        const std::string dir = path.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!dir.empty()) dirs.push_back(dir);
        if (end == std::string::npos) break;
        start = end + 1;
    }
    const std::string data_home = env("XDG_DATA_HOME"), home = env("HOME");
    if (!data_home.empty())
        dirs.push_back(data_home + "/orb-sensor/calibrations");
    else if (!home.empty())
        dirs.push_back(home + "/.local/share/orb-sensor/calibrations");
    const std::string installed = installed_directory();
    if (!installed.empty()) dirs.push_back(installed);
    return dirs;
}

std::string find_calibration(const std::string& sensor_id) {
    if (sensor_id.empty()) throw EngineError(ORB_SPECTRUM_ERR_INVALID, "no sensor ID to look for");
    const std::string name = calibration_file_name(sensor_id);
    std::string searched;
    for (const std::string& dir : calibration_directories()) {
        const std::string candidate = dir + "/" + name;
        if (is_file(candidate)) return candidate;
        searched += (searched.empty() ? "" : ", ") + dir;
    }
    throw EngineError(ORB_SPECTRUM_ERR_NOT_FOUND,
                      "no calibration " + name + " for sensor " + sensor_id + " in " + searched +
                          "; make one with `orb-sensor calibrate`, or put the sensor's file in one of these "
                          "directories (or in $" ORB_CALIBRATION_PATH_VARIABLE ")");
}

}  // namespace orbspectrum

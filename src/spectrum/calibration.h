#ifndef ORB_SPECTRUM_CALIBRATION_H
#define ORB_SPECTRUM_CALIBRATION_H

#include <Eigen/Dense>
#include <string>
#include <vector>

#include "orb_spectrum.h"

namespace orbspectrum {

constexpr int kFilters = ORB_SPECTRUM_FILTERS;

// One unit's calibration as its file holds it (docs/spectra.md, "File
// layout"), plus the filters left out of every reconstruction.
struct Calibration {
    int layout_version = ORB_CALIBRATION_LAYOUT_VERSION;
    std::string sensor_id, created, software_version, source, source_power;
    std::vector<double> wavelength_nm;           // N, ascending
    Eigen::MatrixXd response;                     // 1024 x N, counts per ms per unit power
    Eigen::MatrixXd response_error;               // 1024 x N, its standard error
    Eigen::VectorXd noise;                        // 1024, counts
    std::vector<double> step_exposure_ms;         // N
    std::vector<double> dark_exposure_ms;         // E
    Eigen::MatrixXd dark;                         // E x 1024, counts
    int adc_gain = 0, adc_range = 0, adc_resolution = 0, onboard_average = 0;
    double sweep_start_nm = 0, sweep_stop_nm = 0, sweep_step_nm = 0;
    int frames_averaged = 0, dark_frames = 0;
    std::vector<bool> unusable;                   // 1024

    // Checks the content's shapes and values (EngineError DAMAGED) and flags
    // the unusable filters.
    void validate_and_flag(const std::string& path);
};

// The HDF5 file (calibration_file.cpp).
Calibration read_calibration(const std::string& path, const std::string& expected_sensor_id);
void write_calibration(const std::string& path, const orb_calibration_data& data);

// The search path (calibration_search.cpp).
std::string calibration_file_name(const std::string& sensor_id);
std::vector<std::string> calibration_directories();
std::string find_calibration(const std::string& sensor_id);

}  // namespace orbspectrum

struct orb_calibration {
    orbspectrum::Calibration content;
};

#endif

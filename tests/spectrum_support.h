#ifndef ORB_TESTS_SPECTRUM_SUPPORT_H
#define ORB_TESTS_SPECTRUM_SUPPORT_H

// A synthetic unit calibrated into a temporary directory, loaded, and an
// operator built from it, for the engine's tests.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "orb_spectrum.h"
#include "synthetic_unit.h"

class SpectrumTest : public ::testing::Test {
protected:
    // Calibrates the unit over 340 to 1100 nm at step_nm and builds an
    // operator for grid.
    void prepare(double step_nm = 1.0, double grid = ORB_SPECTRUM_GRID_CALIBRATION, int averages = 16) {
        path_ = dir_.path() + "/unit.h5";
        unit_.calibrate(path_, 340, 1100, step_nm);
        char message[512];
        ASSERT_EQ(orb_calibration_load(&calibration_, path_.c_str(), "SYNTH-1", message, sizeof message),
                  ORB_SPECTRUM_OK)
            << message;
        orb_spectrum_options options{0, averages};
        ASSERT_EQ(orb_spectrum_create(&spectrum_, calibration_, grid, &options, message, sizeof message),
                  ORB_SPECTRUM_OK)
            << message;
        nm_.resize(static_cast<size_t>(orb_spectrum_size(spectrum_)));
        ASSERT_EQ(orb_spectrum_wavelengths(spectrum_, nm_.data()), ORB_SPECTRUM_OK);
    }
    // Also called within a test before another prepare().
    void TearDown() override {
        orb_spectrum_destroy(spectrum_);
        orb_calibration_destroy(calibration_);
        spectrum_ = nullptr;
        calibration_ = nullptr;
    }

    std::vector<double> reconstruct(const synthetic::Unit::Frame& f) {
        std::vector<double> out(nm_.size());
        EXPECT_EQ(orb_spectrum_apply(spectrum_, f.filters.data(), f.dark.data(), f.exposure_ms, out.data()),
                  ORB_SPECTRUM_OK);
        return out;
    }

    // rms(reconstructed - true) / rms(true) over 360 to 1080 nm.
    double relative_rms(const std::vector<double>& got, const synthetic::Spectrum& truth) const {
        double err = 0, ref = 0;
        for (size_t j = 0; j < nm_.size(); ++j) {
            if (nm_[j] < 360 || nm_[j] > 1080) continue;
            err += std::pow(got[j] - truth(nm_[j]), 2);
            ref += std::pow(truth(nm_[j]), 2);
        }
        return std::sqrt(err / ref);
    }

    // The highest peak's position.
    double peak_nm(const std::vector<double>& value) const {
        orb_spectrum_peak p[4];
        int found = 0;
        EXPECT_EQ(orb_spectrum_peaks(nm_.data(), value.data(), static_cast<int>(nm_.size()), 0.1, p, 4, &found),
                  ORB_SPECTRUM_OK);
        return found > 0 ? p[0].wavelength_nm : NAN;
    }

    synthetic::TempDir dir_;
    synthetic::Unit unit_;
    std::string path_;
    orb_calibration* calibration_ = nullptr;
    orb_spectrum* spectrum_ = nullptr;
    std::vector<double> nm_;
};

inline double planck(double nm, double kelvin) {
    const double x = 1.4388e7 / (nm * kelvin);
    return std::pow(560.0 / nm, 5) / (std::exp(x) - 1) * (std::exp(1.4388e7 / (560.0 * kelvin)) - 1);
}

#endif

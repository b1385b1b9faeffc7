#ifndef ORB_TEST_COLOUR_SUPPORT_H
#define ORB_TEST_COLOUR_SUPPORT_H

// Helpers of the colorimetry tests: a colour object per test, spectra from
// colord-data's illuminant files and from Planck's law.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "orb_colour.h"
#include "spectral_file.h"

struct Spectrum {
    std::vector<double> wavelength, value;
};

class ColourTest : public ::testing::Test {
protected:
    void SetUp() override {
        char message[512];
        ASSERT_EQ(orb_colour_create(&colour_, nullptr, message, sizeof message), ORB_COLOUR_OK) << message;
    }
    void TearDown() override { orb_colour_destroy(colour_); }

    orb_colorimetry compute(const Spectrum& s) {
        orb_colorimetry c{};
        EXPECT_EQ(orb_colour_compute(colour_, s.wavelength.data(), s.value.data(), static_cast<int>(s.value.size()), &c),
                  ORB_COLOUR_OK);
        return c;
    }

    orb_colour* colour_ = nullptr;
};

// A CIE illuminant as colord-data carries it (illuminant/CIE-<name>.sp).
inline Spectrum cie_illuminant(const std::string& name) {
    const orbspectrum::SpectralFile f = orbspectrum::read_spectral_file("/usr/share/colord/illuminant/CIE-" + name + ".sp");
    Spectrum s;
    for (size_t i = 0; i < f.sets[0].size(); i++) {
        s.wavelength.push_back(f.wavelength(i));
        s.value.push_back(f.sets[0][i]);
    }
    return s;
}

// A Planckian radiator by Planck's law (c2 = 1.4388e-2 m K), from `from` to
// `to` nm in steps of `step` nm.
inline Spectrum planckian(double t_k, double from = 340, double to = 1100, double step = 1) {
    Spectrum s;
    for (double nm = from; nm <= to + 1e-9; nm += step) {
        const double l = nm * 1e-9;
        s.wavelength.push_back(nm);
        s.value.push_back(1e-30 / (l * l * l * l * l) / std::expm1(1.4388e-2 / (l * t_k)));
    }
    return s;
}

#endif

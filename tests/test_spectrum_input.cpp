// What the engine refuses in a frame and what peaks it finds in a spectrum.

#include <array>

#include "spectrum_support.h"

extern "C" int orb_spectrum_header_compiles_as_c(void);

namespace {

TEST_F(SpectrumTest, FramesThatCannotBeUsedAreRefusedWithTheirCode) {
    prepare(2.0);
    synthetic::Unit::Frame f = unit_.frame(nullptr, {{600, 1.0}}, 1);
    std::vector<double> out(nm_.size());
    orb_spectrum_line lines[2];
    int count = 0;
    auto apply = [&](const orb_spectrum* s, const double* filters, const double* dark, double exposure, double* value) {
        const int fast = orb_spectrum_apply(s, filters, dark, exposure, value);
        const int refined = orb_spectrum_refine(s, filters, dark, exposure, value, lines, 2, &count);
        EXPECT_EQ(fast, refined);
        return fast;
    };
    EXPECT_EQ(apply(spectrum_, nullptr, f.dark.data(), f.exposure_ms, out.data()), ORB_SPECTRUM_ERR_NULL_FILTER);
    EXPECT_EQ(apply(spectrum_, f.filters.data(), nullptr, f.exposure_ms, out.data()), ORB_SPECTRUM_ERR_NULL_BACKGROUND);
    EXPECT_EQ(apply(spectrum_, f.filters.data(), f.dark.data(), f.exposure_ms, nullptr), ORB_SPECTRUM_ERR_NULL_SPECTRUM);
    EXPECT_EQ(apply(nullptr, f.filters.data(), f.dark.data(), f.exposure_ms, out.data()), ORB_SPECTRUM_ERR_INVALID);
    for (double bad : {0.0, -1.0}) EXPECT_EQ(apply(spectrum_, f.filters.data(), f.dark.data(), bad, out.data()), ORB_SPECTRUM_ERR_INVALID);
    for (double bad : {NAN, INFINITY}) {
        EXPECT_EQ(apply(spectrum_, f.filters.data(), f.dark.data(), bad, out.data()), ORB_SPECTRUM_ERR_NOT_A_NUMBER);
        // Even in a filter the reconstruction leaves out: the frame is broken.
        for (size_t i : {0u, 100u, 1023u}) {
            std::vector<double> filters = f.filters, dark = f.dark;
            filters[i] = bad;
            EXPECT_EQ(apply(spectrum_, filters.data(), f.dark.data(), f.exposure_ms, out.data()),
                      ORB_SPECTRUM_ERR_NOT_A_NUMBER);
            dark[i] = bad;
            EXPECT_EQ(apply(spectrum_, f.filters.data(), dark.data(), f.exposure_ms, out.data()),
                      ORB_SPECTRUM_ERR_NOT_A_NUMBER);
        }
    }
    EXPECT_EQ(orb_spectrum_refine(spectrum_, f.filters.data(), f.dark.data(), f.exposure_ms, out.data(), nullptr, 2,
                                  &count),
              ORB_SPECTRUM_ERR_INVALID);
    EXPECT_EQ(orb_spectrum_refine(spectrum_, f.filters.data(), f.dark.data(), f.exposure_ms, out.data(), nullptr, 0,
                                  &count),
              ORB_SPECTRUM_OK);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(orb_spectrum_wavelengths(spectrum_, nullptr), ORB_SPECTRUM_ERR_NULL_WAVELENGTH);
    EXPECT_EQ(orb_spectrum_size(nullptr), 0);
    EXPECT_EQ(orb_spectrum_header_compiles_as_c(), ORB_SPECTRUM_ERR_INVALID);
    EXPECT_STRNE(orb_spectrum_result_text(ORB_SPECTRUM_ERR_NOT_A_NUMBER), orb_spectrum_result_text(12345));
}

TEST_F(SpectrumTest, OptionsOutOfRangeAreRefused) {
    prepare(2.0);
    orb_spectrum* s = nullptr;
    for (orb_spectrum_options bad : {orb_spectrum_options{-1, 1}, orb_spectrum_options{NAN, 1},
                                     orb_spectrum_options{INFINITY, 1}, orb_spectrum_options{0, -1}}) {
        EXPECT_EQ(orb_spectrum_create(&s, calibration_, 0, &bad, nullptr, 0), ORB_SPECTRUM_ERR_INVALID);
        EXPECT_EQ(s, nullptr);
    }
    EXPECT_EQ(orb_spectrum_create(&s, nullptr, 0, nullptr, nullptr, 0), ORB_SPECTRUM_ERR_INVALID);
}

struct Sampled {
    std::vector<double> nm, value;
};

Sampled gaussians(std::initializer_list<std::array<double, 3>> peaks) {  // centre, height, fwhm
    Sampled s;
    for (double nm = 400; nm <= 700; nm += 1) {
        double v = 0.01;
        for (const auto& p : peaks) v += p[1] * std::exp(-0.5 * std::pow((nm - p[0]) / (p[2] / 2.3548), 2));
        s.nm.push_back(nm);
        s.value.push_back(v);
    }
    return s;
}

TEST(SpectrumPeaks, GaussianPeaksArePlacedBetweenSamplesWithTheirHeightAndWidth) {
    const Sampled s = gaussians({{500.37, 2.0, 8.0}, {612.81, 1.0, 12.0}, {450.5, 0.04, 6.0}});
    orb_spectrum_peak p[4];
    int found = 0;
    ASSERT_EQ(orb_spectrum_peaks(s.nm.data(), s.value.data(), static_cast<int>(s.nm.size()), 0.05, p, 4, &found),
              ORB_SPECTRUM_OK);
    ASSERT_EQ(found, 2);  // the third is below 5% of the highest
    EXPECT_NEAR(p[0].wavelength_nm, 500.37, 0.01);
    EXPECT_NEAR(p[0].height, 2.01, 0.01);
    EXPECT_NEAR(p[0].fwhm_nm, 8.0, 0.1);
    EXPECT_NEAR(p[0].prominence, 2.0, 0.01);
    EXPECT_NEAR(p[1].wavelength_nm, 612.81, 0.01);
    EXPECT_NEAR(p[1].fwhm_nm, 12.0, 0.1);
    ASSERT_EQ(orb_spectrum_peaks(s.nm.data(), s.value.data(), static_cast<int>(s.nm.size()), 0.01, p, 1, &found),
              ORB_SPECTRUM_OK);
    EXPECT_EQ(found, 3);
    EXPECT_NEAR(p[0].wavelength_nm, 500.37, 0.01);  // the highest, when there is room for one
}

// A line drawn into two samples (as the refinement draws one) peaks above
// what either sample holds: its half height is above them both.
TEST(SpectrumPeaks, APeakNarrowerThanTheSamplesHasTheWidthOfItsGaussianNeverANegativeOne) {
    const std::vector<double> nm{600, 602, 604, 606, 608};
    const std::vector<double> value{0.001, 0.001, 1.0, 1.0, 0.001};
    orb_spectrum_peak p[2];
    int found = 0;
    ASSERT_EQ(orb_spectrum_peaks(nm.data(), value.data(), 5, 0.05, p, 2, &found), ORB_SPECTRUM_OK);
    ASSERT_EQ(found, 1);
    EXPECT_NEAR(p[0].wavelength_nm, 605.0, 0.01);
    EXPECT_GT(p[0].height, 2 * 1.0);
    EXPECT_NEAR(p[0].fwhm_nm, 1.79, 0.01);  // exp(-0.8635 (x - 605)^2) through the top three
}

TEST(SpectrumPeaks, PeaksOfASpectrumThatCannotBeReadAreRefused) {
    Sampled s = gaussians({{500, 1.0, 8.0}});
    orb_spectrum_peak p[2];
    int found = 0;
    const int n = static_cast<int>(s.nm.size());
    EXPECT_EQ(orb_spectrum_peaks(nullptr, s.value.data(), n, 0.1, p, 2, &found), ORB_SPECTRUM_ERR_NULL_WAVELENGTH);
    EXPECT_EQ(orb_spectrum_peaks(s.nm.data(), nullptr, n, 0.1, p, 2, &found), ORB_SPECTRUM_ERR_NULL_SPECTRUM);
    EXPECT_EQ(orb_spectrum_peaks(s.nm.data(), s.value.data(), n, 0.1, nullptr, 2, &found), ORB_SPECTRUM_ERR_INVALID);
    EXPECT_EQ(orb_spectrum_peaks(s.nm.data(), s.value.data(), n, 0.1, p, 2, nullptr), ORB_SPECTRUM_ERR_INVALID);
    Sampled unordered = s;
    std::swap(unordered.nm[10], unordered.nm[11]);
    EXPECT_EQ(orb_spectrum_peaks(unordered.nm.data(), s.value.data(), n, 0.1, p, 2, &found), ORB_SPECTRUM_ERR_INVALID);
    s.value[100] = NAN;
    EXPECT_EQ(orb_spectrum_peaks(s.nm.data(), s.value.data(), n, 0.1, p, 2, &found), ORB_SPECTRUM_ERR_NOT_A_NUMBER);
    const std::vector<double> dark(s.nm.size(), 0.0);
    ASSERT_EQ(orb_spectrum_peaks(s.nm.data(), dark.data(), n, 0.1, p, 2, &found), ORB_SPECTRUM_OK);
    EXPECT_EQ(found, 0);
}

}  // namespace

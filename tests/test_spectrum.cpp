// The reconstruction scored against a synthetic unit's true spectra: broadband
// light, single lines, two lines, the refinement, and the output grids.

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "spectrum_support.h"

namespace {

const synthetic::Spectrum halogen = [](double nm) { return planck(nm, 3000); };
const synthetic::Spectrum white_led = [](double nm) {
    return std::exp(-0.5 * std::pow((nm - 450) / 10, 2)) + 0.8 * std::exp(-0.5 * std::pow((nm - 580) / 55, 2));
};

TEST_F(SpectrumTest, BroadbandLightIsReconstructedWithinOnePercent) {
    prepare();
    for (const auto& [name, s] : {std::pair{"halogen", halogen}, std::pair{"white LED", white_led}}) {
        const double e16 = relative_rms(reconstruct(unit_.frame(s, {}, 16)), s);
        const double e1 = relative_rms(reconstruct(unit_.frame(s, {}, 1)), s);
        std::printf("%s: relative rms error %.4f (16 frames), %.4f (1 frame)\n", name, e16, e1);
        EXPECT_LT(e16, 0.01) << name;
        EXPECT_LT(e1, 0.02) << name;
    }
}

TEST_F(SpectrumTest, SingleLinesArePlacedWithoutTheRefinement) {
    prepare();
    double sum2 = 0, worst = 0;
    int n = 0;
    for (double nm = 361.3; nm < 1080; nm += 29.17) {
        const std::vector<double> got = reconstruct(unit_.frame(nullptr, {{nm, 1.0}}, 16));
        const double err = peak_nm(got) - nm;
        sum2 += err * err;
        worst = std::max(worst, std::abs(err));
        ++n;
    }
    std::printf("%d lines: position error rms %.3f nm, max %.3f nm\n", n, std::sqrt(sum2 / n), worst);
    EXPECT_LT(std::sqrt(sum2 / n), 0.15);
    EXPECT_LT(worst, 0.4);
}

TEST_F(SpectrumTest, TheRefinementPlacesLinesToAHundredthOfANanometre) {
    prepare();
    double sum2 = 0, worst = 0, slowest = 0;
    int n = 0;
    for (double nm = 361.37; nm < 1080; nm += 29.17) {
        const synthetic::Unit::Frame f = unit_.frame(nullptr, {{nm, 1.0}}, 16);
        std::vector<double> value(nm_.size());
        orb_spectrum_line lines[4];
        int count = 0;
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(orb_spectrum_refine(spectrum_, f.filters.data(), f.dark.data(), f.exposure_ms, value.data(), lines, 4,
                                      &count),
                  ORB_SPECTRUM_OK);
        slowest = std::max(slowest, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        ASSERT_GE(count, 1);
        const double err = lines[0].wavelength_nm - nm;
        sum2 += err * err;
        worst = std::max(worst, std::abs(err));
        ++n;
        EXPECT_NEAR(lines[0].power, 1.0, 0.05) << nm;
    }
    std::printf("%d lines refined: position error rms %.4f nm, max %.4f nm; slowest %.1f ms\n", n,
                std::sqrt(sum2 / n), worst, slowest * 1e3);
    EXPECT_LT(std::sqrt(sum2 / n), 0.03);
    EXPECT_LT(worst, 0.10);
}

}  // namespace

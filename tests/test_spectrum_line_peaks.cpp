// Peaks of a spectrum placed by the operator's own response to lines: lines
// over the whole range (where the fast result's own peak drifts toward the
// blue, where the filters see more), bands left where they are, and the grids.

#include <algorithm>
#include <cstdio>

#include "spectrum_support.h"

namespace {

// The highest peak of a spectrum of spectrum, as orb_spectrum_line_peaks places it.
orb_spectrum_peak line_peak(orb_spectrum* spectrum, const std::vector<double>& value) {
    orb_spectrum_peak p[4] = {};
    int found = 0;
    EXPECT_EQ(orb_spectrum_line_peaks(spectrum, value.data(), 0.1, p, 4, &found), ORB_SPECTRUM_OK);
    EXPECT_GT(found, 0);
    return p[0];
}

// Lines every 24.3 nm from 362.1 to 1090 nm, none on a calibration wavelength.
std::vector<double> whole_range() {
    std::vector<double> nm;
    for (double x = 362.1; x <= 1090; x += 24.3) nm.push_back(x);
    return nm;
}

}  // namespace

TEST_F(SpectrumTest, LinesArePlacedOverTheWholeRangeWhereTheFastResultsOwnPeakDrifts) {
    for (int frames : {16, 1}) {
        prepare(2.0, ORB_SPECTRUM_GRID_CALIBRATION, frames);
        double placed_max = 0, placed_sq = 0, drift_max = 0;
        const std::vector<double> lines = whole_range();
        for (double nm : lines) {
            const std::vector<double> value =
                reconstruct(unit_.frame(nullptr, {{nm, 1.0}}, frames, frames == 1 ? 0.1 : 0.7));
            const double placed = line_peak(spectrum_, value).wavelength_nm - nm;
            placed_max = std::max(placed_max, std::abs(placed));
            placed_sq += placed * placed;
            drift_max = std::max(drift_max, std::abs(peak_nm(value) - nm));
        }
        const double rms = std::sqrt(placed_sq / static_cast<double>(lines.size()));
        std::printf("%d frame(s): %zu lines 362 to 1090 nm placed rms %.3f nm, max %.3f nm; the peak itself max %.3f nm\n",
                    frames, lines.size(), rms, placed_max, drift_max);
        EXPECT_LT(rms, 0.15);
        EXPECT_LT(placed_max, 0.4);
        if (frames == 16) {
            EXPECT_GT(drift_max, 0.4) << "the correction had nothing to do";
        }
        TearDown();
    }
}

TEST_F(SpectrumTest, APeakAsWideAsABandStaysWhereTheSpectrumHasIt) {
    prepare(2.0);
    const synthetic::Spectrum band = [](double nm) { return std::exp(-0.5 * std::pow((nm - 1000) / 25, 2)); };
    const std::vector<double> value = reconstruct(unit_.frame(band, {}, 16));
    EXPECT_DOUBLE_EQ(line_peak(spectrum_, value).wavelength_nm, peak_nm(value));
}

// On the library's 5 nm grid a line's peak also moves with where the line
// falls between samples (by up to half a nm: three samples place a peak
// about as wide as the step only so well); the pull of the prior is still
// undone.
TEST_F(SpectrumTest, LinePeaksFollowTheOutputGrid) {
    prepare(2.0, ORB_SPECTRUM_GRID_LIBRARY);
    double placed_max = 0, drift_max = 0;
    for (double nm = 451.3; nm < 1090; nm += 30.65) {
        const std::vector<double> value = reconstruct(unit_.frame(nullptr, {{nm, 1.0}}, 16));
        placed_max = std::max(placed_max, std::abs(line_peak(spectrum_, value).wavelength_nm - nm));
        drift_max = std::max(drift_max, std::abs(peak_nm(value) - nm));
    }
    std::printf("5 nm grid: placed max %.3f nm, the peak itself max %.3f nm\n", placed_max, drift_max);
    EXPECT_LT(placed_max, 0.6);
    EXPECT_GT(drift_max, 1.0);
}

TEST_F(SpectrumTest, LinePeaksRefuseWhatTheyCannotUse) {
    prepare(2.0);
    std::vector<double> value(nm_.size(), 1.0);
    orb_spectrum_peak p[2];
    int found = 0;
    EXPECT_EQ(orb_spectrum_line_peaks(nullptr, value.data(), 0.1, p, 2, &found), ORB_SPECTRUM_ERR_INVALID);
    EXPECT_EQ(orb_spectrum_line_peaks(spectrum_, nullptr, 0.1, p, 2, &found), ORB_SPECTRUM_ERR_NULL_SPECTRUM);
    EXPECT_EQ(orb_spectrum_line_peaks(spectrum_, value.data(), -0.1, p, 2, &found), ORB_SPECTRUM_ERR_INVALID);
    EXPECT_EQ(orb_spectrum_line_peaks(spectrum_, value.data(), 0.1, nullptr, 2, &found), ORB_SPECTRUM_ERR_INVALID);
    value[7] = NAN;
    EXPECT_EQ(orb_spectrum_line_peaks(spectrum_, value.data(), 0.1, p, 2, &found), ORB_SPECTRUM_ERR_NOT_A_NUMBER);
}

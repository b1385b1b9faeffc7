#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "utils/orb_utils_interface.h"

using U = orb_utils_interface;
using Vec = std::vector<double>;

TEST(Median, OddCountIsTheMiddleElementAfterSorting)
{
    EXPECT_EQ(U::find_median_value(std::vector<int>{3, 1, 2}), 2.0);
    EXPECT_EQ(U::find_median_value(Vec{3.5, 1.0, 2.5}), 2.5);
}

TEST(Median, IntegerMedianOfEvenCountIsTruncatedIntegerMeanOfMiddlePair)
{
    EXPECT_EQ(U::find_median_value(std::vector<int>{1, 2}), 1.0);
    EXPECT_EQ(U::find_median_value(std::vector<int>{-1, -2}), -1.0);  // toward zero
    EXPECT_EQ(U::find_median_value(std::vector<int>{INT_MAX, INT_MAX}), -1.0);  // 32-bit sum wraps
    EXPECT_EQ(U::find_median_value(Vec{1.0, 2.0}), 1.5);
}

TEST(Median, EmptyInputThrowsTheMessageAsCString)
{
    try {
        U::find_median_value(std::vector<int>{});
        FAIL();
    } catch (const char* msg) {
        EXPECT_STREQ(msg, "median of an empty vector");
    }
    EXPECT_THROW(U::find_median_value(Vec{}), const char*);
}

TEST(Statistics, MeanVarianceAndDeviation)
{
    Vec v{1, 2, 3, 4};
    EXPECT_DOUBLE_EQ(U::calculate_mean(v), 2.5);
    EXPECT_DOUBLE_EQ(U::calculate_variance(v), 1.25);
    EXPECT_DOUBLE_EQ(U::calculate_sample_variance(v), 5.0 / 3.0);
    EXPECT_DOUBLE_EQ(U::calculate_std(v), std::sqrt(1.25));
    EXPECT_DOUBLE_EQ(U::calculate_sample_std(v), std::sqrt(5.0 / 3.0));
    EXPECT_EQ(U::find_min_value({4, -2, 7}), -2.0);
    EXPECT_EQ(U::find_max_value({4, -2, 7}), 7.0);
}

TEST(Statistics, EmptyInputGivesNaNInsteadOfReadingPastTheEnd)
{
    Vec empty;
    EXPECT_TRUE(std::isnan(U::find_min_value(empty)));
    EXPECT_TRUE(std::isnan(U::find_max_value(empty)));
    EXPECT_TRUE(std::isnan(U::calculate_mean(empty)));
}

TEST(Normalize, DividesByMaximumWritingOnlyIntoTheCallersSlots)
{
    Vec in{1, 4, 2};
    Vec out(5, -9.0);
    U::normalize(in, out);
    EXPECT_EQ(out, (Vec{0.25, 1.0, 0.5, -9.0, -9.0}));  // never resized, tail kept

    Vec small(1, 0.0);
    U::normalize(in, small);  // too short: filled as far as it goes, not grown
    EXPECT_EQ(small, Vec{0.25});

    Vec untouched{7.0};
    Vec empty;
    U::normalize(empty, untouched);
    EXPECT_EQ(untouched, Vec{7.0});
}

TEST(Normalize, MaximumStartsAtZeroSoNegativeSpectraDivideByZero)
{
    Vec in{-2.0, -1.0};
    Vec out(2);
    U::normalize(in, out);
    EXPECT_TRUE(std::isinf(out[0]) && out[0] < 0);
}

TEST(SpectrumShape, FwhmCountsBothBorderSamples)
{
    Vec s{0, 1, 2, 1, 0};
    EXPECT_EQ(U::get_FWHM(s, 1.0, 2), 5.0);
    EXPECT_EQ(U::get_FWHM(s, 1.5, 2), 3.0);
    EXPECT_EQ(U::get_FWHM(s, 1.0, -1), 0.0);
    EXPECT_EQ(U::get_FWHM(s, 1.0, 5), 0.0);  // outside the data: no width, no fault
}

TEST(SpectrumShape, InfoReportsFirstOfEqualPeaks)
{
    Vec s{0, 3, 1, 3, 0};
    double wl = -1, power = -1, fwhm = -1;
    U::get_spectrum_info(s, wl, power, fwhm);
    EXPECT_EQ(wl, 1.0);
    EXPECT_EQ(power, 3.0);
    EXPECT_EQ(fwhm, 3.0);

    Vec negative{-1, -2};
    U::get_spectrum_info(negative, wl, power, fwhm);
    EXPECT_EQ(wl, 0.0);
    EXPECT_EQ(power, 0.0);

    Vec empty;
    wl = power = fwhm = 42;
    U::get_spectrum_info(empty, wl, power, fwhm);
    EXPECT_EQ(wl + power + fwhm, 126.0);
}

TEST(SpectrumShape, DerivativeOfSupportedOrdersLeavesOutputAsItWas)
{
    Vec in{1, 2, 3}, out{9, 9};
    U::get_spectrum_derivative(in, out, 1);
    U::get_spectrum_derivative(in, out, 2);
    EXPECT_EQ(out, (Vec{9, 9}));

    testing::internal::CaptureStdout();
    U::get_spectrum_derivative(in, out, 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[orb_utils_interface] Error: wrong derivative dimension. 1-D or 2-D only supported. (3)\n");
    EXPECT_TRUE(out.empty());
}

TEST(SyntheticSpectra, UnitBandWidthIsASingleSpike)
{
    Vec out{1};
    U::make_gaussian_spectrum(10, 4.0, 1.0, 5.0, out);
    Vec expected(10, 0.0);
    expected[4] = 5.0;
    EXPECT_EQ(out, expected);

    U::make_gaussian_spectrum(10, 40.0, 1.0, 5.0, out);  // spike off the end is dropped
    EXPECT_EQ(out, Vec(10, 0.0));
}

TEST(SyntheticSpectra, GaussianUsesSinglePrecisionSigmaOf0_4253TimesWidth)
{
    Vec out;
    U::make_gaussian_spectrum(9, 4.7, 4.0, 2.0, out);  // centre truncates to 4
    ASSERT_EQ(out.size(), 9u);
    EXPECT_EQ(out[4], 2.0);
    EXPECT_EQ(out[2], out[6]);
    const float s = static_cast<float>(0.4253 * 4.0);
    EXPECT_EQ(out[1], 2.0 * std::exp(-9.0 / (2.0 * static_cast<double>(s * s))));

    U::make_gaussian_spectrum(4, 2.0, 3.5, 1.0, out);  // fewer samples than width + 2
    EXPECT_TRUE(out.empty());
    U::make_gaussian_spectrum(0, 0.0, 1.0, 1.0, out);
    EXPECT_TRUE(out.empty());
}

TEST(SyntheticSpectra, WavelengthListIncludesBothEnds)
{
    Vec out{1};
    U::get_wavelength_list(400, 410, 5, out);
    EXPECT_EQ(out, (Vec{400, 405, 410}));
    U::get_wavelength_list(410, 400, 5, out);
    EXPECT_TRUE(out.empty());
    U::get_wavelength_list(400, 410, 0, out);  // a zero step gives no list rather than a fault
    EXPECT_TRUE(out.empty());
}

TEST(Polyval, VectorFormTakesConstantFirstPointFormConstantLast)
{
    EXPECT_EQ(U::polyval(Vec{1, 2, 3}, Vec{2, 0}), (Vec{17, 1}));
    EXPECT_EQ(U::polyval(Vec{1, 2, 3}, 2.0), 11.0);
    EXPECT_EQ(U::polyval(Vec{}, 2.0), 0.0);
}

TEST(SortByValue, OrdersByValueCarryingKeysAndLeavesMapAlone)
{
    std::map<int, int> m{{1, 30}, {2, 10}, {3, 20}};
    auto up = U::sort(m, true);
    ASSERT_EQ(up.size(), 3u);
    EXPECT_EQ(up[0].key, 2);
    EXPECT_EQ(up[2].key, 1);
    EXPECT_EQ(U::sort(m, false)[0].val, 30);
    EXPECT_EQ(m.begin()->second, 30);
    EXPECT_FALSE(AscendingSortByIntVal({0, 5}, {9, 5}));
}

TEST(SortByValue, NaNValuesSortWithoutFaultAndGoLast)
{
    std::map<int, double> m;
    for (int i = 0; i < 64; ++i) m[i] = (i % 3 == 0) ? NAN : 64.0 - i;
    auto down = U::sort(m, false);
    ASSERT_EQ(down.size(), 64u);
    EXPECT_EQ(down[0].val, 63.0);
    for (size_t i = 42; i < down.size(); ++i) EXPECT_TRUE(std::isnan(down[i].val));
}

TEST(RandomHelper, IgnoresItsBoundsAndStaysInUnitInterval)
{
    srand(7);
    const unsigned r1 = static_cast<unsigned>(rand()), r2 = static_cast<unsigned>(rand());
    const float expected = static_cast<float>((r1 << ((r2 + 15u) % 32u)) & 0xFFFFFFu) / 16777216.0f;
    srand(7);
    EXPECT_EQ(U::generate_rand_float(100.0f, 200.0f), expected);
    for (int i = 0; i < 1000; ++i) {
        const float f = U::generate_rand_float(-5.0f, -1.0f);
        ASSERT_GE(f, 0.0f);
        ASSERT_LT(f, 1.0f);
    }
}

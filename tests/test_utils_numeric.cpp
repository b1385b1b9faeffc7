#include <gtest/gtest.h>

#include <climits>
#include <cmath>

#include "utils/orb_utils_interface.h"

using U = orb_utils_interface;
using Vec = std::vector<double>;

TEST(Statistics, IntegerMedianOfEvenCountIsTheTruncatedIntegerMeanOfTheMiddlePair)
{
    EXPECT_EQ(U::find_median_value(std::vector<int>{3, 1, 2}), 2.0);
    EXPECT_EQ(U::find_median_value(std::vector<int>{1, 2}), 1.0);
    EXPECT_EQ(U::find_median_value(std::vector<int>{-1, -2}), -1.0);           // toward zero
    EXPECT_EQ(U::find_median_value(std::vector<int>{INT_MAX, INT_MAX}), -1.0);  // 32-bit sum wraps
    EXPECT_EQ(U::find_median_value(Vec{2, 1}), 1.5);
    try {
        U::find_median_value(Vec{});
        FAIL();
    } catch (const char* msg) {
        EXPECT_STREQ(msg, "median of an empty vector");
    }
}

TEST(Statistics, MomentsAndEmptyInputGivesNaNWithoutReadingPastTheEnd)
{
    Vec v{1, 2, 3, 4}, empty;
    EXPECT_DOUBLE_EQ(U::calculate_variance(v), 1.25);
    EXPECT_DOUBLE_EQ(U::calculate_sample_std(v), std::sqrt(5.0 / 3.0));
    EXPECT_EQ(U::find_min_value({4, -2, 7}) + U::find_max_value({4, -2, 7}), 5.0);
    EXPECT_TRUE(std::isnan(U::find_min_value(empty)) && std::isnan(U::find_max_value(empty)));
}

TEST(Spectrum, NormaliseWritesByIndexIntoTheCallersBufferWithoutResizingIt)
{
    Vec in{1, 4, 2}, big(4, -9.0), small(1), negative{-2}, neg_out(1);
    U::normalize(in, big);
    U::normalize(in, small);
    U::normalize(negative, neg_out);  // the maximum starts at 0
    EXPECT_EQ(big, (Vec{0.25, 1.0, 0.5, -9.0}));
    EXPECT_EQ(small, Vec{0.25});
    EXPECT_TRUE(std::isinf(neg_out[0]));
}

TEST(Spectrum, PeakAndWidthCountBothBorderSamples)
{
    Vec s{0, 1, 2, 1, 0}, twin{0, 3, 1, 3, 0}, empty;
    EXPECT_EQ(U::get_FWHM(s, 1.0, 2), 5.0);
    EXPECT_EQ(U::get_FWHM(s, 1.0, -1) + U::get_FWHM(s, 1.0, 5), 0.0);
    EXPECT_EQ(U::get_FWHM(empty, 1.0, 0), 1.0);  // reads nothing, still one sample wide
    double wl = 42, power = 42, fwhm = 42;
    U::get_spectrum_info(empty, wl, power, fwhm);
    EXPECT_EQ(wl + power + fwhm, 126.0);
    U::get_spectrum_info(twin, wl, power, fwhm);  // first of equal maxima wins
    EXPECT_EQ(Vec({wl, power, fwhm}), Vec({1, 3, 3}));
}

TEST(Spectrum, DerivativeOfSupportedOrdersLeavesTheOutputUntouched)
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

TEST(Spectrum, SyntheticPeakIsSpikeAtUnitWidthElseSinglePrecisionGaussian)
{
    Vec out, spike(10, 0.0);
    spike[4] = 5.0;
    U::make_gaussian_spectrum(10, 4.0, 1.0, 5.0, out);
    EXPECT_EQ(out, spike);
    U::make_gaussian_spectrum(10, 40.0, 1.0, 5.0, out);  // off the end: no spike, no fault
    EXPECT_EQ(out, Vec(10, 0.0));
    U::make_gaussian_spectrum(9, 4.7, 4.0, 2.0, out);  // centre truncates to 4
    const float s = static_cast<float>(0.4253 * 4.0);
    EXPECT_EQ(out[4], 2.0);
    EXPECT_EQ(out[1], 2.0 * std::exp(-9.0 / (2.0 * static_cast<double>(s * s))));
    EXPECT_EQ(out[1], out[7]);
    U::make_gaussian_spectrum(4, 2.0, 3.5, 1.0, out);  // fewer samples than width + 2
    EXPECT_TRUE(out.empty());
}

TEST(Spectrum, WavelengthListIncludesBothEndsAndZeroStepGivesNone)
{
    Vec out;
    U::get_wavelength_list(400, 410, 5, out);
    EXPECT_EQ(out, (Vec{400, 405, 410}));
    U::get_wavelength_list(410, 400, 5, out);
    EXPECT_TRUE(out.empty());
    U::get_wavelength_list(400, 410, 0, out);
    EXPECT_TRUE(out.empty());
}

TEST(Polyval, VectorFormTakesTheConstantFirstAndPointFormTakesItLast)
{
    EXPECT_EQ(U::polyval(Vec{1, 2, 3}, Vec{2, 0}), (Vec{17, 1}));
    EXPECT_EQ(U::polyval(Vec{1, 2, 3}, 2.0), 11.0);
    EXPECT_EQ(U::polyval(Vec{1, 0, 0, 0, 0}, 1.1), std::pow(1.1, 4));  // not 1.1*1.1*1.1*1.1
}

TEST(SortByValue, KeysRideAlongAndNaNValuesGoLastWithoutFault)
{
    std::map<int, int> ints{{1, 30}, {2, 10}, {3, 20}};
    auto up = U::sort(ints, true);
    EXPECT_EQ(up[0].key * 10 + up[2].key, 21);
    EXPECT_EQ(U::sort(ints, false)[0].val, 30);

    std::map<int, double> m;
    for (int i = 0; i < 64; ++i) m[i] = (i % 3 == 0) ? NAN : 64.0 - i;
    auto down = U::sort(m, false);
    EXPECT_EQ(down[0].val, 63.0);
    for (size_t i = 42; i < 64; ++i) EXPECT_TRUE(std::isnan(down[i].val));
}

TEST(RandomHelper, IgnoresItsBoundsAndStaysInTheUnitInterval)
{
    for (int i = 0; i < 1000; ++i) {
        const float f = U::generate_rand_float(100.0f, 200.0f);
        ASSERT_TRUE(f >= 0.0f && f < 1.0f);
    }
}

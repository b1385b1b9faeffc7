#include <gtest/gtest.h>

#include "orb_device_utils.h"

TEST(AdcRangeTable, VrtOutermostVrbFastestAndVrbEndIgnored)
{
    orb_device_utils utils;
    EXPECT_TRUE(utils.m_AdcRangeTable.empty());
    utils.calc_adc_range(1.0f, 2.0f, 0.5f, 0.0f, 0.0f, 0.25f, 2.0f, 4);
    const auto& t = utils.m_AdcRangeTable;
    ASSERT_EQ(t.size(), 12u);
    for (size_t i = 0; i < t.size(); ++i) {
        EXPECT_EQ(t[i].vrt, 1.0f + 0.5f * static_cast<float>(i / 4));
        EXPECT_EQ(t[i].vrb, 0.25f * static_cast<float>(i % 4));
        EXPECT_EQ(t[i].resolution, (t[i].vrt - t[i].vrb) * 2.0f);
    }
}

TEST(AdcRangeTable, SizeRoundsHalfAwayFromZeroAndRowIndexWrapsAtEightBits)
{
    orb_device_utils utils;
    utils.calc_adc_range(0.0f, 1.0f, 0.4f, 0.0f, 0.0f, 0.1f, 1.0f, 1);  // 3.5 steps
    EXPECT_EQ(utils.m_AdcRangeTable.size(), 4u);
    utils.calc_adc_range(0.0f, 29.0f, 1.0f, 0.0f, 0.0f, 0.1f, 1.0f, 10);
    ASSERT_EQ(utils.m_AdcRangeTable.size(), 300u);
    EXPECT_EQ(utils.m_AdcRangeTable[255].adc_index, 255);
    EXPECT_EQ(utils.m_AdcRangeTable[256].adc_index, 0);
}

TEST(AdcRangeTable, NoPositiveSizeZeroStepOrZeroRangeSizeLeavesTheTableEmpty)
{
    orb_device_utils utils;
    utils.calc_adc_range(1.0f, 2.0f, 0.5f, 0.0f, 0.0f, 0.25f, 2.0f, 4);
    utils.calc_adc_range(2.0f, 1.0f, 0.25f, 0.0f, 0.0f, 0.25f, 2.0f, 4);  // negative size
    EXPECT_TRUE(utils.m_AdcRangeTable.empty());
    utils.calc_adc_range(1.0f, 2.0f, 0.0f, 0.0f, 0.0f, 0.25f, 2.0f, 4);   // infinite size
    EXPECT_TRUE(utils.m_AdcRangeTable.empty());
    utils.calc_adc_range(1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.25f, 2.0f, 0);   // 0 x NaN
    EXPECT_TRUE(utils.m_AdcRangeTable.empty());
}

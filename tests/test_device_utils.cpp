#include <gtest/gtest.h>

#include "orb_device_utils.h"

TEST(AdcRangeTable, StartsEmptyWithResetRows)
{
    orb_device_utils utils;
    EXPECT_EQ(utils.m_iDebugLevel, 0u);
    EXPECT_TRUE(utils.m_AdcRangeTable.empty());
    SOneADCInfo row;
    EXPECT_EQ(row.adc_index + row.vrt + row.vrb + row.range + row.resolution, 0.0f);
}

TEST(AdcRangeTable, VrtOutermostVrbFastestAndVrbEndIgnored)
{
    orb_device_utils utils;
    utils.calc_adc_range(1.0f, 2.0f, 0.5f, 0.0f, 0.0f, 0.25f, 2.0f, 4);
    const auto& t = utils.m_AdcRangeTable;
    ASSERT_EQ(t.size(), 12u);
    for (size_t i = 0; i < t.size(); ++i) {
        EXPECT_EQ(t[i].adc_index, i);
        EXPECT_EQ(t[i].vrt, 1.0f + 0.5f * static_cast<float>(i / 4));
        EXPECT_EQ(t[i].vrb, 0.25f * static_cast<float>(i % 4));
        EXPECT_EQ(t[i].range, t[i].vrt - t[i].vrb);
        EXPECT_EQ(t[i].resolution, t[i].range * 2.0f);
    }
}

TEST(AdcRangeTable, SizeRoundsHalfAwayFromZero)
{
    orb_device_utils utils;
    utils.calc_adc_range(0.0f, 1.0f, 0.4f, 0.0f, 0.0f, 0.1f, 1.0f, 1);  // 3.5 steps
    EXPECT_EQ(utils.m_AdcRangeTable.size(), 4u);
    utils.calc_adc_range(0.0f, 0.9f, 0.4f, 0.0f, 0.0f, 0.1f, 1.0f, 1);  // 3.25 steps
    EXPECT_EQ(utils.m_AdcRangeTable.size(), 3u);
}

TEST(AdcRangeTable, NoPositiveSizeClearsAnEarlierTable)
{
    orb_device_utils utils;
    utils.calc_adc_range(1.0f, 2.0f, 0.5f, 0.0f, 0.0f, 0.25f, 2.0f, 4);
    utils.calc_adc_range(2.0f, 1.0f, 0.25f, 0.0f, 0.0f, 0.25f, 2.0f, 4);
    EXPECT_TRUE(utils.m_AdcRangeTable.empty());
}

TEST(AdcRangeTable, ZeroStepOrZeroRangeSizeGivesNoTableRatherThanAFault)
{
    orb_device_utils utils;
    utils.calc_adc_range(1.0f, 2.0f, 0.0f, 0.0f, 0.0f, 0.25f, 2.0f, 4);
    EXPECT_TRUE(utils.m_AdcRangeTable.empty());
    utils.calc_adc_range(1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.25f, 2.0f, 0);
    EXPECT_TRUE(utils.m_AdcRangeTable.empty());
    utils.calc_adc_range(1.0f, 2.0f, 0.5f, 0.0f, 0.0f, 0.25f, 2.0f, 0);
    EXPECT_TRUE(utils.m_AdcRangeTable.empty());
}

TEST(AdcRangeTable, RowIndexWrapsAtEightBits)
{
    orb_device_utils utils;
    utils.calc_adc_range(0.0f, 29.0f, 1.0f, 0.0f, 0.0f, 0.1f, 1.0f, 10);
    ASSERT_EQ(utils.m_AdcRangeTable.size(), 300u);
    EXPECT_EQ(utils.m_AdcRangeTable[255].adc_index, 255);
    EXPECT_EQ(utils.m_AdcRangeTable[256].adc_index, 0);
    EXPECT_EQ(utils.m_AdcRangeTable[299].vrt, 29.0f);
}

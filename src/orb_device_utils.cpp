#include "orb_device_utils.h"

#include <cmath>

orb_device_utils::orb_device_utils() : m_iDebugLevel(0) {}

orb_device_utils::~orb_device_utils() = default;

void orb_device_utils::calc_adc_range(float vrt_start, float vrt_end, float vrt_step, float vrb_start,
                                      float /*vrb_end*/, float vrb_step, float adc_resolution_base,
                                      short range_size)
{
    m_AdcRangeTable.clear();

    // Sized in single precision like the voltages themselves, then rounded
    // half away from zero so a step count of 2.9999 still gives 3.
    const float steps = static_cast<float>(range_size) * (1.0f + (vrt_end - vrt_start) / vrt_step);
    const double x = static_cast<double>(steps);
    const double rounded = x < 0.0 ? std::ceil(x - 0.5) : std::floor(x + 0.5);
    // A zero VRT step gives an infinite or undefined count; like any count
    // that does not fit an int, it yields no table rather than a wild one.
    if (!(rounded > 0.0) || rounded > 2147483647.0) return;
    const int iTableSize = static_cast<int>(rounded);

    m_AdcRangeTable.resize(static_cast<size_t>(iTableSize));
    for (int i = 0; i < iTableSize; ++i) {
        const int iVrtRangeIndex = i / range_size;
        const int iVrbRangeIndex = i % range_size;
        _SOneADCInfo row;
        row.adc_index = static_cast<uint8_t>(i);
        row.vrt = static_cast<float>(iVrtRangeIndex) * vrt_step + vrt_start;
        row.vrb = static_cast<float>(iVrbRangeIndex) * vrb_step + vrb_start;
        row.range = row.vrt - row.vrb;
        row.resolution = row.range * adc_resolution_base;
        m_AdcRangeTable[static_cast<size_t>(i)] = row;
    }
}

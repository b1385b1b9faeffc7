#ifndef ORB_DEVICE_UTILS_H
#define ORB_DEVICE_UTILS_H

#include <cstdint>
#include <vector>

#include "orb_export.h"

// One ADC reference setting: the top and bottom reference voltages, the span
// between them and what one count is worth at that span.
typedef struct _SOneADCInfo {
    uint8_t adc_index;
    float vrt;
    float vrb;
    float range;
    float resolution;

    _SOneADCInfo() { reset(); }
    void reset()
    {
        adc_index = 0;
        vrt = 0.0f;
        vrb = 0.0f;
        range = 0.0f;
        resolution = 0.0f;
    }
} SOneADCInfo;

// Stand-alone calculator of the ADC reference table for applications that
// choose a range themselves; the sensor link does not use it.
class ORB_EXPORT orb_device_utils {
public:
    orb_device_utils();
    ~orb_device_utils();

    // Rebuilds m_AdcRangeTable: range_size VRB settings for every VRT step,
    // VRT outermost. vrb_end is not consulted; range_size alone sets the VRB
    // extent.
    void calc_adc_range(float vrt_start, float vrt_end, float vrt_step, float vrb_start, float vrb_end,
                        float vrb_step, float adc_resolution_base, short range_size);

    uint32_t m_iDebugLevel;
    std::vector<_SOneADCInfo> m_AdcRangeTable;
};

#endif // ORB_DEVICE_UTILS_H

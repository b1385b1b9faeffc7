#ifndef ORB_SDK_COMMON_H
#define ORB_SDK_COMMON_H

// How a host wants frames taken from one sensor.

#include <string>

typedef enum eAcqDataType {
    AcqDataType_Unknown = 0,
    AcqDataType_Raw = 1,
    AcqDataType_Spec = 2,
    AcqDataType_Dark = 3,
    AcqDataType_Ref = 4,
} eAcqDataType;

struct SDataAcqCondition {
    int deviceid;
    int datasize;  // filter values delivered per frame
    std::string sensortype;
    int adc;
    int gain;
    int ss;       // shutter speed, in the sensor's units
    int average;  // frames averaged per delivered frame
    int frames;
    bool append;
    eAcqDataType datatype;
    bool validpixelonly;
    bool normalized;
    bool hdr;
    int hdrscale;
    bool useAE;
    bool ignoreOutliers;
    int pixelBinningMode;
    int darkcorrectionMode;

    SDataAcqCondition() { reset(); }

    void reset() {
        deviceid = 0;
        datasize = 1024;
        sensortype = "unknown";
        adc = 132;
        gain = 1;
        ss = 250;
        average = 1;
        frames = 1;
        append = true;
        datatype = AcqDataType_Raw;
        validpixelonly = true;
        normalized = false;
        hdr = false;
        hdrscale = 1;
        useAE = false;
        ignoreOutliers = false;
        pixelBinningMode = 0;
        darkcorrectionMode = 4;
    }
};

#endif  // ORB_SDK_COMMON_H

#ifndef ORB_EXPOSURE_H
#define ORB_EXPOSURE_H

// The sensor's exposure as the host reckons it: one definition for the link,
// the device object, the C entry points and the streaming layer. A shutter
// speed is a count of steps: the exposure lasts shutter x 912 + 160 ticks of
// the master clock, and the blank time written with it lies a fixed margin
// above it.

#include <stdint.h>

constexpr uint32_t kTicksPerShutterStep = 912;
constexpr uint32_t kExposureBaseTicks = 160;

// Worked in 32-bit two's complement, as the sensor's clock formulas were
// defined: an absurd shutter speed wraps instead of overflowing.
constexpr int32_t exposure_ticks(int shutter) {
    return static_cast<int32_t>(static_cast<uint32_t>(shutter) * kTicksPerShutterStep + kExposureBaseTicks);
}

// The shutter speeds a host may ask of duSetShutterSpeed, which clamps to them.
constexpr int kMinShutterSpeed = 1;
constexpr int kMaxShutterSpeed = 3000;
// The blank time rides with every shutter speed, this far above it.
constexpr int kBlankTimeMargin = 32;
// Shutter speed and blank time each live in a pair of byte registers.
constexpr int kMaxRegisterPairValue = 0xFFFF;

#endif  // ORB_EXPOSURE_H

#ifndef ORB_STREAM_FRAME_PACE_H
#define ORB_STREAM_FRAME_PACE_H

// The interval the sensor keeps between frames while it streams, and what a
// longer gap between two frames the host received says about frames it never
// got: the sensor takes a frame per interval whether or not a transfer is
// waiting for it, and one that finds none is gone.

#include <algorithm>
#include <cstdint>

#include "../efm32com/orb_exposure.h"

namespace orbstream {

// A full-speed bus carries one 2048-byte frame in 32/19 ms (594 frames/s);
// the exposure runs on the sensor's 10 MHz master clock (100 ns a tick).
constexpr uint64_t kFrameBusTimeNs = 32'000'000 / 19;
constexpr uint64_t kNsPerMasterTick = 100;

constexpr uint64_t frame_interval_ns(int shutter_speed) {
    const int32_t ticks = exposure_ticks(shutter_speed);
    return std::max<uint64_t>(kFrameBusTimeNs, ticks > 0 ? static_cast<uint64_t>(ticks) * kNsPerMasterTick : 0);
}

// Frames the sensor took between two that arrived `gap_ns` apart. The host
// sees a frame when it reaps it, up to half an interval early or late; a gap
// counts as the whole number of intervals nearest to it, and one of those
// is the frame that arrived.
constexpr uint32_t frames_missed_in(uint64_t gap_ns, uint64_t interval_ns) {
    const uint64_t intervals = (gap_ns + interval_ns / 2) / interval_ns;
    return intervals > 1 ? static_cast<uint32_t>(std::min<uint64_t>(intervals - 1, UINT32_MAX)) : 0;
}

}  // namespace orbstream

#endif

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

// The frame transfers a stream keeps in flight of its own, beside the
// link's one (stream_transfers.h). Six in all cover a host kept from running
// for 10 ms, as a machine whose cores are all busy keeps it now and then;
// with two, such a machine missed up to one frame in forty.
constexpr int kOwnTransfers = 5;

// The most frames that can wait, taken but not yet seen by the host: one in
// each transfer, the link's and the stream's own, and the one the sensor
// holds for a transfer until its next frame is due.
constexpr int64_t kFramesWaiting = 1 + kOwnTransfers + 1;

// Frames the sensor took that never arrived, reckoned from its pace: since
// the first frame, one slot passes per interval, and a slot without a frame
// received is a frame missed. The host sees a frame when its callback runs:
// a host that is away for a while sees the frames its transfers took late,
// all at once when it comes back, so up to kFramesWaiting slots behind are
// not yet counted; beyond that no transfer was waiting and the frame is
// gone. A count, once told, stands; frames that come faster than the pace
// by more than that (a sensor whose clock runs a little fast) move the
// reckoning instead of ever taking one back.
class MissedFrames {
public:
    void restart() { started_ = false; }
    // A frame arrived at `now_ns`: the frames missed that are known now.
    uint32_t after_frame(uint64_t now_ns, uint64_t interval_ns) {
        if (!started_) {
            started_ = true;
            from_ns_ = now_ns;
            received_ = told_ = 0;
            return 0;
        }
        received_++;
        const uint64_t slots = (now_ns - from_ns_ + interval_ns / 2) / interval_ns;
        const int64_t behind = static_cast<int64_t>(slots) - received_;
        if (behind < told_ - kFramesWaiting) received_ -= told_ - kFramesWaiting - behind;
        if (behind - kFramesWaiting <= told_) return 0;
        const int64_t missed = behind - kFramesWaiting - told_;
        told_ += missed;
        return static_cast<uint32_t>(std::min<int64_t>(missed, UINT32_MAX));
    }

private:
    bool started_ = false;
    uint64_t from_ns_ = 0;  // the first frame's arrival: slot 0
    int64_t received_ = 0;  // frames since
    int64_t told_ = 0;      // missed frames counted since
};

}  // namespace orbstream

#endif

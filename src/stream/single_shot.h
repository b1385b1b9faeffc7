#ifndef ORB_STREAM_SINGLE_SHOT_H
#define ORB_STREAM_SINGLE_SHOT_H

namespace orbstream {

// duGetFilterData for one index with a time-out: the average of `averages`
// (at least 1) frames into output[kSamples]. The time-out is not negative.
int single_shot(int index, double* output, int averages, int timeout_ms);

}  // namespace orbstream

#endif

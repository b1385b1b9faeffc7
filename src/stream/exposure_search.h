#ifndef ORB_STREAM_EXPOSURE_SEARCH_H
#define ORB_STREAM_EXPOSURE_SEARCH_H

// The auto-exposure's reasoning, apart from any sensor: given what a frame
// showed at a shutter speed, the shutter speed to try next, or the end and
// its outcome. The sensor is linear in its exposure ticks above a black
// level, so one measurement predicts the shutter speed of the target, and
// two at different exposures pin the black level too.

#include <optional>

namespace orbstream {

struct ExposureMeasurement {
    int shutter_speed;
    int level;       // the brightest chosen filter, DN
    int floor;       // the darkest filter of the frame: an upper bound of the black level
    bool saturated;  // a chosen filter at full scale
};

struct ExposureStep {
    bool done;
    int outcome;        // enum orb_exposure_outcome, when done
    int shutter_speed;  // the next to measure, or the one chosen
};

class ExposureSearch {
public:
    ExposureSearch(int target, int tolerance, int max_rounds);
    // The measurement of the round just ended; the next step. Ends at the
    // latest on the max_rounds-th measurement.
    ExposureStep next(const ExposureMeasurement& m);

private:
    double predict_ticks(const ExposureMeasurement& m) const;

    int target_;
    int tolerance_;
    int max_rounds_;
    int rounds_ = 0;
    std::optional<ExposureMeasurement> previous_;  // the last unsaturated one
    double last_prediction_ = 0;                   // ticks, 0 when none
};

}  // namespace orbstream

#endif

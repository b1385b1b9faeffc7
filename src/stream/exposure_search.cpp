// The auto-exposure's steps: predict from the linear response, step down
// hard from saturation, stop on target, at a limit or at the round bound.

#include "exposure_search.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "orb_stream.h"
#include "../efm32com/orb_exposure.h"

namespace orbstream {

namespace {

// From a saturated frame the level says nothing of how far over it is:
// a large step down reaches any light the sensor can take in few rounds
// (3000 to 1 in three).
constexpr int kSaturatedStepDown = 16;
// Two predictions of the target's exposure further apart than this factor,
// with a measurement between them, mean the light moved under the search.
constexpr double kChangedLightFactor = 1.5;
// Signal below this many DN above the darkest filter is too little to scale
// from (noise could pass for it): the exposure is raised by kNoSignalStepUp
// instead, which reaches the longest from the shortest in three rounds.
constexpr double kMinSignalDn = 8;
constexpr int kNoSignalStepUp = 16;

double ticks_of(int shutter) { return static_cast<double>(exposure_ticks(shutter)); }

int shutter_for_ticks(double ticks) {
    const double s = std::round((ticks - kExposureBaseTicks) / kTicksPerShutterStep);
    return static_cast<int>(std::clamp(s, double{kMinShutterSpeed}, double{kMaxShutterSpeed}));
}

}  // namespace

ExposureSearch::ExposureSearch(int target, int tolerance, int max_rounds)
    : target_(target), tolerance_(tolerance), max_rounds_(max_rounds) {}

double ExposureSearch::predict_ticks(const ExposureMeasurement& m) const {
    // Two unsaturated measurements at different exposures: the line through
    // them gives the black level as well as the slope.
    if (previous_ && previous_->shutter_speed != m.shutter_speed) {
        const double t0 = ticks_of(previous_->shutter_speed), t1 = ticks_of(m.shutter_speed);
        const double slope = (m.level - previous_->level) / (t1 - t0);
        const double black = m.level - slope * t1;
        if (slope > 0 && m.level - black >= kMinSignalDn && black <= m.floor) return (target_ - black) / slope;
    }
    // One: the darkest filter stands for the black level (it is at most that
    // plus its own light).
    const double signal = m.level - m.floor;
    if (signal < kMinSignalDn) return ticks_of(std::min(kMaxShutterSpeed, m.shutter_speed * kNoSignalStepUp));
    return ticks_of(m.shutter_speed) * (target_ - m.floor) / signal;
}

ExposureStep ExposureSearch::next(const ExposureMeasurement& m) {
    rounds_++;
    const int s = m.shutter_speed;
    if (!m.saturated && std::abs(m.level - target_) <= tolerance_) return {true, ORB_EXPOSURE_ON_TARGET, s};
    if (m.saturated && s <= kMinShutterSpeed) return {true, ORB_EXPOSURE_TOO_BRIGHT, s};
    if (!m.saturated && m.level < target_ && s >= kMaxShutterSpeed) return {true, ORB_EXPOSURE_TOO_DIM, s};

    int next_shutter;
    double prediction = 0;
    if (m.saturated) {
        // With an unsaturated measurement below this one, halfway between the
        // two on a log scale is enough of a step.
        next_shutter = std::max(kMinShutterSpeed, s / kSaturatedStepDown);
        if (previous_ && previous_->shutter_speed < s) {
            const double halfway = std::sqrt(static_cast<double>(previous_->shutter_speed) * s);
            next_shutter = std::max(next_shutter, std::min(s - 1, static_cast<int>(halfway)));
        }
    } else {
        prediction = predict_ticks(m);
        next_shutter = shutter_for_ticks(prediction);
        // As near as the shutter's steps allow.
        if (next_shutter == s) return {true, ORB_EXPOSURE_ON_TARGET, s};
    }
    if (rounds_ >= max_rounds_) return {true, ORB_EXPOSURE_LIGHT_CHANGED, s};
    if (prediction > 0 && last_prediction_ > 0 &&
        std::max(prediction, last_prediction_) > kChangedLightFactor * std::min(prediction, last_prediction_) &&
        rounds_ >= 3)
        return {true, ORB_EXPOSURE_LIGHT_CHANGED, s};
    if (!m.saturated) {
        previous_ = m;
        last_prediction_ = prediction;
    }
    return {false, 0, next_shutter};
}

}  // namespace orbstream

// The auto-exposure on a stream: measure, step, until ExposureSearch ends,
// within the round bound and the call's time-out.

#include "auto_exposure.h"

#include <algorithm>
#include <chrono>

#include "deadline.h"
#include "exposure_search.h"
#include "settings_change.h"
#include "stream_session.h"
#include "../efm32com/orb_exposure.h"

namespace orbstream {

namespace {

// A stream of the search's own needs only a few frames of room.
constexpr int kOwnRingFrames = 8;
// Below two periods of 100 Hz mains flicker a frame may catch a bright or
// a dark moment of it: the brightest of two frames is measured there.
constexpr int kFlickerWindowTicks = 20 * 10000;
constexpr int kStopTimeoutMs = 1000;

struct Run {
    int index;
    const std::vector<int>& filters;
    Deadline deadline;
    int frames = 0;
};

int left_ms(const Deadline& d) {
    return static_cast<int>(
        std::max<long long>(0, std::chrono::ceil<std::chrono::milliseconds>(d.at - Clock::now()).count()));
}

int read_bounded(Run& run, orb_stream_frame& frame) {
    return read_frame(run.index, frame, std::min(left_ms(run.deadline), ORB_EXPOSURE_READ_BOUND_MS));
}

int measure(Run& run, int shutter, ExposureMeasurement& m) {
    m = {shutter, 0, ORB_STREAM_SATURATED, false};
    const int frames = exposure_ticks(shutter) < kFlickerWindowTicks ? 2 : 1;
    orb_stream_frame frame;
    for (int i = 0; i < frames; i++) {
        const int r = read_bounded(run, frame);
        if (r != ORB_STREAM_OK) return r;
        run.frames++;
        auto chosen = [&](auto visit) {
            if (run.filters.empty())
                for (int f = 0; f < ORB_STREAM_FILTERS; f++) visit(frame.values[f]);
            for (int f : run.filters) visit(frame.values[f]);
        };
        chosen([&](uint16_t v) {
            m.level = std::max<int>(m.level, v);
            m.saturated = m.saturated || v >= ORB_STREAM_SATURATED;
        });
        m.floor = std::min<int>(m.floor, *std::min_element(frame.values, frame.values + ORB_STREAM_FILTERS));
    }
    return ORB_STREAM_OK;
}

// Frames queued before the call may show an older light.
void drain(int index) {
    orb_stream_frame frame;
    while (read_frame(index, frame, 0) == ORB_STREAM_OK) {
    }
}

int search(Run& run, int target, int tolerance, orb_exposure_result& result) {
    orb_stream_settings settings{};
    int r = current_settings(run.index, settings, left_ms(run.deadline));
    if (r != ORB_STREAM_OK) return r;
    int shutter = std::clamp(settings.shutter_speed, kMinShutterSpeed, kMaxShutterSpeed);
    if (shutter != settings.shutter_speed &&
        (r = set_shutter_speed(run.index, shutter, left_ms(run.deadline))) != ORB_STREAM_OK)
        return r;
    ExposureSearch steps(target, tolerance, ORB_EXPOSURE_MAX_ROUNDS);
    while (true) {
        ExposureMeasurement m;
        if ((r = measure(run, shutter, m)) != ORB_STREAM_OK) return r;
        result.rounds++;
        result.shutter_speed = shutter;
        result.level = m.level;
        ExposureStep step = steps.next(m);
        // No time left for another round: the search ends where it measured.
        if (!step.done && run.deadline.passed()) step = {true, ORB_EXPOSURE_LIGHT_CHANGED, shutter};
        if (step.done) {
            result.outcome = step.outcome;
            return ORB_STREAM_OK;
        }
        shutter = step.shutter_speed;
        if ((r = set_shutter_speed(run.index, shutter, left_ms(run.deadline))) != ORB_STREAM_OK) return r;
    }
}

}  // namespace

int auto_expose(int index, const std::vector<int>& filters, int target, int tolerance, int timeout_ms,
                orb_exposure_result& result) {
    const auto started = Clock::now();
    Run run{index, filters, Deadline::in_ms(timeout_ms)};
    result = orb_exposure_result{};
    result.target = target;
    result.tolerance = tolerance;

    bool own_stream = false;
    {
        Session& s = session_at(index);
        std::lock_guard<std::mutex> guard(s.lock);
        own_stream = !s.active;
    }
    int r = own_stream ? start_stream(index, kOwnRingFrames, left_ms(run.deadline)) : ORB_STREAM_OK;
    const bool started_here = own_stream && r == ORB_STREAM_OK;
    if (!own_stream) drain(index);
    if (r == ORB_STREAM_OK) r = search(run, target, tolerance, result);
    if (started_here) {
        const int stopped = stop_stream(index, kStopTimeoutMs);
        if (r == ORB_STREAM_OK && stopped != ORB_STREAM_OK && stopped != ORB_STREAM_ERR_NOT_STREAMING) r = stopped;
    }
    result.frames = run.frames;
    result.elapsed_ms = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count());
    return r;
}

}  // namespace orbstream

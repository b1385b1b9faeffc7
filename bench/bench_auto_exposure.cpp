// The auto-exposure search against a sensor of known linear response: how
// many acquisitions it takes, and where it ends, for a dim, a medium and a
// bright scene. Pauses are counted, not slept: what matters here is the
// number of acquisitions, and the pauses a real sensor would add are
// reported beside it.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "benchmarks.h"
#include "orb_device_api.h"
#include "orb_stm_commands.h"
#include "pause_clock.h"
#include "rig.h"

namespace {

constexpr double kDark = 64;

// A lamp seen through the filters: counts per shutter step peak at `peak`
// in the middle of the array and fall to a quarter of it at the edges.
std::array<double, orbsim::kFilters> scene(double peak) {
    std::array<double, orbsim::kFilters> sensitivity;
    for (size_t i = 0; i < sensitivity.size(); i++) {
        const double x = (static_cast<double>(i) - 512.0) / 200.0;
        sensitivity[i] = peak * (0.25 + 0.75 * std::exp(-x * x));
    }
    return sensitivity;
}

int acquisitions(const orbsim::Sensor& sensor) {
    const auto requests = sensor.requests();
    return static_cast<int>(std::count_if(requests.begin(), requests.end(), [](const orbsim::ControlRequest& r) {
        return r.bmRequestType == kRequestTypeOut && r.bRequest == kCmdStreamStart;
    }));
}

void BM_AutoExposure(benchmark::State& state, double peak) {
    if (!rig().frames_flow()) {
        state.SkipWithError("no frames: the sensor is not connected or was disconnected");
        return;
    }
    rig().stream(orbsim::linear_frames(scene(peak), kDark), std::chrono::microseconds(0));
    int speed = 0, acquired = 0;
    double paused_s = 0;
    for (auto _ : state) {
        rig().sensor().clear_log();
        pauses::take();
        speed = duGetOptimalShutterSpeed(nullptr, 0);
        for (const auto& p : pauses::take()) paused_s += p.requested_us * 1e-6;
        acquired += acquisitions(rig().sensor());
    }
    // Where the search left the brightest filter.
    std::vector<double> frame(1024);
    duSetShutterSpeed(speed);
    duGetFilterData(frame.data(), 10);
    duSetShutterSpeed(1);
    pauses::take();

    state.counters["peak_counts_per_step"] = peak;
    state.counters["acquisitions"] = static_cast<double>(acquired) / state.iterations();
    state.counters["shutter_speed"] = speed;
    state.counters["peak_dn"] = *std::max_element(frame.begin(), frame.end());
    state.counters["pauses_s"] = paused_s / state.iterations();
}

}  // namespace

void register_auto_exposure_benchmarks() {
    const struct {
        const char* name;
        double peak;
    } scenes[] = {{"AutoExposure/dim", 3}, {"AutoExposure/medium", 12}, {"AutoExposure/bright", 150}};
    for (const auto& s : scenes)
        benchmark::RegisterBenchmark(s.name, BM_AutoExposure, s.peak)->Iterations(1)->Unit(benchmark::kMillisecond);
}

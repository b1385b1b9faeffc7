// The streaming layer: a stream at the sensor's pace (nothing may be lost,
// and what the library's threads spend per frame), streams at the emulated
// bus's fastest, and the bounded single shot against duGetFilterData.

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "benchmarks.h"
#include "orb_device_api.h"
#include "orb_stream.h"
#include "pause_clock.h"
#include "rig.h"

namespace {

using Clock = Rig::Clock;

double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// How long the stream at the sensor's pace runs: $ORB_STREAM_SECONDS, 60 by
// default (ctest's pass takes 1); the fast streams take at most 3 s each.
double stream_seconds() {
    const char* s = std::getenv("ORB_STREAM_SECONDS");
    return s != nullptr && std::atof(s) > 0 ? std::atof(s) : 60.0;
}

// Filters 0 and 1 carry the frame's number in two 12-bit digits: frames
// delivered are set against the frames the sensor sent between the first
// and the last of them.
void numbered(const orbsim::FrameInfo& f, std::array<uint16_t, orbsim::kFilters>& v) {
    v.fill(2000);
    v[0] = static_cast<uint16_t>(f.number % 4096);
    v[1] = static_cast<uint16_t>(f.number / 4096);
}
uint32_t number_of(const orb_stream_frame& f) { return f.values[0] + 4096u * f.values[1]; }

struct StreamRun {
    uint64_t delivered = 0;
    uint32_t first = 0, last = 0;
    uint64_t lost = 0;
    uint64_t missed = 0;        // the stream's count: slots with no transfer waiting
    uint64_t slots_missed = 0;  // the emulator's count of the same
    double wall = 0, caller = 0, loop = 0, process = 0;
    uint64_t sensor_sent = 0;
};

// Streams for `seconds`, reading every frame; false when the stream failed.
bool run_stream(double seconds, StreamRun& run, benchmark::State& state) {
    static orb_stream_frame frame;
    const uint64_t sent0 = rig().sensor().frames_sent();
    const uint64_t slots0 = rig().sensor().slots_missed();
    if (orb_stream_start(0, 0, 2000) != ORB_STREAM_OK) {
        state.SkipWithError("the stream did not start");
        return false;
    }
    const double caller0 = rig().caller_cpu(), loop0 = rig().loop_cpu(), process0 = rig().process_cpu();
    const auto t0 = Clock::now();
    while (seconds_since(t0) < seconds) {
        if (orb_stream_read(0, &frame, 1000) != ORB_STREAM_OK) {
            state.SkipWithError("a read failed");
            orb_stream_stop(0, 1000);
            return false;
        }
        if (run.delivered++ == 0) run.first = number_of(frame);
        run.last = number_of(frame);
        run.lost += frame.lost_before + frame.stale_before;
    }
    run.wall = seconds_since(t0);
    run.caller = rig().caller_cpu() - caller0;
    run.loop = rig().loop_cpu() - loop0;
    run.process = rig().process_cpu() - process0;
    orb_stream_stats st{};
    orb_stream_get_stats(0, &st);
    run.lost = st.lost;
    run.missed = st.missed;
    orb_stream_stop(0, 1000);
    run.sensor_sent = rig().sensor().frames_sent() - sent0;
    run.slots_missed = rig().sensor().slots_missed() - slots0;
    return true;
}

void report(benchmark::State& state, const StreamRun& run) {
    const double sent = run.last - run.first + 1.0;
    auto us_per_frame = [&run](double s) { return s * 1e6 / run.delivered; };
    state.counters["delivered_fps"] = run.delivered / run.wall;
    state.counters["sent_fps"] = run.sensor_sent / run.wall;
    state.counters["delivered_per_sent"] = run.delivered / sent;
    state.counters["delivered"] = static_cast<double>(run.delivered);
    state.counters["lost"] = static_cast<double>(run.lost);
    state.counters["missed"] = static_cast<double>(run.missed);
    state.counters["sensor_slots_missed"] = static_cast<double>(run.slots_missed);
    state.counters["seconds"] = run.wall;
    state.counters["caller_cpu_us_per_frame"] = us_per_frame(run.caller);
    state.counters["loop_cpu_us_per_frame"] = us_per_frame(run.loop);
    state.counters["emulator_cpu_us_per_frame"] = us_per_frame(run.process - run.caller - run.loop);
}

// Realistic timing at shutter speed 1: the bus sets the pace, 593.75
// frames/s.
void BM_StreamAtTheSensorsPace(benchmark::State& state) {
    if (!rig().frames_flow()) {
        state.SkipWithError("no frames: the sensor is not connected");
        return;
    }
    rig().stream(numbered, std::chrono::microseconds(0));
    rig().sensor().set_timing(orbsim::Timing::Realistic);
    StreamRun run;
    bool ok = true;
    for (auto _ : state) ok = run_stream(stream_seconds(), run, state);
    rig().sensor().set_timing(orbsim::Timing::Fast);
    rig().stream(orbsim::constant_frames(2000), std::chrono::microseconds(0));
    if (ok) report(state, run);
}

// Fast timing, one frame per period at most (0: whenever the library's
// transfer waits, the emulated bus's ceiling in this run).
void BM_StreamFast(benchmark::State& state) {
    if (!rig().frames_flow()) {
        state.SkipWithError("no frames: the sensor is not connected");
        return;
    }
    rig().stream(numbered, std::chrono::microseconds(state.range(0)));
    StreamRun run;
    bool ok = true;
    for (auto _ : state) ok = run_stream(std::min(3.0, stream_seconds()), run, state);
    rig().stream(orbsim::constant_frames(2000), std::chrono::microseconds(0));
    if (ok) report(state, run);
}

// Each iteration times one duGetFilterData and one orb_single_shot, with
// real pauses, one after the other in the same conditions.
void BM_SingleShotAgainstDuGetFilterData(benchmark::State& state) {
    if (!rig().frames_flow()) {
        state.SkipWithError("no frames: the sensor is not connected");
        return;
    }
    const int n = static_cast<int>(state.range(0));
    rig().stream(orbsim::constant_frames(2000), std::chrono::microseconds(5000));
    std::vector<double> a(1024), b(1024);
    double du = 0, bounded = 0;
    for (auto _ : state) {
        pauses::sleep_for_real(true);
        auto t0 = Clock::now();
        const int r1 = duGetFilterData(a.data(), n);
        const double du_s = seconds_since(t0);
        t0 = Clock::now();
        const int r2 = orb_single_shot(0, b.data(), n, 10000);
        const double bounded_s = seconds_since(t0);
        pauses::sleep_for_real(false);
        pauses::take();
        if (r1 != 1 || r2 != ORB_STREAM_OK || a != b) {
            state.SkipWithError("the two calls disagree or failed");
            break;
        }
        du += du_s;
        bounded += bounded_s;
        state.SetIterationTime(du_s + bounded_s);
    }
    rig().stream(orbsim::constant_frames(2000), std::chrono::microseconds(0));
    const double calls = static_cast<double>(state.iterations());
    state.counters["du_ms"] = du * 1e3 / calls;
    state.counters["single_shot_ms"] = bounded * 1e3 / calls;
    state.counters["wall_ratio"] = bounded / du;
}

}  // namespace

void register_stream_benchmarks() {
    benchmark::RegisterBenchmark("StreamAtTheSensorsPace", BM_StreamAtTheSensorsPace)
        ->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
    benchmark::RegisterBenchmark("StreamFast", BM_StreamFast)
        ->Arg(2000)->Arg(1000)->Arg(500)->Arg(0)
        ->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
    benchmark::RegisterBenchmark("SingleShotAgainstDuGetFilterData", BM_SingleShotAgainstDuGetFilterData)
        ->Arg(1)->Arg(10)
        ->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);
}

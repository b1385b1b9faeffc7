// The frame path: the completion callback's own work against a plain copy
// of the frame, and continuous acquisition from the emulated sensor through
// the real libusb.

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstring>
#include <vector>

#include "benchmarks.h"
#include "orb_device_interface_stm.h"
#include "orb_frame_samples.h"
#include "orb_stm_commands.h"
#include "pause_clock.h"
#include "rig.h"
#include "usb_hooks.h"

namespace {

using Clock = Rig::Clock;

using orbframe::kFrameBytes;

double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// The reference: copying the wire frame once, as the cheapest thing a
// callback could do with it.
double memcpy_ns(int64_t copies) {
    std::vector<unsigned char> src(kFrameBytes, 0x5A), dst(kFrameBytes);
    auto t0 = Clock::now();
    for (int64_t i = 0; i < copies; i++) {
        benchmark::DoNotOptimize(src.data());
        memcpy(dst.data(), src.data(), kFrameBytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    return seconds_since(t0) * 1e9 / copies;
}

// One in-window completion: unpack 1024 samples, queue them under the lock,
// signal, count; then the frame is dropped as the caller's averaging would.
void BM_FrameCallback(benchmark::State& state) {
    std::vector<unsigned char> wire(kFrameBytes, 0x5A);
    libusb_transfer* transfer = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(transfer, nullptr, kFrameEndpoint, wire.data(), kFrameBytes, cb_bulkdata, nullptr, 0);
    transfer->status = LIBUSB_TRANSFER_COMPLETED;
    transfer->actual_length = kFrameBytes;
    iCurrAcqMode = kModeCollect;
    usbhooks::swallow_submissions(true);
    auto t0 = Clock::now();
    for (auto _ : state) {
        iCurrAvgNum = 1;
        g_count = 0;
        cb_bulkdata(transfer);
        frameDataQueue.clear();
    }
    const double ns = seconds_since(t0) * 1e9 / state.iterations();
    usbhooks::swallow_submissions(false);
    iCurrAvgNum = 0;
    g_count = 0;
    libusb_free_transfer(transfer);

    const double copy_ns = memcpy_ns(state.iterations());
    state.counters["ns_per_frame"] = ns;
    state.counters["memcpy_ns"] = copy_ns;
    state.counters["x_memcpy"] = ns / copy_ns;
    state.SetBytesProcessed(state.iterations() * kFrameBytes);
}

// Filters 0 and 1 carry the frame's number in two 12-bit digits, so that an
// average of consecutive frames tells which ones it took.
void numbered(const orbsim::FrameInfo& f, std::array<uint16_t, orbsim::kFilters>& v) {
    v.fill(2000);
    v[0] = static_cast<uint16_t>(f.number % 4096);
    v[1] = static_cast<uint16_t>(f.number / 4096);
}

// Continuous mode with the sensor streaming as fast as the host takes
// frames. Each call is a collection window, from the call until the last
// frame it took left the sensor: the frames sent in it are set against the
// frames the call delivered. The sensor goes on sending while the caller
// wakes up and averages, but nobody has asked for those frames.
void BM_ContinuousAcquisition(benchmark::State& state) {
    if (!rig().frames_flow()) {
        state.SkipWithError("no frames: the sensor is not connected");
        return;
    }
    const int n = static_cast<int>(state.range(0));
    std::vector<double> out(orbframe::kSamples);
    rig().stream(numbered, std::chrono::microseconds(0));
    rig().forget_frames();
    get_filter_data_from_sensor(out.data(), 1, 0, kModeContinuous, 0);  // streaming on

    uint64_t delivered = 0, sent = 0;
    double wall = 0, caller = 0, loop = 0, process = 0;
    for (auto _ : state) {
        const uint32_t before = rig().last_sent();
        const double caller0 = rig().caller_cpu(), loop0 = rig().loop_cpu(), process0 = rig().process_cpu();
        auto t0 = Clock::now();
        get_filter_data_from_sensor(out.data(), n, 0, kModeContinuous, 0);
        wall += seconds_since(t0);
        caller += rig().caller_cpu() - caller0;
        loop += rig().loop_cpu() - loop0;
        process += rig().process_cpu() - process0;
        // The window took frames first .. first + n - 1; their mean number
        // is first + (n - 1) / 2.
        const double mean = out[0] + 4096.0 * out[1];
        const auto last = static_cast<uint32_t>(std::lround(mean + (n - 1) / 2.0));
        sent += last - before;
        delivered += n;
    }
    get_filter_data_from_sensor(out.data(), 1, 0, kModeCollect, 0);  // streaming off
    pauses::take();
    usbhooks::take_frame_submissions();
    rig().stream(orbsim::constant_frames(2000), std::chrono::microseconds(0));

    auto us_per_frame = [delivered](double s) { return s * 1e6 / delivered; };
    state.counters["delivered_fps"] = delivered / wall;
    state.counters["sent_fps"] = sent / wall;
    state.counters["delivered_per_sent"] = static_cast<double>(delivered) / sent;
    state.counters["lib_cpu_us_per_frame"] = us_per_frame(caller + loop);
    state.counters["caller_cpu_us_per_frame"] = us_per_frame(caller);
    state.counters["loop_cpu_us_per_frame"] = us_per_frame(loop);
    state.counters["emulator_cpu_us_per_frame"] = us_per_frame(process - caller - loop);
}

}  // namespace

void register_frame_benchmarks() {
    benchmark::RegisterBenchmark("FrameCallback", BM_FrameCallback);
    benchmark::RegisterBenchmark("ContinuousAcquisition", BM_ContinuousAcquisition)
        ->Arg(1000)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
}

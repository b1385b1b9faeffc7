// orb_bus_bench: the emulated sensor's own pace through the real libusb-1.0,
// with no library of ours in between. Fast timing gives the ceiling of the
// emulated bus on this machine (frames and control transfers per second);
// realistic timing must hold a full-speed sensor's 593.75 frames/s at shutter
// speed 1 for a host that keeps up. scripts/bench.sh runs it after orb_bench.
//
//   orb_bus_bench [--orb_seconds=S] [Google Benchmark flags]
//
// Each benchmark runs once for a fixed time: 3 s in fast timing and for
// realistic control transfers, 20 s for the realistic frame rate.
// --orb_seconds=S runs every one for S seconds instead (ctest: 0.5).

#include <benchmark/benchmark.h>
#include <libusb.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "orb_sim.h"

namespace {

using Clock = std::chrono::steady_clock;

double g_seconds = 0;  // 0: each benchmark's own duration
orbsim::Sensor* g_sensor = nullptr;
libusb_context* g_ctx = nullptr;
libusb_device_handle* g_handle = nullptr;

double duration_s(double own) { return g_seconds > 0 ? g_seconds : own; }
double since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

double process_cpu() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

bool command(uint8_t code) { return libusb_control_transfer(g_handle, 0x21, code, 0, 1, nullptr, 0, 1000) == 0; }

// A register write as the library sends it: a class read whose wValue is the byte.
bool write_reg(uint8_t code, uint8_t value) {
    unsigned char echo = 0;
    return libusb_control_transfer(g_handle, 0xA1, code, value, 0, &echo, 1, 1000) == 1 && echo == value;
}

// Frames read with `in_flight` 2048-byte bulk transfers submitted at once,
// each resubmitted from its completion. The library keeps one.
struct Stream {
    struct Slot {
        Stream* stream;
        libusb_transfer* transfer;
        std::vector<unsigned char> buffer = std::vector<unsigned char>(orbsim::kFrameBytes);
    };
    bool running = true;
    int outstanding = 0;
    int failed = 0;
    std::vector<Clock::time_point> arrivals;
    std::vector<Slot> slots;

    static void LIBUSB_CALL done(libusb_transfer* t) {
        auto* slot = static_cast<Slot*>(t->user_data);
        Stream& s = *slot->stream;
        s.outstanding--;
        if (t->status != LIBUSB_TRANSFER_COMPLETED || t->actual_length != orbsim::kFrameBytes) {
            s.failed++;
            return;
        }
        s.arrivals.push_back(Clock::now());
        if (s.running && libusb_submit_transfer(t) == 0) s.outstanding++;
    }

    // Streams for `seconds`; false if a transfer failed.
    bool run(int in_flight, double seconds) {
        slots.resize(in_flight);
        for (Slot& slot : slots) {
            slot.stream = this;
            slot.transfer = libusb_alloc_transfer(0);
            libusb_fill_bulk_transfer(slot.transfer, g_handle, orbsim::kBulkInEndpoint, slot.buffer.data(),
                                      orbsim::kFrameBytes, done, &slot, 2000);
        }
        arrivals.reserve(static_cast<std::size_t>(seconds * 3000) + 16);
        bool ok = command(orbsim::kStartStreaming);
        for (Slot& slot : slots)
            if (ok && libusb_submit_transfer(slot.transfer) == 0) outstanding++;
        const auto t0 = Clock::now();
        while (outstanding > 0 && failed == 0) {
            if (running && since(t0) >= seconds) running = false;  // the ones in flight still complete
            timeval tv{0, 100000};
            libusb_handle_events_timeout(g_ctx, &tv);
        }
        ok = command(orbsim::kStopStreaming) && ok && failed == 0;
        for (Slot& slot : slots) libusb_free_transfer(slot.transfer);
        return ok;
    }

    double frames_per_s() const {
        if (arrivals.size() < 2) return 0;
        return (arrivals.size() - 1) / std::chrono::duration<double>(arrivals.back() - arrivals.front()).count();
    }
};

void frames(benchmark::State& state, orbsim::Timing timing, uint16_t shutter, double own_seconds) {
    const int in_flight = static_cast<int>(state.range(0));
    g_sensor->set_timing(timing);
    if (!write_reg(37, shutter >> 8) || !write_reg(5, shutter & 0xFF)) {
        state.SkipWithError("the shutter speed did not take");
        return;
    }
    Stream stream;
    bool ok = true;
    const double cpu0 = process_cpu();
    for (auto _ : state) ok = stream.run(in_flight, duration_s(own_seconds));
    if (!ok || stream.arrivals.size() < 2) {
        state.SkipWithError("a frame transfer failed");
        return;
    }
    const double n = static_cast<double>(stream.arrivals.size());
    const double fps = stream.frames_per_s();
    Clock::duration longest{};
    for (std::size_t i = 1; i < stream.arrivals.size(); i++)
        longest = std::max(longest, stream.arrivals[i] - stream.arrivals[i - 1]);
    state.counters["frames"] = n;
    state.counters["frames_per_s"] = fps;
    state.counters["MB_per_s"] = fps * orbsim::kFrameBytes / 1e6;
    state.counters["longest_gap_ms"] = std::chrono::duration<double, std::milli>(longest).count();
    // Host, libusb and emulator together: one process.
    state.counters["cpu_us_per_frame"] = (process_cpu() - cpu0) * 1e6 / n;
    if (timing == orbsim::Timing::Realistic) {
        // The sensor's slots from the first frame to the last that no frame
        // filled: the host fell behind there and the schedule restarted.
        const auto interval = g_sensor->frame_interval();
        const double slots = std::round((stream.arrivals.back() - stream.arrivals.front()) / std::chrono::duration<double, std::nano>(interval));
        state.counters["sensor_fps"] = 1e9 / static_cast<double>(interval.count());
        state.counters["slots_missed"] = slots + 1 - n;
    }
}

void controls(benchmark::State& state, orbsim::Timing timing) {
    g_sensor->set_timing(timing);
    const double seconds = duration_s(3);
    long count = 0;
    unsigned char buf[1];
    double took = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        while (since(t0) < seconds) {
            if (libusb_control_transfer(g_handle, 0xA1, 36, 0, 0, buf, 1, 1000) != 1) {
                state.SkipWithError("a register read failed");
                return;
            }
            count++;
        }
        took = since(t0);
    }
    state.counters["controls_per_s"] = count / took;
}

void BM_FastFrames(benchmark::State& state) { frames(state, orbsim::Timing::Fast, 1, 3); }
void BM_FastControl(benchmark::State& state) { controls(state, orbsim::Timing::Fast); }
void BM_RealisticFrames(benchmark::State& state) { frames(state, orbsim::Timing::Realistic, 1, 20); }
void BM_RealisticControl(benchmark::State& state) { controls(state, orbsim::Timing::Realistic); }

bool open_sensor() {
    if (libusb_init(&g_ctx) != 0) return false;
    g_handle = libusb_open_device_with_vid_pid(g_ctx, orbsim::kVendorId, orbsim::kProductId);
    return g_handle && libusb_claim_interface(g_handle, 0) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    int kept = 1;
    for (int i = 1; i < argc; i++) {
        if (std::strncmp(argv[i], "--orb_seconds=", 14) == 0) g_seconds = std::atof(argv[i] + 14);
        else argv[kept++] = argv[i];
    }
    argc = kept;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

    orbsim::Testbed testbed;  // before libusb_init
    g_sensor = &testbed.add_sensor();
    g_sensor->set_frame_generator(orbsim::constant_frames(2000));
    if (!open_sensor()) {
        std::fprintf(stderr, "orb_bus_bench: cannot open the emulated sensor\n");
        return 1;
    }
    auto once = [](benchmark::internal::Benchmark* b) {
        b->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
    };
    once(benchmark::RegisterBenchmark("FastFrames", BM_FastFrames)->ArgName("in_flight")->Arg(1)->Arg(2));
    once(benchmark::RegisterBenchmark("FastControl", BM_FastControl));
    once(benchmark::RegisterBenchmark("RealisticFrames", BM_RealisticFrames)->ArgName("in_flight")->Arg(1)->Arg(2));
    once(benchmark::RegisterBenchmark("RealisticControl", BM_RealisticControl));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    libusb_release_interface(g_handle, 0);
    libusb_close(g_handle);
    libusb_exit(g_ctx);
    return 0;
}

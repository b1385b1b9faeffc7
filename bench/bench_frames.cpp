// The frame path's cost: the completion callback against a plain memcpy,
// continuous acquisition from the emulated sensor through the real libusb,
// and get_filter_data_from_sensor's own time with the protocol's pauses
// taken off the wall clock.
//
// Run: build/bench/orb_bench (add --benchmark_min_time=2 for steadier figures).

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <vector>

#include "orb_device_interface_stm.h"
#include "orb_device_interface_stm_usb.h"
#include "orb_sim.h"

namespace {

std::atomic<uint64_t> g_paused_us{0};
std::atomic<bool> g_swallow_submit{false};
double g_memcpy_ns = 0;

}  // namespace

// Pauses are counted, not slept: the emulated sensor needs none, so the wall
// clock shows only what the library and the USB path cost.
extern "C" __attribute__((visibility("default"))) int usleep(useconds_t usec) {
    g_paused_us += usec;
    return 0;
}

// The callback benchmark measures the callback's own work; its resubmission
// is a usbfs ioctl, which under the emulator is a round trip to umockdev's
// thread and would drown the unpacking. Every other submission goes to libusb.
extern "C" __attribute__((visibility("default"))) int LIBUSB_CALL libusb_submit_transfer(libusb_transfer* transfer) {
    using Submit = int (*)(libusb_transfer*);
    static const Submit real = reinterpret_cast<Submit>(dlsym(RTLD_NEXT, "libusb_submit_transfer"));
    if (g_swallow_submit.load(std::memory_order_relaxed)) return 0;
    return real(transfer);
}

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

double cpu_seconds(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

// The emulated sensor and the bring-up's part of the frame path for index 0,
// set up once for the process: the emulator must exist before libusb starts.
struct Rig {
    orbsim::Testbed testbed;
    orbsim::Sensor* sensor = nullptr;
    bool running = false;
    clockid_t loop_clock{};

    void start() {
        sensor = &testbed.add_sensor();
        sensor->set_frame_generator(orbsim::constant_frames(2000));
        if (connect_device(0u) != 1) return;
        pthread_create(&usbEventLoop_thread, nullptr, usbEventLoop_thread_main, nullptr);
        pthread_getcpuclockid(usbEventLoop_thread, &loop_clock);
        running = alloc_transfer_bulk_l(0, 2048, nullptr, 0) == 0;
    }

    void stop() {
        if (!running) return;
        request_exit(1);
        libusb_interrupt_event_handler(nullptr);
        pthread_join(usbEventLoop_thread, nullptr);
    }

    // CPU of the caller's thread and of the event-loop thread: the library,
    // libusb and the client side of the emulated ioctls, not the emulator.
    double library_cpu() const { return cpu_seconds(CLOCK_THREAD_CPUTIME_ID) + cpu_seconds(loop_clock); }
};

Rig* g_rig = nullptr;

void BM_Memcpy2048(benchmark::State& state) {
    std::vector<unsigned char> src(2048, 0x5A), dst(2048);
    auto t0 = Clock::now();
    for (auto _ : state) {
        memcpy(dst.data(), src.data(), 2048);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    g_memcpy_ns = seconds_since(t0) * 1e9 / state.iterations();
    state.counters["ns_per_frame"] = g_memcpy_ns;
    state.SetBytesProcessed(state.iterations() * 2048);
}
BENCHMARK(BM_Memcpy2048);

// One in-window completion: unpack 1024 samples, queue them under the lock,
// signal, count; then the frame is dropped as the caller's averaging would.
void BM_CallbackUnpackAndQueue(benchmark::State& state) {
    std::vector<unsigned char> wire(2048, 0x5A);
    libusb_transfer* transfer = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(transfer, nullptr, 0x81, wire.data(), 2048, cb_bulkdata, nullptr, 0);
    transfer->status = LIBUSB_TRANSFER_COMPLETED;
    transfer->actual_length = 2048;
    iCurrAcqMode = 2;
    g_swallow_submit = true;
    auto t0 = Clock::now();
    for (auto _ : state) {
        iCurrAvgNum = 1;
        g_count = 0;
        cb_bulkdata(transfer);
        frameDataQueue.clear();
    }
    double ns = seconds_since(t0) * 1e9 / state.iterations();
    g_swallow_submit = false;
    libusb_free_transfer(transfer);
    state.counters["ns_per_frame"] = ns;
    if (g_memcpy_ns > 0) state.counters["x_memcpy"] = ns / g_memcpy_ns;
    state.SetBytesProcessed(state.iterations() * 2048);
}
BENCHMARK(BM_CallbackUnpackAndQueue);

// Continuous mode with the sensor streaming as fast as the host takes
// frames. Each call is a collection window: the frames the emulator sent
// while it was open are set against the frames the call delivered.
void BM_ContinuousAcquisition(benchmark::State& state) {
    if (!g_rig->running) {
        state.SkipWithError("no emulated sensor");
        return;
    }
    const int n = static_cast<int>(state.range(0));
    std::vector<double> out(1024);
    get_filter_data_from_sensor(out.data(), 1, 0, 1, 0);  // streaming on

    uint64_t delivered = 0, sent = 0;
    double wall = 0, cpu = 0;
    for (auto _ : state) {
        uint64_t sent0 = g_rig->sensor->frames_sent();
        double cpu0 = g_rig->library_cpu();
        auto t0 = Clock::now();
        get_filter_data_from_sensor(out.data(), n, 0, 1, 0);
        wall += seconds_since(t0);
        cpu += g_rig->library_cpu() - cpu0;
        sent += g_rig->sensor->frames_sent() - sent0;
        delivered += n;
    }
    get_filter_data_from_sensor(out.data(), 1, 0, 2, 0);  // streaming off
    benchmark::DoNotOptimize(out.data());

    state.counters["delivered_fps"] = delivered / wall;
    state.counters["sensor_sent_fps"] = sent / wall;
    state.counters["delivered_per_sent"] = static_cast<double>(delivered) / sent;
    state.counters["lib_cpu_us_per_frame"] = cpu * 1e6 / delivered;
}
BENCHMARK(BM_ContinuousAcquisition)->Arg(500)->UseRealTime()->Unit(benchmark::kMillisecond);

// Single-shot calls as duGetFilterData makes them. The pauses are counted,
// not slept, so the wall time per call is the library's overhead plus the
// emulated USB; the pauses a real sensor would add are reported beside it.
void BM_GetFilterDataOnVirtualClock(benchmark::State& state) {
    if (!g_rig->running) {
        state.SkipWithError("no emulated sensor");
        return;
    }
    const int n = static_cast<int>(state.range(0));
    std::vector<double> out(1024);
    uint64_t calls = 0;
    double wall = 0, caller_cpu = 0;
    uint64_t paused0 = g_paused_us;
    for (auto _ : state) {
        double cpu0 = cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
        auto t0 = Clock::now();
        get_filter_data_from_sensor(out.data(), n, 0, 0, 0);
        wall += seconds_since(t0);
        caller_cpu += cpu_seconds(CLOCK_THREAD_CPUTIME_ID) - cpu0;
        calls++;
    }
    benchmark::DoNotOptimize(out.data());
    state.counters["wall_us_per_call"] = wall * 1e6 / calls;
    state.counters["virtual_pause_ms_per_call"] = (g_paused_us - paused0) / 1000.0 / calls;
    state.counters["caller_cpu_us_per_call"] = caller_cpu * 1e6 / calls;
}
BENCHMARK(BM_GetFilterDataOnVirtualClock)->Arg(1)->Arg(10)->Arg(100)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Rig rig;
    g_rig = &rig;
    rig.start();
    benchmark::RunSpecifiedBenchmarks();
    rig.stop();
    benchmark::Shutdown();
    // The emulated bus stays up until exit: libusb's default context
    // outlives everything here.
    _exit(0);
}

// What the C entry points cost beyond what the sensor protocol itself takes.
// A call can end no sooner than its pauses (every usleep the library asks
// for, slept for real here) plus the time it must still wait for frames the
// sensor has not yet taken when its pauses are over. Wall time divided by
// that sum is the overhead ratio: 1.0 for a library that costs nothing and
// a USB that answers in no time.

#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "benchmarks.h"
#include "orb_device_api.h"
#include "orb_stm_commands.h"
#include "pause_clock.h"
#include "rig.h"
#include "usb_hooks.h"

extern char** environ;

namespace {

using Clock = Rig::Clock;

// The emulated sensor's frame period: well above what the emulated USB
// needs per frame (under a millisecond), so that the sensor sets the pace.
constexpr std::chrono::microseconds kFramePeriod{5000};
constexpr int kShutterSpeed = 100;
constexpr char kFirstConnectLine[] = "orb_bench first connect:";

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// When frame `number` of the stream was due by the sensor's own schedule:
// one period after the previous one left (the first, one period after the
// start request, is taken as it left).
std::optional<Clock::time_point> due(uint32_t number) {
    if (number == 1) return rig().sent_at(1);
    auto previous = rig().sent_at(number - 1);
    if (!previous) return std::nullopt;
    return *previous + rig().period();
}

// One call, or the sum over several, in seconds.
struct Cost {
    double wall = 0;
    double paused = 0;      // requested by the library
    double frame_wait = 0;  // for frames not yet due when the pauses were over
    double usb = 0;         // inside libusb's control transfers
    double late = 0;        // pauses slept beyond what was asked
    double rearm_late = 0;  // frames delayed because the transfer was not yet waiting
    int calls = 0;

    Cost& operator+=(const Cost& c) {
        wall += c.wall;
        paused += c.paused;
        frame_wait += c.frame_wait;
        usb += c.usb;
        late += c.late;
        rearm_late += c.rearm_late;
        calls += c.calls;
        return *this;
    }

    void report(benchmark::State& state) const {
        const double ideal = paused + frame_wait;
        auto per_call_ms = [this](double s) { return s * 1e3 / calls; };
        state.counters["overhead_ratio"] = wall / ideal;
        state.counters["ratio_library"] = (wall - usb - late - rearm_late) / ideal;
        state.counters["pauses_ms"] = per_call_ms(paused);
        state.counters["frame_wait_ms"] = per_call_ms(frame_wait);
        state.counters["overhead_ms"] = per_call_ms(wall - ideal);
        state.counters["usb_ms"] = per_call_ms(usb);
        state.counters["late_wake_ms"] = per_call_ms(late);
        state.counters["rearm_late_ms"] = per_call_ms(rearm_late);
    }
};

// Runs `call` with real pauses. `frames` is how many frames of a fresh
// stream it needs (0: none). Empty when the call or its frames failed.
template <typename Call>
std::optional<Cost> time_call(uint32_t frames, Call call) {
    rig().forget_frames();
    pauses::take();
    usbhooks::take_control_seconds();
    usbhooks::take_frame_submissions();
    pauses::sleep_for_real(true);
    const auto start = Clock::now();
    const bool ok = call() >= 0;
    const auto end = Clock::now();
    pauses::sleep_for_real(false);
    const std::vector<pauses::Pause> taken = pauses::take();

    Cost cost;
    cost.calls = 1;
    cost.wall = seconds(end - start);
    cost.usb = usbhooks::take_control_seconds();
    for (const auto& p : taken) {
        cost.paused += p.requested_us * 1e-6;
        cost.late += seconds(p.end - p.start) - p.requested_us * 1e-6;
    }
    if (frames > 0) {
        const auto last_due = due(frames);
        if (!last_due) return std::nullopt;
        // The library is ready for the frames once the last pause that began
        // before they were all due is over.
        auto wait_until = [&](Clock::time_point due_at) {
            Clock::time_point ready = start;
            for (const auto& p : taken)
                if (p.start < due_at) ready = p.end;
            return std::max(0.0, seconds(due_at - ready));
        };
        // A frame that came due before the library's transfer was waiting
        // for it again left late, and so did every frame after it: that
        // delay is the host's, not the sensor's.
        const auto rearmed = usbhooks::take_frame_submissions();
        Clock::duration host_late{};
        for (uint32_t k = 2; k <= frames; k++) {
            const Clock::time_point previous = *rig().sent_at(k - 1), due_k = previous + rig().period();
            auto next = std::upper_bound(rearmed.begin(), rearmed.end(), previous);
            if (next != rearmed.end() && *next > due_k) host_late += *next - due_k;
        }
        cost.frame_wait = wait_until(*last_due - host_late);
        cost.rearm_late = wait_until(*last_due) - cost.frame_wait;
    }
    if (!ok) return std::nullopt;
    return cost;
}

void BM_duGetFilterData(benchmark::State& state) {
    if (!rig().frames_flow()) {
        state.SkipWithError("no frames: the sensor is not connected");
        return;
    }
    const int n = static_cast<int>(state.range(0));
    rig().stream(orbsim::constant_frames(2000), kFramePeriod);
    std::vector<double> frame(1024);
    Cost total;
    for (auto _ : state) {
        auto cost = time_call(n + kSingleShotSkip, [&] { return duGetFilterData(frame.data(), n); });
        if (!cost) {
            state.SkipWithError("duGetFilterData failed or returned before its frames were sent");
            break;
        }
        state.SetIterationTime(cost->wall);
        total += *cost;
    }
    rig().stream(orbsim::constant_frames(2000), std::chrono::microseconds(0));
    if (total.calls > 0) total.report(state);
}

void BM_duSetShutterSpeed(benchmark::State& state) {
    Cost total;
    for (auto _ : state) {
        auto cost = time_call(0, [] { return duSetShutterSpeed(kShutterSpeed); });
        if (!cost) {
            state.SkipWithError("duSetShutterSpeed failed");
            break;
        }
        state.SetIterationTime(cost->wall);
        total += *cost;
    }
    duSetShutterSpeed(1);  // the other benchmarks start from the bring-up's speed
    if (total.calls > 0) total.report(state);
}

// The first duConnect of a process, run in a fresh process of this program:
// a second connect in one process finds the sensor's entry of the first in
// the handle table and talks to nothing, and a host connects once anyway.
std::optional<Cost> first_connect_in_child() {
    char self[4096];
    const ssize_t len = readlink("/proc/self/exe", self, sizeof self - 1);
    if (len <= 0) return std::nullopt;
    self[len] = '\0';
    // The child makes an emulated bus of its own, not a client of ours.
    std::vector<char*> env;
    for (char** e = environ; *e != nullptr; e++)
        if (strncmp(*e, "UMOCKDEV_DIR=", 13) != 0) env.push_back(*e);
    env.push_back(nullptr);
    std::string flag = kFirstConnectFlag;
    char* argv[] = {self, flag.data(), nullptr};

    int out[2];
    if (pipe(out) != 0) return std::nullopt;
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        close(out[1]);
        execve(self, argv, env.data());
        _exit(127);
    }
    close(out[1]);
    std::string printed;
    char buf[4096];
    for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) printed.append(buf, n);
    close(out[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return std::nullopt;

    const auto at = printed.find(kFirstConnectLine);
    if (at == std::string::npos) return std::nullopt;
    Cost c;
    c.calls = 1;
    if (sscanf(printed.c_str() + at + sizeof kFirstConnectLine - 1, "%lf %lf %lf %lf", &c.wall, &c.paused, &c.usb,
               &c.late) != 4)
        return std::nullopt;
    return c;
}

void BM_duConnect(benchmark::State& state) {
    Cost total;
    for (auto _ : state) {
        auto cost = first_connect_in_child();
        if (!cost) {
            state.SkipWithError("the first connect failed in the child process");
            break;
        }
        state.SetIterationTime(cost->wall);
        total += *cost;
    }
    if (total.calls > 0) total.report(state);
}

}  // namespace

int time_first_connect() {
    rig().add_sensor();
    auto cost = time_call(0, duConnect);
    if (!cost) return 1;
    printf("%s %.9f %.9f %.9f %.9f\n", kFirstConnectLine, cost->wall, cost->paused, cost->usb, cost->late);
    return 0;
}

void register_entry_point_benchmarks() {
    benchmark::RegisterBenchmark("duConnect", BM_duConnect)
        ->Iterations(4)->UseManualTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("duSetShutterSpeed", BM_duSetShutterSpeed)
        ->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("duGetFilterData", BM_duGetFilterData)
        ->Arg(1)->Arg(10)->Arg(100)
        ->Iterations(8)->UseManualTime()->Unit(benchmark::kMillisecond);
}

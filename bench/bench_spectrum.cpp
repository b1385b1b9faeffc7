// The spectrum engine (orb_spectrum.h) on one core, no sensor: a spectrum
// from a frame (the operator applied), the line refinement, and the
// operator's build from a calibration. The calibration is the tests' synthetic
// unit swept over 340 to 1100 nm, at the sweep's default 2 nm and at 1 nm.

#include <benchmark/benchmark.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "benchmarks.h"
#include "orb_spectrum.h"
#include "synthetic_unit.h"

namespace {

struct Calibrated {
    synthetic::TempDir dir;
    synthetic::Unit unit;
    orb_calibration* calibration = nullptr;
    ~Calibrated() { orb_calibration_destroy(calibration); }
};

// One calibration per step, made on first use and kept for the process.
Calibrated* calibrated(double step_nm) {
    static std::map<double, std::unique_ptr<Calibrated>> made;
    auto& c = made[step_nm];
    if (!c) {
        c = std::make_unique<Calibrated>();
        const std::string path = c->dir.path() + "/unit.h5";
        c->unit.calibrate(path, 340, 1100, step_nm);
        if (orb_calibration_load(&c->calibration, path.c_str(), nullptr, nullptr, 0) != ORB_SPECTRUM_OK) return nullptr;
    }
    return c.get();
}

void SpectrumFromFrame(benchmark::State& state, double step_nm, double grid) {
    Calibrated* c = calibrated(step_nm);
    orb_spectrum* spectrum = nullptr;
    char message[512];
    if (c == nullptr || orb_spectrum_create(&spectrum, c->calibration, grid, nullptr, message, sizeof message) != ORB_SPECTRUM_OK) {
        state.SkipWithError("no operator");
        return;
    }
    const synthetic::Unit::Frame f = c->unit.frame([](double nm) { return 1.0 + 0.001 * nm; }, {}, 1);
    std::vector<double> value(static_cast<size_t>(orb_spectrum_size(spectrum)));
    for (auto _ : state) {
        orb_spectrum_apply(spectrum, f.filters.data(), f.dark.data(), f.exposure_ms, value.data());
        benchmark::DoNotOptimize(value.data());
        benchmark::ClobberMemory();
    }
    state.counters["spectra_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["samples"] = static_cast<double>(value.size());
    orb_spectrum_destroy(spectrum);
}

void Refinement(benchmark::State& state, std::vector<synthetic::Line> lines) {
    Calibrated* c = calibrated(2.0);
    orb_spectrum* spectrum = nullptr;
    if (c == nullptr || orb_spectrum_create(&spectrum, c->calibration, ORB_SPECTRUM_GRID_CALIBRATION, nullptr, nullptr, 0) != ORB_SPECTRUM_OK) {
        state.SkipWithError("no operator");
        return;
    }
    const synthetic::Unit::Frame f = c->unit.frame(nullptr, lines, 16);
    std::vector<double> value(static_cast<size_t>(orb_spectrum_size(spectrum)));
    orb_spectrum_line found[8];
    int count = 0;
    for (auto _ : state) {
        orb_spectrum_refine(spectrum, f.filters.data(), f.dark.data(), f.exposure_ms, value.data(), found, 8, &count);
        benchmark::DoNotOptimize(found);
    }
    state.counters["lines"] = count;
    orb_spectrum_destroy(spectrum);
}

void OperatorBuild(benchmark::State& state, double step_nm) {
    Calibrated* c = calibrated(step_nm);
    if (c == nullptr) {
        state.SkipWithError("no calibration");
        return;
    }
    for (auto _ : state) {
        orb_spectrum* spectrum = nullptr;
        orb_spectrum_create(&spectrum, c->calibration, ORB_SPECTRUM_GRID_CALIBRATION, nullptr, nullptr, 0);
        benchmark::DoNotOptimize(spectrum);
        orb_spectrum_destroy(spectrum);
    }
}

}  // namespace

void register_spectrum_benchmarks() {
    benchmark::RegisterBenchmark("SpectrumFromFrame/2nm_calibration_grid", SpectrumFromFrame, 2.0,
                                 ORB_SPECTRUM_GRID_CALIBRATION)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("SpectrumFromFrame/library_grid_5nm", SpectrumFromFrame, 2.0,
                                 ORB_SPECTRUM_GRID_LIBRARY)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("SpectrumFromFrame/1nm_calibration_grid", SpectrumFromFrame, 1.0,
                                 ORB_SPECTRUM_GRID_CALIBRATION)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("SpectrumFromFrame/0.5nm_grid_from_2nm", SpectrumFromFrame, 2.0, 0.5)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("SpectrumRefinement/one_line_600nm", Refinement,
                                 std::vector<synthetic::Line>{{600.3, 1.0}})->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("SpectrumRefinement/two_lines_3.5nm_apart", Refinement,
                                 std::vector<synthetic::Line>{{598.25, 1.0}, {601.75, 1.0}})->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("SpectrumOperatorBuild/2nm_calibration", OperatorBuild, 2.0)
        ->Unit(benchmark::kMillisecond)->Iterations(3);
    benchmark::RegisterBenchmark("SpectrumOperatorBuild/1nm_calibration", OperatorBuild, 1.0)
        ->Unit(benchmark::kMillisecond)->Iterations(2);
}

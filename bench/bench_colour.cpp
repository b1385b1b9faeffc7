// The colorimetry of one spectrum as the sensor's range gives it (340 to
// 1100 nm at 1 nm): everything orb_colour_compute does, the CRI included.
// It needs no sensor; the view and the Tango device are to run it on every
// frame they show.

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "benchmarks.h"
#include "orb_colour.h"

namespace {

void Colorimetry(benchmark::State& state) {
    orb_colour* colour = nullptr;
    char message[512];
    if (orb_colour_create(&colour, nullptr, message, sizeof message) != ORB_COLOUR_OK) {
        state.SkipWithError(message);
        return;
    }
    // A warm-white LED: a blue line and a broad phosphor band.
    std::vector<double> wl, value;
    for (double nm = 340; nm <= 1100; nm += 1) {
        wl.push_back(nm);
        value.push_back(std::exp(-0.5 * std::pow((nm - 450) / 10, 2)) +
                        1.6 * std::exp(-0.5 * std::pow((nm - 590) / 60, 2)));
    }
    orb_colorimetry result;
    for (auto _ : state) {
        const int r = orb_colour_compute(colour, wl.data(), value.data(), static_cast<int>(wl.size()), &result);
        benchmark::DoNotOptimize(result);
        if (r != ORB_COLOUR_OK) {
            state.SkipWithError(orb_colour_result_text(r));
            break;
        }
    }
    orb_colour_destroy(colour);
}

}  // namespace

void register_colour_benchmarks() {
    benchmark::RegisterBenchmark("Colorimetry/340-1100nm_1nm", Colorimetry)->Unit(benchmark::kMicrosecond);
}

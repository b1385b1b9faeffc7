// orb_bench: the library against one emulated sensor. Run it through
// scripts/bench.sh, which builds it and prints the table.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "benchmarks.h"
#include "rig.h"

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], kFirstConnectFlag) == 0) {
        const int status = time_first_connect();
        fflush(nullptr);
        _exit(status);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (!rig().start()) {
        fprintf(stderr, "orb_bench: the emulated sensor did not connect\n");
        return 1;
    }
    register_frame_benchmarks();
    register_auto_exposure_benchmarks();
    register_entry_point_benchmarks();
    register_stream_benchmarks();
    register_colour_benchmarks();
    register_spectrum_benchmarks();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // The emulated bus stays up until exit: libusb's default context
    // outlives everything here.
    fflush(nullptr);
    _exit(0);
}

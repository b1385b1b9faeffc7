#ifndef ORB_BENCH_BENCHMARKS_H
#define ORB_BENCH_BENCHMARKS_H

// Each file registers its benchmarks; main decides the order.

void register_frame_benchmarks();
void register_auto_exposure_benchmarks();
// Streams of orb_stream.h, and its single shot against duGetFilterData.
void register_stream_benchmarks();
// duConnect, duSetShutterSpeed and duGetFilterData.
void register_entry_point_benchmarks();
// The colorimetry of one spectrum (orb_colour.h); no sensor involved.
void register_colour_benchmarks();
// The spectrum engine (orb_spectrum.h) against a synthetic calibration; no sensor.
void register_spectrum_benchmarks();

// The process the duConnect benchmark starts for each connect: it connects
// one emulated sensor and prints what that cost. Returns the exit status.
int time_first_connect();
inline constexpr char kFirstConnectFlag[] = "--orb_first_connect";

#endif

#!/usr/bin/env python3
"""Turns the JSON output of orb_bench, orb_bus_bench and bench_python.py into the markdown tables of docs/performance.md.

usage: summarize.py RESULTS.json [MORE.json...] [--update-doc docs/performance.md]

Prints the tables; with --update-doc they also replace the part of the
document between the bench-results markers. A benchmark that reported an
error makes it exit with 1 and leaves the document alone.
"""
import argparse
import json
import os
import re
import subprocess
import sys

BEGIN, END = "<!-- bench-results:begin -->", "<!-- bench-results:end -->"


def rows(results):
    """Benchmark name -> its row; the median when the run had repetitions."""
    runs = results["benchmarks"]
    medians = [r for r in runs if r.get("aggregate_name") == "median"]
    chosen = medians or [r for r in runs if r.get("run_type", "iteration") == "iteration"]
    return {r["run_name"]: r for r in chosen}, len(medians) > 0


def find(table, prefix):
    return [(name, r) for name, r in table.items() if name.split("/")[0] == prefix and not r.get("error_occurred")]


def fmt(value, digits=1):
    return f"{value:,.{digits}f}"


def missed(r, sensor_key):
    """The stream's missed count, and the emulator's own count of the slots
    it missed in brackets when the run read it."""
    if "missed" not in r:
        return "–"
    return f"{r['missed']:g} ({r[sensor_key]:g})" if sensor_key in r else f"{r['missed']:g}"


def entry_points(table):
    out = ["| Call | Wall ms | Pauses ms | Frame wait ms | Overhead ms | of it USB ms | of it late wake-ups ms "
           "| of it late re-arms ms | Rest ms | Overhead ratio | Library's own ratio |",
           "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|"]
    calls = find(table, "duConnect") + find(table, "duSetShutterSpeed") + find(table, "duGetFilterData")
    for name, r in calls:
        label = {"duConnect": "duConnect()", "duSetShutterSpeed": "duSetShutterSpeed(100)"}.get(
            name.split("/")[0], "duGetFilterData(n = %s)" % name.split("/")[1] if "/" in name else name)
        wall = r["pauses_ms"] + r["frame_wait_ms"] + r["overhead_ms"]
        rest = r["overhead_ms"] - r["usb_ms"] - r["late_wake_ms"] - r["rearm_late_ms"]
        out.append(f"| {label} | {fmt(wall)} | {fmt(r['pauses_ms'])} | {fmt(r['frame_wait_ms'])} "
                   f"| {fmt(r['overhead_ms'], 2)} | {fmt(r['usb_ms'], 2)} | {fmt(r['late_wake_ms'], 2)} "
                   f"| {fmt(r['rearm_late_ms'], 2)} | {fmt(rest, 2)} | **{r['overhead_ratio']:.3f}** | {r['ratio_library']:.3f} |")
    return out


def frame_path(table):
    out = ["| Frame path | ns per frame | 2048-byte memcpy, ns | Ratio |", "|---|--:|--:|--:|"]
    for _, r in find(table, "FrameCallback"):
        out.append(f"| unpack and queue (cb_bulkdata) | {fmt(r['ns_per_frame'], 0)} | {fmt(r['memcpy_ns'], 0)} "
                   f"| **{r['x_memcpy']:.1f}** |")
    return out


def continuous(table):
    out = ["| Continuous acquisition | Frames/s delivered | Frames/s sent | Delivered / sent "
           "| Library CPU µs per frame (event loop + caller) | Emulator CPU µs per frame |",
           "|---|--:|--:|--:|--:|--:|"]
    for name, r in find(table, "ContinuousAcquisition"):
        out.append(f"| {name.split('/')[1]} frames per window | {fmt(r['delivered_fps'], 0)} | {fmt(r['sent_fps'], 0)} "
                   f"| **{r['delivered_per_sent']:.3f}** | {fmt(r['lib_cpu_us_per_frame'])} "
                   f"({fmt(r['loop_cpu_us_per_frame'])} + {fmt(r['caller_cpu_us_per_frame'])}) "
                   f"| {fmt(r['emulator_cpu_us_per_frame'])} |")
    return out


def streams(table):
    out = ["| Stream (orb_stream.h) | Timing | Frames delivered in s | Frames/s delivered | Frames/s sent "
           "| Delivered / sent | Lost | Missed (emulator's slots missed) "
           "| Library CPU µs per frame: host's thread + event loop | Emulator CPU µs per frame |",
           "|---|---|--:|--:|--:|--:|--:|--:|--:|--:|"]
    rows_ = [("at the sensor's pace", "realistic, shutter speed 1", r) for _, r in find(table, "StreamAtTheSensorsPace")]
    for name, r in sorted(find(table, "StreamFast"), key=lambda nr: -int(nr[0].split("/")[1])):
        period = int(name.split("/")[1])
        rows_.append((f"at most one frame per {period} µs" if period else "as fast as the bus gives them", "fast", r))
    for label, timing, r in rows_:
        out.append(f"| {label} | {timing} | {r['delivered']:,.0f} in {r['seconds']:.1f} | {fmt(r['delivered_fps'])} "
                   f"| {fmt(r['sent_fps'])} | **{r['delivered_per_sent']:.3f}** | {r['lost']:g} "
                   f"| {missed(r, 'sensor_slots_missed')} "
                   f"| {fmt(r['caller_cpu_us_per_frame'])} + {fmt(r['loop_cpu_us_per_frame'])} "
                   f"| {fmt(r['emulator_cpu_us_per_frame'])} |")
    return out


def single_shot(table):
    out = ["| Single shot | duGetFilterData, ms | orb_single_shot, ms | Wall ratio |", "|---|--:|--:|--:|"]
    for name, r in find(table, "SingleShotAgainstDuGetFilterData"):
        out.append(f"| n = {name.split('/')[1]}, {r['iterations']:g} calls each | {fmt(r['du_ms'])} "
                   f"| {fmt(r['single_shot_ms'])} | **{r['wall_ratio']:.3f}** |")
    return out


def auto_exposure(table):
    out = ["| Auto-exposure scene | Counts per shutter step, brightest filter | Acquisitions | Shutter speed "
           "| Brightest filter there, DN | Pauses on a sensor, s |",
           "|---|--:|--:|--:|--:|--:|"]
    for name, r in find(table, "AutoExposure"):
        out.append(f"| {name.split('/')[1]} | {r['peak_counts_per_step']:g} | **{r['acquisitions']:g}** "
                   f"| **{r['shutter_speed']:g}** | {fmt(r['peak_dn'], 0)} | {fmt(r['pauses_s'])} |")
    return out


def bus_pace(table):
    out = ["| Emulated bus, straight libusb | Timing | Transfers in flight | Frames/s | MB/s | Control transfers/s "
           "| Sensor's rate, frames/s | Slots missed | Longest gap, ms | CPU µs per frame, whole process |",
           "|---|---|--:|--:|--:|--:|--:|--:|--:|--:|"]
    for prefix, timing in (("Fast", "fast"), ("Realistic", "realistic")):
        for name, r in find(table, prefix + "Frames"):
            in_flight = name.split("/")[1].split(":")[1]
            sensor = fmt(r["sensor_fps"], 2) if "sensor_fps" in r else "host's pace"
            missed = f"{r['slots_missed']:g}" if "slots_missed" in r else "–"
            out.append(f"| 2048-byte frames, {r['frames']:,.0f} in {r['real_time'] / 1000:.1f} s | {timing} | {in_flight} "
                       f"| **{fmt(r['frames_per_s'], 1 if timing == 'realistic' else 0)}** | {fmt(r['MB_per_s'], 2)} | "
                       f"| {sensor} | {missed} | {fmt(r['longest_gap_ms'])} | {fmt(r['cpu_us_per_frame'])} |")
        for _, r in find(table, prefix + "Control"):
            out.append(f"| register reads (1 byte) | {timing} | 1 | | | **{fmt(r['controls_per_s'], 0)}** | | | | |")
    return out


def python_stream(table):
    out = ["| Python package: Sensor.stream() | Frames delivered in s | Frames/s delivered | Sent: by seq, the sensor's count "
           "| Delivered / sent | Lost | Missed (emulator's slots missed) "
           "| CPU µs per frame: user's process (its consumer thread) + worker "
           "| Whole chain, cores | Emulator CPU µs per frame |",
           "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|"]
    for name, r in find(table, "PythonStream"):
        emulator = fmt(r["emulator_cpu_us_per_frame"]) if "emulator_cpu_us_per_frame" in r else "–"
        what = (f", spectra of {r['wavelengths']:.0f} wavelengths (Sensor.stream(spectra=True))"
                if name.endswith("/spectra") else "")
        out.append(f"| shutter speed {name.split('/')[1].split(':')[1]}{what}, realistic timing "
                   f"| {r['delivered']:,.0f} in {r['seconds']:.1f} | {fmt(r['delivered_fps'])} "
                   f"| {r['sent_by_seq']:,.0f}, {r['sensor_sent']:,.0f} | **{r['delivered_per_sent']:.3f}** | {r['lost']:g} "
                   f"| {missed(r, 'sensor_slots_missed')} "
                   f"| {fmt(r['user_cpu_us_per_frame'])} ({fmt(r['consumer_cpu_us_per_frame'])}) "
                   f"+ {fmt(r['worker_cpu_us_per_frame'])} | **{r['chain_cores']:.3f}** | {emulator} |")
    return out


def python_reads(table):
    out = ["| Python package: call | Calls | Median ms (min–max) | Pauses ms | Frames' time ms | Frame wait ms "
           "| Median / (pauses + frame wait) |",
           "|---|--:|--:|--:|--:|--:|--:|"]
    for name, r in find(table, "PythonRead"):
        out.append(f"| Sensor.read(averages={name.split(':')[1]}), shutter speed 1 | {r['iterations']:g} "
                   f"| {fmt(r['median_ms'])} ({fmt(r['min_ms'])}–{fmt(r['max_ms'])}) | {fmt(r['pauses_ms'], 0)} "
                   f"| {fmt(r['frames_ms'])} | {fmt(r['frame_wait_ms'])} | **{r['ratio']:.3f}** |")
    for _, r in find(table, "PythonSettings"):
        out.append(f"| Sensor.settings(), not streaming | {r['iterations']:g} "
                   f"| {fmt(r['median_ms'])} ({fmt(r['min_ms'])}–{fmt(r['max_ms'])}) | 0 | | | |")
    return out


def python_unplug(table):
    out = ["| Python package: unplug and replug | Rounds | Median ms (min–max) |", "|---|--:|--:|"]
    for _, r in find(table, "PythonUnplugReplug"):
        rounds = f"{r['iterations']:g}"
        out += [f"| `unplug 0` sent while streaming → SensorLostError | {rounds} | **{fmt(r['unplug_to_lost_ms'])}** "
                f"({fmt(r['unplug_to_lost_min_ms'])}–{fmt(r['unplug_to_lost_max_ms'])}) |",
                f"| of it, until the emulator answered `ok` | {rounds} | {fmt(r['unplug_answer_ms'])} |",
                f"| `replug 0` sent → first frame of Sensor.read() ({r['reads_until_frame']:g} call at most) | {rounds} "
                f"| **{fmt(r['replug_to_frame_ms'], 0)}** ({fmt(r['replug_to_frame_min_ms'], 0)}–"
                f"{fmt(r['replug_to_frame_max_ms'], 0)}) |"]
    return out


def spectrum(table):
    out = ["| Spectrum engine (one core, synthetic unit) | Output samples | Per spectrum | Spectra per second |",
           "|---|--:|--:|--:|"]
    for name, r in find(table, "SpectrumFromFrame"):
        out.append(f"| a spectrum from a frame, {name.split('/')[1].replace('_', ' ')} | {r['samples']:g} "
                   f"| {fmt(r['real_time'], 1)} µs | **{fmt(r['spectra_per_s'], 0)}** |")
    for name, r in find(table, "SpectrumRefinement"):
        out.append(f"| line refinement, {name.split('/')[1].replace('_', ' ')} ({r['lines']:g} found) | "
                   f"| **{fmt(r['real_time'], 1)} ms** | {fmt(1000 / r['real_time'], 0)} |")
    for name, r in find(table, "SpectrumOperatorBuild"):
        out.append(f"| operator build (GCV included), {name.split('/')[1].replace('_', ' ')} | "
                   f"| **{fmt(r['real_time'], 0)} ms** | |")
    for name, r in find(table, "Colorimetry"):
        out.append(f"| colorimetry (XYZ, CCT and Duv, CRI), {name.split('/')[1].replace('_', ' ')} | "
                   f"| **{fmt(r['real_time'], 1)} µs** | {fmt(1e6 / r['real_time'], 0)} |")
    return out


def machine(results, medians):
    ctx = results["context"]
    load = ", ".join(f"{x:.2f}" for x in ctx.get("load_avg", []))
    try:
        top = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
        commit = subprocess.run(["git", "-C", top, "describe", "--always", "--dirty"], capture_output=True,
                                text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        commit = "unknown"
    with open("/proc/loadavg") as f:
        load_now = ", ".join(f.read().split()[:3])
    runs = "medians of the repetitions" if medians else "one run"
    return (f"Measured {ctx['date']} on {ctx['host_name']}: nproc {len(os.sched_getaffinity(0))}, "
            f"{ctx['mhz_per_cpu']} MHz; load average (1, 5, 15 min) {load} when the run began, {load_now} "
            f"when it ended; commit {commit}; {runs}.")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("results", nargs="+")
    parser.add_argument("--update-doc", metavar="MARKDOWN")
    args = parser.parse_args()
    results = None
    for path in args.results:
        with open(path) as f:
            more = json.load(f)
        if results is None:
            results = more  # its context names the machine
        else:
            results["benchmarks"] += more["benchmarks"]
    failed = [r for r in results["benchmarks"] if r.get("error_occurred")]
    for r in failed:
        print(f"orb_bench: {r['name']}: {r.get('error_message', 'failed')}", file=sys.stderr)
    table, medians = rows(results)
    parts = [machine(results, medians)]
    for section in (entry_points, frame_path, continuous, streams, single_shot, auto_exposure, bus_pace,
                    python_stream, python_reads, python_unplug, spectrum):
        lines = section(table)
        if len(lines) > 2:
            parts.append("\n".join(lines))
    text = "\n\n".join(parts)
    print(text)

    if failed:
        sys.exit(1)
    if args.update_doc:
        with open(args.update_doc) as f:
            doc = f.read()
        pattern = re.compile(re.escape(BEGIN) + ".*?" + re.escape(END), re.S)
        if not pattern.search(doc):
            sys.exit(f"summarize.py: no {BEGIN} ... {END} in {args.update_doc}")
        doc = pattern.sub(lambda _: f"{BEGIN}\n{text}\n{END}", doc)
        with open(args.update_doc, "w") as f:
            f.write(doc)


if __name__ == "__main__":
    main()

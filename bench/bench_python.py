#!/usr/bin/python3
"""orb_sensor, the Python package, against one emulated sensor: a stream at
the sensor's pace, of filter data and of spectra (Sensor.stream(spectra=True)
with a synthetic calibration: the tests' plumbing unit, whose grid sets the
cost), Sensor.read() against the pauses the protocol takes on purpose, and
how soon an unplug and a replug show.

usage: orb-emulate --sensors 1 -- /usr/bin/python3 bench/bench_python.py
           [--seconds 60] [--reads 30] [--rounds 5] [--json FILE]

Prints a table of figures, as Google Benchmark prints its counters; --json
writes them in Google Benchmark's JSON layout, which bench/summarize.py
turns into the tables of docs/performance.md. The sensors live in the
launcher; its control socket ($ORB_EMULATE_CONTROL) unplugs and replugs them
and counts the frames they send.
"""

import argparse
import datetime
import json
import math
import os
import resource
import socket
import statistics
import sys
import tempfile
import time

# The package of this source tree, not an installed one.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python"))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python", "tests"))

from orb_sensor import Sensor, SensorLostError  # noqa: E402
from orb_sensor._process import supervisor  # noqa: E402
from orb_sensor.facts import FASTEST_FRAME_S, TICKS_EXTRA, TICKS_PER_SHUTTER_STEP, exposure_ms  # noqa: E402
from emulator_control import bench  # noqa: E402
import synthetic_calibration  # noqa: E402

SHUTTER = 1
# What one single shot waits on purpose, as the library's acquisition
# (src/efm32com/orb_device_interface_stm.cpp) and orb_single_shot do: a
# settle pause after every streaming request, at least 30 ms (g_iSleepTime),
# 20 ms between requests (kStreamGapMs); 71 and 70 to start, three 71s to
# stop. The first two frames of a fresh stream are passed over.
SETTLE_FLOOR_MS = 30
STREAM_GAP_MS = 20
FRAMES_PASSED_OVER = 2
# Frames streamed before the unplug, so that it cuts a running stream.
FRAMES_BEFORE_UNPLUG = 300


def sensor_counts():
    """The sensor's own counts since the bench began: frames sent, and slots
    of its pace that passed with no frame sent."""
    line = next(l for l in bench("status") if l.startswith("0 "))
    return tuple(int(line.split(word, 1)[1].split()[0]) for word in ("frames=", "missed="))


def process_cpu_s(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")  # utime + stime


def own_cpu_s():
    r = resource.getrusage(resource.RUSAGE_SELF)
    return r.ru_utime + r.ru_stime


def launcher_pid():
    """The launcher, when it started this process itself: its CPU is the
    emulated sensor's and umockdev's."""
    with open(f"/proc/{os.getppid()}/comm") as f:
        return os.getppid() if f.read().strip() == "orb-emulate" else None


class Snapshot:
    def __init__(self, worker_pid, emulator_pid, seq):
        self.time = time.monotonic()
        self.seq = seq
        self.own, self.consumer = own_cpu_s(), time.thread_time()
        self.worker = process_cpu_s(worker_pid)
        self.emulator = process_cpu_s(emulator_pid) if emulator_pid else None
        self.sent, self.slots_missed = sensor_counts()


def stream(sensor, seconds, **kwargs):
    """Every frame (or spectrum, with spectra=True among kwargs) for
    `seconds` from the first one; the figures cover the frames after the
    first, all processes' CPU included."""
    # The package names its worker process nowhere else.
    worker = supervisor.shared()._worker.process.pid
    emulator = launcher_pid()
    delivered, lost, missed, first = 0, 0, 0, None
    frames = sensor.stream(**kwargs)
    try:
        for frame in frames:
            delivered += 1
            lost += frame.lost
            missed += frame.missed
            if first is None:
                first = Snapshot(worker, emulator, frame.seq)
            elif time.monotonic() - first.time >= seconds:
                last = Snapshot(worker, emulator, frame.seq)
                break
    finally:
        frames.close()
    if supervisor.shared()._worker.process.pid != worker:
        raise RuntimeError("the worker was replaced during the stream")
    wall = last.time - first.time
    after_first = delivered - 1
    sent = last.seq - first.seq
    row = {"seconds": wall, "delivered": delivered, "sent_by_seq": sent + 1,
           "delivered_per_sent": delivered / (sent + 1), "delivered_fps": after_first / wall,
           "sensor_sent": last.sent - first.sent, "sensor_fps": (last.sent - first.sent) / wall, "lost": lost, "missed": missed,
           "sensor_slots_missed": last.slots_missed - first.slots_missed,
           "user_cpu_us_per_frame": (last.own - first.own) / after_first * 1e6,
           "consumer_cpu_us_per_frame": (last.consumer - first.consumer) / after_first * 1e6,
           "worker_cpu_us_per_frame": (last.worker - first.worker) / after_first * 1e6,
           "chain_cores": (last.own - first.own + last.worker - first.worker) / wall}
    if emulator:
        row["emulator_cpu_us_per_frame"] = (last.emulator - first.emulator) / after_first * 1e6
    return row


def spectra_stream(sensor, seconds, directory):
    """The stream of spectra: a dark taken with the emulated light off, the
    spectra made under the fluorescent tube."""
    path = os.path.join(directory, "calibration.h5")
    synthetic_calibration.write(path, sensor.id)
    bench("scene 0 dark")
    dark = sensor.dark()
    bench("scene 0 fluorescent")
    row = stream(sensor, seconds, spectra=True, calibration=path, dark=dark)
    row["wavelengths"] = synthetic_calibration.WAVELENGTHS.size
    return row


def settle_ms(shutter):
    ticks = shutter * TICKS_PER_SHUTTER_STEP + TICKS_EXTRA
    return max(SETTLE_FLOOR_MS, math.ceil(ticks / 5000 * 3))


def single_shot_ideal(shutter, averages):
    """(pauses, frames' time, frame wait) in ms: the frames come while the
    settle pause after the start request runs; only what lies beyond it
    adds to the pauses."""
    settle = settle_ms(shutter)
    pauses = 5 * settle + 3 * STREAM_GAP_MS
    bus_ms = FASTEST_FRAME_S * 1000
    exposure = exposure_ms(shutter)
    # The first frame a bus time after its exposure, the rest one interval apart.
    frames = exposure + bus_ms + (averages + FRAMES_PASSED_OVER - 1) * max(exposure, bus_ms)
    return pauses, frames, max(frames - settle, 0.0)


def median_ms(call, count):
    walls = []
    for _ in range(count):
        t = time.monotonic()
        call()
        walls.append((time.monotonic() - t) * 1000)
    return statistics.median(walls), min(walls), max(walls)


def reads(sensor, averages, count):
    median, low, high = median_ms(lambda: sensor.read(averages), count)
    pauses, frames, wait = single_shot_ideal(SHUTTER, averages)
    return {"median_ms": median, "min_ms": low, "max_ms": high, "pauses_ms": pauses, "frames_ms": frames,
            "frame_wait_ms": wait, "ratio": median / (pauses + wait)}


def settings_request(sensor, count):
    median, low, high = median_ms(sensor.settings, count)
    return {"median_ms": median, "min_ms": low, "max_ms": high}


def unplug_and_replug(sensor, rounds):
    """Each round: unplug while streaming, until SensorLostError; replug,
    then Sensor.read() until it returns a frame."""
    lost_after, answered_after, frames_after, good_after, tries = [], [], [], [], []
    for _ in range(rounds):
        seen, sent_at = 0, None
        try:
            for _frame in sensor.stream():
                seen += 1
                if seen == FRAMES_BEFORE_UNPLUG:
                    sent_at = time.monotonic()
                    bench("unplug 0")
                    answered_after.append((time.monotonic() - sent_at) * 1000)
            raise RuntimeError("the stream ended without SensorLostError")
        except SensorLostError:
            if sent_at is None:
                raise
            lost_after.append((time.monotonic() - sent_at) * 1000)
            frames_after.append(seen - FRAMES_BEFORE_UNPLUG)
        sent_at = time.monotonic()
        bench("replug 0")
        # The first read starts a new worker, which finds the sensor again.
        for attempt in range(1, 100):
            try:
                frame = sensor.read()
                break
            except SensorLostError:
                continue
        else:
            raise RuntimeError("no frame after the replug")
        good_after.append((time.monotonic() - sent_at) * 1000)
        tries.append(attempt)
        if frame.shutter_speed != SHUTTER:
            raise RuntimeError(f"after the replug the shutter speed is {frame.shutter_speed}, not {SHUTTER}")
    return {"unplug_to_lost_ms": statistics.median(lost_after), "unplug_to_lost_min_ms": min(lost_after),
            "unplug_to_lost_max_ms": max(lost_after), "unplug_answer_ms": statistics.median(answered_after),
            "frames_after_unplug": statistics.median(frames_after),
            "replug_to_frame_ms": statistics.median(good_after), "replug_to_frame_min_ms": min(good_after),
            "replug_to_frame_max_ms": max(good_after), "reads_until_frame": max(tries)}


UNITS = {"wavelengths": "values", "seconds": "s", "delivered": "frames", "sent_by_seq": "frames", "sensor_sent": "frames",
         "delivered_fps": "frames/s", "sensor_fps": "frames/s", "lost": "frames", "missed": "frames",
         "sensor_slots_missed": "frames", "chain_cores": "cores",
         "frames_after_unplug": "frames", "reads_until_frame": "calls"}


def unit(counter):
    if counter in UNITS:
        return UNITS[counter]
    return next((u for suffix, u in (("_us_per_frame", "us/frame"), ("_ms", "ms")) if counter.endswith(suffix)), "")


def context():
    with open("/proc/cpuinfo") as f:
        mhz = next((float(l.split(":")[1]) for l in f if l.startswith("cpu MHz")), 0.0)
    return {"date": datetime.datetime.now().astimezone().isoformat(timespec="seconds"),
            "host_name": socket.gethostname(), "executable": os.path.abspath(__file__),
            "num_cpus": os.cpu_count(), "mhz_per_cpu": round(mhz), "load_avg": list(os.getloadavg()),
            "library_path": supervisor.shared().library_path}


def print_table(rows):
    lines = [(f"{name}/{counter}", f"{value:,.3f}" if isinstance(value, float) else f"{value:,}", unit(counter))
             for name, counters in rows for counter, value in counters.items()]
    width = max(len(n) for n, _, _ in lines)
    figure = max(len(v) for _, v, _ in lines)
    rule = "-" * (width + figure + 12)
    print(rule)
    print(f"{'Benchmark':<{width}}  {'Figure':>{figure}}  Unit")
    print(rule)
    for name, value, u in lines:
        print(f"{name:<{width}}  {value:>{figure}}  {u}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=60.0, help="how long the stream runs (default 60)")
    parser.add_argument("--reads", type=int, default=30, help="Sensor.read() calls per row (default 30)")
    parser.add_argument("--rounds", type=int, default=5, help="unplug and replug rounds (default 5)")
    parser.add_argument("--json", metavar="FILE", help="write the figures here (Google Benchmark's layout)")
    args = parser.parse_args()
    if "ORB_EMULATE_CONTROL" not in os.environ:
        sys.exit("bench_python.py: run it under orb-emulate --sensors 1 -- ...")

    sensor = Sensor()
    sensor.shutter_speed = SHUTTER
    ctx = context()
    print(f"{ctx['date']}\nRunning {sys.argv[0]}\nRun on ({ctx['num_cpus']} X {ctx['mhz_per_cpu']} MHz CPU s)\n"
          f"Load Average: {', '.join(f'{x:.2f}' for x in ctx['load_avg'])}", file=sys.stderr)
    seconds = f"{args.seconds:g}"
    scratch = tempfile.TemporaryDirectory()
    runs = [(f"PythonStream/shutter:{SHUTTER}/seconds:{seconds}", 1, lambda: stream(sensor, args.seconds)),
            (f"PythonStream/shutter:{SHUTTER}/seconds:{seconds}/spectra", 1,
             lambda: spectra_stream(sensor, args.seconds, scratch.name))]
    runs += [(f"PythonRead/averages:{n}", args.reads, lambda n=n: reads(sensor, n, args.reads)) for n in (1, 10)]
    runs.append(("PythonSettings", args.reads, lambda: settings_request(sensor, args.reads)))
    runs.append(("PythonUnplugReplug", args.rounds, lambda: unplug_and_replug(sensor, args.rounds)))
    rows, benchmarks = [], []
    for name, iterations, run in runs:
        wall, cpu = time.monotonic(), own_cpu_s()
        counters = run()
        rows.append((name, counters))
        benchmarks.append({"name": name, "run_name": name, "run_type": "iteration", "repetitions": 1,
                           "repetition_index": 0, "threads": 1, "iterations": iterations,
                           "real_time": (time.monotonic() - wall) * 1000, "cpu_time": (own_cpu_s() - cpu) * 1000,
                           "time_unit": "ms", **counters})
    print_table(rows)
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"context": ctx, "benchmarks": benchmarks}, f, indent=2)

if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""The Tango device server against emulated sensors: change events of
FilterData (and with --spectrum, of Spectrum too) delivered to one client
subscribed to every sensor, at the sensors' own pace, and the server's CPU
per frame.

usage: orb-emulate --sensors N --frames counter -- /usr/bin/python3 bench/bench_tango.py
           [--rounds 3] [--shutter 1] [--spectrum] [--json FILE]

The server is tools/orb-tango in a process of its own, with a file
database that lists one OrbSensor device per emulated sensor; this
process is its client. With counter frames every filter of the k-th frame
of a stream reads k (mod 4096), so the client finds every event missing
between two it received. Prints a table of figures, as Google Benchmark
prints its counters; --json writes them in Google Benchmark's JSON layout.

With --spectrum every device takes a dark frame at the shutter speed
(TakeDark) before it streams, so each frame has a spectrum (each emulated
unit needs its calibration: scripts/calibrate_emulated.py --units N, into
a directory of ORB_CALIBRATION_PATH), and
the client subscribes to Spectrum beside FilterData. A spectrum carries no
frame number; its event has its frame's time stamp, as the frame's
FilterData event has, so a frame whose FilterData came and whose Spectrum
did not is a spectrum missing (tango_events.py).

Without a database, a client of this Tango (9.3.4) stops receiving events
about ten seconds after it subscribed: the server names its heartbeat
"...#dbase=no.heartbeat", the client waits for one without "#dbase=no",
misses it and drops the channel (and crashes ten seconds later). So each
round subscribes, measures ROUND_S seconds and unsubscribes; the streams
run on meanwhile.
"""

import argparse
import ctypes
import datetime
import json
import os
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import time

import tango

REPO = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path.insert(0, os.path.join(REPO, "python"))

from orb_sensor.facts import FASTEST_FRAME_S, exposure_ms  # noqa: E402
from orb_sensor.tango.spectra import NO_FRAME  # noqa: E402
from emulator_control import bench  # noqa: E402
from tango_events import FilterDataEvents, SpectrumEvents, spectra_missing  # noqa: E402

SERVER_START_S = 60.0
PR_SET_PDEATHSIG = 1
SERVER_STOP_S = 20.0
# Each round: events before its window opens, and the window; together
# well within the ten seconds a subscription lasts without a database.
WARM_UP_S = 1.0
ROUND_S = 6.5
# After a window, before the unsubscription: the Spectrum of the window's
# last frame follows its FilterData, and has this long to arrive.
PAIRING_S = 0.5
# TakeDark averages frames at the shutter speed set: seconds at the slowest.
DARK_TIMEOUT_MS = 30000
# Ten streams take a few seconds to start.
FIRST_FRAME_S = 20.0


def frames_sent():
    """Each sensor's own count of the frames it has sent."""
    return [int(line.split("frames=", 1)[1].split()[0]) for line in bench("status") if " sensor " in line]


def cpu_s(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def children(pid):
    found = []
    for entry in os.listdir("/proc"):
        try:
            with open(f"/proc/{entry}/stat") as f:
                if entry.isdigit() and int(f.read().rsplit(")", 1)[1].split()[1]) == pid:
                    found.append(int(entry))
        except OSError:
            continue
    return found


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start_server(count, directory):
    """orb-tango serving bench/orb/0..count-1 (SensorIndex 0..count-1):
    its process and the devices' names as a client reaches them."""
    names = [f"bench/orb/{i}" for i in range(count)]
    db = os.path.join(directory, "orb.db")
    with open(db, "w") as f:
        f.write("orb-tango/bench/DEVICE/OrbSensor: " + ", ".join(names) + "\n")
        f.writelines(f"{name}->SensorIndex: {i}\n" for i, name in enumerate(names))
    port = free_port()
    # It ends with this process, also when a Tango client crash ends it.
    server = subprocess.Popen([sys.executable, os.path.join(REPO, "tools", "orb-tango"), "bench",
                               f"-file={db}", "-ORBendPoint", f"giop:tcp:127.0.0.1:{port}"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              preexec_fn=lambda: ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGTERM))
    return server, [f"tango://127.0.0.1:{port}/{name}#dbase=no" for name in names]


def wait_on(proxies, server):
    deadline = time.monotonic() + SERVER_START_S
    while time.monotonic() < deadline:
        if server.poll() is not None:
            raise RuntimeError(f"orb-tango ended with status {server.returncode}")
        try:
            if all(p.state() == tango.DevState.ON for p in proxies):
                return
        except tango.DevFailed:
            pass
        time.sleep(0.2)
    raise RuntimeError(f"the devices were not ON within {SERVER_START_S:g} s")


class Snapshot:
    def __init__(self, counters, spectra, proxies, server_pid, worker_pids):
        self.time = time.monotonic()
        self.events = [c.snapshot() for c in counters]
        self.spectra = [c.snapshot() for c in spectra]
        self.sent = frames_sent()
        self.lost = [p.FramesLost for p in proxies]
        self.missed = [p.FramesMissed for p in proxies]
        self.cpu = {"server": cpu_s(server_pid), "worker": sum(cpu_s(pid) for pid in worker_pids),
                    "emulator": cpu_s(os.getppid()), "client": sum(resource.getrusage(resource.RUSAGE_SELF)[:2])}


def prepare(proxies, shutter, spectrum):
    for proxy in proxies:
        proxy.ShutterSpeed = shutter
        proxy.Averages = 1
        # FilterData must stay the raw counters that number the frames.
        proxy.DarkCorrection = False
        if spectrum:
            proxy.set_timeout_millis(DARK_TIMEOUT_MS)
            proxy.TakeDark()


def first_frames(proxies):
    """Waits until every device has made its first frame's spectrum, or
    found why it cannot: with a calibration the first builds the operator
    (GCV, 165 ms of a core for a 2 nm calibration) on the stream's thread,
    whose frames queue meanwhile."""
    deadline = time.monotonic() + FIRST_FRAME_S
    for proxy in proxies:
        while proxy.SpectrumProblem == NO_FRAME:
            if time.monotonic() > deadline:
                raise RuntimeError(f"{proxy.dev_name()}: no frame within {FIRST_FRAME_S:g} s")
            time.sleep(0.1)


def require_spectra(proxies):
    """Every device makes spectra of its frames: its calibration and dark
    are there."""
    for proxy in proxies:
        problem = proxy.SpectrumProblem
        if problem:
            raise RuntimeError(f"{proxy.dev_name()} makes no spectrum: {problem} (every emulated unit "
                               "needs one: scripts/calibrate_emulated.py --units N)")


def measure(proxies, server, rounds, shutter, spectrum):
    """Streams every sensor; `rounds` subscriptions of ROUND_S seconds each."""
    prepare(proxies, shutter, spectrum)
    for proxy in proxies:
        proxy.Start()
    first_frames(proxies)
    if spectrum:
        require_spectra(proxies)
    # The frames queued meanwhile reach the client.
    time.sleep(WARM_UP_S)
    workers = children(server.pid)
    wall, received, missing, delay, sent, lost, missed, delay_max, behind = 0.0, 0, 0, 0.0, 0, 0, 0, 0.0, 0
    s_received, s_missing, s_delay, s_delay_max, wavelengths = 0, 0, 0.0, 0.0, 0
    cpu = dict.fromkeys(("server", "worker", "emulator", "client"), 0.0)
    for _ in range(rounds):
        counters = [FilterDataEvents(stamps=spectrum) for _ in proxies]
        spectra = [SpectrumEvents() for _ in proxies] if spectrum else []
        ids = [(proxy, proxy.subscribe_event("FilterData", tango.EventType.CHANGE_EVENT, counter))
               for proxy, counter in zip(proxies, counters)]
        ids += [(proxy, proxy.subscribe_event("Spectrum", tango.EventType.CHANGE_EVENT, counter))
                for proxy, counter in zip(proxies, spectra)]
        time.sleep(WARM_UP_S)
        first = Snapshot(counters, spectra, proxies, server.pid, workers)
        for c in counters + spectra:
            c.delay_max = 0.0
        time.sleep(ROUND_S)
        last = Snapshot(counters, spectra, proxies, server.pid, workers)
        if spectrum:
            time.sleep(PAIRING_S)
        for proxy, event_id in ids:
            proxy.unsubscribe_event(event_id)
        wall += last.time - first.time
        received += sum(b[0] - a[0] for a, b in zip(first.events, last.events))
        missing += sum(b[1] - a[1] for a, b in zip(first.events, last.events))
        delay += sum(b[2] - a[2] for a, b in zip(first.events, last.events))
        behind += sum(b[3] - a[3] for a, b in zip(first.events, last.events))
        delay_max = max([delay_max] + [c.delay_max for c in counters])
        s_received += sum(b[0] - a[0] for a, b in zip(first.spectra, last.spectra))
        s_delay += sum(b[2] - a[2] for a, b in zip(first.spectra, last.spectra))
        s_delay_max = max([s_delay_max] + [c.delay_max for c in spectra])
        s_missing += sum(spectra_missing(c, s, a[0], b[0])
                         for c, s, a, b in zip(counters, spectra, first.events, last.events))
        wavelengths = max([wavelengths] + [s.wavelengths for s in spectra])
        sent += sum(b - a for a, b in zip(first.sent, last.sent))
        lost += sum(b - a for a, b in zip(first.lost, last.lost))
        missed += sum(b - a for a, b in zip(first.missed, last.missed))
        for key in cpu:
            cpu[key] += last.cpu[key] - first.cpu[key]
    if spectrum:
        require_spectra(proxies)
    for proxy in proxies:
        proxy.Stop()
    pace = len(proxies) / max(exposure_ms(shutter) / 1000, FASTEST_FRAME_S)
    figures = {"seconds": wall, "sensor_pace_fps": pace, "sensor_sent_fps": sent / wall,
               "events_received": received, "events_per_s": received / wall,
               "events_per_sent": received / sent if sent else 0.0, "events_missing": missing,
               "events_behind": behind, "frames_lost_by_server": lost, "frames_missed_by_server": missed,
               "event_delay_mean_ms": delay / received * 1000 if received else 0.0,
               "event_delay_max_ms": delay_max * 1000}
    if spectrum:
        figures.update({"spectrum_wavelengths": wavelengths, "spectrum_events_received": s_received,
                        "spectrum_events_per_s": s_received / wall,
                        "spectrum_events_per_sent": s_received / sent if sent else 0.0,
                        "spectra_missing": s_missing,
                        "spectrum_delay_mean_ms": s_delay / s_received * 1000 if s_received else 0.0,
                        "spectrum_delay_max_ms": s_delay_max * 1000})
    # Per frame: with --spectrum, a frame's two events.
    figures.update({
        "server_cpu_us_per_frame": cpu["server"] / received * 1e6 if received else 0.0,
        "worker_cpu_us_per_frame": cpu["worker"] / received * 1e6 if received else 0.0,
        "client_cpu_us_per_event": cpu["client"] / received * 1e6 if received else 0.0,
        "emulator_cpu_us_per_frame": cpu["emulator"] / sent * 1e6 if sent else 0.0,
        **{f"{key}_cores": value / wall for key, value in cpu.items()}})
    return figures


UNITS = {"seconds": "s", "sensor_pace_fps": "frames/s", "sensor_sent_fps": "frames/s", "events_received": "events",
         "events_per_s": "events/s", "events_per_sent": "", "events_missing": "events", "events_behind": "events",
         "frames_lost_by_server": "frames", "frames_missed_by_server": "frames", "event_delay_mean_ms": "ms",
         "event_delay_max_ms": "ms", "spectrum_wavelengths": "wavelengths", "spectrum_events_received": "events",
         "spectrum_events_per_s": "events/s", "spectrum_events_per_sent": "", "spectra_missing": "events",
         "spectrum_delay_mean_ms": "ms", "spectrum_delay_max_ms": "ms"}


def print_table(name, counters):
    lines = [(f"{name}/{k}", f"{v:,.3f}" if isinstance(v, float) else f"{v:,}",
              UNITS.get(k, "cores" if k.endswith("_cores") else "us/frame")) for k, v in counters.items()]
    width = max(len(n) for n, _, _ in lines)
    figure = max(len(v) for _, v, _ in lines)
    print("-" * (width + figure + 12))
    print(f"{'Benchmark':<{width}}  {'Figure':>{figure}}  Unit")
    print("-" * (width + figure + 12))
    for n, v, u in lines:
        print(f"{n:<{width}}  {v:>{figure}}  {u}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=3,
                        help=f"subscriptions, each measured {ROUND_S:g} s (default 3)")
    parser.add_argument("--shutter", type=int, default=1, help="every sensor's shutter speed (default 1)")
    parser.add_argument("--spectrum", action="store_true",
                        help="take a dark frame first and subscribe to Spectrum beside FilterData")
    parser.add_argument("--json", metavar="FILE", help="write the figures here (Google Benchmark's layout)")
    args = parser.parse_args()
    if "ORB_EMULATE_CONTROL" not in os.environ:
        sys.exit("bench_tango.py: run it under orb-emulate --sensors N --frames counter -- ...")
    count = len(frames_sent())
    with tempfile.TemporaryDirectory() as directory:
        server, names = start_server(count, directory)
        try:
            proxies = [tango.DeviceProxy(name) for name in names]
            wait_on(proxies, server)
            load = os.getloadavg()
            counters = measure(proxies, server, args.rounds, args.shutter, args.spectrum)
        finally:
            server.terminate()
            try:
                server.wait(SERVER_STOP_S)
            except subprocess.TimeoutExpired:
                server.kill()
                raise
    name = f"TangoEvents/sensors:{count}/shutter:{args.shutter}" + ("/spectrum" if args.spectrum else "")
    print(f"{datetime.datetime.now().astimezone().isoformat(timespec='seconds')}\n"
          f"Run on ({os.cpu_count()} X CPU s), load average {', '.join(f'{x:.2f}' for x in load)} "
          f"at the start, {', '.join(f'{x:.2f}' for x in os.getloadavg())} at the end", file=sys.stderr)
    print_table(name, counters)
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"context": {"date": datetime.datetime.now().astimezone().isoformat(timespec="seconds"),
                                   "host_name": socket.gethostname(), "num_cpus": os.cpu_count(),
                                   "load_avg": list(load), "executable": os.path.abspath(__file__)},
                       "benchmarks": [{"name": name, "run_name": name, "run_type": "iteration",
                                       "iterations": 1, "real_time": counters["seconds"] * 1000,
                                       "time_unit": "ms", **counters}]}, f, indent=2)


if __name__ == "__main__":
    main()

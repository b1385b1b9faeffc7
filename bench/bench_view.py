#!/usr/bin/python3
"""orb-sensor view in headless Chromium against one emulated sensor at its
realistic pace: frames painted per second, the delay from each frame's
timestamp to its paint, and the CPU of the browser, the view's server, the
library's worker and the emulator, at a few shutter speeds, with the page
on the filter axis (filter data), the nm axis (spectra), or both in turn.

usage: ORB_EMULATE=build/sim/orb-emulate ORB_DEVICE_LIBRARY=build/src/liborb_device.so.1 \\
       /usr/bin/python3 bench/bench_view.py [--seconds 20] [--shutter 1 200 400 3000]
       [--axis filter nm] [--light fixed|follow]

Prints a Markdown table. The page counts its own paints and delays
(window.orbView); the view's /api/status counts the frames it received;
CPU is read from /proc for each process tree (% of one core).

Spectra need the unit's calibration (found by its ID, as the build makes
them for the emulated units) and a dark frame of each exposure: before the
rows of a shutter speed the sensor is covered and the page's Take dark
runs. A row on the nm axis fails unless the page drew spectra with no
problem at both ends of its window. With --light follow (the default) the
halogen lamp is as bright as puts the brightest filter near 80% of full
scale at each shutter speed, as an auto-exposure would have it, so a
spectrum has a colour worth reading at shutter speed 1 too; --light fixed
keeps brightness 1 throughout.
"""

import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import time
import urllib.request

REPO = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))
# Absolute: the view runs in a directory of its own.
EMULATE = os.path.abspath(os.environ.get("ORB_EMULATE", os.path.join(REPO, "build", "sim", "orb-emulate")))
if "ORB_DEVICE_LIBRARY" in os.environ:
    os.environ["ORB_DEVICE_LIBRARY"] = os.path.abspath(os.environ["ORB_DEVICE_LIBRARY"])
TOOL = os.path.join(REPO, "tools", "orb-sensor")
CHROMIUM, CHROMEDRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
SETTLE_S = 3.0
TICKS = os.sysconf("SC_CLK_TCK")
DARK_WAIT_S = 60.0
# At brightness 1 the emulator's lights just saturate the nominal unit's
# brightest filter at shutter speed 900; this share of that is the target.
FOLLOWED_LEVEL = 0.8

sys.path.insert(0, os.path.join(REPO, "python"))
from orb_sensor.facts import exposure_ms  # noqa: E402


def _children():
    """{pid: [child pids]} of every process."""
    tree = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open(f"/proc/{entry}/stat") as f:
                    parent = int(f.read().rsplit(")", 1)[1].split()[1])
            except OSError:
                continue
            tree.setdefault(parent, []).append(int(entry))
    return tree


def _tree(pid, tree):
    pids = [pid]
    for child in tree.get(pid, []):
        pids.extend(_tree(child, tree))
    return pids


def _load():
    with open("/proc/loadavg") as f:
        return ", ".join(f.read().split()[:3])


def _cpu_s(pids):
    total = 0
    for pid in pids:
        try:
            with open(f"/proc/{pid}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        total += int(fields[11]) + int(fields[12])
    return total / TICKS


class Rig:
    def __init__(self, work):
        self.socket = os.path.join(work, "bench.sock")
        self.process = subprocess.Popen(
            [EMULATE, "--sensors", "1", "--scene", "halogen", "--control", self.socket, "--",
             sys.executable, TOOL, "view", "--port", "0"],
            cwd=work, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.url = re.search(r"http://\S+", self.process.stdout.readline()).group()
        # The page keeps the axis it is given: nm would be its own choice
        # once it knows the calibration.
        page = self.url + "?axis=filter"
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1400,800"):
            options.add_argument(argument)
        self.driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
        self.driver.set_script_timeout(30)
        self.driver.get(page)

    def post(self, path, body, timeout=10):
        request = urllib.request.Request(self.url + path, json.dumps(body).encode(),
                                         {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=timeout) as response:
            return json.load(response)

    def status(self):
        with urllib.request.urlopen(self.url + "api/status", timeout=10) as response:
            return json.load(response)

    def ctl(self, *words):
        return subprocess.run([EMULATE, "ctl", self.socket, *words], capture_output=True, text=True,
                              timeout=10, check=True).stdout

    def sensor_frames(self):
        return int(re.search(r"^0 .* frames=(\d+)", self.ctl("status"), re.M).group(1))

    def take_dark(self):
        """A dark frame of the current exposure, through the page's API."""
        self.ctl("cover", "0", "on")
        try:
            # It answers once the dark is taken: 16 frames, 4.4 s at shutter speed 3000.
            self.post("api/dark", {}, DARK_WAIT_S)
            deadline = time.monotonic() + DARK_WAIT_S
            while not (self.status()["dark"] and self.status()["state"] == "streaming"):
                if time.monotonic() > deadline:
                    raise RuntimeError(f"no dark frame within {DARK_WAIT_S:g} s: {self.status()}")
                time.sleep(0.2)
        finally:
            self.ctl("cover", "0", "off")

    def set_axis(self, axis):
        self.driver.execute_script("const axis = document.getElementById('axis'); axis.value = arguments[0]; "
                                   "axis.dispatchEvent(new Event('change'));", axis)

    def spectrum_shown(self):
        """Whether the page's spectrum has a colour; raises unless the page
        draws a spectrum and shows no problem."""
        shown = self.driver.execute_script(
            "const p = document.getElementById('spectrum-problem'); "
            "return {problem: p.hidden ? null : p.textContent, spectrum: window.orbView.spectrum !== null, "
            "colour: window.orbView.spectrum !== null && window.orbView.spectrum.colour !== null};")
        if shown["problem"] or not shown["spectrum"]:
            raise RuntimeError(f"the page draws no spectrum: {shown['problem'] or 'nothing yet'}")
        return shown["colour"]

    def processes(self):
        tree = _children()
        view = tree[self.process.pid][0]
        workers = tree.get(view, [])
        return {"browser": _tree(self.driver.service.process.pid, tree), "server": [view],
                "worker": [p for w in workers for p in _tree(w, tree)], "emulator": [self.process.pid]}

    def page(self):
        return self.driver.execute_script("return {received: window.orbView.received, "
                                          "painted: window.orbView.painted, delays: window.orbView.delays.slice()}")

    def close(self):
        self.driver.quit()
        self.process.terminate()
        self.process.wait(30)


def prepare(rig, shutter, axes, light):
    """The shutter speed, the light for it, and its dark frame when a row
    shows spectra."""
    rig.post("api/settings", {"shutter_speed": shutter})
    brightness = FOLLOWED_LEVEL * exposure_ms(900) / exposure_ms(shutter) if light == "follow" else 1.0
    rig.ctl("scene", "0", "halogen", f"{brightness:.4g}")
    if "nm" in axes:
        rig.take_dark()


def measure(rig, shutter, axis, seconds):
    rig.set_axis(axis)
    time.sleep(SETTLE_S)
    colour = rig.spectrum_shown() if axis == "nm" else None
    groups = rig.processes()
    cpu0 = {name: _cpu_s(pids) for name, pids in groups.items()}
    page0, status0, sent0, t0 = rig.page(), rig.status(), rig.sensor_frames(), time.monotonic()
    time.sleep(seconds)
    page1, status1, sent1, t1 = rig.page(), rig.status(), rig.sensor_frames(), time.monotonic()
    cpu1 = {name: _cpu_s(pids) for name, pids in groups.items()}
    if axis == "nm":
        colour = rig.spectrum_shown() and colour
    elapsed = t1 - t0
    painted = page1["painted"] - page0["painted"]
    delays = page1["delays"][-painted:] if painted else [float("nan")]
    return {
        "shutter": shutter, "axis": axis, "colour": colour, "exposure_ms": status1["exposure_ms"],
        "seconds": elapsed,
        "sent": (sent1 - sent0) / elapsed, "received": (status1["frames"] - status0["frames"]) / elapsed,
        "to_page": (page1["received"] - page0["received"]) / elapsed, "painted": painted / elapsed,
        "lost": status1["lost"] - status0["lost"], "missed": status1["missed"] - status0["missed"],
        "delay_median": statistics.median(delays), "delay_p95": statistics.quantiles(delays, n=20, method="inclusive")[-1],
        "delay_max": max(delays),
        "cpu": {name: 100 * (cpu1[name] - cpu0[name]) / elapsed for name in groups},
    }


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--seconds", type=float, default=20.0)
    p.add_argument("--shutter", type=int, nargs="+", default=[1, 200, 400, 3000])
    p.add_argument("--axis", nargs="+", choices=("filter", "nm"), default=["filter"],
                   help="what the page shows in each shutter speed's rows: filter data, spectra, or both in turn")
    p.add_argument("--light", choices=("follow", "fixed"), default="follow",
                   help="halogen as bright as each exposure wants (follow), or brightness 1 throughout")
    args = p.parse_args()
    work = os.path.join(REPO, "build", "bench-view")
    os.makedirs(work, exist_ok=True)
    load_start = _load()
    rig = Rig(work)
    try:
        rows = []
        for shutter in args.shutter:
            prepare(rig, shutter, args.axis, args.light)
            rows += [measure(rig, shutter, axis, args.seconds) for axis in args.axis]
    finally:
        rig.close()
    commit = subprocess.run(["git", "-C", REPO, "describe", "--always", "--dirty"], capture_output=True,
                            text=True).stdout.strip() or "unknown"
    print(f"{time.strftime('%Y-%m-%d %H:%M')}, nproc {os.cpu_count()}, commit {commit}, load average "
          f"(1, 5, 15 min) {load_start} at the start, {_load()} at the end, {args.seconds:g} s a row, "
          f"light {args.light}")
    print()
    print("| Shutter speed (exposure) | Page shows | Sensor, frames/s | View received, frames/s | Sent to the page/s "
          "| Painted/s | Painted / received | Lost | Missed | Delay median / p95 / max, ms "
          "| CPU % browser | server | worker | emulator |")
    print("|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|")
    for r in rows:
        cpu = r["cpu"]
        shows = "filter data" if r["axis"] == "filter" else "spectra" + (" and colour" if r["colour"] else "")
        print(f"| {r['shutter']} ({r['exposure_ms']:.3g} ms) | {shows} | {r['sent']:.1f} | {r['received']:.1f} "
              f"| {r['to_page']:.1f} | **{r['painted']:.1f}** | {r['painted'] / r['received']:.3f} | {r['lost']} | {r['missed']} "
              f"| **{r['delay_median']:.0f}** / {r['delay_p95']:.0f} / {r['delay_max']:.0f} "
              f"| {cpu['browser']:.0f} | {cpu['server']:.0f} | {cpu['worker']:.0f} | {cpu['emulator']:.0f} |")


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""orb-sensor view in headless Chromium against one emulated sensor at its
realistic pace: frames painted per second, the delay from each frame's
timestamp to its paint, and the CPU of the browser, the view's server, the
library's worker and the emulator, at a few shutter speeds.

usage: ORB_EMULATE=build/sim/orb-emulate ORB_DEVICE_LIBRARY=build/src/liborb_device.so.1 \\
       /usr/bin/python3 bench/bench_view.py [--seconds 20] [--shutter 1 200 400 3000]

Prints a Markdown table. The page counts its own paints and delays
(window.orbView); the view's /api/status counts the frames it received;
CPU is read from /proc for each process tree (% of one core).
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
EMULATE = os.environ.get("ORB_EMULATE", os.path.join(REPO, "build", "sim", "orb-emulate"))
TOOL = os.path.join(REPO, "tools", "orb-sensor")
CHROMIUM, CHROMEDRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
SETTLE_S = 3.0
TICKS = os.sysconf("SC_CLK_TCK")


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
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1400,800"):
            options.add_argument(argument)
        self.driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
        self.driver.set_script_timeout(30)
        self.driver.get(self.url)

    def post(self, path, body):
        request = urllib.request.Request(self.url + path, json.dumps(body).encode(),
                                         {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=10) as response:
            return json.load(response)

    def status(self):
        with urllib.request.urlopen(self.url + "api/status", timeout=10) as response:
            return json.load(response)

    def sensor_frames(self):
        out = subprocess.run([EMULATE, "ctl", self.socket, "status"], capture_output=True, text=True,
                             timeout=10).stdout
        return int(re.search(r"^0 .* frames=(\d+)", out, re.M).group(1))

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


def measure(rig, shutter, seconds):
    rig.post("api/settings", {"shutter_speed": shutter})
    time.sleep(SETTLE_S)
    groups = rig.processes()
    cpu0 = {name: _cpu_s(pids) for name, pids in groups.items()}
    page0, status0, sent0, t0 = rig.page(), rig.status(), rig.sensor_frames(), time.monotonic()
    time.sleep(seconds)
    page1, status1, sent1, t1 = rig.page(), rig.status(), rig.sensor_frames(), time.monotonic()
    cpu1 = {name: _cpu_s(pids) for name, pids in groups.items()}
    elapsed = t1 - t0
    painted = page1["painted"] - page0["painted"]
    delays = page1["delays"][-painted:] if painted else [float("nan")]
    return {
        "shutter": shutter, "exposure_ms": status1["exposure_ms"], "seconds": elapsed,
        "sent": (sent1 - sent0) / elapsed, "received": (status1["frames"] - status0["frames"]) / elapsed,
        "to_page": (page1["received"] - page0["received"]) / elapsed, "painted": painted / elapsed,
        "lost": status1["lost"] - status0["lost"], "missed": status1["missed"] - status0["missed"],
        "delay_median": statistics.median(delays), "delay_p95": statistics.quantiles(delays, n=20)[-1],
        "delay_max": max(delays),
        "cpu": {name: 100 * (cpu1[name] - cpu0[name]) / elapsed for name in groups},
    }


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--seconds", type=float, default=20.0)
    p.add_argument("--shutter", type=int, nargs="+", default=[1, 200, 400, 3000])
    args = p.parse_args()
    work = os.path.join(REPO, "build", "bench-view")
    os.makedirs(work, exist_ok=True)
    rig = Rig(work)
    try:
        rows = [measure(rig, shutter, args.seconds) for shutter in args.shutter]
    finally:
        rig.close()
    load = os.getloadavg()
    print(f"{time.strftime('%Y-%m-%d %H:%M')}, nproc {os.cpu_count()}, load average {load[0]:.2f}, "
          f"{args.seconds:g} s a row")
    print()
    print("| Shutter speed (exposure) | Sensor, frames/s | View received, frames/s | Sent to the page/s "
          "| Painted/s | Painted / received | Lost | Missed | Delay median / p95 / max, ms "
          "| CPU % browser | server | worker | emulator |")
    print("|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|")
    for r in rows:
        cpu = r["cpu"]
        print(f"| {r['shutter']} ({r['exposure_ms']:.3g} ms) | {r['sent']:.1f} | {r['received']:.1f} "
              f"| {r['to_page']:.1f} | **{r['painted']:.1f}** | {r['painted'] / r['received']:.3f} | {r['lost']} | {r['missed']} "
              f"| **{r['delay_median']:.0f}** / {r['delay_p95']:.0f} / {r['delay_max']:.0f} "
              f"| {cpu['browser']:.0f} | {cpu['server']:.0f} | {cpu['worker']:.0f} | {cpu['emulator']:.0f} |")


if __name__ == "__main__":
    main()

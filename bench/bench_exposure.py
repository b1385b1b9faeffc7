#!/usr/bin/python3
"""Auto-exposure per scene: the stream layer's search (orb_stream_auto_expose)
beside the library's own (duGetOptimalShutterSpeed), each from shutter speed 1
on one emulated sensor at its realistic pace, in a process of its own per
scene and search, the library's search cut off after --limit seconds.

usage: bench/bench_exposure.py [--build build] [--limit 30]
Prints a markdown table for docs/performance.md."""

import argparse
import ctypes
import os
import subprocess
import sys
import time

SCENES = ["halogen", "halogen 0.1", "halogen 0.01", "dark", "sun 1000", "laser --nm 532",
          "laser --nm 532 + laser --nm 535 0.5", "fluorescent --flicker 100"]


def one(search):
    """In the emulated process: one search, its figures on stdout."""
    lib = ctypes.CDLL(os.environ["ORB_DEVICE_LIBRARY"])
    if lib.duConnect() < 1:
        sys.exit("no sensor")
    lib.orb_stream_set_shutter_speed(0, 1, 2000)
    lib.orb_exposure_outcome_text.restype = ctypes.c_char_p
    out = (ctypes.c_int * 8)()
    data = (ctypes.c_double * 1024)()
    t0 = time.monotonic()
    if search == "stream":
        r = lib.orb_stream_auto_expose(0, None, 0, 0, 0, 20000, out)
        took = time.monotonic() - t0
        shutter = out[1]
        what = f"{lib.orb_exposure_outcome_text(out[0]).decode()}|{out[5]}"
    else:
        shutter = lib.duGetOptimalShutterSpeed(None, 0)
        took = time.monotonic() - t0
        r = 1
        what = "ended|"
    lib.orb_stream_set_shutter_speed(0, max(1, min(shutter, 3000)), 2000)
    lib.orb_single_shot(0, data, 1, 20000)
    print(f"RESULT {r}|{what}|{shutter}|{max(data):.0f}|{took:.2f}", flush=True)
    os._exit(0)


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--build", default=os.path.join(os.path.dirname(__file__), "..", "build"))
    p.add_argument("--limit", type=float, default=30)
    p.add_argument("--one", help=argparse.SUPPRESS)
    args = p.parse_args()
    if args.one:
        return one(args.one)
    emulate = os.path.join(args.build, "sim", "orb-emulate")
    env = dict(os.environ, ORB_DEVICE_LIBRARY=os.path.abspath(os.path.join(args.build, "src", "liborb_device.so.1")))
    print("| Scene | Stream layer: outcome | rounds | s | shutter | brightest DN "
          "| duGetOptimalShutterSpeed: s | shutter | brightest DN |")
    print("|---|---|---|---|---|---|---|---|---|")
    for scene in SCENES:
        row = [scene]
        for search in ("stream", "library"):
            try:
                out = subprocess.run([emulate, "--sensors", "1", "--scene", scene, "--", sys.executable, __file__,
                                      "--one", search], env=env, capture_output=True, text=True,
                                     timeout=args.limit + 10, start_new_session=True).stdout
                fields = next(line for line in out.splitlines() if line.startswith("RESULT ")).split("|")
            except (subprocess.TimeoutExpired, StopIteration):
                row += ([f"no end within {args.limit:g} s", "", "", "", ""] if search == "stream"
                        else [f"> {args.limit:g} (cut off)", "", ""])
                continue
            _, outcome, rounds, shutter, peak, took = fields
            row += [outcome, rounds, took, shutter, peak] if search == "stream" else [took, shutter, peak]
        print("| " + " | ".join(row) + " |", flush=True)


if __name__ == "__main__":
    main()

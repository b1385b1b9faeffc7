#!/usr/bin/python3
"""Gives the emulated units a calibration made by `orb-sensor calibrate`, as
a real sensor comes with its maker's: for each of the first N emulated
sensors whose file is missing from DIR, a 2 nm sweep of 340 to 1100 nm
under `orb-emulate --timing fast` (about 20 s a unit), written under the
name the spectrum engine finds by the sensor's ID. DIR is the build tree's
share/orb-sensor/calibrations, which the engine searches for a library in
the build tree's src/ as it does an installed tree's share directory.

The emulator's monochromator sends the same number of photons at every
wavelength (sim/README.md, "The monochromator"), so its power falls as
1/wavelength. As a lab hands its monochromator's measured output to the
sweep, the sweep gets that as --source-power (DIR/emulator-line-power.csv):
the calibrations then give power per nm, which colorimetry needs, rather than
photons per nm.

    calibrate_emulated.py --launcher build/sim/orb-emulate \
        --library build/src/liborb_device.so.1 --into DIR [--units N]

Files already there and made with that source power are kept; with every
unit's file so (the list in DIR/emulated-units.txt, a line "ID FILE" per
unit) nothing is started."""

import argparse
import os
import subprocess
import sys
import tempfile

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TOOL = [sys.executable, os.path.join(TOP, "tools", "orb-sensor")]
MANIFEST = "emulated-units.txt"
SWEEP_TIMEOUT_S = 900
LINE_POWER = "emulator-line-power.csv"


def write_line_power(path):
    """The emulator's line's relative power at each nm of the sensor's range:
    equal photon flux, so power as 1/wavelength (1 at 550 nm)."""
    with open(path + ".new", "w") as f:
        f.write("wavelength_nm,relative_power\n# the emulator's monochromator: equal photon flux at every "
                "wavelength\n")
        f.write("".join(f"{nm},{550 / nm:.9g}\n" for nm in range(340, 1101)))
    os.replace(path + ".new", path)


def made_with(path, line_power):
    """Whether the calibration at path exists and was swept with line_power."""
    import h5py
    try:
        with h5py.File(path, "r") as f:
            used = f["sweep"].attrs.get("source_power", "")
    except OSError:
        return False
    return (used.decode() if isinstance(used, bytes) else used) == line_power


def under_emulator(args, units, command, **kwargs):
    return subprocess.run([args.launcher, "--sensors", str(units), "--timing", "fast", "--", *TOOL, *command],
                          check=True, stdout=subprocess.PIPE, text=True, timeout=SWEEP_TIMEOUT_S, **kwargs)


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--launcher", required=True)
    p.add_argument("--library", required=True)
    p.add_argument("--into", required=True)
    p.add_argument("--units", type=int, default=2)
    args = p.parse_args()
    os.makedirs(args.into, exist_ok=True)
    # The package finds liborb_spectrum beside the sensor library.
    os.environ.update(ORB_DEVICE_LIBRARY=args.library, ORB_EMULATE=args.launcher)
    os.environ.pop("ORB_SENSOR_EMULATED", None)
    sys.path.insert(0, os.path.join(TOP, "python"))
    from orb_sensor._spectrum.calibration import file_name
    manifest = os.path.join(args.into, MANIFEST)
    try:
        with open(manifest) as f:
            listed = [line.split() for line in f if line.strip()]
    except OSError:
        listed = []
    line_power = os.path.abspath(os.path.join(args.into, LINE_POWER))
    if len(listed) >= args.units and all(made_with(os.path.join(args.into, name), line_power)
                                         for _, name in listed[:args.units]):
        return 0
    write_line_power(line_power)
    ids = [line.split()[1] for line in under_emulator(args, args.units, ["list"]).stdout.splitlines()]
    for index, sensor_id in enumerate(ids):
        target = os.path.join(args.into, file_name(sensor_id))
        if made_with(target, line_power):
            continue
        print(f"calibrating emulated unit {sensor_id} (orb-sensor calibrate under orb-emulate --timing fast)",
              flush=True)
        # Written beside the target first: a sweep cut short leaves nothing under its name.
        with tempfile.TemporaryDirectory(dir=args.into) as scratch:
            made = os.path.join(scratch, file_name(sensor_id))
            under_emulator(args, args.units, ["calibrate", "--sensor", str(index), "-o", made,
                                                    "--source-power", line_power])
            os.replace(made, target)
    with open(manifest + ".new", "w") as f:
        f.write("".join(f"{i} {file_name(i)}\n" for i in ids))
    os.replace(manifest + ".new", manifest)
    return 0


if __name__ == "__main__":
    sys.exit(main())

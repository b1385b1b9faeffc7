"""A calibration file for tests of the plumbing: 1024 Gaussian filters of
this file's own making (centres spread over 340 to 1100 nm, widths 6 to
18 nm, a silicon-like gain), written with the package's writer under a
sensor ID. It is no model of any sensor, emulated or real: spectra of the
emulated sensor made with it test the path, not accuracy.

    synthetic_calibration.py OUT.h5 SENSOR_ID [--frame FRAME.txt --line NM --exposure-ms MS]

With --frame, also writes the counts this synthetic unit gives for a
narrow line of unit power at NM (one value per line, a dark of 100 counts
included), for hosts that need a frame to go with the calibration.
"""

import argparse
import sys

import numpy as np

from orb_sensor._spectrum import calibration

WAVELENGTHS = np.arange(340.0, 1100.0 + 1e-9, 2.0)
DARK_COUNTS = 100.0
FILTERS = 1024


def response():
    """counts per ms per unit of source power, 1024 x N."""
    rng = np.random.default_rng(7)
    centres = np.linspace(335.0, 1105.0, FILTERS) + rng.normal(0.0, 0.3, FILTERS)
    sigma = rng.uniform(6.0, 18.0, FILTERS) / 2.3548
    silicon = np.exp(-0.5 * ((centres - 720.0) / 260.0) ** 2)
    gain = 40.0 * silicon * rng.uniform(0.8, 1.2, FILTERS)
    return gain[:, None] * np.exp(-0.5 * ((WAVELENGTHS[None, :] - centres[:, None]) / sigma[:, None]) ** 2)


def write(path, sensor_id):
    r = response()
    calibration.write(
        path, sensor_id=sensor_id, wavelength_nm=WAVELENGTHS, response=r,
        response_error=np.full(r.shape, 1e-3) + 1e-3 * r, noise=np.full(FILTERS, 2.0),
        step_exposure_ms=np.full(WAVELENGTHS.size, 10.0), dark_exposure_ms=[10.0],
        dark=np.full((1, FILTERS), DARK_COUNTS), adc=(0, 132, 12), sweep=(340.0, 1100.0, 2.0),
        frames_averaged=16, dark_frames=256, source="synthetic (tests)", created="2024-01-01T00:00:00Z")
    return r


def line_frame(r, nm, exposure_ms):
    """The counts of a narrow line of unit power at nm, dark included."""
    per_ms = np.array([np.interp(nm, WAVELENGTHS, row) for row in r])
    return DARK_COUNTS + exposure_ms * per_ms


def main(argv):
    p = argparse.ArgumentParser()
    p.add_argument("path")
    p.add_argument("sensor_id")
    p.add_argument("--frame")
    p.add_argument("--line", type=float, default=550.0)
    p.add_argument("--exposure-ms", type=float, default=10.0)
    args = p.parse_args(argv)
    r = write(args.path, args.sensor_id)
    if args.frame:
        np.savetxt(args.frame, line_frame(r, args.line, args.exposure_ms), fmt="%.6f")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

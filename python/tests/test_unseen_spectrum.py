"""From a sweep to the spectrum of a light no part of the project has seen:
orb-sensor calibrate under the emulator, then a spectrum file the test makes
up shown as the sensor's scene, then orb-sensor spectrum with that
calibration. Scored against what the emulator shows (orb-scene-dump, read
here only to score)."""

import os
import subprocess

import numpy as np

from conftest import EMULATE, LIBRARY, PYTHON, REPO, _bounded, _env

SCORED = (360.0, 1080.0)


def made_up_light(path, seed):
    """A smooth light of a few broad bands on a slope, drawn from a seed."""
    rng = np.random.default_rng(seed)
    nm = np.arange(340.0, 1101.0, 1.0)
    value = 0.3 + 0.4 * (nm - 340) / 760 * rng.uniform(-1, 1)
    for _ in range(4):
        value += rng.uniform(0.3, 1.0) * np.exp(-0.5 * ((nm - rng.uniform(400, 1000)) / rng.uniform(25, 80)) ** 2)
    with open(path, "w") as f:
        f.write("wavelength_nm,value\n" + "".join(f"{w:g},{v:.6g}\n" for w, v in zip(nm, value)))


def shown(path):
    """The light as the emulator shows it: (nm, power per nm)."""
    out = subprocess.run([os.path.join(os.path.dirname(EMULATE), "orb-scene-dump"), "--spectrum", "file", str(path)],
                         check=True, capture_output=True, text=True, timeout=30).stdout
    rows = [r.split(",") for r in out.splitlines() if r.startswith("continuum,")]
    return np.array([float(r[1]) for r in rows]), np.array([float(r[2]) for r in rows])


def test_a_swept_unit_measures_a_light_it_never_saw_within_one_percent(tmp_path):
    power = tmp_path / "line-power.csv"
    # The emulator's monochromator sends the same photons at every
    # wavelength: its power falls as 1/wavelength.
    power.write_text("wavelength_nm,relative_power\n" + "".join(f"{nm},{550 / nm:.9g}\n" for nm in range(340, 1101)))
    light = tmp_path / "light.csv"
    made_up_light(light, seed=20261124)
    tool = [PYTHON, os.path.join(REPO, "tools", "orb-sensor")]
    script = (f"set -e\n"
              f"{' '.join(tool)} calibrate -o unit.h5 --source-power {power}\n"
              f"{EMULATE} ctl \"$ORB_EMULATE_CONTROL\" scene 0 file {light}\n"
              f"{' '.join(tool)} spectrum --calibration unit.h5 -n 16 --take-dark -o s.csv\n")
    env = dict(_env(), ORB_DEVICE_LIBRARY=LIBRARY)
    result = _bounded([EMULATE, "--sensors", "1", "--timing", "fast", "--", "sh", "-c", script], 600,
                      env=env, cwd=tmp_path, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert result.returncode == 0, result.stdout + result.stderr
    with open(tmp_path / "s.csv") as f:
        rows = [line.strip() for line in f if not line.startswith("#")]
    assert rows[0] == "wavelength_nm,value"
    nm, value = np.array([[float(x) for x in row.split(",")] for row in rows[1:]]).T
    true_nm, true_power = shown(light)
    keep = (nm >= SCORED[0]) & (nm <= SCORED[1])
    truth = np.interp(nm[keep], true_nm, true_power)
    scale = value[keep].dot(truth) / truth.dot(truth)
    error = np.sqrt(np.mean((value[keep] - scale * truth) ** 2)) / np.sqrt(np.mean((scale * truth) ** 2))
    print(f"a made-up light through a fresh 2 nm sweep: relative rms error {100 * error:.2f}%")
    assert error < 0.01

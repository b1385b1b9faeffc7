"""Sensor.spectrum() and orb-sensor spectrum under the emulator.

The calibrations are of a synthetic unit (synthetic_calibration.py, Gaussian
filters of the tests' own) written under the emulated sensors' IDs: they test
the path from frame to spectrum (finding, refusing, caching, dark, metadata,
output), not its accuracy, which needs a calibration swept on the unit."""

import hashlib
import json
import os
import select
import subprocess
import time

import pytest

import synthetic_calibration
from conftest import EMULATE, PYTHON, REPO, _env

SENSOR0 = "C1234-7-20-33-1"


@pytest.fixture
def calibrations(tmp_path, monkeypatch):
    """A calibration of sensor 0 in the search path (nothing else in it),
    and one of another unit beside it."""
    found = tmp_path / "calibrations"
    found.mkdir()
    synthetic_calibration.write(str(found / f"{SENSOR0}.h5"), SENSOR0)
    synthetic_calibration.write(str(tmp_path / "other.h5"), "C1234-7-99-33-1")
    monkeypatch.setenv("ORB_CALIBRATION_PATH", str(found))
    monkeypatch.setenv("XDG_DATA_HOME", str(tmp_path / "data"))
    return tmp_path


SENSOR_CODE = r"""
import hashlib, json, os, subprocess
import numpy as np
from orb_sensor import CalibrationError, OrbValueError, Sensor

def ctl(*words):
    subprocess.run([os.environ["ORB_EMULATE"], "ctl", *words], check=True, capture_output=True, timeout=10)

out = {}
with Sensor(index=0) as s:
    s.shutter_speed = 300
    try:
        s.spectrum()
    except OrbValueError as e:
        out["no_dark"] = str(e)
    ctl("scene", "0", "dark")
    s.dark()
    # Darkness less its dark is near nothing; less no dark, it is the dark level.
    out["dark_rms"] = [float(np.sqrt(np.mean(s.spectrum(averages=2, dark=d).values ** 2)))
                       for d in (None, np.zeros(1024))]
    ctl("scene", "0", "halogen")
    a = s.spectrum(averages=2)
    b = s.spectrum(averages=2)
    c = s.spectrum(averages=3, step=5)
    out["operators"] = len(s._spectra._operators)
    out["a"] = {**a.metadata(), "size": int(a.wavelengths.size), "first": a.wavelengths[0],
                "same_grid": bool(np.array_equal(a.wavelengths, b.wavelengths))}
    out["c"] = {"step": float(np.diff(c.wavelengths).mean()), "averages": c.averages}
    r = s.spectrum(refine=True)
    out["lines"] = None if r.lines is None else len(r.lines)
    try:
        s.spectrum(calibration=os.environ["OTHER"], dark=np.zeros(1024))
    except CalibrationError as e:
        out["other"] = [e.code, str(e)]
    try:
        s.spectrum(dark=np.zeros(5))
    except OrbValueError as e:
        out["bad_dark"] = str(e)
with Sensor(index=2) as s:
    try:
        s.spectrum(dark=np.zeros(1024))
    except CalibrationError as e:
        out["none"] = str(e)
print(json.dumps(out))
"""


def test_sensor_spectrum_finds_refuses_caches_and_describes(run_python, calibrations, monkeypatch):
    monkeypatch.setenv("OTHER", str(calibrations / "other.h5"))
    # The first two emulated units come with calibrations from the build;
    # the third has none anywhere.
    result = run_python(3, SENSOR_CODE)
    assert result.returncode == 0, result.stderr
    out = json.loads(result.stdout)
    assert "no dark frame at shutter speed 300" in out["no_dark"] and "dark()" in out["no_dark"]
    a = out["a"]
    path = str(calibrations / "calibrations" / f"{SENSOR0}.h5")
    assert a["calibration_sha256"] == hashlib.sha256(open(path, "rb").read()).hexdigest()
    assert a["calibration_sensor_id"] == SENSOR0 and a["calibration_created"] == "2024-01-01T00:00:00Z"
    assert a["calibration_path"] == path and a["sensor_id"] == SENSOR0
    assert a["shutter_speed"] == 300 and a["exposure_ms"] == 27.376 and a["averages"] == 2
    assert a["size"] == 381 and a["first"] == 340.0 and a["same_grid"]
    assert a["unit"] == "calibration source power/nm" and a["timestamp"] > 0
    assert out["dark_rms"][0] < 0.1 * out["dark_rms"][1]
    # One operator per grid and averages: the spectra of 2 frames share one.
    assert out["operators"] == 3
    assert out["c"] == {"step": 5.0, "averages": 3}
    assert out["lines"] is not None
    assert out["other"][0] == 15 and "C1234-7-99-33-1" in out["other"][1]
    assert "dark must be 1024 finite numbers" in out["bad_dark"]
    assert "orb-sensor calibrate" in out["none"] and str(calibrations / "calibrations") in out["none"]


def _wait_for(process, text, deadline, seen):
    """Reads the tool's stderr (unbuffered, so nothing waits in a buffer
    that select cannot see) until it holds text; returns all read."""
    while text not in seen:
        left = deadline - time.monotonic()
        assert left > 0, f"no {text!r} within the time; stderr: {seen}"
        if select.select([process.stderr], [], [], left)[0]:
            chunk = os.read(process.stderr.fileno(), 4096).decode()
            assert chunk, f"stderr ended before {text!r}: {seen}"
            seen += chunk
    return seen


def _answer(process, control, light):
    subprocess.run([EMULATE, "ctl", control, "scene", "0", light], check=True, capture_output=True, timeout=10)
    process.stdin.write(b"\n")
    process.stdin.flush()


def test_spectrum_command_takes_a_dark_when_asked_and_writes_csv_and_peaks(calibrations, tmp_path):
    control = str(tmp_path / "control")
    # Without the control channel in its environment the tool asks a person
    # to cover the sensor, as with a plugged one; the test answers for them.
    tool = [EMULATE, "--sensors", "1", "--control", control, "--", "env", "-u", "ORB_EMULATE_CONTROL",
            PYTHON, os.path.join(REPO, "tools", "orb-sensor"),
            "spectrum", "--take-dark", "-n", "2", "--refine", "--peaks", "-o", "s.csv"]
    with subprocess.Popen(tool, env=_env(), cwd=tmp_path, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, bufsize=0, start_new_session=True) as p:
        try:
            deadline = time.monotonic() + 120
            said = _wait_for(p, "cover the sensor for a dark frame", deadline, "")
            _answer(p, control, "dark")
            said = _wait_for(p, "uncover the sensor", deadline, said)
            _answer(p, control, "halogen")
            out, err = p.communicate(timeout=max(1, deadline - time.monotonic()))
        except BaseException:
            os.killpg(p.pid, 9)
            raise
    out, err = out.decode(), said + err.decode()
    assert p.returncode == 0, err
    assert "auto-exposing once at the start" in err and f"calibration of {SENSOR0}" in err
    assert out and all(line.startswith(("peak ", "line ")) for line in out.splitlines())
    text = (tmp_path / "s.csv").read_text().splitlines()
    header = [line for line in text if line.startswith("#")]
    rows = text[len(header) + 1:]
    assert text[len(header)] == "wavelength_nm,value" and len(rows) == 381
    assert f'# calibration_sensor_id: "{SENSOR0}"' in header and "# averages: 2" in header
    assert any(line.startswith("# lines: [") for line in header)
    assert float(rows[0].split(",")[0]) == 340.0


def test_spectrum_command_refusals(orb_sensor, calibrations, tmp_path):
    cases = [(("spectrum", "--shutter", "300"), "--take-dark"),
             (("spectrum", "--sensor", "2", "--take-dark"), "orb-sensor calibrate"),
             (("spectrum", "--calibration", str(calibrations / "other.h5"), "--take-dark"), "C1234-7-99-33-1"),
             (("spectrum", "--step", "20", "--take-dark"), "--step: must be between 0.5 and 10 nm"),
             (("colour", "--dark", "nothing.csv"), "--dark nothing.csv: cannot read it")]
    for args, message in cases:
        result = orb_sensor(*args, emulate=["--sensors", "3"])
        assert result.returncode == 2, (args, result.stderr)
        assert message in result.stderr and "Traceback" not in result.stderr, (args, result.stderr)
    # A dark of another exposure is refused, not subtracted.
    assert orb_sensor("acquire", "--shutter", "200", "-o", "dark.csv", emulate_scene="dark").returncode == 0
    result = orb_sensor("spectrum", "--dark", "dark.csv", "--shutter", "300", emulate_scene="halogen")
    assert result.returncode == 2 and "taken at shutter speed 200, the spectrum at 300" in result.stderr
    result = orb_sensor("spectrum", "--dark", "dark.csv", emulate_scene="halogen")
    assert result.returncode == 0, result.stderr
    assert "exposure of the dark in dark.csv: shutter speed 200" in result.stderr
    assert result.stdout.splitlines().count("wavelength_nm,value") == 1

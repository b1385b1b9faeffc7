"""Spectra through the package's surfaces: Sensor.stream(spectra=True), a
notebook's view and pandas, JCAMP-DX read back by an independent reader,
orb-sensor spectrum/stream/record with --spectrum, and a recording read
with h5py alone.

The calibration is of a synthetic unit (synthetic_calibration.py) under
the emulated sensor's ID: these test the path, not accuracy."""

import json
import os
import subprocess

import numpy as np
import pytest

import synthetic_calibration
from conftest import PYTHON, REPO, _bounded, _env

SENSOR0 = "C1234-7-20-33-1"
NPM_DIR = os.path.join(REPO, "build", "npm")
JCAMPCONVERTER = os.path.join(NPM_DIR, "node_modules", "jcampconverter", "package.json")
# Reads a JCAMP-DX file with jcampconverter and prints what it found.
READ_JCAMP = r"""
import { readFileSync } from 'node:fs';
import { convert } from 'jcampconverter';
const entry = convert(readFileSync(process.argv[1], 'utf8'), { keepRecordsRegExp: /.*/ }).flatten[0];
const s = entry.spectra[0];
console.log(JSON.stringify({ title: entry.title, x: s.data.x, y: s.data.y, xUnits: s.xUnits,
                             yUnits: s.yUnits, meta: entry.meta, info: entry.info }));
"""


@pytest.fixture
def calibration(tmp_path, monkeypatch):
    """The synthetic calibration of sensor 0 in the search path."""
    found = tmp_path / "calibrations"
    found.mkdir()
    path = found / f"{SENSOR0}.h5"
    synthetic_calibration.write(str(path), SENSOR0)
    monkeypatch.setenv("ORB_CALIBRATION_PATH", str(found))
    monkeypatch.setenv("XDG_DATA_HOME", str(tmp_path / "data"))
    return path


def read_jcamp(path):
    """What jcampconverter reads in the file. Its absence fails: the set-up
    script installs it, so a missing one is a broken set-up, not a skip."""
    assert os.path.isfile(JCAMPCONVERTER), "jcampconverter is missing: run scripts/setup.sh"
    result = _bounded(["node", "--input-type=module", "-e", READ_JCAMP, str(path)], 60, cwd=NPM_DIR,
                      stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


STREAM_CODE = r"""
import json, os, subprocess
import numpy as np
from orb_sensor import OrbValueError, Sensor, Spectrum

def ctl(*words):
    subprocess.run([os.environ["ORB_EMULATE"], "ctl", *words], check=True, capture_output=True, timeout=10)

out = {}
with Sensor() as s:
    s.shutter_speed = 300
    try:
        s.stream(spectra=True)
    except OrbValueError as e:
        out["no_dark"] = str(e)
    try:
        s.stream(dark=np.zeros(1024))
    except OrbValueError as e:
        out["dark_without_spectra"] = str(e)
    ctl("scene", "0", "dark")
    dark = s.dark()
    ctl("scene", "0", "fluorescent")
    rows = []
    with s.stream(spectra=True, averages=2, frames=6) as st:
        for spectrum in st:
            frame = st.last_frame
            op, _ = s._spectra.operator(None, None, 2)
            expected = op.apply(frame.values, dark, frame.exposure_ms)
            rows.append([type(spectrum) is Spectrum, spectrum.seq, spectrum.averages, spectrum.lost,
                         spectrum.seq == frame.seq, bool(np.allclose(spectrum.values, expected)),
                         spectrum.calibration.sensor_id, bool(np.array_equal(spectrum.wavelengths, st.wavelengths))])
        out["delivered"], out["lost"] = st.delivered, st.lost
    out["rows"] = rows
    out["operators"] = len(s._spectra._operators)
    # A change of exposure with no dark at the new one ends the iteration.
    st = s.stream(spectra=True, frames=50)
    next(st)
    s.shutter_speed = 200
    try:
        for _ in st:
            pass
    except OrbValueError as e:
        out["new_exposure"] = [str(e), st.running]
print(json.dumps(out))
"""


def test_stream_of_spectra_keeps_the_stream_and_the_dark_rule(run_python, calibration):
    result = run_python(1, STREAM_CODE)
    assert result.returncode == 0, result.stderr
    out = json.loads(result.stdout)
    assert "no dark frame at shutter speed 300" in out["no_dark"]
    assert "spectra=True" in out["dark_without_spectra"]
    rows = out["rows"]
    assert len(rows) == 6 and out["delivered"] == 6
    assert all(r[0] and r[2] == 2 and r[4] and r[5] and r[6] == SENSOR0 and r[7] for r in rows), rows
    seqs = [r[1] for r in rows]
    assert all(b > a for a, b in zip(seqs, seqs[1:]))
    assert sum(r[3] for r in rows) == out["lost"]
    # Built once, for the stream's averages: the check above asked the same.
    assert out["operators"] == 2
    assert "no dark frame at shutter speed 200" in out["new_exposure"][0] and not out["new_exposure"][1]


def _spectrum(step=2.0, with_source=True):
    from orb_sensor import CalibrationSource, Spectrum
    nm = np.arange(340.0, 1100.0 + 1e-9, step)
    values = 1e-3 * (np.exp(-0.5 * ((nm - 546.1) / 3) ** 2) + 0.4 * np.exp(-0.5 * ((nm - 435.8) / 3) ** 2)) - 2e-6
    source = CalibrationSource(SENSOR0, "2024-01-01T00:00:00Z", "ab" * 32, "/x.h5") if with_source else None
    return Spectrum(nm, values, seq=12, timestamp=1.7e9, shutter_speed=300, exposure_ms=27.376, averages=4,
                    sensor_id=SENSOR0, calibration=source)


@pytest.mark.parametrize("step", [2.0, 0.5])
def test_jcamp_is_read_back_by_jcampconverter(tmp_path, step):
    spectrum = _spectrum(step)
    path = tmp_path / "s.jdx"
    spectrum.to_jcamp(path)
    text = path.read_text()
    assert text == spectrum.to_jcamp()
    assert "##XYDATA=(X++(Y..Y))" in text and "##JCAMP-DX=4.24" in text
    assert max(len(line) for line in text.splitlines()) <= 80
    got = read_jcamp(path)
    np.testing.assert_allclose(got["x"], spectrum.wavelengths, rtol=0, atol=1e-9)
    np.testing.assert_allclose(got["y"], spectrum.values, rtol=0, atol=1e-9 * np.abs(spectrum.values).max())
    assert got["title"] == f"spectrum of {SENSOR0}, frame 12"
    assert got["xUnits"] == "NANOMETERS" and got["yUnits"] == "calibration source power/nm"
    assert got["meta"]["SENSOR ID"] == SENSOR0 and got["meta"]["EXPOSURE MS"] == 27.376
    assert got["meta"]["CAL SHA256"] == "ab" * 32 and got["meta"]["AVERAGES"] == 4
    assert got["info"]["ORIGIN"].startswith("orb_sensor") and "27.376 ms" in got["info"]["SAMPLINGPROCEDURE"]


def test_notebook_view_and_pandas(tmp_path):
    spectrum = _spectrum()
    page = spectrum._repr_html_()
    assert page.count("<svg") == 1 and "<polyline" in page
    # Peaks labelled by wavelength, the summary beside the plot.
    assert ">546.1<" in page and ">435.8<" in page and SENSOR0 in page and "27.376 ms" in page
    frame = spectrum.to_pandas()
    assert frame.index.name == "wavelength_nm" and list(frame.columns) == ["value"]
    np.testing.assert_array_equal(frame.index.to_numpy(), spectrum.wavelengths)
    np.testing.assert_array_equal(frame["value"].to_numpy(), spectrum.values)
    assert frame.attrs["calibration_sha256"] == "ab" * 32 and spectrum.to_dataframe().shape == frame.shape
    # Without pandas: a clear error that says how to get it.
    code = ("import sys; sys.modules['pandas'] = None\nfrom orb_sensor import Spectrum, OrbError\n"
            "try:\n    Spectrum([1, 2], [3, 4]).to_pandas()\nexcept OrbError as e:\n    print(e)\n")
    result = _bounded([PYTHON, "-c", code], 60, env=_env(), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert "needs pandas" in result.stdout and "python3-pandas" in result.stdout, result.stderr


def test_spectrum_command_writes_json_jcamp_and_plot(orb_sensor, calibration, tmp_path):
    assert orb_sensor("acquire", "--shutter", "300", "-n", "4", "-o", "dark.csv", emulate_scene="dark").returncode == 0
    result = orb_sensor("spectrum", "--dark", "dark.csv", "--json", "--jcamp", "s.jdx", "--plot",
                        emulate_scene="fluorescent")
    assert result.returncode == 0, result.stderr
    doc = json.loads(result.stdout)
    assert doc["sensor_id"] == SENSOR0 and doc["shutter_speed"] == 300 and len(doc["values"]) == 381
    assert doc["peaks"] and all(340 <= p["wavelength_nm"] <= 1100 for p in doc["peaks"])
    got = read_jcamp(tmp_path / "s.jdx")
    np.testing.assert_allclose(got["x"], doc["wavelength_nm"])
    np.testing.assert_allclose(got["y"], doc["values"], atol=1e-9 * max(map(abs, doc["values"])))
    assert (tmp_path / "spectrum.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"

    result = orb_sensor("stream", "--spectrum", "--dark", "dark.csv", "--frames", "4", "-n", "2",
                        emulate_scene="fluorescent")
    assert result.returncode == 0, result.stderr
    lines = result.stdout.splitlines()
    assert lines[0].startswith(f"# spectra of {SENSOR0}") and len(lines) == 5
    assert all(" nm (" in line and "lost 0" in line for line in lines[1:]), lines
    result = orb_sensor("stream", "--spectrum", "--dark", "dark.csv", "--frames", "3", "--ndjson",
                        emulate_scene="fluorescent")
    assert result.returncode == 0, result.stderr
    run, *rows = [json.loads(line) for line in result.stdout.splitlines()]
    assert len(run["run"]["wavelength_nm"]) == 381 and len(rows) == 3
    assert all(len(r["values"]) == 381 and r["averages"] == 1 for r in rows)

    refusals = [(("stream", "--calibration", "x.h5"), "--calibration is for spectra: give --spectrum"),
                (("stream", "--spectrum", "--csv", "--dark", "dark.csv"), "--csv and --per-ms are for filter data"),
                (("record", "--spectrum", "-o", "r.h5"), "--take-dark")]
    for args, message in refusals:
        result = orb_sensor(*args, emulate_scene="fluorescent")
        assert result.returncode == 2 and message in result.stderr, (args, result.stderr)


# Run with numpy and h5py alone: another program reading the recording.
READ_RECORDING = r"""
import json, sys
import h5py, numpy as np
assert "orb_sensor" not in sys.modules
with h5py.File(sys.argv[1], "r") as f:
    e = f["entry"]
    s = e["spectrum"]
    axis = s.attrs["axes"][-1]
    nm, rows = s[axis][:], s[s.attrs["signal"]]
    n = int(e.attrs["frames"])
    at_546 = [float(np.interp(546.0, nm, rows[i])) for i in range(n)]
    print(json.dumps({"n": n, "rows": rows.shape[0], "width": rows.shape[1], "units": s[axis].attrs["units"],
                      "unit": rows.attrs["units"], "at_546": at_546, "filter_rows": e["data/filter_data"].shape[0],
                      "seq": s["seq"][:n].tolist(), "data_seq": e["data/seq"][:n].tolist(),
                      "time": s["timestamp"][:n].tolist(),
                      "cct": e["colour/cct_k"][:n].tolist(), "ra": e["colour/ra"][:n].tolist(),
                      "r": list(e["colour/r"].shape), "x": e["colour/x"][:n].tolist(),
                      "cal_sha": e["calibration"].attrs["sha256"], "cal_id": e["calibration"].attrs["sensor_id"],
                      "cal_response": e["calibration/response"][:].tolist()[500][:5]}))
"""


def _read_recording(path):
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    result = _bounded([PYTHON, "-c", READ_RECORDING, str(path)], 60, env=env, stdout=subprocess.PIPE,
                      stderr=subprocess.PIPE, text=True)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


def test_record_spectrum_stands_alone_and_every_makes_a_timed_series(orb_sensor, calibration, tmp_path):
    import hashlib
    import h5py
    assert orb_sensor("acquire", "--shutter", "300", "-n", "4", "-o", "dark.csv", emulate_scene="dark").returncode == 0
    result = orb_sensor("record", "--spectrum", "--dark", "dark.csv", "--frames", "5", "-o", "r.h5",
                        emulate_scene="fluorescent")
    assert result.returncode == 0, result.stderr
    got = _read_recording(tmp_path / "r.h5")
    assert got["n"] == got["rows"] == got["filter_rows"] == 5 and got["width"] == 381
    assert got["units"] == "nm" and got["unit"] == "calibration source power/nm"
    assert got["seq"] == got["data_seq"]
    assert all(v > 0 for v in got["at_546"])
    assert all(1000 < c < 100000 for c in got["cct"]) and all(r == r for r in got["ra"]) and got["r"] == [5, 14]
    assert all(0 < x < 0.8 for x in got["x"])
    assert got["cal_sha"] == hashlib.sha256(calibration.read_bytes()).hexdigest() and got["cal_id"] == SENSOR0
    with h5py.File(calibration, "r") as f:
        np.testing.assert_array_equal(f["response"][500][:5], got["cal_response"])

    result = orb_sensor("record", "--spectrum", "--dark", "dark.csv", "--every", "0.4", "--frames", "3", "-n", "2",
                        "-o", "e.h5", emulate_scene="fluorescent")
    assert result.returncode == 0, result.stderr
    got = _read_recording(tmp_path / "e.h5")
    assert got["n"] == 3
    gaps = np.diff(got["time"])
    assert np.all(gaps > 0.3) and np.all(gaps < 1.5), gaps

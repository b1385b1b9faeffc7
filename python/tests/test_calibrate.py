"""orb-sensor calibrate under the emulator: short fast sweeps write files
that load as the unit's, with the line where it was set; the command
source is called at every wavelength; --source-power divides the response."""

import re

import h5py
import numpy as np
import pytest

from conftest import LIBRARY

FAST = ["--sensors", "1", "--timing", "fast"]
SHORT = ["--start", "500", "--stop", "540", "--step", "2", "--frames", "4", "--dark-frames", "16"]
UNIT = "C1234-7-20-33-1"


@pytest.fixture(autouse=True)
def _spectrum_library(monkeypatch):
    # liborb_spectrum is found beside the sensor library the tests use.
    monkeypatch.setenv("ORB_DEVICE_LIBRARY", LIBRARY)


def _brightest_peaks_at_the_line(path):
    """Each step's brightest filter answers most near that step's wavelength."""
    with h5py.File(path, "r") as f:
        nm, response, error = f["wavelength_nm"][:], f["response"][:], f["response_error"][:]
    assert np.isfinite(response).all() and (error > 0).all() and np.isfinite(error).all()
    for j in range(3, nm.size - 3):
        brightest = response[:, j].argmax()
        assert abs(nm[response[brightest].argmax()] - nm[j]) <= 4, (nm[j], brightest)
        # A standard error, not the value: 4 frames' scatter varies by a factor of 3.
        assert response[brightest, j] > 10 * error[brightest, j]
    return nm, response


def test_a_sweep_writes_the_units_calibration_where_the_engine_finds_it(orb_sensor, tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_DATA_HOME", str(tmp_path / "data"))
    result = orb_sensor("calibrate", *SHORT, emulate=FAST)
    path = tmp_path / "data" / "orb-sensor" / "calibrations" / f"{UNIT}.h5"
    assert result.returncode == 0, result.stderr
    assert result.stdout.startswith(f"Wrote {path}: the calibration of {UNIT}, 21 wavelengths"), result.stdout
    assert result.stderr == ""  # no progress line when not a terminal

    from orb_sensor._spectrum import calibration
    assert calibration.find(UNIT) == str(path)
    info = calibration.Calibration(str(path), UNIT).info
    assert (info.wavelength_count, info.first_nm, info.last_nm, info.frames_averaged, info.dark_frames) == \
        (21, 500, 540, 4, 16)
    nm, _ = _brightest_peaks_at_the_line(path)
    np.testing.assert_allclose(nm, np.arange(500, 541, 2))
    with h5py.File(path, "r") as f:
        assert f["sweep"].attrs["source"] == "emulator"
        exposures = f["step_exposure_ms"][:]
        assert set(exposures) == set(f["dark_exposure_ms"][:])

    again = orb_sensor("calibrate", *SHORT, emulate=FAST)
    assert again.returncode == 2 and "exists: give --force to replace it" in again.stderr, again


def test_the_command_source_sets_each_wavelength_then_the_dark(orb_sensor, tmp_path):
    ctl = '"$ORB_EMULATE" ctl "$ORB_EMULATE_CONTROL" scene 0'
    set_wavelength = f"echo {{nm}} >> calls.txt && {ctl} line --nm {{nm}} --fwhm 0.1 2 >/dev/null"
    set_dark = f"echo dark >> calls.txt && {ctl} dark >/dev/null"
    result = orb_sensor("calibrate", "-o", "unit.h5", *SHORT, "--set-wavelength", set_wavelength,
                        "--set-dark", set_dark, emulate=FAST)
    assert result.returncode == 0, result.stderr
    calls = (tmp_path / "calls.txt").read_text().split()
    assert calls[:21] == [str(nm) for nm in range(500, 541, 2)] and set(calls[21:]) == {"dark"}, calls
    _brightest_peaks_at_the_line(tmp_path / "unit.h5")
    with h5py.File(tmp_path / "unit.h5", "r") as f:
        assert f["sweep"].attrs["source"] == f"command: {set_wavelength}"


def test_a_failing_command_ends_the_sweep_with_its_message_and_no_file(orb_sensor, tmp_path):
    result = orb_sensor("calibrate", "-o", "unit.h5", *SHORT, "--set-wavelength",
                        "test {nm} != 510 || { echo monochromator jammed >&2; exit 3; }", emulate=FAST)
    assert result.returncode == 2 and "exit status 3" in result.stderr and "monochromator jammed" in result.stderr
    assert "Traceback" not in result.stderr and not (tmp_path / "unit.h5").exists()


def test_source_power_divides_the_response(orb_sensor, tmp_path):
    (tmp_path / "lamp.csv").write_text("wavelength_nm,relative_power\n# a lamp brighter in the red\n"
                                       "400,1\n700,4\n")
    flat = orb_sensor("calibrate", "-o", "flat.h5", *SHORT, emulate=FAST)
    lamp = orb_sensor("calibrate", "-o", "lamp.h5", *SHORT, "--source-power", "lamp.csv", emulate=FAST)
    assert flat.returncode == 0 and lamp.returncode == 0, (flat.stderr, lamp.stderr)
    nm, response_flat = _brightest_peaks_at_the_line(tmp_path / "flat.h5")
    _, response_lamp = _brightest_peaks_at_the_line(tmp_path / "lamp.h5")
    power = 1 + 3 * (nm - 400) / 300
    brightest = response_flat.argmax(axis=0)
    columns = np.arange(nm.size)
    ratio = response_flat[brightest, columns] / response_lamp[brightest, columns]
    # Two sweeps of one light differ by their frames' noise: about 0.7% a
    # step with 4 frames near 55% of full scale. A step that took even one
    # frame of the line before it is off by more.
    np.testing.assert_allclose(ratio, power, rtol=0.03)
    # The darks, taken right after the last line, hold none of it: the
    # filters that saw it best scatter in the dark as the others do.
    with h5py.File(tmp_path / "flat.h5", "r") as f:
        noise = f["noise"][:]
    assert noise[np.argsort(response_flat[:, -1])[-5:]].max() < 2 * np.median(noise)
    with h5py.File(tmp_path / "lamp.h5", "r") as f:
        assert f["sweep"].attrs["source_power"] == str(tmp_path / "lamp.csv")


def test_a_terminal_sees_the_step_the_wavelength_the_exposure_and_the_time_left(orb_sensor_on_terminal):
    result, shown = orb_sensor_on_terminal("calibrate", "-o", "unit.h5", *SHORT, emulate=FAST)
    assert result.returncode == 0
    assert re.search(rb"step 21/21: 540 nm at 0\.\d+ ms, about \d+ s left", shown), shown[-400:]
    assert re.search(rb"darks at 0\.\d+ ms \(1 of \d+\), \d+ s left", shown), shown[-400:]

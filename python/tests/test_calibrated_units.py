"""The emulated units come with calibrations made by the sweep, found by
their IDs in the build tree's share directory as in an installed tree's."""

import json
import os

import h5py
import numpy as np

from calibrated import calibrated_units  # noqa: F401 (the fixture)
from conftest import LIBRARY


def test_each_emulated_unit_has_its_own_swept_calibration_found_by_id(calibrated_units, monkeypatch, tmp_path):  # noqa: F811
    monkeypatch.setenv("ORB_DEVICE_LIBRARY", LIBRARY)
    monkeypatch.setenv("XDG_DATA_HOME", str(tmp_path))
    monkeypatch.delenv("ORB_CALIBRATION_PATH", raising=False)
    from orb_sensor._spectrum import calibration
    assert list(calibrated_units) == ["C1234-7-20-33-1", "C1234-7-21-33-1"]
    responses = []
    for sensor_id, path in calibrated_units.items():
        assert os.path.realpath(calibration.find(sensor_id)) == os.path.realpath(path)
        info = calibration.Calibration(path, sensor_id).info
        assert (info.first_nm, info.last_nm, info.wavelength_count) == (340, 1100, 381)
        with h5py.File(path, "r") as f:
            assert f["sweep"].attrs["source"] == "emulator"
            responses.append(f["response"][:])
    # Two units, two measurements: their filters differ as units do.
    a, b = responses
    assert np.abs(a - b).max() > 0.1 * np.abs(a).max()


LINE_CODE = r"""
import json, os, subprocess
from orb_sensor import Sensor
from orb_sensor._spectrum import engine
from orb_sensor.facts import shutter_speed_for

def ctl(*words):
    subprocess.run([os.environ["ORB_EMULATE"], "ctl", *words], check=True, capture_output=True, timeout=10)

with Sensor(index=0) as s:
    s.shutter_speed = shutter_speed_for(13.6)
    ctl("scene", "0", "dark")
    s.dark()
    ctl("scene", "0", "line --nm 1066.3 --fwhm 0.1 1")
    spectrum = s.spectrum(averages=16)
    print(json.dumps([spectrum.peaks()[0].wavelength_nm,
                      engine.peaks(spectrum.wavelengths, spectrum.values)[0].wavelength_nm]))
"""


def test_a_line_near_the_blind_end_is_placed_where_the_spectrums_own_peak_is_not(run_python, calibrated_units):  # noqa: F811
    result = run_python(1, LINE_CODE, "--timing", "fast")
    assert result.returncode == 0, result.stderr
    placed, own_peak = json.loads(result.stdout)
    assert abs(placed - 1066.3) < 0.4
    assert abs(own_peak - 1066.3) > 0.4


def test_a_spectrum_made_by_an_operator_copies_and_pickles(calibrated_units, monkeypatch):  # noqa: F811
    """Its operator is shared by a copy and left behind by a pickle, whose
    peaks are then any spectrum's."""
    import copy
    import pickle
    monkeypatch.setenv("ORB_DEVICE_LIBRARY", LIBRARY)
    from orb_sensor._spectrum import calibration, engine
    from orb_sensor.spectrum import Spectrum
    op = engine.Operator(calibration.Calibration(calibrated_units["C1234-7-20-33-1"]), averages=16)
    spectrum = Spectrum(op.wavelengths, np.exp(-0.5 * ((op.wavelengths - 1070) / 8) ** 2), operator=op)
    placed = spectrum.peaks()[0].wavelength_nm
    assert abs(placed - 1070) > 0.5  # as narrow as a line there: moved to the line that makes it
    for copied in (copy.copy(spectrum), copy.deepcopy(spectrum)):
        assert copied.peaks()[0].wavelength_nm == placed
    again = pickle.loads(pickle.dumps(spectrum))
    np.testing.assert_array_equal(again.values, spectrum.values)
    assert abs(again.peaks()[0].wavelength_nm - 1070) < 0.01


def test_the_refinement_places_a_tubes_lines_among_its_phosphors_light(orb_sensor, calibrated_units):  # noqa: F811
    """404.7 nm stands on the rising side of the blue phosphor's band, with no
    dip between its light and the band's; 435.8 and 611.6 nm on the bands
    themselves. Two draws of the scene's noise: in the second the band's
    powers and the line's run together. The refinement aims at 0.1 nm; the
    calibration here is the one swept at build time, whose noise this test
    cannot choose. The scene has no line between 404.7 and 435.8 nm, where
    the band rises: none may be found there."""
    for seed in ("1", "3"):
        result = orb_sensor("spectrum", "-n", "16", "--take-dark", "--refine", "--peaks",
                            emulate=["--sensors", "1", "--seed", seed, "--scene", "fluorescent"])
        assert result.returncode == 0, result.stderr
        lines = [float(row.split()[1]) for row in result.stdout.splitlines() if row.startswith("line ")]
        print(f"seed {seed}: refined lines {lines}")
        for nm in (404.7, 435.8, 611.6):
            assert min(abs(line - nm) for line in lines) < 0.15, (seed, nm, lines)
        assert not [line for line in lines if 406 < line < 434], (seed, lines)

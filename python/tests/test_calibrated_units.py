"""The emulated units come with calibrations made by the sweep, found by
their IDs in the build tree's share directory as in an installed tree's."""

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

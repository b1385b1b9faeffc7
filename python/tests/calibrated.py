"""The emulated units' calibrations, made by the sweep at build time
(scripts/calibrate_emulated.py, the build target emulated-calibrations), for
tests that need a calibrated emulated unit:

    from calibrated import calibrated_units  # the fixture
    def test_x(calibrated_units):
        path = calibrated_units["C1234-7-20-33-1"]

A unit whose file is missing (a build without the target) is swept first."""

import os
import subprocess

import pytest

from conftest import EMULATE, LIBRARY, PYTHON, REPO

UNITS = 2
SCRIPT = os.path.join(REPO, "scripts", "calibrate_emulated.py")


def directory():
    """share/orb-sensor/calibrations of the build tree whose library the tests use."""
    build = os.path.dirname(os.path.dirname(os.path.abspath(LIBRARY)))
    return os.path.join(build, "share", "orb-sensor", "calibrations")


def calibrations(units=UNITS):
    """{sensor ID: calibration path} of the first `units` emulated sensors."""
    subprocess.run([PYTHON, SCRIPT, "--launcher", EMULATE, "--library", LIBRARY, "--into", directory(),
                    "--units", str(units)], check=True, timeout=600, stdout=subprocess.DEVNULL)
    with open(os.path.join(directory(), "emulated-units.txt")) as f:
        listed = [line.split() for line in f if line.strip()][:units]
    return {sensor_id: os.path.join(directory(), name) for sensor_id, name in listed}


@pytest.fixture(scope="session")
def calibrated_units():
    return calibrations()

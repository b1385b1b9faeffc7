"""Runs package code and the orb-sensor tool against emulated sensors.

umockdev's preload has to be in place before libusb starts, so every piece
that touches a sensor runs in a child process under orb-emulate.
"""

import os
import subprocess
import sys

import pytest

REPO = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
sys.path.insert(0, os.path.join(REPO, "python"))
PYTHON = os.environ.get("ORB_PYTHON3", sys.executable)
EMULATE = os.environ.get("ORB_EMULATE", os.path.join(REPO, "build", "sim", "orb-emulate"))
LIBRARY = os.environ.get("ORB_DEVICE_LIBRARY",
                         os.path.join(REPO, "build", "src", "liborb_device.so.1"))


def _env():
    env = dict(os.environ, ORB_DEVICE_LIBRARY=LIBRARY, ORB_EMULATE=EMULATE,
               PYTHONPATH=os.path.join(REPO, "python"))
    env.pop("ORB_SENSOR_EMULATED", None)
    return env


@pytest.fixture
def run_python():
    """run_python(sensors, code, *emulate_args): the code's process."""
    def run(sensors, code, *emulate_args):
        return subprocess.run([EMULATE, "--sensors", str(sensors), *emulate_args, "--",
                               PYTHON, "-c", code],
                              env=_env(), capture_output=True, text=True, timeout=120)
    return run


@pytest.fixture
def orb_sensor(tmp_path):
    """orb_sensor(*args): the tool's process, run from a scratch directory."""
    def run(*args, stderr=subprocess.PIPE):
        return subprocess.run([PYTHON, os.path.join(REPO, "tools", "orb-sensor"), *args],
                              env=_env(), cwd=tmp_path, stdout=subprocess.PIPE, stderr=stderr,
                              text=True, timeout=300)
    return run

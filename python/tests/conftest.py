"""Runs package code and the orb-sensor tool against emulated sensors.

umockdev's preload has to be in place before libusb starts, so every piece
that touches a sensor runs in a child process under orb-emulate.
"""

import os
import pty
import select
import signal
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


def _bounded(args, timeout, **kwargs):
    """subprocess.run in a session of its own, which is killed whole on a
    time-out: a hung process started under it does not outlive the test
    and load the ones after it."""
    with subprocess.Popen(args, start_new_session=True, **kwargs) as process:
        try:
            out, err = process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
            raise
    return subprocess.CompletedProcess(args, process.returncode, out, err)


@pytest.fixture
def run_python():
    """run_python(sensors, code, *emulate_args): the code's process."""
    def run(sensors, code, *emulate_args):
        return _bounded([EMULATE, "--sensors", str(sensors), *emulate_args, "--", PYTHON, "-c", code],
                        120, env=_env(), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    return run


@pytest.fixture
def orb_sensor(tmp_path):
    """orb_sensor(*args): the tool's process, run from a scratch directory;
    with emulate_scene, under one emulated sensor looking at that light, or
    with emulate, under orb-emulate with those options (args then without
    --emulate)."""
    def run(*args, stderr=subprocess.PIPE, emulate_scene=None, emulate=None):
        tool = [PYTHON, os.path.join(REPO, "tools", "orb-sensor")]
        if emulate_scene is not None:
            emulate = ["--sensors", "1", "--scene", emulate_scene]
        if emulate is not None:
            tool = [EMULATE, *emulate, "--", *tool]
            args = tuple(a for a in args if a != "--emulate")
        return _bounded([*tool, *args], 300, env=_env(), cwd=tmp_path, stdout=subprocess.PIPE, stderr=stderr,
                        text=True)
    return run


@pytest.fixture
def orb_sensor_on_terminal(orb_sensor):
    """orb_sensor_on_terminal(*args, **kwargs): the tool's process with its
    standard error on a pseudo-terminal, and the bytes the terminal was shown
    (what a user sees, progress lines included)."""
    def run(*args, **kwargs):
        master, slave = pty.openpty()
        try:
            result = orb_sensor(*args, stderr=slave, **kwargs)
            os.close(slave)
            slave = None
            shown = b""
            while select.select([master], [], [], 0)[0]:
                try:
                    chunk = os.read(master, 65536)
                except OSError:
                    break
                if not chunk:
                    break
                shown += chunk
        finally:
            if slave is not None:
                os.close(slave)
            os.close(master)
        return result, shown
    return run

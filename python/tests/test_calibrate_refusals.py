"""orb-sensor calibrate refuses what it cannot sweep, naming the argument,
before any sensor is touched; Ctrl-C leaves no file and the light off; the
exposure ladder's choices at its edges."""

import json
import os
import subprocess
import textwrap

import pytest

from conftest import EMULATE, PYTHON, REPO, _bounded, _env
from orb_sensor._calibration.ladder import Ladder
from orb_sensor.facts import MAX_VALUE, exposure_ms


@pytest.mark.parametrize("args, said", [
    (["--start", "600", "--stop", "500"], "--start (600 nm) must be below --stop (500 nm)"),
    (["--start", "200"], "argument --start: must be between 340 and 1100 nm, not 200"),
    (["--step", "0"], "argument --step: must be above 0"),
    (["--start", "500", "--stop", "510"], "--step 2 gives 6 wavelength(s) from 500 to 510 nm; a calibration needs at least 8"),
    (["--frames", "1"], "argument --frames: must be between 2"),
    (["--dark-frames", "many"], "argument --dark-frames: 'many' is not a whole number"),
    (["--set-wavelength", "mono goto"], "--set-wavelength needs {nm}"),
    (["--set-dark", "shutter close"], "--set-dark goes with --set-wavelength"),
    (["--brightness", "2"], "--brightness sets the emulator's line, and there is none here"),
    (["--fwhm", "0.01"], "argument --fwhm: must be between 0.1 and 100 nm"),
    (["--source-power", "missing.csv"], "--source-power: cannot read missing.csv"),
    (["--source-power", "falling.csv"], "--source-power: falling.csv line 3: wavelength 500 nm is not above the one before (600 nm)"),
    (["--source-power", "short.csv"], "--source-power: short.csv covers 400 to 600 nm, not the sweep's 340 to 1100 nm"),
    (["--source-power", "dark.csv"], "--source-power: dark.csv line 2: the power must be above 0, not 0"),
    (["-o", "no/such/dir/unit.h5"], "cannot write no/such/dir/unit.h5: directory no/such/dir does not exist"),
])
def test_bad_arguments_are_refused_naming_them(orb_sensor, tmp_path, monkeypatch, args, said):
    monkeypatch.delenv("ORB_EMULATE_CONTROL", raising=False)
    (tmp_path / "falling.csv").write_text("400,1\n600,1\n500,1\n")
    (tmp_path / "short.csv").write_text("400,1\n600,1\n")
    (tmp_path / "dark.csv").write_text("400,1\n600,0\n")
    result = orb_sensor("calibrate", *args)
    assert result.returncode == 2 and said in result.stderr, result.stderr
    assert "Traceback" not in result.stderr and result.stdout == ""


HARNESS = textwrap.dedent("""
    import json, os, signal, subprocess, sys, time
    tool, emulate = sys.argv[1], os.environ["ORB_EMULATE"]
    ctl = [emulate, "ctl", os.environ["ORB_EMULATE_CONTROL"]]
    sweep = subprocess.Popen([sys.executable, tool, "calibrate", "-o", "unit.h5", "--step", "1"],
                             stderr=subprocess.PIPE, text=True)
    # Mid-sweep: the sensor has streamed a few hundred frames of the line.
    deadline = time.monotonic() + 60
    while time.monotonic() < deadline:
        status = subprocess.run(ctl + ["status"], capture_output=True, text=True).stdout
        if int(status.split("frames=")[1].split()[0]) > 300:
            break
        time.sleep(0.1)
    sweep.send_signal(signal.SIGINT)
    err = sweep.communicate(timeout=30)[1]
    left = sorted(os.listdir("."))
    dark = subprocess.run([sys.executable, tool, "acquire", "--shutter", "20", "--json"],
                          capture_output=True, text=True, timeout=60)
    print(json.dumps({"status": sweep.returncode, "stderr": err, "left": left,
                      "brightest": max(json.loads(dark.stdout)["filter_data"])}))
""")


def test_ctrl_c_mid_sweep_leaves_no_file_and_the_line_off(tmp_path):
    (tmp_path / "harness.py").write_text(HARNESS)
    run = _bounded([EMULATE, "--sensors", "1", "--", PYTHON, "harness.py", os.path.join(REPO, "tools", "orb-sensor")],
                   180, env=_env(), cwd=tmp_path, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert run.returncode == 0, run.stderr
    seen = json.loads(run.stdout)
    assert seen["status"] == 130 and "interrupted" in seen["stderr"] and "Traceback" not in seen["stderr"], seen
    assert seen["left"] == ["harness.py"], seen
    # The line at the sweep's brightness would read thousands of DN at 1.9 ms.
    assert seen["brightest"] < 200, seen


def test_the_ladder_keeps_a_good_exposure_and_moves_on_the_linear_response():
    ladder = Ladder()
    speeds = ladder.speeds
    assert speeds[0] == 1 and speeds[-1] == 3000
    ratios = [exposure_ms(b) / exposure_ms(a) for a, b in zip(speeds, speeds[1:])]
    # Never a gap the 40 to 80% band cannot span; 1.25 apart where whole shutter speeds allow.
    assert max(ratios) < 2 and all(1.1 < r < 1.3 for r in ratios[8:]), ratios
    top = len(speeds) - 1
    assert ladder.judge(10, 0.6 * MAX_VALUE, 64) == (10, True)
    assert ladder.judge(10, MAX_VALUE, 64) == (6, False)
    assert ladder.judge(0, MAX_VALUE, 64) == (0, False)  # saturated at the shortest: never good
    assert ladder.judge(0, 0.9 * MAX_VALUE, 64) == (0, True)  # as near as the sensor gets
    assert ladder.judge(top, 0.1 * MAX_VALUE, 64) == (top, True)
    assert ladder.judge(10, 64 + 4, 64) == (18, False)  # no line to scale from
    # From 20% at rung 10, the rung that puts the brightest filter nearest below 70%.
    rung, good = ladder.judge(10, 0.2 * MAX_VALUE, 64)
    predicted = [64 + (0.2 * MAX_VALUE - 64) * exposure_ms(s) / exposure_ms(speeds[10]) for s in speeds]
    assert not good and predicted[rung] <= 0.7 * MAX_VALUE < predicted[rung + 1]
    assert predicted[rung] >= 0.4 * MAX_VALUE

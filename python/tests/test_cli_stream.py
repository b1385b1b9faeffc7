"""orb-sensor stream and record, their outputs, and the tool against bad
input and faults: exit statuses, never a traceback."""

import json
import os
import subprocess

import h5py
import numpy as np
import pytest

from conftest import EMULATE, PYTHON, REPO, _env

TOOL = os.path.join(REPO, "tools", "orb-sensor")


def under_emulator(tmp_path, script, sensors=1):
    """Runs a shell script under one emulator; $T is the tool, ctl the
    emulator's control channel."""
    # Job control, so that a job put in the background still takes Ctrl-C;
    # `recording F` waits until F holds frames, however long connecting takes.
    prelude = (f'set -m; T="{PYTHON} {TOOL}"; ctl() {{ "{EMULATE}" ctl "$@" >/dev/null; }}\n'
               'recording() { for i in $(seq 300); do [ "$(stat -c %s "$1" 2>/dev/null || echo 0)" -gt 3000000 ] '
               '&& return; sleep 0.1; done; }\n')
    return subprocess.run([EMULATE, "--sensors", str(sensors), "--frames", "counter", "--", "bash", "-c",
                           prelude + script],
                          env=_env(), cwd=tmp_path, capture_output=True, text=True, timeout=120)


def test_stream_writes_every_frame_with_its_metadata(orb_sensor):
    result = orb_sensor("--emulate", "stream", "--frames", "40", "--ndjson")
    assert result.returncode == 0, result.stderr
    lines = [json.loads(line) for line in result.stdout.splitlines()]
    run, frames = lines[0]["run"], lines[1:]
    assert run["sensor_id"] == "C1234-7-20-33-1" and run["library_version"] == "1.0.0"
    assert [f["seq"] for f in frames] == list(range(frames[0]["seq"], frames[0]["seq"] + 40))
    assert all(len(f["filter_data"]) == 1024 and f["lost"] == 0 for f in frames)

    result = orb_sensor("--emulate", "stream", "--seconds", "0.5", "-n", "4", "--shutter", "1", "-o", "-")
    assert result.returncode == 0, result.stderr
    rows = result.stdout.splitlines()
    assert rows[0].startswith("# ") and any(r == "# averages: 4" for r in rows)
    header = next(r for r in rows if not r.startswith("#"))
    assert header.split(",")[:2] == ["seq", "timestamp"] and header.endswith(",f1024")
    assert len(rows) > rows.index(header) + 5


def test_record_holds_every_frame_and_a_closed_pipe_is_quiet(orb_sensor, tmp_path):
    result = orb_sensor("--emulate", "record", "-o", "run.h5", "--frames", "300", "--shutter", "1")
    assert result.returncode == 0, result.stderr
    assert "run.h5: 300 frame(s)" in result.stderr
    with h5py.File(tmp_path / "run.h5") as f:
        entry = f["entry"]
        assert entry.attrs["sensor_id"] == "C1234-7-20-33-1"
        seq = entry["data/seq"][:]
        assert entry["data/filter_data"].shape == (300, 1024)
        assert (np.diff(seq) == 1).all()

    piped = subprocess.run(f'{PYTHON} {TOOL} --emulate stream --shutter 1 | head -n 3; echo "${{PIPESTATUS[0]}}"',
                           shell=True, executable="/bin/bash", env=_env(), cwd=tmp_path,
                           capture_output=True, text=True, timeout=60)
    assert piped.stdout.splitlines()[-1] == "0" and piped.stderr == ""


def test_unplug_mid_record_leaves_a_file_with_every_frame_before_it(tmp_path):
    result = under_emulator(tmp_path, r"""
$T record -o cut.h5 2>err.txt & pid=$!
recording cut.h5; ctl unplug 0; start=$EPOCHREALTIME
wait $pid; echo "status $?"; awk "BEGIN { print \"after\", $EPOCHREALTIME - $start }"
cat err.txt
""")
    lines = result.stdout.splitlines()
    assert lines[0] == "status 4", result.stdout + result.stderr
    assert float(lines[1].split()[1]) < 2.0
    said = "\n".join(lines[2:])
    assert "left the bus" in said or "lost" in said
    count = int(said.split("cut.h5: ")[1].split()[0])
    with h5py.File(tmp_path / "cut.h5") as f:
        seq = f["entry/data/seq"][:]
        values = f["entry/data/filter_data"][:]
    assert len(seq) == count > 100 and (np.diff(seq) == 1).all()
    # Counter frames: each frame's filters read its own number since the start.
    assert (np.diff(values[:, 0]) == 1).all()


def test_ctrl_c_stops_a_recording_and_a_silent_sensor_times_out(tmp_path):
    result = under_emulator(tmp_path, r"""
$T record -o run.h5 2>err.txt & pid=$!
recording run.h5; kill -INT $pid; start=$EPOCHREALTIME
wait $pid; echo "status $?"; awk "BEGIN { print \"after\", $EPOCHREALTIME - $start }"
ctl fault 0 hang
$T acquire --timeout 1 >/dev/null 2>err2.txt; echo "status $?"; cat err2.txt
""")
    lines = result.stdout.splitlines()
    assert lines[0] == "status 0" and float(lines[1].split()[1]) < 1.0, result.stdout + result.stderr
    assert lines[2] == "status 4" and "orb-sensor: " in lines[3], lines
    with h5py.File(tmp_path / "run.h5") as f:
        assert f["entry/data/filter_data"].shape[0] > 100


@pytest.mark.parametrize("args, named", [
    ("acquire -n 4294967297", "-n/--averages"),
    ("acquire -n 0", "-n/--averages"),
    ("acquire -n many", "-n/--averages"),
    ("acquire --sensor C1234-\u00e9", "--sensor"),
    ("acquire --shutter 5000", "--shutter"),
    ("acquire --auto-exposure --target 4096", "--target"),
    ("acquire --auto-exposure --filters 0-5", "--filters"),
    ("acquire --timeout 0", "--timeout"),
    ("acquire -o /no/such/dir/f.csv", "/no/such/dir"),
    ("stream --frames -3", "--frames"),
    ("stream --seconds nan", "--seconds"),
    ("stream --frames 3 --seconds 1", "--seconds"),
    ("record -o -", "-o"),
    ("record -o /proc/x.h5 --frames 1", "/proc/x.h5"),
    ("led --on 8", "--on"),
])
def test_bad_input_exits_2_naming_it(orb_sensor, args, named):
    result = orb_sensor("--emulate", *args.split())
    assert result.returncode == 2, result.stderr
    assert named in result.stderr and "Traceback" not in result.stderr
    assert result.stdout == ""


def test_stream_and_record_without_an_exposure_auto_expose_once_and_say_so(orb_sensor, tmp_path):
    result = orb_sensor("--emulate", "record", "-o", "run.h5", "--seconds", "2", emulate_scene="halogen")
    assert result.returncode == 0, result.stderr
    assert "auto-exposing once at the start" in result.stderr
    assert "auto-exposure on target" in result.stderr
    with h5py.File(tmp_path / "run.h5") as f:
        entry = f["entry"]
        assert entry.attrs["exposure_set_by"] == "auto-exposure at the start (default)"
        assert entry.attrs["auto_exposure_outcome"] == "on target"
        peaks = entry["data/filter_data"][:].max(axis=1)
        assert len(peaks) > 3 and ((0.5 * 4095 < peaks) & (peaks < 0.9 * 4095)).all()

    result = orb_sensor("--emulate", "stream", "--frames", "2", "--per-ms", emulate_scene="dark")
    assert result.returncode == 0, result.stderr
    assert "auto-exposure warning: too dim even at the longest exposure" in result.stderr
    assert '# exposure_set_by: "auto-exposure at the start (default)"' in result.stdout
    assert '# units: "DN/ms"' in result.stdout
    row = result.stdout.splitlines()[-1].split(",")
    assert row[2] == "3000" and float(row[-1]) < 1  # DN per ms at 273.616 ms

import json
import os
import select
import signal
import subprocess
import sys

import h5py
import numpy as np
import pytest

from orb_sensor.frame import Frame
from orb_sensor._recording.hdf5 import FLUSH_FRAMES, FLUSH_SECONDS
from orb_sensor._recording import check_output_path, open_writer

from conftest import REPO

RUN = {"sensor_id": "C1234-7-21-33-1", "sensor_index": 1, "averages": 3, "master_clock_mhz": 10.5,
       "dark_correction": True, "start_time": "2024-05-01T12:00:00.250+00:00", "note": "any key"}


def make_frame(i):
    """Averaged values with no short decimal form, a few saturated filters
    and counts beyond 32 bits, all derived from i."""
    rng = np.random.default_rng(i)
    return Frame(rng.integers(0, 3 * 4095, 1024) / 3, seq=2**40 + i, timestamp=1.7e9 + i / 601,
                 shutter_speed=100 + i, adc=(i % 2, 100 + i % 33), averages=3, lost=2**33 * (i % 2), missed=2**34 * (i % 3),
                 saturated=np.sort(rng.choice(1024, i % 4, replace=False)) + 1)


def check_hdf5(path, frames):
    """The file holds the run and frames 0..frames-1 exactly in that many rows."""
    with h5py.File(path, "r") as f:
        entry, data = f["entry"], f["entry/data"]
        assert entry.attrs["frames"] == frames and {k: entry.attrs[k] for k in RUN} == RUN
        assert (data["filter"][:] == np.arange(1, 1025)).all()
        masks = np.unpackbits(data["saturated"][:frames], axis=1)
        for i in range(frames):
            expected = make_frame(i)
            m = expected.metadata()
            assert (data["filter_data"][i] == expected.values).all()
            assert (np.flatnonzero(masks[i]) + 1).tolist() == m.pop("saturated")
            assert {k: data[k][i] for k in m} == m and data["n_saturated"][i] == len(expected.saturated)


def test_hdf5_round_trip(tmp_path):
    with open_writer("hdf5", str(tmp_path / "run.h5"), RUN) as out:
        for i in range(5):
            out.write(make_frame(i))
    check_hdf5(tmp_path / "run.h5", out.frames)
    with h5py.File(tmp_path / "run.h5", "r") as f:
        assert out.frames == 5 and f["entry/data/filter_data"].shape == (5, 1024)
        assert f["entry"].attrs["end_time"] > RUN["start_time"]
    for target in ("-", sys.stdout):
        with pytest.raises(ValueError, match="HDF5"):
            open_writer("hdf5", target, RUN)


# Each flush rule fires once, the block count and then a frame after a
# pause; the last two frames are still in memory at the kill.
KILLED_WRITER = f"""
import os, signal, sys, time
sys.path[:0] = {[os.path.join(REPO, "python"), os.path.dirname(__file__)]!r}
from orb_sensor._recording import open_writer
from test_recording import RUN, make_frame
out = open_writer("hdf5", sys.argv[1], RUN)
for i in range({FLUSH_FRAMES + 6}):
    time.sleep({FLUSH_SECONDS} + 0.1 if i == {FLUSH_FRAMES + 3} else 0)
    out.write(make_frame(i))
os.kill(os.getpid(), signal.SIGKILL)
"""


def test_hdf5_keeps_every_flushed_frame_through_a_kill(tmp_path):
    child = subprocess.run([sys.executable, "-c", KILLED_WRITER, str(tmp_path / "run.h5")],
                           capture_output=True, text=True, timeout=60)
    assert child.returncode == -signal.SIGKILL, child.stderr
    check_hdf5(tmp_path / "run.h5", FLUSH_FRAMES + 4)


def test_csv_round_trip(tmp_path):
    with open_writer("csv", str(tmp_path / "run.csv"), RUN) as out:
        for i in range(3):
            out.write(make_frame(i))
    lines = (tmp_path / "run.csv").read_text().splitlines()
    assert {k: json.loads(v) for k, v in (line[2:].split(": ", 1) for line in lines[:len(RUN)])} == RUN
    header = lines[len(RUN)].split(",")
    assert header[7:12] == ["lost", "missed", "n_saturated", "f1", "f2"] and header[-1] == "f1024"
    for i, row in enumerate(line.split(",") for line in lines[len(RUN) + 1:]):
        m = dict(make_frame(i).metadata(), n_saturated=i % 4)
        assert {k: float(v) for k, v in zip(header[:10], row)} == {k: m[k] for k in header[:10]}
        assert (np.array(row[10:], dtype=float) == make_frame(i).values).all()
    assert i == 2


def test_ndjson_round_trip_on_standard_output(capsys):
    with open_writer("ndjson", "-", RUN) as out:
        for i in range(2):
            out.write(make_frame(i))
    lines = [json.loads(line) for line in capsys.readouterr().out.splitlines()]
    assert lines[0] == {"run": RUN} and len(lines) == 3
    for i, line in enumerate(lines[1:]):
        assert line.pop("filter_data") == make_frame(i).values.tolist()
        assert line == make_frame(i).metadata()


def test_text_to_a_pipe_goes_frame_by_frame_until_the_reader_leaves():
    read_end, write_end = os.pipe()
    with os.fdopen(write_end, "w") as pipe:
        out = open_writer("csv", pipe, {})
        for seq in (1, 2):  # rows of zeros: short enough to wait in the stream's buffer
            out.write(Frame(np.zeros(1024), seq, 1.7e9, 100, (1, 100), []))
        assert select.select([read_end], [], [], 10)[0]
        assert os.read(read_end, 1 << 20).count(b"\n") == 3
        os.close(read_end)
        with pytest.raises(BrokenPipeError):
            out.write(make_frame(3))


def test_check_output_path(tmp_path):
    existing = tmp_path / "old.h5"
    existing.write_text("kept")
    for fine in ("-", existing, tmp_path / "new.csv"):
        check_output_path(str(fine))
    assert existing.read_text() == "kept" and not (tmp_path / "new.csv").exists()
    bad = {tmp_path / "none" / "x.csv": "does not exist", tmp_path: "is a directory",
           existing / "x.csv": "is not a directory"}
    if os.geteuid() != 0:  # root may write anywhere
        (tmp_path / "locked").mkdir(mode=0o500)
        existing.chmod(0o400)
        bad.update({tmp_path / "locked" / "x.csv": "no permission", existing: "no permission"})
    for path, reason in bad.items():
        with pytest.raises(ValueError, match=reason) as e:
            check_output_path(str(path))
        assert str(path) in str(e.value)

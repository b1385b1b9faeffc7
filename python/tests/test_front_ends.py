"""One stream, three front ends: the view's session (and its recording),
the Tango device's streamer and `orb-sensor record`'s loop each take the
Frames of the same Stream through their own code, and must report the same
frame counts, lost counts and last frame number: none of them numbers,
averages or counts losses of its own. The stream has a change of
averaging and a lost frame (a short one, made by the emulator) in it."""

SCRIPT = r"""
import os, queue, subprocess, threading, time, types
import h5py, numpy as np
from orb_sensor import Sensor
from orb_sensor._cli import commands
from orb_sensor._cli.progress import StatusLine
from orb_sensor.tango.frames import LatestFrame
from orb_sensor.tango.streamer import Streamer
from orb_sensor.view.session import Session

os.chdir(os.environ["WORK"])
END = object()


def ctl(*words):
    out = subprocess.run([os.environ["ORB_EMULATE"], "ctl", *words], capture_output=True, text=True, timeout=10)
    assert out.stdout.strip().endswith("ok"), out.stdout


class Branch:
    # What one front end sees of the shared Stream: its Frames, in order,
    # and its totals; stopping and closing are the driver's.
    def __init__(self, stream):
        self.stream, self.frames = stream, queue.SimpleQueue()
        self.ended, self.released = threading.Event(), threading.Event()
        self.sensor_id = stream.sensor_id
    averages = property(lambda self: self.stream.averages)
    delivered = property(lambda self: self.stream.delivered)
    lost = property(lambda self: self.stream.lost)
    missed = property(lambda self: self.stream.missed)
    def __iter__(self):
        return self
    def __next__(self):
        if self.ended.is_set():
            # Over: a front end that iterates again waits to be interrupted.
            self.released.wait(30)
            raise StopIteration
        frame = self.frames.get(timeout=30)
        if frame is END:
            self.ended.set()
            raise StopIteration
        return frame
    def interrupt(self):
        self.released.set()
    stop = close = lambda self: None
    __enter__ = lambda self: self
    __exit__ = lambda self, *e: None


sensor = Sensor()
sensor.shutter_speed = 1
stream = sensor.stream(averages=2)
view_branch, tango_branch, record_branch = Branch(stream), Branch(stream), Branch(stream)

# The view: its session's thread, with a recording on.
session = Session(sensor, [sensor.id])
session.stream.close()
session.stream = view_branch
session.start_recording()
session.start()

# The Tango device: its streamer's thread, delivering as the device does.
latest, events = LatestFrame(), []
def deliver(frame):
    latest.put(frame)
    events.append(frame)
access = types.SimpleNamespace(open=lambda: types.SimpleNamespace(id=sensor.id, stream=lambda averages: tango_branch),
                               reached=lambda: None, report=lambda e: None, retry_s=lambda: 1.0)
streamer = Streamer(access, deliver)
streamer.start()
streamer.stream(True)

# orb-sensor record: its loop, into its HDF5 writer.
record_writer = sensor.open_recording("record.h5", averages=2)
record_args = types.SimpleNamespace(averages=2, frames=None, seconds=None, timeout=None)
recorder = threading.Thread(target=commands._frames_to, args=(
    record_writer, types.SimpleNamespace(stream=lambda **kw: record_branch), record_args, StatusLine()))
recorder.start()

# The stream itself: a short frame (lost) and a change of averaging while it runs.
started, faulted, changed = time.monotonic(), False, False
for frame in stream:
    for branch in (view_branch, tango_branch, record_branch):
        branch.frames.put(frame)
    now = time.monotonic() - started
    if now > 0.6 and not faulted:
        ctl("fault", "0", "short-frame", "100")
        faulted = True
    if now > 1.2 and not changed:
        stream.averages = 3
        changed = True
    if now > 2.0:
        break
stream.close()
for branch in (view_branch, tango_branch, record_branch):
    branch.frames.put(END)

recorder.join(30)
deadline = time.monotonic() + 30
while (len(events) < stream.delivered or session.recorder.frames < stream.delivered) and time.monotonic() < deadline:
    time.sleep(0.05)
status = session.status()
session.stop()
streamer.close()
record_writer.close()

with h5py.File("record.h5") as f:
    data = f["entry/data"]
    record = (len(data["seq"]), int(data["lost"][:].sum()), int(data["seq"][-1]), int(data["missed"][:].sum()))
    seqs, averages, lost = data["seq"][:], data["averages"][:], data["lost"][:]
    first_values = data["filter_data"][:, 0]
with h5py.File(status["recording"]["name"]) as f:
    data = f["entry/data"]
    view_file = (len(data["seq"]), int(data["lost"][:].sum()), int(data["seq"][-1]), int(data["missed"][:].sum()))
totals = (stream.delivered, stream.lost, int(events[-1].seq), stream.missed)
print("stream", totals)
print("view", (status["frames"], status["lost"], status["frame_number"], status["missed"]))
print("view-recording", view_file)
print("tango", (latest.count, streamer.lost, int(latest.frame.seq), streamer.missed))
print("record", record)
# The counts follow from the frames: every frame the sensor made is in a
# Frame or counted lost, and counter frames read their number plus a constant.
print("made", int(seqs[-1]) + 1, int((averages + lost).sum()))
print("averages", sorted(set(averages.tolist())))
print("offsets", sorted(set((first_values - seqs + (averages - 1) / 2).tolist())))
"""


def test_view_tango_and_record_count_the_same_frames_of_one_stream(run_python, tmp_path):
    import os
    os.environ["WORK"] = str(tmp_path)
    try:
        result = run_python(1, SCRIPT, "--frames", "counter", "--control", str(tmp_path / "control"))
    finally:
        del os.environ["WORK"]
    assert result.returncode == 0, result.stdout + result.stderr
    said = dict(line.split(" ", 1) for line in result.stdout.splitlines())
    counts = said["stream"]
    frames, lost, _, _ = eval(counts)
    assert frames > 100 and lost >= 1, said
    for front_end in ("view", "view-recording", "tango", "record"):
        assert said[front_end] == counts, (front_end, said)
    made, accounted = said["made"].split()
    assert made == accounted, said
    assert said["averages"] == "[2, 3]", said
    assert len(eval(said["offsets"])) == 1, said

"""Emulated faults as a user of the package meets them: an average never holds
a short frame, a sensor on the bus that stops answering or stalls is named
so within a read's bound (auto_expose too), and the same process gets
frames again within 3 s once the fault is lifted, with no replug. Each
scenario runs in a process of its own under orb-emulate."""

import os
import re

from conftest import REPO

PRELUDE = """
import os, re, subprocess, sys, threading, time
import numpy as np
from orb_sensor import (Sensor, SensorLostError, SensorRefusedError, SensorStalledError,
                        SensorTimeoutError)
def ctl(*words):
    out = subprocess.run([os.environ["ORB_EMULATE"], "ctl", *words], capture_output=True, text=True, timeout=10)
    assert out.stdout.strip().endswith("ok"), out.stdout
def later(seconds, *words):
    threading.Timer(seconds, ctl, words).start()
def took(since):
    return time.monotonic() - since
def fails(call, kind):
    t = time.monotonic()
    try:
        call()
    except kind as e:
        assert not isinstance(e, SensorLostError), e
        return took(t), str(e)
    raise SystemExit(f"{call} did not fail with {kind.__name__}")
def frames_again(call):
    t = time.monotonic()
    call()
    return took(t)
"""


def run(run_python, body, *emulate_args):
    result = run_python(1, PRELUDE + body, *emulate_args)
    assert result.returncode == 0, result.stdout + result.stderr
    print(result.stdout)  # the times measured, for pytest -s
    return result.stdout


def test_a_short_frame_is_never_averaged_in_by_read_or_the_tool(run_python):
    # Counter frames: each filter of frame k holds k, so every filter of an
    # average of whole frames is the same; a short frame's tail reads 0.
    out = run(run_python, """
s = Sensor()
ctl("fault", "0", "short-frame", "1000", "10")
v = s.read(averages=50).values
assert v.min() == v.max(), (v[0], v[-1])
ctl("fault", "0", "short-frame", "1000", "10")
tool = subprocess.run([sys.executable, "@TOOL@", "acquire", "-n", "50"], capture_output=True, text=True,
                      timeout=60)
assert tool.returncode == 0, tool.stderr
values = {line.split(",")[1] for line in tool.stdout.splitlines() if line[:1].isdigit()}
print("tool values", sorted(values))
""".replace("@TOOL@", os.path.join(REPO, "tools", "orb-sensor")), "--frames", "counter")
    assert re.search(r"tool values \['[\d.]+'\]", out), out


def test_read_and_stream_after_a_trickle_or_a_hang_say_not_answering_and_recover(run_python):
    out = run(run_python, """
s = Sensor()
s.read()
for fault in (["trickle", "64"], ["hang"]):
    ctl("fault", "0", *fault)
    after, text = fails(lambda: s.read(timeout=2), SensorTimeoutError)
    assert "not answering" in text and after < 3.5, (fault, after, text)
    ctl("clear", "0")
    print(fault[0], "read: fault after %.1f, frames after %.1f" % (after, frames_again(s.read)))
stream = s.stream(timeout=2)
assert len([f for f, _ in zip(stream, range(20))]) == 20
ctl("fault", "0", "trickle", "64")
after, text = fails(lambda: [f for f in stream], SensorTimeoutError)
assert re.search(r"not answering: no frame within 2\\.0 s", text), text
ctl("clear", "0")
print("trickle stream: fault after %.1f, frames after %.1f" % (after, frames_again(lambda: next(stream))))
""")
    for line in out.splitlines():
        fault_s, frames_s = map(float, re.findall(r"after ([\d.]+)", line))
        assert fault_s < 3.5 and frames_s < 3.0, line


def test_a_stalled_endpoint_and_a_refused_start_are_named_with_their_advice(run_python):
    out = run(run_python, """
s = Sensor()
s.read()
ctl("fault", "0", "stall-bulk")
after, text = fails(s.read, SensorStalledError)
assert "frame endpoint stalled (it is still on the bus)" in text and "replug only if it persists" in text, text
ctl("clear", "0")
print("stall: fault after %.1f, frames after %.1f" % (after, frames_again(s.read)))
ctl("fault", "0", "stall", "70")
after, text = fails(lambda: s.read(timeout=1), SensorRefusedError)
assert text == "reading a frame: the sensor refused the request", text
ctl("clear", "0")
print("refused: fault after %.1f, frames after %.1f" % (after, frames_again(s.read)))
""")
    for line in out.splitlines():
        fault_s, frames_s = map(float, re.findall(r"after ([\d.]+)", line))
        assert fault_s < 3.0 and frames_s < 3.0, line


def test_auto_exposure_reports_a_fault_within_a_read_bound_not_its_deadline(run_python):
    out = run(run_python, """
s = Sensor()
for fault, kind in ((["hang"], SensorTimeoutError), (["trickle", "64"], SensorTimeoutError),
                    (["stall-bulk"], SensorStalledError)):
    later(0.3, "fault", "0", *fault)
    after, text = fails(s.auto_expose, kind)
    assert not re.search(r"\\d\\.\\d\\d s", text), text
    ctl("clear", "0")
    print(fault[0], "auto_expose: fault after %.1f, frames after %.1f" % (after - 0.3, frames_again(s.read)))
print("found", s.auto_expose()[0])
""")
    lines = out.splitlines()
    assert lines[-1].startswith("found"), out
    for line in lines[:-1]:
        fault_s, frames_s = map(float, re.findall(r"after ([\d.]+)", line))
        assert fault_s < 5.0 and frames_s < 3.0, line

"""The Tango device server against the emulated sensor: each scenario runs its
server (Tango's test contexts, no database, the server in a process of
its own) and its client in a child process under orb-emulate.

Without a database this Tango's clients lose their events about ten
seconds after subscribing (the heartbeat's name carries "#dbase=no", which
the client does not expect), so every subscription here is shorter."""

import os

from conftest import REPO

PRELUDE = """
import ctypes, os, signal, socket, subprocess, sys, time
import tango
from tango.test_context import DeviceTestContext, MultiDeviceTestContext
from orb_sensor.tango import OrbSensor
ON, RUNNING, FAULT = tango.DevState.ON, tango.DevState.RUNNING, tango.DevState.FAULT
def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)       # PR_SET_PDEATHSIG
# A server left behind by a client that crashed would look for its sensors for ever.
os.register_at_fork(after_in_child=die_with_parent)
def ctl(*words):
    out = subprocess.run([os.environ["ORB_EMULATE"], "ctl", *words], capture_output=True, text=True, timeout=10)
    assert out.stdout.strip().endswith("ok"), out.stdout
    return out.stdout
def emulated_shutter(n):
    return int(ctl("status").splitlines()[n].split("shutter=")[1].split()[0])
def wait_state(proxy, state, within):
    t = time.monotonic()
    while proxy.state() != state:
        assert time.monotonic() - t < within, (proxy.state(), proxy.status())
        time.sleep(0.05)
    return time.monotonic() - t
def refused(call):
    try:
        call()
    except tango.DevFailed as e:
        return e.args[0].reason, e.args[0].desc
    raise AssertionError("accepted")
def one_device(**properties):
    return DeviceTestContext(OrbSensor, properties=properties, process=True, daemon=True, timeout=30)
def devices(*properties):
    info = [{"class": OrbSensor, "devices": [{"name": f"test/orb/{i}", "properties": p}
                                            for i, p in enumerate(properties)]}]
    return MultiDeviceTestContext(info, process=True, daemon=True, timeout=30)
class Values:
    # FilterData's events: the first filter of each, None for an event without a value.
    def __init__(self):
        self.seen = []
    def __call__(self, event):
        value = None if event.err or event.attr_value is None else event.attr_value.value
        self.seen.append(None if value is None or len(value) == 0 else value[0])
    def values(self):
        return [v for v in self.seen if v is not None]
"""


def run(run_python, sensors, body, *emulate_args):
    """The client's lines of output (the server shares its standard output
    and says when it is ready)."""
    result = run_python(sensors, PRELUDE + body, *emulate_args)
    assert result.returncode == 0, result.stdout + result.stderr
    return [line for line in result.stdout.splitlines() if line != "Ready to accept request"]


def test_every_attribute_reads_and_writes_and_out_of_range_is_refused_by_name(run_python):
    out = run(run_python, 1, """
from orb_sensor.facts import exposure_ms
with one_device(SensorIndex=0) as proxy:
    wait_state(proxy, ON, 20)
    assert proxy.SensorID == "C1234-7-20-33-1"
    assert proxy.FrameNumber == -1 and proxy.FramesLost == 0 and proxy.FramesMissed == 0
    assert proxy.FilterData is None
    proxy.ShutterSpeed = 120
    assert (proxy.ShutterSpeed, emulated_shutter(0)) == (120, 120)
    assert abs(proxy.ExposureTime - exposure_ms(120)) < 1e-9
    proxy.ExposureTime = exposure_ms(700) + 0.01     # the nearest shutter speed
    assert (proxy.ShutterSpeed, emulated_shutter(0)) == (700, 700)
    proxy.AdcGain, proxy.AdcRange, proxy.Averages = 0, 90, 7
    assert (proxy.AdcGain, proxy.AdcRange, proxy.Averages) == (0, 90, 7)
    assert proxy.DarkCorrection is False
    print(*refused(lambda: setattr(proxy, "DarkCorrection", True)), sep="|")
    for name, value in [("ShutterSpeed", 3001), ("ShutterSpeed", 0), ("ExposureTime", 0.05),
                        ("ExposureTime", 300.0), ("Averages", 0), ("AdcGain", 2), ("AdcRange", 256)]:
        print(*refused(lambda: proxy.write_attribute(name, value)), sep="|")
    assert (proxy.ShutterSpeed, emulated_shutter(0), proxy.AdcRange, proxy.Averages) == (700, 700, 90, 7)
""", "--frames", "counter")
    lines = out
    assert lines[0] == "ORB_BadValue|DarkCorrection needs a dark frame: cover the sensor and run TakeDark first"
    assert lines[1:] == ["API_WAttrOutsideLimit|ShutterSpeed must be between 1 and 3000, not 3001",
                         "API_WAttrOutsideLimit|ShutterSpeed must be between 1 and 3000, not 0",
                         "API_WAttrOutsideLimit|ExposureTime must be between 0.1072 and 273.616, not 0.05",
                         "API_WAttrOutsideLimit|ExposureTime must be between 0.1072 and 273.616, not 300",
                         "API_WAttrOutsideLimit|Averages must be between 1 and 10000, not 0",
                         "API_WAttrOutsideLimit|AdcGain must be between 0 and 1, not 2",
                         "API_WAttrOutsideLimit|AdcRange must be between 0 and 255, not 256"]


def test_acquire_dark_auto_exposure_and_the_led(run_python):
    out = run(run_python, 1, """
from orb_sensor.led import state_word
with one_device(SensorID="C1234-7-20-33-1") as proxy:
    wait_state(proxy, ON, 20)
    ctl("frames", "0", "counter")
    proxy.Averages = 3
    # Counter frames: the k-th of a stream reads k and the first two are passed over.
    plain = proxy.Acquire()
    assert len(plain) == 1024 and set(plain) == {4.0} and proxy.FrameNumber == 0
    proxy.TakeDark()
    proxy.DarkCorrection = True
    corrected = proxy.Acquire()
    assert len(set(corrected)) == 1 and corrected[0] < 4.0 and (proxy.FilterData == corrected).all()
    proxy.DarkCorrection = False
    assert set(proxy.Acquire()) == {4.0}
    proxy.ShutterSpeed = 1                  # chosen: Start does not auto-expose
    proxy.Start()
    proxy.TakeDark()                        # the stream pauses for it and goes on
    assert proxy.state() == RUNNING and proxy.Acquire()[0] >= 3.0
    proxy.Stop()
    ctl("frames", "0", "constant=4095")
    assert proxy.Saturated is None and set(proxy.Acquire()) == {4095.0}     # PyTango reads [] as None
    assert list(proxy.Saturated) == list(range(1, 1025))
    ctl("frames", "0", "light")
    proxy.set_timeout_millis(70000)
    shutter = proxy.AutoExpose(3000)
    assert proxy.ShutterSpeed == shutter == emulated_shutter(0), (shutter, proxy.ShutterSpeed)
    proxy.Averages = 1
    print("peak", max(proxy.Acquire()))
    assert proxy.SetLed([0, 2, 100]) == state_word([0, 2], 100)
    assert proxy.SetLed([0]) == 0
    print(*refused(lambda: proxy.SetLed([9, 100])), sep="|")
    print(*refused(lambda: proxy.SetLed([])), sep="|")
    print(*refused(lambda: proxy.AutoExpose(5000)), sep="|")
""", "--led")
    lines = out
    assert 2400 <= float(lines[0].split()[1]) < 4095, lines[0]
    assert lines[1].startswith("ORB_BadValue|LED channel must be between 0 and 7, not 9 (SetLed takes")
    assert lines[2].startswith("ORB_BadValue|SetLed takes the channels to switch on (0 to 7) and the intensity")
    assert lines[3] == "ORB_BadValue|target must be between 1 and 4095, not 5000"


def test_filter_data_events_carry_every_frame_of_the_stream(run_python):
    out = run(run_python, 1, """
with one_device() as proxy:
    wait_state(proxy, ON, 20)
    proxy.ShutterSpeed = 1                  # the bus's pace: 594 frames/s
    values = Values()
    event = proxy.subscribe_event("FilterData", tango.EventType.CHANGE_EVENT, values)
    proxy.Start()
    wait_state(proxy, RUNNING, 5)
    time.sleep(3)
    during = proxy.Acquire()                # the stream's next frame
    proxy.Stop()
    wait_state(proxy, ON, 5)
    time.sleep(0.5)
    proxy.unsubscribe_event(event)
    got = values.values()
    # Counter frames: frame k of the stream reads k; the library passes over two.
    assert got == [float(k) for k in range(3, 3 + len(got))], got[:5]
    assert len(got) == proxy.FrameNumber + 1 and proxy.FramesLost == 0, (len(got), proxy.FrameNumber)
    assert during[0] in got
    print("events", len(got))
    proxy.Averages = 4
    values = Values()
    event = proxy.subscribe_event("FilterData", tango.EventType.CHANGE_EVENT, values)
    proxy.Start()
    time.sleep(1)
    proxy.ShutterSpeed = 2                  # the average under way is dropped, and counted
    time.sleep(1)
    proxy.Stop()
    wait_state(proxy, ON, 5)
    time.sleep(0.5)
    proxy.unsubscribe_event(event)
    got = values.values()[1:]               # the first: the value when subscribing
    # Four frames k..k+3 average to k + 1.5: none straddles the change, which the library
    # passes over; the frames of the average under way then (up to 3) count as lost.
    assert got[0] == 4.5 and all(b % 1 == 0.5 and b > a for a, b in zip(got, got[1:])), got
    assert 0 <= proxy.FramesLost <= 3 and proxy.ShutterSpeed == 2
""", "--frames", "counter")
    assert int(out[0].split()[-1]) > 300


def test_calls_of_two_clients_never_wait_on_the_frames_being_sent(run_python):
    # Each frame's event needs the device's monitor, which every call holds
    # while it runs, and another client's calls wait for it too: a call
    # that waited on the events, or let go of the monitor while others
    # wanted it, would hang the device.
    out = run(run_python, 1, """
import threading
context = one_device()
with context as proxy:
    wait_state(proxy, ON, 20)
    proxy.ShutterSpeed = 1
    values = Values()
    event = proxy.subscribe_event("FilterData", tango.EventType.CHANGE_EVENT, values)
    other = tango.DeviceProxy(context.get_device_access())
    done, reads, failed = threading.Event(), [0], []
    def read():
        while not done.is_set():
            try:
                other.FrameNumber, other.state()
                reads[0] += 1
            except tango.DevFailed as e:
                failed.append(e.args[0].desc)
    reader = threading.Thread(target=read)
    reader.start()
    slowest = 0
    for _ in range(200):
        for call in (proxy.Start, proxy.Stop):
            t = time.monotonic()
            call()
            slowest = max(slowest, time.monotonic() - t)
            time.sleep(0.005)
    done.set()
    reader.join(10)
    assert not failed and reads[0] > 100, (reads, failed[:3])
    proxy.Start()                           # and the stream still runs
    before, t = proxy.FrameNumber, time.monotonic()
    while proxy.FrameNumber < before + 100:
        assert time.monotonic() - t < 5, proxy.FrameNumber
        time.sleep(0.1)
    proxy.Stop()
    proxy.unsubscribe_event(event)
    print("slowest", slowest)
""", "--frames", "counter")
    assert float(out[0].split()[1]) < 1.0, out


def test_three_sensors_stream_at_once_and_an_unplug_faults_only_its_own(run_python):
    out = run(run_python, 3, """
with devices({"SensorID": "C1234-7-22-33-1"}, {"SensorIndex": 0}, {"SensorIndex": 1}) as context:
    proxies = [context.get_device(f"test/orb/{i}") for i in range(3)]
    for proxy in proxies:
        wait_state(proxy, ON, 30)
    assert [p.SensorID for p in proxies] == ["C1234-7-22-33-1", "C1234-7-20-33-1", "C1234-7-21-33-1"]
    for proxy, shutter in zip(proxies, (300, 100, 200)):
        proxy.ShutterSpeed = shutter
        proxy.Start()
    assert [emulated_shutter(n) for n in range(3)] == [100, 200, 300]
    counts = [Values() for _ in proxies]
    events = [p.subscribe_event("FilterData", tango.EventType.CHANGE_EVENT, c) for p, c in zip(proxies, counts)]
    time.sleep(2)
    for proxy, event in zip(proxies, events):
        proxy.unsubscribe_event(event)
    assert all(len(c.values()) > 20 for c in counts), [len(c.values()) for c in counts]
    number_before = proxies[0].FrameNumber
    ctl("unplug", "2")                      # the first device's sensor
    print("fault after", wait_state(proxies[0], FAULT, 2))
    print(proxies[0].status())
    t = time.monotonic()
    print(*refused(lambda: setattr(proxies[0], "ShutterSpeed", 5)), sep="|")
    assert time.monotonic() - t < 0.5
    # The unplug restarts the library's process: the other streams resume by themselves.
    before = [p.FrameNumber for p in proxies[1:]]
    t = time.monotonic()
    while not all(p.FrameNumber > b + 20 for p, b in zip(proxies[1:], before)):
        assert time.monotonic() - t < 10, [p.FrameNumber for p in proxies[1:]]
        time.sleep(0.1)
    assert [p.state() for p in proxies[1:]] == [RUNNING, RUNNING]
    ctl("replug", "2")
    print("running after", wait_state(proxies[0], RUNNING, 10))
    assert emulated_shutter(2) == 300          # put back after the replug
    got = Values()
    event = proxies[0].subscribe_event("FilterData", tango.EventType.CHANGE_EVENT, got)
    time.sleep(1.5)
    proxies[0].unsubscribe_event(event)
    assert len(got.values()) > 5
    # The numbers go on after the replug, never from 0 again.
    print("numbers go on", proxies[0].FrameNumber > number_before, proxies[0].FrameNumber, number_before)
    for proxy in proxies:
        proxy.Stop()
""")
    text = "\n".join(out)
    assert "plug the sensor back in" in text and "The device finds it again by itself" in text
    assert "ORB_SensorLost|Sensor C1234-7-22-33-1 is not on the bus" in text
    assert "numbers go on True" in text, text


def test_idle_sensors_unplugged_silent_or_plugged_in_after_the_start(run_python):
    out = run(run_python, 2, """
ctl("unplug", "1")
with devices({"SensorIndex": 0}, {"SensorID": "C1234-7-21-33-1"}) as context:
    proxy, late = context.get_device("test/orb/0"), context.get_device("test/orb/1")
    wait_state(proxy, ON, 30)
    wait_state(late, FAULT, 10)
    print(late.status())
    ctl("replug", "1")
    print("found after", wait_state(late, ON, 10))
    ctl("fault", "0", "hang")
    print("silent after", wait_state(proxy, FAULT, 15))
    print(proxy.status())
    t = time.monotonic()
    print(*refused(proxy.Acquire), sep="|")
    assert time.monotonic() - t < 0.5
    ctl("clear", "0")
    print("on after", wait_state(proxy, ON, 20))
    ctl("unplug", "0")
    print("fault after", wait_state(proxy, FAULT, 2))
    ctl("replug", "0")
    print("on after", wait_state(proxy, ON, 10))
    assert len(proxy.Acquire()) == 1024 and len(late.Acquire()) == 1024
""")
    text = "\n".join(out)
    assert "Sensor C1234-7-21-33-1 is not on the bus: plug the sensor back in" in text
    assert "Sensor C1234-7-20-33-1 is on the bus but not answering" in text
    assert "replug it only if it stays silent" in text
    assert "ORB_SensorTimeout|Sensor C1234-7-20-33-1 is on the bus but not answering" in text


def test_a_streaming_sensor_that_stops_answering_or_stalls_streams_again_once_cleared(run_python):
    out = run(run_python, 1, """
with one_device(SensorIndex=0) as proxy:
    wait_state(proxy, ON, 20)
    proxy.Start()
    wait_state(proxy, RUNNING, 10)
    for fault, words in ((["trickle", "64"], "is on the bus but not answering"),
                         (["stall-bulk"], "its frame endpoint stalled")):
        ctl("fault", "0", *fault)
        print(fault[0], "fault after %.1f" % wait_state(proxy, FAULT, 5))
        status = proxy.status()
        assert words in status and "plug the sensor back in" not in status, status
        ctl("clear", "0")
        print(fault[0], "running after %.1f" % wait_state(proxy, RUNNING, 3.5))
    proxy.Stop()
""")
    print("\n".join(out))  # the times measured, for pytest -s
    assert [line.split()[0] for line in out if "after" in line] == ["trickle", "trickle", "stall-bulk", "stall-bulk"]


def test_orb_tango_serves_the_devices_of_a_file_database(run_python, tmp_path):
    """The installed entry point, as a lab runs it but with a file instead
    of the database server."""
    db = tmp_path / "orb.db"
    db.write_text("orb-tango/lab/DEVICE/OrbSensor: lab/orb/a, lab/orb/b\n"
                  "lab/orb/a->SensorID: C1234-7-21-33-1\nlab/orb/b->SensorIndex: 0\n")
    script = os.path.join(REPO, "tools", "orb-tango")
    out = run(run_python, 2, f"""
usage = subprocess.run([sys.executable, {script!r}, "--help"], capture_output=True, text=True, timeout=30)
assert usage.returncode == 0 and "tango_admin --add-server orb-tango/INSTANCE OrbSensor" in usage.stderr
with socket.socket() as s:
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
server = subprocess.Popen([sys.executable, {script!r}, "lab", "-file={db}",
                           "-ORBendPoint", f"giop:tcp:127.0.0.1:{{port}}"], preexec_fn=die_with_parent)
try:
    a, b = (tango.DeviceProxy(f"tango://127.0.0.1:{{port}}/lab/orb/{{n}}#dbase=no") for n in "ab")
    t = time.monotonic()
    while True:
        try:
            if a.state() == b.state() == ON:
                break
        except tango.DevFailed:
            pass
        assert time.monotonic() - t < 30 and server.poll() is None
        time.sleep(0.2)
    print(a.SensorID, b.SensorID, len(a.Acquire()))
finally:
    server.terminate()
    print("exit", server.wait(20))
""")
    assert out[-2:] == ["C1234-7-21-33-1 C1234-7-20-33-1 1024", "exit 0"]


def test_the_first_start_exposes_the_sensor_and_an_off_target_outcome_is_in_the_status(run_python):
    out = run(run_python, 1, """
with one_device(SensorIndex=0) as proxy:
    wait_state(proxy, ON, 20)
    assert proxy.AutoExposureOutcome == "" and emulated_shutter(0) == 1
    proxy.set_timeout_millis(15000)
    proxy.Start()                           # never a stream at shutter speed 1 by default
    print(proxy.AutoExposureOutcome, proxy.ShutterSpeed == emulated_shutter(0))
    print(proxy.status().splitlines()[-1])
    proxy.Stop()
""", "--scene", "halogen 0.01")
    assert out[0] == "too dim True"
    assert out[1].startswith("auto-exposure warning: too dim even at the longest exposure: shutter speed 3000")


def test_a_start_exposure_from_the_properties_or_the_client_comes_first(run_python):
    out = run(run_python, 1, """
with one_device(SensorIndex=0, ExposureTimeAtStart=20.0) as proxy:
    wait_state(proxy, ON, 20)
    proxy.Start()
    print(proxy.ShutterSpeed, emulated_shutter(0), repr(proxy.AutoExposureOutcome))
    proxy.Stop()
    proxy.ShutterSpeed = 40
    proxy.Start()                           # a later Start keeps what the client chose
    print(emulated_shutter(0))
    proxy.Stop()
""")
    assert out == ["219 219 ''", "40"]

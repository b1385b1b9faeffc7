"""The Tango device's spectra against the emulated sensor with its own
calibration (calibrated.py): Spectrum and Wavelengths, their events at the
stream's pace, the calibration's ID and date, the colour, and a sensor
without a calibration or without a dark, which SpectrumProblem names."""

from calibrated import calibrated_units  # noqa: F401 (a fixture)
from test_tango import run


def test_spectrum_events_come_with_every_frame_and_colour_reads_beside(run_python, calibrated_units):
    out = run(run_python, 3, """
import numpy as np
from orb_sensor.facts import exposure_ms
with devices({"SensorIndex": 0}, {"SensorIndex": 2}) as context:
    proxy, uncalibrated = context.get_device("test/orb/0"), context.get_device("test/orb/1")
    wait_state(proxy, ON, 20)
    wait_state(uncalibrated, ON, 20)
    assert proxy.CalibrationSensorID == "C1234-7-20-33-1" and proxy.CalibrationDate.startswith("20")
    assert uncalibrated.CalibrationSensorID == "" and uncalibrated.CalibrationDate == ""
    uncalibrated.Acquire()
    assert uncalibrated.Spectrum is None and "orb-sensor calibrate" in uncalibrated.SpectrumProblem

    proxy.ShutterSpeed = 40
    proxy.Acquire()
    assert proxy.Spectrum is None and "no dark frame at shutter speed 40" in proxy.SpectrumProblem
    assert "TakeDark" in proxy.SpectrumProblem
    ctl("scene", "0", "dark")
    proxy.TakeDark()
    ctl("scene", "0", "fluorescent")
    spectra, axes = Values(), Values()
    subscriptions = [proxy.subscribe_event("Spectrum", tango.EventType.CHANGE_EVENT, spectra),
                     proxy.subscribe_event("Wavelengths", tango.EventType.CHANGE_EVENT, axes)]
    proxy.Start()
    wait_state(proxy, RUNNING, 5)
    time.sleep(3)
    proxy.Stop()
    wait_state(proxy, ON, 5)
    time.sleep(0.5)
    for s in subscriptions:
        proxy.unsubscribe_event(s)
    nm, values = proxy.Wavelengths, proxy.Spectrum
    assert proxy.SpectrumProblem == "" and len(nm) == len(values) and nm[0] < 400 and nm[-1] > 1000
    frames = proxy.FrameNumber + 1
    # One Spectrum event per frame of the stream and one Wavelengths event
    # (the axis did not change); those sent on subscribing had no value.
    print("events", len(spectra.values()), frames, len(axes.values()), proxy.FramesLost)
    print("line", nm[np.argmax(values)])
    print("colour", proxy.CCT, proxy.Duv, proxy.ChromaticityX, proxy.ChromaticityY, proxy.Ra)
    # At another exposure there is no dark: the colour reads invalid.
    proxy.ShutterSpeed = 41
    proxy.Acquire()
    print("invalid", proxy.read_attribute("CCT").quality == tango.AttrQuality.ATTR_INVALID,
          proxy.Spectrum is None)
""", "--scene", "fluorescent")
    events, frames, axes, lost = map(int, out[0].split()[1:])
    assert events == frames > 100 and axes == 1 and lost == 0, out[0]
    assert abs(float(out[1].split()[1]) - 546.1) < 3, out[1]
    cct, duv, x, y, ra = map(float, out[2].split()[1:])
    assert 2500 < cct < 7000 and abs(duv) < 0.02 and 0.3 < x < 0.5 and 0.3 < y < 0.5 and 40 < ra < 100, out[2]
    assert out[3] == "invalid True True"


def test_a_calibration_rewritten_while_streaming_makes_the_spectra_within_seconds(run_python, calibrated_units,
                                                                                  tmp_path):
    # The device looks for the file again every few seconds, not with
    # every frame; a new file must still reach the stream's spectra.
    unit = "C1234-7-20-33-1"
    out = run(run_python, 1, f"""
import shutil, h5py, numpy as np
os.environ["ORB_CALIBRATION_PATH"] = {str(tmp_path)!r}
path = os.path.join({str(tmp_path)!r}, os.path.basename({calibrated_units[unit]!r}))
shutil.copy({calibrated_units[unit]!r}, path)
with devices({{"SensorIndex": 0}}) as context:
    proxy = context.get_device("test/orb/0")
    wait_state(proxy, ON, 20)
    proxy.ShutterSpeed = 600
    ctl("cover", "0", "on")
    proxy.TakeDark()
    ctl("cover", "0", "off")
    proxy.Start()
    def level():
        values = proxy.Spectrum
        return None if values is None else float(np.mean(values))
    t = time.monotonic()
    while level() is None:
        assert time.monotonic() - t < 10, proxy.SpectrumProblem
        time.sleep(0.1)
    before = level()
    # A unit twice as responsive: its spectra read half as much.
    shutil.copy(path, path + ".new")
    with h5py.File(path + ".new", "r+") as f:
        f["response"][...] = 2 * f["response"][...]
    os.replace(path + ".new", path)
    t = time.monotonic()
    while level() / before > 0.6:
        assert time.monotonic() - t < 8, (level(), before)
        time.sleep(0.1)
    print("ratio", level() / before, "after", round(time.monotonic() - t, 1))
    proxy.Stop()
""", "--scene", "halogen")
    ratio = float(out[0].split()[1])
    assert 0.4 < ratio < 0.6, out[0]

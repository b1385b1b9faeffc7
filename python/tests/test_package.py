import os
import re

from orb_sensor import ERROR_CODE_NAMES

from conftest import REPO


def test_error_names_follow_the_header():
    with open(os.path.join(REPO, "include", "orb_error_codes.h")) as f:
        declared = re.findall(r"^\s*(vn_ec_\w+)\s*=\s*(-?\d+)", f.read(), re.M)
    assert len(declared) == 35
    for name, value in declared:
        if name != "vn_ec_start_code":  # shares 0 with vn_ec_undefined_fail
            assert ERROR_CODE_NAMES[int(value)] == name
    assert len(ERROR_CODE_NAMES) == len(declared) - 1


# Counter frames: filter values of the k-th frame since streaming started are
# k, and the library drops the first two, so three frames average to 4.
PACKAGE_CALLS = """
import logging, numpy as np
from orb_sensor import NoSensorError, Sensor

records = []
logging.getLogger("orb_sensor.library").addHandler(logging.Handler())
logging.getLogger("orb_sensor.library").handlers[0].emit = records.append
logging.getLogger("orb_sensor.library").setLevel(logging.DEBUG)
assert Sensor.list() == ["C1234-7-20-33-1", "C1234-7-21-33-1"]
assert Sensor.list() == ["C1234-7-20-33-1", "C1234-7-21-33-1"]
with Sensor(index=0) as first, Sensor(id="C1234-7-21-33-1") as second:
    assert (first.id, second.index, second.id) == ("C1234-7-20-33-1", 1, "C1234-7-21-33-1")
    second.shutter_speed = 3000
    first.exposure_ms = 9.1                       # nearest: shutter 100, 9.136 ms
    assert (first.shutter_speed, second.shutter_speed) == (100, 3000)
    assert first.exposure_ms == 9.136 and first.exposure_time_ms() == 9.0
    frame = second.read(averages=3)
    assert frame.values.dtype == np.float64 and frame.values.shape == (1024,)
    assert (frame.values == 4.0).all() and frame.shutter_speed == 3000 and frame.averages == 3
    assert (second.filter_data(averages=3) == 4.0).all()
    first.set_adc(range=90)
    assert first.adc == (1, 90) and second.adc == (1, 132)
    assert repr(first) == "<Sensor C1234-7-20-33-1 index 0 shutter 100>"
    try:
        Sensor(id="C9999-0-0-0-0")
        raise AssertionError("opened a sensor that is not there")
    except NoSensorError as e:
        assert "C9999-0-0-0-0" in str(e)
lines = [r.getMessage() for r in records]
assert "[orb_device_api] Sensor ID: C1234-7-21-33-1" in lines, lines
print("checked")
"""


def test_package_calls_on_two_emulated_sensors(run_python):
    result = run_python(2, PACKAGE_CALLS, "--frames", "counter")
    assert result.returncode == 0, result.stderr
    # The library's own lines went to the log, not to the program's output.
    assert result.stdout == "checked\n"


def test_no_sensor_lists_nothing_and_refuses_to_open(run_python):
    result = run_python(0, "from orb_sensor import NoSensorError, Sensor\n"
                           "assert Sensor.list() == []\n"
                           "try:\n    Sensor()\nexcept NoSensorError as e:\n    print(e.name)\n")
    assert result.returncode == 0, result.stderr
    assert result.stdout.split() == ["vn_ec_no_device_in_system"]


DARKS_PER_EXPOSURE = """
import numpy as np
from orb_sensor import OrbValueError, Sensor

with Sensor() as s:
    s.shutter_speed = 100
    dark_100 = s.dark(averages=2)
    s.dark_correction = True
    assert s.read().dark_corrected and s.dark_shutter_speeds() == [100]
    s.shutter_speed = 400                   # no dark at 400: refused, never the dark of 100
    assert s.dark_frame is None
    for call in (s.read, lambda: next(iter(s.stream(frames=1)))):
        try:
            call()
            raise AssertionError("a frame at 400 was corrected with another exposure's dark")
        except OrbValueError as e:
            assert "no dark frame was taken at shutter speed 400 (36.496 ms)" in str(e), e
    s.dark_correction = False
    dark_400 = s.dark(averages=2)
    s.dark_correction = True
    frame = s.read()
    assert frame.dark_corrected and s.dark_shutter_speeds() == [100, 400]
    assert dark_400.mean() > dark_100.mean()  # the dark current grows with the exposure
    per_ms = frame.per_ms()
    assert np.allclose(per_ms.values * 36.496, frame.values)
print("checked")
"""


def test_darks_are_kept_and_subtracted_per_exposure(run_python):
    result = run_python(1, DARKS_PER_EXPOSURE, "--scene", "dark")
    assert result.returncode == 0, result.stderr
    assert result.stdout == "checked\n"

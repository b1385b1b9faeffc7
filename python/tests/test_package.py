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
import numpy as np
from orb_sensor import OrbError, Sensor, library
from orb_sensor.errors import check

assert Sensor.list() == ["C1234-7-20-33-1", "C1234-7-21-33-1"]
assert Sensor.list() == ["C1234-7-20-33-1", "C1234-7-21-33-1"]
with Sensor(index=0) as first, Sensor(id="C1234-7-21-33-1") as second:
    assert (first.id, second.index, second.id) == ("C1234-7-20-33-1", 1, "C1234-7-21-33-1")
    second.shutter_speed = 5000
    assert second.shutter_speed == 3000
    first.shutter_speed = 0
    assert first.shutter_speed == 1
    assert first.exposure_time_ms(100, master_clock=10) == 9.0
    frame = second.filter_data(averages=3)
    assert frame.dtype == np.float64 and frame.shape == (1024,) and (frame == 4.0).all()
    second.set_adc(gain=2, range=300)
    assert second.adc == (0, 132)
    first.set_adc(range=90)
    assert first.adc == (1, 90)
    null_id = lambda: check(library.load().duActivateSensorWithID(None))
    for call, code, name in [(lambda: Sensor(id="C9999-0-0-0-0"), -1, "vn_ec_fail"),
                             (lambda: first.exposure_time_ms(master_clock=0), -1, "vn_ec_fail"),
                             (null_id, 8, "vn_ec_sensor_id_is_empty")]:
        try:
            call()
            raise AssertionError("no OrbError")
        except OrbError as e:
            assert (e.code, e.name) == (code, name), e
print("checked")
"""


def test_package_calls_on_two_emulated_sensors(run_python):
    result = run_python(2, PACKAGE_CALLS, "--frames", "counter")
    assert result.returncode == 0, result.stderr
    assert "checked" in result.stdout.splitlines()


def test_no_sensor_lists_nothing_and_refuses_to_open(run_python):
    result = run_python(0, "from orb_sensor import NoSensorError, Sensor\n"
                           "assert Sensor.list() == []\n"
                           "try:\n    Sensor()\nexcept NoSensorError as e:\n    print(e.name)\n")
    assert result.returncode == 0, result.stderr
    assert result.stdout.split() == ["vn_ec_no_device_in_system"]

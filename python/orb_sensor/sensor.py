"""Sensors as Python objects over the library's du... entry points.

The library keeps one table of connected sensors and one current sensor per
process, so this module keeps one connection per process: the first
Sensor.list() or Sensor() connects every attached sensor, and they stay
connected until the process exits. Sensors attached later are not seen.
Each Sensor makes its own sensor current before every call, so several may
be open at once; none of this is safe to use from two threads at a time.
"""

import atexit
import ctypes

import numpy as np

from . import library
from .errors import NoSensorError, OrbError, check

NUM_FILTERS = 1024
SENSOR_ID_SIZE = 26
# The sensor's master clock in MHz, used to turn shutter speeds into
# milliseconds: (shutter x 912 + 160) ticks. The library truncates to whole
# milliseconds, so at 10 MHz shutter speed 1000 is 91 ms.
DEFAULT_MASTER_CLOCK_MHZ = 10


class _Connection:
    """The process's one duConnect, kept until the process exits: the library
    brings its USB event thread up only once per process, so a second
    connection after a disconnect does not work."""

    count = 0

    @classmethod
    def acquire(cls):
        lib = library.load()
        if cls.count == 0:
            connected = lib.duConnect()
            if connected < 1:
                raise NoSensorError()
            cls.count = connected
            atexit.register(lib.duDisconnect)
        return lib


def _sensor_ids(lib):
    total = lib.duGetTotalSensors()
    entries = lib.duGetSensorList()
    if not entries:
        # The library reports any failure here as a null list, codes lost.
        raise OrbError(-1)
    try:
        return [ctypes.string_at(entries[i]).decode("ascii") for i in range(total)]
    finally:
        for i in range(total):
            library.free(entries[i])
        library.free(entries)


class Sensor:
    """One connected sensor, by index (0 upward) or by ID text.

    Use as a context manager, or call close(); closing only retires this
    object, the connection stays until the process exits.
    """

    def __init__(self, index=None, id=None):
        if index is not None and id is not None:
            raise ValueError("open a sensor by index or by ID, not both")
        self._lib = _Connection.acquire()
        if id is not None:
            self._index = check(self._lib.duActivateSensorWithID(id.encode("ascii")))
        else:
            index = 0 if index is None else index
            if not 0 <= index < _Connection.count:
                raise IndexError(f"no sensor at index {index}: {_Connection.count} connected")
            self._index = index
        self._open = True

    @staticmethod
    def list():
        """The IDs of the attached sensors, in index order; empty when none."""
        try:
            return _sensor_ids(_Connection.acquire())
        except NoSensorError:
            return []

    def close(self):
        self._open = False

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def _current(self):
        if not self._open:
            raise ValueError("the sensor is closed")
        self._lib.duActivateSensorWithIndex(self._index)
        return self._lib

    @property
    def index(self):
        return self._index

    @property
    def id(self):
        buffer = ctypes.create_string_buffer(SENSOR_ID_SIZE)
        check(self._current().duGetSensorID(buffer))
        return buffer.value.decode("ascii")

    @staticmethod
    def shutter_speed_limits():
        low, high = ctypes.c_int(), ctypes.c_int()
        library.load().duGetShutterSpeedLimits(ctypes.byref(low), ctypes.byref(high))
        return low.value, high.value

    @property
    def shutter_speed(self):
        """The shutter speed last set; the library keeps one for all sensors."""
        return check(self._current().duGetShutterSpeed())

    @shutter_speed.setter
    def shutter_speed(self, value):
        # Clamped to the limits, as the library does; done here too so that a
        # Python integer beyond 32 bits cannot wrap on its way in.
        low, high = self.shutter_speed_limits()
        check(self._current().duSetShutterSpeed(min(max(int(value), low), high)))

    def exposure_time_ms(self, shutter_speed=None, master_clock=DEFAULT_MASTER_CLOCK_MHZ):
        """Exposure time of a shutter speed (the current one by default), in
        whole milliseconds, for a master clock in MHz."""
        lib = self._current()
        if shutter_speed is None:
            shutter_speed = check(lib.duGetShutterSpeed())
        ms = ctypes.c_double()
        check(lib.duShutterSpeedToExposureTime(master_clock, shutter_speed, ctypes.byref(ms)))
        return ms.value

    def filter_data(self, averages=1):
        """The average of `averages` frames: 1024 values, nominally 0 to 4095."""
        if averages < 1:
            raise ValueError("averages must be at least 1")
        out = np.zeros(NUM_FILTERS, dtype=np.float64)
        check(self._current().duGetFilterData(
            out.ctypes.data_as(ctypes.POINTER(ctypes.c_double)), averages))
        return out

    def optimal_shutter_speed(self, filters=None, target=None):
        """Runs the auto-exposure search and returns the shutter speed found.
        `filters` are 1-based filter numbers (None: the sensor's valid
        filters); `target` is the peak DN aimed at (None: the library's
        default). The search drives the sensor's register directly, which
        the library's reported shutter speed does not follow, so the result
        is set as the shutter speed afterwards."""
        lib = self._current()
        if filters is None:
            array, count = None, 0
        else:
            filters = [int(f) for f in filters]
            array, count = (ctypes.c_int * len(filters))(*filters), len(filters)
        if target is None:
            found = check(lib.duGetOptimalShutterSpeed(array, count))
        else:
            found = check(lib.duGetOptimalShutterSpeed2(array, count, int(target)))
        self.shutter_speed = found
        return found

    @property
    def adc(self):
        """(gain, range) of the sensor's ADC."""
        gain, range_ = ctypes.c_int(), ctypes.c_int()
        check(self._current().duGetSensorParameters(ctypes.byref(gain), ctypes.byref(range_)))
        return gain.value, range_.value

    def set_adc(self, gain=None, range=None):
        """Sets the ADC gain (0 or 1) and range index (0 to 255); an omitted one
        keeps its value. Out-of-range values become gain 0 and range 132, as
        the library has it."""
        if gain is None or range is None:
            current_gain, current_range = self.adc
            gain = current_gain if gain is None else gain
            range = current_range if range is None else range
        check(self._current().duSetSensorParameters(int(gain), int(range)))

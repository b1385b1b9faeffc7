"""Python access to the spectral sensor through liborb_device.

    from orb_sensor import Sensor
    print(Sensor.list())
    with Sensor(index=0) as s:
        s.shutter_speed = 200
        frame = s.filter_data(averages=10)   # numpy float64, 1024 values

One connection per process: see orb_sensor.sensor.
"""

from .errors import ERROR_CODE_NAMES, NoSensorError, OrbError
from .led import LedModule, NoLedModuleError
from .sensor import DEFAULT_MASTER_CLOCK_MHZ, NUM_FILTERS, Sensor

__all__ = ["Sensor", "OrbError", "NoSensorError", "ERROR_CODE_NAMES", "LedModule", "NoLedModuleError",
           "DEFAULT_MASTER_CLOCK_MHZ", "NUM_FILTERS"]

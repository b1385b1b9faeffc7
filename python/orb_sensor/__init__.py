"""Python access to the spectral sensor.

    from orb_sensor import Sensor
    print(Sensor.list())
    with Sensor(index=0) as s:
        s.exposure_ms = 20
        frame = s.read(averages=10)      # a Frame: values, saturated, settings
        for frame in s.stream(seconds=5):
            print(frame.seq, frame.values.max())

The library runs in a worker process that the package supervises (see
orb_sensor.supervisor): calls are bounded, and a Sensor works again after
its sensor is replugged.
"""

from .errors import (ERROR_CODE_NAMES, NoSensorError, OrbError, OrbTypeError, OrbValueError,
                     SensorLostError, SensorTimeoutError)
from .frame import DEFAULT_MASTER_CLOCK_MHZ, MAX_VALUE, NUM_FILTERS, Frame
from .led import LedModule, NoLedModuleError
from .sensor import Sensor

__version__ = "1.0.0"

__all__ = ["Sensor", "Frame", "OrbError", "NoSensorError", "SensorLostError", "SensorTimeoutError",
           "OrbValueError", "OrbTypeError", "ERROR_CODE_NAMES", "LedModule", "NoLedModuleError",
           "DEFAULT_MASTER_CLOCK_MHZ", "MAX_VALUE", "NUM_FILTERS", "__version__"]

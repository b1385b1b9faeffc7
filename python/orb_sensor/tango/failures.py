"""What a Tango client receives when a call fails: a DevFailed whose
reason says what kind of failure it is and whose text says what to do."""

import tango

from ..errors import (NoSensorError, OrbTypeError, OrbValueError, SensorLostError, SensorRefusedError,
                      SensorStalledError, SensorTimeoutError)
from ..led import NoLedModuleError

# Reasons a client can tell apart without reading the text.
LOST = "ORB_SensorLost"
SILENT = "ORB_SensorTimeout"
STALLED = "ORB_SensorStalled"
REFUSED = "ORB_SensorRefused"
ABSENT = "ORB_NoSensor"
BUSY = "ORB_Busy"
BAD_VALUE = "ORB_BadValue"
OUT_OF_RANGE = "API_WAttrOutsideLimit"
NO_LED = "ORB_NoLedModule"
LIBRARY = "ORB_LibraryError"

_REASONS = ((SensorLostError, LOST), (SensorStalledError, STALLED), (SensorTimeoutError, SILENT),
            (SensorRefusedError, REFUSED), (NoSensorError, ABSENT),
            (OrbValueError, BAD_VALUE), (OrbTypeError, BAD_VALUE), (NoLedModuleError, NO_LED),
            (ValueError, BAD_VALUE))


class Busy(Exception):
    """The sensor did not finish a call within the bound a Tango call
    waits; the call may still complete on the sensor's own thread."""


def throw(reason, text, origin):
    tango.Except.throw_exception(reason, text, origin)


def rethrow(error, origin):
    """Raises `error`, an exception of the package, as a DevFailed."""
    if isinstance(error, tango.DevFailed):
        raise error
    if isinstance(error, Busy):
        throw(BUSY, str(error), origin)
    reason = next((r for kind, r in _REASONS if isinstance(error, kind)), LIBRARY)
    throw(reason, str(error), origin)

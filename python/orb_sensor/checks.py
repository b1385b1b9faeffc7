"""Arguments checked before anything reaches the sensor: a clear message
naming the argument, instead of a value the library clamps or a C type
wraps. Public: a front end (the view) checks what it is given with the
same checks and messages as Sensor."""

import math
import numbers
from typing import Any, List, Optional

from .errors import OrbTypeError, OrbValueError
from .facts import MAX_VALUE, NUM_FILTERS

# What the sensor's ID text may hold: printable ASCII, as the firmware
# makes it, within the library's 26-byte buffer.
SENSOR_ID_MAX = 25
INT_MAX = 2**31 - 1


def integer(name: str, value: Any, low: int, high: int) -> int:
    """`value` as an int within low..high."""
    if isinstance(value, bool) or not isinstance(value, numbers.Integral):
        raise OrbTypeError(f"{name} must be a whole number, not {type(value).__name__} {value!r}")
    value = int(value)
    if not low <= value <= high:
        raise OrbValueError(f"{name} must be between {low} and {high}, not {value}")
    return value


def number(name: str, value: Any, low: float, high: float) -> float:
    """`value` as a finite float within low..high."""
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise OrbTypeError(f"{name} must be a number, not {type(value).__name__} {value!r}")
    value = float(value)
    if not math.isfinite(value) or not low <= value <= high:
        raise OrbValueError(f"{name} must be between {low:g} and {high:g}, not {value!r}")
    return value


def optional_count(name: str, value: Any) -> Optional[int]:
    """None, or a count of at least 1."""
    return None if value is None else integer(name, value, 1, INT_MAX)


def timeout(value: Any, name: str = "timeout") -> float:
    """A time-out in seconds: positive and at most a day."""
    value = number(name, value, 0.0, 86400.0)
    if value == 0.0:
        raise OrbValueError(f"{name} must be more than 0 seconds")
    return value


def sensor_id(value: Any) -> str:
    if not isinstance(value, str):
        raise OrbTypeError(f"sensor ID must be text, not {type(value).__name__} {value!r}")
    if not value or len(value) > SENSOR_ID_MAX or not all(" " < c <= "~" for c in value):
        raise OrbValueError(f"sensor ID must be 1 to {SENSOR_ID_MAX} printable ASCII characters, "
                            f"not {value!r}")
    return value


def filters(values: Any, name: str = "filters") -> List[int]:
    """Filter numbers 1..1024, as a list."""
    if isinstance(values, (str, bytes)):
        raise OrbTypeError(f"{name} must be filter numbers, not text {values!r}")
    try:
        items = list(values)
    except TypeError:
        raise OrbTypeError(f"{name} must be filter numbers, not {type(values).__name__}") from None
    if not items:
        raise OrbValueError(f"{name} must name at least one filter")
    return [integer(f"filter number in {name}", f, 1, NUM_FILTERS) for f in items]


def target(value: Any) -> int:
    """An auto-exposure target: a peak the ADC can reach."""
    return integer("target", value, 1, MAX_VALUE)

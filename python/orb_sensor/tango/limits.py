"""The ranges of the writable attributes, checked here rather than by
Tango: Tango 9.3 refuses a value outside min_value/max_value with "Set
value for attribute X is above the maximum authorized", which does not
say what the range is. A client gets the attribute, the range and the
value it sent."""

from ..facts import ADC_GAIN_LIMITS, ADC_RANGE_LIMITS, EXPOSURE_MS_LIMITS, SHUTTER_SPEED_LIMITS
from . import failures

# Averages beyond this would hold one Acquire for minutes at long exposures.
MAX_AVERAGES = 10000

RANGES = {
    "ShutterSpeed": SHUTTER_SPEED_LIMITS,
    "ExposureTime": EXPOSURE_MS_LIMITS,
    "Averages": (1, MAX_AVERAGES),
    "AdcGain": ADC_GAIN_LIMITS,
    "AdcRange": ADC_RANGE_LIMITS,
}


def describe(name):
    """The range as the attribute's description ends with it."""
    low, high = RANGES[name]
    return f"{low:g} to {high:g}"


def check(name, value):
    """`value` if it lies within the attribute's range; else a DevFailed
    that names both."""
    low, high = RANGES[name]
    # NaN fails the comparison too.
    if not low <= value <= high:
        failures.throw(failures.OUT_OF_RANGE,
                       f"{name} must be between {low:g} and {high:g}, not {value:g}",
                       f"OrbSensor.write_{name}")
    return value

"""The page's settings, checked with the package's own checks before any
of them reaches the sensor: a bad value is refused with a message that
names it, and nothing is changed."""

from .. import checks
from ..errors import OrbTypeError, OrbValueError
from ..facts import ADC_GAIN_LIMITS, ADC_RANGE_LIMITS, EXPOSURE_MS_LIMITS, SHUTTER_SPEED_LIMITS
from ..led import MAX_INTENSITY


def _flag(name):
    def check(value):
        if not isinstance(value, bool):
            raise OrbTypeError(f"{name} must be true or false, not {value!r}")
        return value
    return check


CHECKS = {
    "shutter_speed": lambda v: checks.integer("shutter speed", v, *SHUTTER_SPEED_LIMITS),
    "exposure_ms": lambda v: checks.number("exposure_ms", v, *EXPOSURE_MS_LIMITS),
    "averages": lambda v: checks.integer("averages", v, 1, checks.INT_MAX),
    "adc_gain": lambda v: checks.integer("ADC gain", v, *ADC_GAIN_LIMITS),
    "adc_range": lambda v: checks.integer("ADC range", v, *ADC_RANGE_LIMITS),
    "dark_correction": _flag("dark correction"),
    "frozen": _flag("freeze"),
}


def checked(changes, sensor):
    """{name: value} with each value checked; OrbValueError or
    OrbTypeError for the first that is not right."""
    if not isinstance(changes, dict) or not changes:
        raise OrbValueError('settings come as {"name": value}, e.g. {"shutter_speed": 400}')
    for name in changes:
        if name not in CHECKS:
            raise OrbValueError(f"no setting {name!r}: there are " + ", ".join(CHECKS))
    values = {name: CHECKS[name](value) for name, value in changes.items()}
    if values.get("dark_correction") and sensor.dark_frame is None:
        raise OrbValueError("dark correction needs a dark frame: take one first")
    return values


def apply(session, values):
    """Sets checked values; blocks while the sensor takes them."""
    if "averages" in values:
        session.set_averages(values["averages"])
    if "frozen" in values:
        session.set_frozen(values["frozen"])
    if "dark_correction" in values:
        session.set_dark_correction(values["dark_correction"])
    if "adc_gain" in values or "adc_range" in values:
        session.set_adc(values.get("adc_gain"), values.get("adc_range"))
    if "shutter_speed" in values:
        session.set_shutter_speed(values["shutter_speed"])
    elif "exposure_ms" in values:
        session.set_exposure_ms(values["exposure_ms"])


def target(value):
    """An auto-exposure target; None leaves it to the library."""
    return None if value is None else checks.target(value)


def lights(body):
    """(channels, intensity) for the LED module."""
    channels, intensity = body.get("channels", []), body.get("intensity", 0)
    if not isinstance(channels, list):
        raise OrbTypeError(f"LED channels must be a list of channel numbers, not {channels!r}")
    return channels, checks.integer("LED intensity", intensity, 0, MAX_INTENSITY)

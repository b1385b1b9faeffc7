"""Command-line values checked as argparse reads them: a bad one ends the
tool with status 2 and a message naming the option, before anything
reaches a sensor."""

import argparse
import math

from .. import checks
from ..errors import OrbError
from ..facts import EXPOSURE_MS_LIMITS


def whole(low, high):
    """An integer option within low..high."""
    def parse(text):
        try:
            value = int(text, 10)
        except ValueError:
            raise argparse.ArgumentTypeError(f"{text!r} is not a whole number") from None
        if not low <= value <= high:
            raise argparse.ArgumentTypeError(f"must be between {low} and {high}, not {value}")
        return value
    return parse


def seconds(text):
    """A positive duration in seconds."""
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not a number of seconds") from None
    if not math.isfinite(value) or not 0 < value <= 86400 * 366:
        raise argparse.ArgumentTypeError(f"must be more than 0 and at most a year of seconds, not {text}")
    return value


def exposure_ms(text):
    """An exposure in milliseconds the sensor can make."""
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not a number of milliseconds") from None
    low, high = EXPOSURE_MS_LIMITS
    if not math.isfinite(value) or not low <= value <= high:
        raise argparse.ArgumentTypeError(f"must be between {low:.6g} and {high:.6g} ms, not {text}")
    return value


def sensor(text):
    """An index (0 upward) or an ID text."""
    if text.isascii() and text.isdigit():
        return whole(0, 1023)(text)
    try:
        return checks.sensor_id(text)
    except OrbError as e:
        raise argparse.ArgumentTypeError(str(e)) from None


def filters(text):
    """Filter numbers: "1-100,200,300-310"."""
    numbers = []
    for part in text.split(","):
        low, _, high = part.partition("-")
        first = whole(1, checks.NUM_FILTERS)(low.strip())
        last = whole(1, checks.NUM_FILTERS)(high.strip()) if high else first
        if last < first:
            raise argparse.ArgumentTypeError(f"range {part!r} runs backwards")
        numbers.extend(range(first, last + 1))
    return numbers


def _number(text, what):
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not {what}") from None
    if not math.isfinite(value):
        raise argparse.ArgumentTypeError(f"{text!r} is not {what}")
    return value


def wavelength(text):
    """A wavelength within the sensor's range, 340 to 1100 nm."""
    value = _number(text, "a wavelength in nm")
    if not 340 <= value <= 1100:
        raise argparse.ArgumentTypeError(f"must be between 340 and 1100 nm, not {text}")
    return value


def positive_nm(text):
    """A step in nm, above 0 and at most 100."""
    value = _number(text, "a step in nm")
    if not 0 < value <= 100:
        raise argparse.ArgumentTypeError(f"must be above 0 and at most 100 nm, not {text}")
    return value


def brightness(text):
    """The emulator's line brightness, above 0 and at most 1000."""
    value = _number(text, "a brightness")
    if not 0 < value <= 1000:
        raise argparse.ArgumentTypeError(f"must be above 0 and at most 1000, not {text}")
    return value


def line_width(text):
    """The emulator's line width, 0.1 to 100 nm."""
    value = _number(text, "a width in nm")
    if not 0.1 <= value <= 100:
        raise argparse.ArgumentTypeError(f"must be between 0.1 and 100 nm, not {text}")
    return value

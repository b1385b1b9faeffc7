"""What the package knows of the sensor, each fact once: its filters and
saturation, the shutter speed's limits and exposure, the ADC's limits and
the fastest pace of its frames. The sensor library holds the same facts on
the C side (orb_stream.h); tests/test_stream_abi.py holds the two together."""

from typing import Tuple

NUM_FILTERS = 1024
# 12-bit values: a filter at this value is saturated.
MAX_VALUE = 4095

SHUTTER_SPEED_LIMITS: Tuple[int, int] = (1, 3000)
# The LED module answers the identity request with zero bytes: the library
# lists it among the sensors under this ID; it is no sensor.
LED_MODULE_ID = "A0-0-0-0-0"
ADC_GAIN_LIMITS: Tuple[int, int] = (0, 1)
ADC_RANGE_LIMITS: Tuple[int, int] = (0, 255)
# The sensor writes the blank time as the shutter speed plus this with
# every change of shutter speed.
BLANK_MARGIN = 32

# The sensor's master clock: a shutter speed s exposes (s x 912 + 160) ticks.
DEFAULT_MASTER_CLOCK_MHZ = 10
TICKS_PER_SHUTTER_STEP = 912
TICKS_EXTRA = 160
EXPOSURE_FORMULA = (f"({TICKS_PER_SHUTTER_STEP} x shutter + {TICKS_EXTRA}) / "
                    f"{DEFAULT_MASTER_CLOCK_MHZ * 1000} ms")

# The sensor sends a frame at most every 32/19 ms (the bus's pace), or once
# per exposure when that is longer.
FASTEST_FRAME_S = 32 / 19 / 1000


def exposure_ms(shutter_speed: int, master_clock_mhz: float = DEFAULT_MASTER_CLOCK_MHZ) -> float:
    """The exposure of a shutter speed in milliseconds, not rounded."""
    return (shutter_speed * TICKS_PER_SHUTTER_STEP + TICKS_EXTRA) / (master_clock_mhz * 1000.0)


EXPOSURE_MS_LIMITS: Tuple[float, float] = (exposure_ms(SHUTTER_SPEED_LIMITS[0]),
                                           exposure_ms(SHUTTER_SPEED_LIMITS[1]))


def nearest_shutter_speed(ms: float, master_clock_mhz: float = DEFAULT_MASTER_CLOCK_MHZ) -> int:
    """The shutter speed whose exposure is nearest to `ms` milliseconds
    (unbounded: the caller checks it against the sensor's limits)."""
    return int(round((ms * master_clock_mhz * 1000.0 - TICKS_EXTRA) / TICKS_PER_SHUTTER_STEP))


def shutter_speed_for(ms: float) -> int:
    """The shutter speed the sensor takes whose exposure is nearest to `ms`
    milliseconds, within the limits."""
    low, high = SHUTTER_SPEED_LIMITS
    return min(max(nearest_shutter_speed(ms), low), high)


def blank_time(shutter_speed: int) -> int:
    """The blank time that comes with a shutter speed."""
    return shutter_speed + BLANK_MARGIN


def frame_period_s(shutter_speed: int) -> float:
    """How often the sensor sends a frame at a shutter speed."""
    return max(exposure_ms(shutter_speed) / 1000, FASTEST_FRAME_S)

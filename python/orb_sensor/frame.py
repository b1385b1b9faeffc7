"""One frame of filter data with what it was taken with."""

import numpy as np

NUM_FILTERS = 1024
MAX_VALUE = 4095
# The sensor's master clock: a shutter speed s exposes (s x 912 + 160) ticks.
DEFAULT_MASTER_CLOCK_MHZ = 10
TICKS_PER_SHUTTER_STEP = 912
TICKS_EXTRA = 160


def exposure_ms(shutter_speed, master_clock_mhz=DEFAULT_MASTER_CLOCK_MHZ):
    """The exposure of a shutter speed in milliseconds, not rounded."""
    return (shutter_speed * TICKS_PER_SHUTTER_STEP + TICKS_EXTRA) / (master_clock_mhz * 1000.0)


def nearest_shutter_speed(ms, master_clock_mhz=DEFAULT_MASTER_CLOCK_MHZ):
    """The shutter speed whose exposure is nearest to `ms` milliseconds
    (unbounded: the caller checks it against the sensor's limits)."""
    return int(round((ms * master_clock_mhz * 1000.0 - TICKS_EXTRA) / TICKS_PER_SHUTTER_STEP))


class Frame:
    """Filter data of one frame, or of several averaged.

    values        numpy float64, 1024 values in DN (dark-corrected when the
                  sensor's dark_correction was on)
    seq           the sensor's frame number since the stream started (of
                  the last frame in an average); a gap means frames lost
    timestamp     Unix time in seconds when the frame (the last of an
                  average) arrived
    shutter_speed, exposure_ms, adc (gain, range): what it was taken with
    averages      frames averaged into it
    saturated     numpy array of the filter numbers (1..1024) that read 4095
                  in any of the frames averaged
    lost          frames lost since the frame delivered before it
    sensor_id     the sensor's ID text
    """

    __slots__ = ("values", "seq", "timestamp", "shutter_speed", "exposure_ms", "adc", "averages",
                 "saturated", "lost", "sensor_id")

    def __init__(self, values, seq, timestamp, shutter_speed, adc, saturated, lost=0, averages=1,
                 sensor_id=""):
        self.values = values
        self.seq = seq
        self.timestamp = timestamp
        self.shutter_speed = shutter_speed
        self.exposure_ms = exposure_ms(shutter_speed)
        self.adc = adc
        self.averages = averages
        self.saturated = saturated
        self.lost = lost
        self.sensor_id = sensor_id

    def metadata(self):
        """The frame's bookkeeping as plain Python values (for JSON and CSV)."""
        return {"seq": int(self.seq), "timestamp": float(self.timestamp),
                "shutter_speed": int(self.shutter_speed), "exposure_ms": float(self.exposure_ms),
                "adc_gain": int(self.adc[0]), "adc_range": int(self.adc[1]),
                "averages": int(self.averages), "lost": int(self.lost),
                "saturated": [int(f) for f in self.saturated]}

    def __repr__(self):
        return (f"<Frame {self.seq} of {self.sensor_id or 'sensor'}: shutter {self.shutter_speed}"
                f" ({self.exposure_ms:g} ms), {self.averages} averaged, "
                f"{len(self.saturated)} saturated, {self.lost} lost before>")


def saturated_filters(raw):
    """Filter numbers (1-based) at MAX_VALUE in any row of `raw` (frames x 1024)."""
    raw = np.atleast_2d(raw)
    return np.flatnonzero((raw >= MAX_VALUE).any(axis=0)) + 1

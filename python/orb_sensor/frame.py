"""One frame of filter data with what it was taken with."""

from typing import Any, Dict, Tuple

import numpy as np

from .facts import MAX_VALUE, exposure_ms


class Frame:
    """Filter data of one frame, or of several averaged.

    values        numpy float64, 1024 values in DN (dark-corrected when
                  `dark_corrected`)
    seq           the number of the frame (of the last one in an average):
                  the sensor's frames are numbered from 0 at the start of
                  the stream, so a gap means frames lost (see Stream)
    timestamp     Unix time in seconds when the frame (the last of an
                  average) arrived
    shutter_speed, exposure_ms, adc (gain, range): what it was taken with
    averages      frames averaged into it
    saturated     numpy array of the filter numbers (1..1024) that read 4095
                  in any of the frames averaged
    lost          frames lost since the frame delivered before it
    missed        frames the sensor took since the frame delivered before it
                  that never reached the host (no transfer waited for
                  them): not numbered, so not in `lost` (see Stream)
    sensor_id     the sensor's ID text
    dark_corrected  whether the sensor's dark frame was subtracted
    """

    __slots__ = ("values", "seq", "timestamp", "shutter_speed", "exposure_ms", "adc", "averages",
                 "saturated", "lost", "missed", "sensor_id", "dark_corrected")

    def __init__(self, values: np.ndarray, seq: int, timestamp: float, shutter_speed: int,
                 adc: Tuple[int, int], saturated: np.ndarray, lost: int = 0, averages: int = 1,
                 sensor_id: str = "", dark_corrected: bool = False, missed: int = 0) -> None:
        self.values = values
        self.seq = seq
        self.timestamp = timestamp
        self.shutter_speed = shutter_speed
        self.exposure_ms = exposure_ms(shutter_speed)
        self.adc = adc
        self.averages = averages
        self.saturated = saturated
        self.lost = lost
        self.missed = missed
        self.sensor_id = sensor_id
        self.dark_corrected = dark_corrected

    def per_ms(self) -> "Frame":
        """This frame with its values in DN per millisecond of exposure."""
        out = Frame(self.values / self.exposure_ms, self.seq, self.timestamp, self.shutter_speed, self.adc,
                    self.saturated, self.lost, self.averages, self.sensor_id, self.dark_corrected)
        return out

    def metadata(self) -> Dict[str, Any]:
        """The frame's bookkeeping as plain Python values (for JSON and CSV)."""
        return {"seq": int(self.seq), "timestamp": float(self.timestamp),
                "shutter_speed": int(self.shutter_speed), "exposure_ms": float(self.exposure_ms),
                "adc_gain": int(self.adc[0]), "adc_range": int(self.adc[1]),
                "averages": int(self.averages), "lost": int(self.lost), "missed": int(self.missed),
                "saturated": [int(f) for f in self.saturated]}

    def __repr__(self) -> str:
        return (f"<Frame {self.seq} of {self.sensor_id or 'sensor'}: shutter {self.shutter_speed}"
                f" ({self.exposure_ms:g} ms), {self.averages} averaged, "
                f"{len(self.saturated)} saturated, {self.lost} lost, {self.missed} missed before>")


def saturated_filters(raw: np.ndarray) -> np.ndarray:
    """Filter numbers (1-based) at MAX_VALUE in any row of `raw` (frames x 1024)."""
    raw = np.atleast_2d(raw)
    return np.flatnonzero((raw >= MAX_VALUE).any(axis=0)) + 1

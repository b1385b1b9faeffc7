"""Frames into spectra, with the dark of each frame's exposure: the rule
Sensor.spectrum(), Sensor.stream(spectra=True) and the recordings share,
so that a spectrum is never made with the dark of another exposure."""

import os
from typing import Callable, Dict, Optional, Union

import numpy as np

from ..errors import OrbValueError
from ..exposure import format_ms
from ..facts import exposure_ms
from ..frame import Frame
from ..spectrum import Spectrum
from .engine import Operator
from .sensor_spectra import SensorSpectra


def no_dark(shutter_speed: int) -> OrbValueError:
    return OrbValueError(
        f"no dark frame at shutter speed {shutter_speed} ({format_ms(exposure_ms(shutter_speed))} ms): a spectrum "
        "without one is off by the dark level; cover the sensor and call dark() at this exposure, or pass dark=")


class FrameSpectra:
    """Makes the Spectrum of a Frame of one sensor. The dark subtracted is
    the frame's own when it came dark-corrected, else `dark` when the frame
    is of `dark_shutter_speed`, else what `kept_dark(shutter_speed)` gives
    (the sensor's dark() of that exposure); with none the frame is refused.
    Operators are taken once per `averages` (GCV weighs that many frames)."""

    def __init__(self, spectra: SensorSpectra, sensor_id: str,
                 calibration: Union[str, "os.PathLike[str]", None], step: Optional[float],
                 kept_dark: Callable[[int], Optional[np.ndarray]], dark: Optional[np.ndarray] = None,
                 dark_shutter_speed: Optional[int] = None) -> None:
        self._spectra = spectra
        self._sensor_id = sensor_id
        self._calibration = calibration
        self._step = step
        self._kept_dark = kept_dark
        self._dark = dark
        self._dark_shutter = dark_shutter_speed
        self._operators: Dict[int, Operator] = {}
        self.source = spectra.source(calibration)

    def operator(self, averages: int) -> Operator:
        op = self._operators.get(averages)
        if op is None:
            op, self.source = self._spectra.operator(self._calibration, self._step, averages)
            self._operators[averages] = op
        return op

    def background(self, shutter_speed: int, dark_corrected: bool = False) -> Optional[np.ndarray]:
        """The dark to subtract from a frame of that exposure (None when it
        came corrected); raises OrbValueError when there is none."""
        if dark_corrected:
            return None
        if self._dark is not None and shutter_speed == self._dark_shutter:
            return self._dark
        kept = self._kept_dark(shutter_speed)
        if kept is None:
            raise no_dark(shutter_speed)
        return kept

    def spectrum(self, frame: Frame, refine: bool = False) -> Spectrum:
        op = self.operator(frame.averages)
        background = self.background(frame.shutter_speed, frame.dark_corrected)
        lines = None
        if refine:
            values, lines = op.refine(frame.values, background, frame.exposure_ms)
        else:
            values = op.apply(frame.values, background, frame.exposure_ms)
        return Spectrum(op.wavelengths, values, seq=frame.seq, timestamp=frame.timestamp,
                        shutter_speed=frame.shutter_speed, exposure_ms=frame.exposure_ms,
                        averages=frame.averages, lost=frame.lost, missed=frame.missed,
                        saturated=frame.saturated,
                        sensor_id=self._sensor_id, calibration=self.source, lines=lines,
                        operator=None if refine else op)

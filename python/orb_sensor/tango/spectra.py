"""The spectrum of a device's latest frame and its colour: made on the
stream's thread with the sensor's calibration and the dark of the frame's
exposure (Sensor.spectrum_of); the colour is worked out when read, once per
spectrum, since a client reads it far less often than frames come."""

import math
import threading

from ..errors import CalibrationError, OrbError

NO_FRAME = "no frame yet: Start or Acquire"


class LatestSpectrum:
    def __init__(self):
        self._lock = threading.Lock()
        self.spectrum = None
        self.problem = NO_FRAME
        self._colour = (None, None)  # (spectrum, its Colour or None)

    def make(self, sensor, frame):
        """The Spectrum of `frame`, kept as the latest; None (and `problem`
        saying why) when it cannot be made."""
        try:
            if sensor is None:
                raise OrbError("the sensor is not reached yet")
            spectrum, problem = sensor.spectrum_of(frame), ""
        except CalibrationError as e:
            spectrum, problem = None, str(e)
        except OrbError as e:
            spectrum, problem = None, f"{e}; in Tango: TakeDark with the sensor covered"
        with self._lock:
            self.spectrum, self.problem = spectrum, problem
        return spectrum

    def colour(self):
        """The latest spectrum's Colour, or None."""
        with self._lock:
            spectrum, (of, colour) = self.spectrum, self._colour
        if spectrum is None:
            return None
        if of is not spectrum:
            try:
                colour = spectrum.colour()
            except OrbError:
                colour = None
            with self._lock:
                self._colour = (spectrum, colour)
        return colour

    def quantity(self, name):
        """A quantity of the colour, or None when there is none (no
        spectrum, or outside what the method covers)."""
        colour = self.colour()
        value = None if colour is None else getattr(colour, name)
        return value if value is not None and math.isfinite(value) else None


def calibration_of(sensor):
    """(sensor ID, date) of the calibration the sensor's spectra use, or
    empty texts when there is none (or no sensor yet)."""
    if sensor is None:
        return "", ""
    try:
        source = sensor.calibration()
    except CalibrationError:
        return "", ""
    return source.sensor_id, source.created

"""The spectrum of a device's latest frame and its colour: made on the
stream's thread with the sensor's calibration and the dark of the frame's
exposure, as Sensor.spectrum_of makes it; the colour is worked out when
read, once per spectrum, since a client reads it far less often than
frames come."""

import math
import threading
import time

from ..errors import CalibrationError, OrbError, OrbValueError

NO_FRAME = "no frame yet: Start or Acquire"
# The calibration file is looked for again this often (a new one is picked
# up), not with every frame: finding it (the search path, the file's real
# path and status) costs several times the spectrum itself, and at the
# sensor's fastest pace ten devices would spend a core on it.
CALIBRATION_LOOK_S = 2.0


class LatestSpectrum:
    def __init__(self):
        self._lock = threading.Lock()
        self.spectrum = None
        self.problem = NO_FRAME
        self._colour = (None, None)  # (spectrum, its Colour or None)
        # (sensor, when, what makes its spectra with the calibration found then)
        self._maker = (None, -math.inf, None)

    def _spectra_of(self, sensor, frame):
        of, when, maker = self._maker
        now = time.monotonic()
        if of is not sensor or now - when > CALIBRATION_LOOK_S:
            # Darks taken later are seen: the maker asks the sensor for the
            # dark of each frame's exposure (the shutter speed given here
            # is only for a dark given with it, and none is).
            maker = sensor._frame_spectra(None, None, None, frame.shutter_speed)
            self._maker = (sensor, now, maker)
        return maker

    def make(self, sensor, frame):
        """The Spectrum of `frame`, kept as the latest; None (and `problem`
        saying why) when it cannot be made."""
        try:
            if sensor is None:
                raise OrbError("the sensor is not reached yet")
            if frame.sensor_id != sensor.id:
                raise OrbValueError(f"the frame is of sensor {frame.sensor_id}, not of {sensor.id}")
            spectrum, problem = self._spectra_of(sensor, frame).spectrum(frame), ""
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

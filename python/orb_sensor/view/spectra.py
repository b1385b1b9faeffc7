"""The spectrum of the frame on the page: made with the sensor's
calibration and the dark of the frame's exposure (Sensor.spectrum_of),
shown as measured or against a stored reference, with its peaks, its
colour and an overlay of a saved spectrum.

A reference is a spectrum of the light without the sample, taken at the
current exposure; the ratio modes refuse frames of another exposure,
since the dark under both would then differ. Both spectra already have the
dark frame of their exposure subtracted (Take dark, the sensor covered), so
a ratio needs no dark of its own."""

import math
import os
import tempfile
import threading
import time

import numpy as np

from ..errors import CalibrationError, OrbError, OrbValueError
from ..exposure import format_ms
from ..spectrum import Spectrum

MODES = {
    # mode: (the curve's label, its unit)
    "spectrum": ("spectrum", None),
    "transmission": ("transmission", "%"),
    "absorbance": ("absorbance", "A (-log10 T)"),
    "reflectance": ("reflectance", "%"),
}
REFERENCE_AVERAGES = 16
# Below this share of the highest value, a peak is mostly the ringing of
# a strong line beside it.
PEAK_PROMINENCE = 0.08
MAX_PEAKS = 12
# Where the reference is below this share of its highest value, a ratio
# is noise over noise: not drawn.
REFERENCE_FLOOR = 0.05
# The calibration is looked for again this often (a new one is picked up).
CALIBRATION_LOOK_S = 2.0
COLOUR_FIELDS = ("cct_k", "duv", "x", "y", "ra", "ra_meaningful")


def _finite(value):
    """A number for JSON: NaN and infinities are no number (None)."""
    return float(value) if isinstance(value, (int, float)) and math.isfinite(value) else None


def _exposure(shutter_speed, exposure_ms):
    return f"shutter speed {shutter_speed} ({format_ms(exposure_ms)} ms)"


class Shown:
    """What the page draws of one frame: the curve (values against
    wavelengths, or None with `problem` saying why), its peaks and the
    colour of the measured spectrum."""

    def __init__(self, frame, problem=None, spectrum=None, curve=None, unit="", peaks=(), colour=None):
        self.frame, self.problem, self.spectrum = frame, problem, spectrum
        self.curve, self.unit, self.peaks, self.colour = curve, unit, list(peaks), colour


class Spectra:
    def __init__(self):
        self._lock = threading.Lock()
        self.mode = "spectrum"
        self.reference = None
        self.overlay = None  # (name, Spectrum)
        self._last = None
        self._looked = (-math.inf, None, None)  # (when, sensor ID, (source, problem))

    # The calibration.

    def calibration(self, sensor):
        """(CalibrationSource or None, None or the text saying how to make one)."""
        when, sensor_id, found = self._looked
        if sensor_id != sensor.id or time.monotonic() - when > CALIBRATION_LOOK_S:
            try:
                found = (sensor.calibration(), None)
            except CalibrationError as e:
                found = (None, str(e))
            self._looked = (time.monotonic(), sensor.id, found)
        return found

    # What the page sets.

    def set_mode(self, mode):
        if mode not in MODES:
            raise OrbValueError(f"no spectrum mode {mode!r}: there are " + ", ".join(MODES))
        self.mode = mode
        self._forget()

    def take_reference(self, sensor, averages):
        """In the session's thread, the stream stopped."""
        self.reference = sensor.spectrum(averages=max(REFERENCE_AVERAGES, averages))
        self._forget()
        return self.reference.shutter_speed

    def clear_reference(self):
        self.reference = None
        self._forget()

    def set_overlay(self, name, text):
        """A saved spectrum (CSV of wavelength_nm,value) drawn beside the live one."""
        if not isinstance(name, str) or not isinstance(text, str):
            raise OrbValueError('an overlay comes as {"name": file name, "csv": its text}')
        with tempfile.NamedTemporaryFile("w", suffix=".csv", delete=False, encoding="utf-8") as f:
            f.write(text)
        try:
            self.overlay = (os.path.basename(name) or "overlay", Spectrum.from_csv(f.name, name=name))
        finally:
            os.unlink(f.name)
        self._forget()

    def clear_overlay(self):
        self.overlay = None
        self._forget()

    def _forget(self):
        with self._lock:
            self._last = None

    # What the page gets.

    def shown(self, sensor, frame):
        """The Shown of a frame, made once for every page that asks."""
        with self._lock:
            if self._last is not None and self._last.frame is frame:
                return self._last
        shown = self._make(sensor, frame)
        with self._lock:
            self._last = shown
        return shown

    def _make(self, sensor, frame):
        source, problem = self.calibration(sensor)
        if source is None:
            return Shown(frame, problem)
        if self.mode != "spectrum":
            problem = self._refused(frame)
            if problem:
                return Shown(frame, problem)
        try:
            spectrum = sensor.spectrum_of(frame)
        except OrbError as e:
            return Shown(frame, f"{e}; Take dark does it here")
        colour = None
        try:
            c = spectrum.colour()
            colour = {name: _finite(getattr(c, name)) if name != "ra_meaningful" else bool(c.ra_meaningful)
                      for name in COLOUR_FIELDS}
        except OrbError:
            pass  # no colour of this spectrum (all dark, say): the readout shows none
        if self.mode == "spectrum":
            peaks = [(p.wavelength_nm, p.height) for p in spectrum.peaks(PEAK_PROMINENCE)[:MAX_PEAKS]]
            return Shown(frame, None, spectrum, spectrum.values, spectrum.unit, peaks, colour)
        problem, curve = self._ratio(spectrum)
        return Shown(frame, problem, spectrum, curve, MODES[self.mode][1], (), colour)

    def _refused(self, frame):
        """Why a ratio cannot be drawn for this frame, or None."""
        reference = self.reference
        if reference is None:
            return f"{self.mode} needs a reference: Take reference with the light but without the sample"
        if reference.shutter_speed != frame.shutter_speed:
            return (f"the reference was taken at {_exposure(reference.shutter_speed, reference.exposure_ms)}, "
                    f"this frame is at {_exposure(frame.shutter_speed, frame.exposure_ms)}: take it "
                    "again at this exposure")
        return None

    def _ratio(self, spectrum):
        reference = self.reference
        if not np.array_equal(reference.wavelengths, spectrum.wavelengths):
            return "the reference was made with another calibration: take it again", None
        r = reference.values
        usable = r > REFERENCE_FLOOR * max(float(r.max()), 0.0)
        with np.errstate(divide="ignore", invalid="ignore"):
            ratio = np.where(usable, spectrum.values / r, np.nan)
            if self.mode == "absorbance":
                curve = np.where(ratio > 0, -np.log10(ratio), np.nan)
            else:
                curve = 100.0 * ratio
        return None, curve

    def overlay_on(self, wavelengths):
        """The overlay's values on these wavelengths (NaN outside its
        range), or None."""
        if self.overlay is None:
            return None
        o = self.overlay[1]
        return np.interp(wavelengths, o.wavelengths, o.values, left=np.nan, right=np.nan)

    def status(self, sensor):
        source, problem = self.calibration(sensor)
        reference = self.reference
        return {
            "calibration": None if source is None else {"sensor_id": source.sensor_id, "created": source.created},
            "calibration_problem": problem,
            "spectrum_mode": self.mode,
            "reference": None if reference is None else {
                "shutter_speed": reference.shutter_speed, "exposure_ms": reference.exposure_ms},
            "overlay": None if self.overlay is None else self.overlay[0],
        }

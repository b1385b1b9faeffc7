"""OrbSensor: one spectral sensor as a Tango device.

Attribute reads never reach the sensor: they serve the latest frame and
the settings last read or set. Writes and commands that need the sensor
run on the thread of its SensorAccess and are waited on for a bounded time; a
sensor known to be out of reach refuses them at once, saying what to do.
As Tango does, a device takes one call at a time; its events are sent
from a thread of their own (outbox.py), so the stream never waits on a
call.
"""

import functools
import time

import numpy as np
import tango
from tango import AttrQuality, AttrWriteType
from tango.server import Device, attribute, command, device_property

from ..errors import OrbError
from ..facts import EXPOSURE_FORMULA, MAX_VALUE, NUM_FILTERS, SHUTTER_SPEED_LIMITS, exposure_ms, shutter_speed_for
from ..spectrum import CALIBRATED_UNIT
from ..sensor import AUTO_EXPOSE_TIMEOUT_S, DARK_AVERAGES, REPLY_MARGIN_S, acquisition_timeout_s
from . import failures, health, led_command, limits
from .frames import LatestFrame
from .outbox import Outbox
from .sensor_access import WAIT_S, SensorAccess
from .spectra import LatestSpectrum, calibration_of
from .streamer import Streamer

RW = AttrWriteType.READ_WRITE
# The most wavelengths a calibration gives a spectrum (1 nm over the
# sensor's range needs under 800).
MAX_WAVELENGTHS = 8192
# How long a command waits for a running stream to close before it takes
# the sensor (the package stops a stream within 0.8 s).
STREAM_CLOSE_S = 1.5


def _waits(method):
    """For a call that waits on the sensor: the package's exceptions reach
    the client as DevFailed with the reason of their kind and their own
    text."""
    @functools.wraps(method)
    def waiting(self, *args):
        try:
            return method(self, *args)
        except (OrbError, failures.Busy, LookupError) as e:
            failures.rethrow(e, f"OrbSensor.{method.__name__}")
    return waiting


class OrbSensor(Device):
    """One spectral sensor: 1024 filters, 12-bit values (4095 is
    saturation, MAX_VALUE). Start streams, FilterData sends a change event with every
    frame; State is ON (idle), RUNNING (streaming) or FAULT (the sensor is
    unplugged or silent; the device recovers by itself once it is back)."""

    SensorID = device_property(dtype=str, default_value="",
                               doc="The sensor's ID text (as `orb-sensor list` prints it); "
                                   "when empty, SensorIndex chooses")
    SensorIndex = device_property(dtype=int, default_value=0,
                                  doc="The sensor's index (0 upward) when SensorID is empty; "
                                      "followed by its ID once found")

    # How the sensor is exposed when the device first streams, unless a
    # client set ShutterSpeed, ExposureTime or ran AutoExpose before: the
    # device never streams at shutter speed 1 by default.
    ShutterSpeedAtStart = device_property(dtype=int, default_value=0,
                                          doc="Stream at this shutter speed from the first Start (0: not set)")
    ExposureTimeAtStart = device_property(dtype=float, default_value=0.0,
                                          doc="Stream at the shutter speed nearest this exposure, ms, from the "
                                              "first Start (0: not set)")
    AutoExposureTarget = device_property(dtype=int, default_value=0,
                                         doc="The brightest filter aimed at by the auto-exposure of the first "
                                             "Start (when neither of the above is set) and by AutoExpose 0, "
                                             "DN (0: 3276, 80% of full scale)")

    def init_device(self):
        super().init_device()
        # Whether the exposure was chosen: by a client, or at the first Start.
        self._exposed = False
        self._latest = LatestFrame()
        self._spectrum = LatestSpectrum()
        # The wavelengths last sent: a Wavelengths event goes with the first
        # Spectrum and whenever the axis changes (another calibration).
        self._sent_wavelengths = None
        self._sent_state = None
        # The last AutoExpose's outcome; off target, Status warns of it.
        self._exposure = None
        self.set_change_event("FilterData", True, False)
        self.set_change_event("Spectrum", True, False)
        self.set_change_event("Wavelengths", True, False)
        self.set_change_event("State", True, False)
        self._outbox = Outbox(self, self._send_state, self._send_frame)
        sensor_id = self.SensorID.strip() or None
        self._access = SensorAccess(sensor_id, self.SensorIndex, on_change=self._outbox.state_changed)
        self._streamer = Streamer(self._access, self._stream_frame, on_change=self._outbox.state_changed)
        self._access.streaming = lambda: self._streamer.wanted
        self._outbox.start()
        self._outbox.state_changed()
        self._access.start()
        self._streamer.start()

    def delete_device(self):
        self._streamer.close()
        self._access.close()
        self._outbox.close()

    # What the device shows: State and Status are worked out when read, so
    # that they never lag behind; a change of State is also sent as an
    # event.

    def _health(self):
        return health.describe(self._access.name, self._access.problem, self._streamer.wanted)

    def dev_state(self):
        return self._health()[0]

    def dev_status(self):
        status = self._health()[1]
        if self._exposure is not None and not self._exposure.ok:
            status += "\n" + self._exposure.message()
        return status

    @attribute(dtype=str, doc="How the last AutoExpose ended: on target, too dim, too bright, light changed "
                              "(empty before the first)")
    def AutoExposureOutcome(self):
        return "" if self._exposure is None else self._exposure.outcome

    def _send_state(self):
        state = self.dev_state()
        if state != self._sent_state:
            self.set_state(state)
            self.push_change_event("State")
            self._sent_state = state

    def _send_frame(self, item):
        frame, spectrum = item
        self.push_change_event("FilterData", frame.values, frame.timestamp, AttrQuality.ATTR_VALID)
        if spectrum is None:
            return
        if self._sent_wavelengths is None or not np.array_equal(self._sent_wavelengths, spectrum.wavelengths):
            self.push_change_event("Wavelengths", spectrum.wavelengths, frame.timestamp, AttrQuality.ATTR_VALID)
            self._sent_wavelengths = spectrum.wavelengths
        self.push_change_event("Spectrum", spectrum.values, frame.timestamp, AttrQuality.ATTR_VALID)

    def _with_spectrum(self, frame):
        # On the thread that delivers the frame: the outbox's thread holds
        # the device's monitor while it sends, and should do no more.
        return frame, self._spectrum.make(self._access.sensor, frame)

    def _deliver(self, frame):
        self._latest.put(frame)
        self._outbox.frame(self._with_spectrum(frame))

    def _stream_frame(self, frame):
        self._latest.put(frame)
        self._outbox.frame(self._with_spectrum(frame), wanted=self._streamer.should_stream)

    def _set_shutter(self, value):
        self._access.call(lambda sensor: setattr(sensor, "shutter_speed", value), "setting the shutter speed")
        self._access.learn(shutter_speed=value)
        self._exposed = True

    def _auto_expose(self, target):
        self._access.check()
        with self._streamer.paused(STREAM_CLOSE_S):
            found = self._access.call(lambda sensor: sensor.auto_expose(target=target),
                                      "searching the shutter speed", AUTO_EXPOSE_TIMEOUT_S + REPLY_MARGIN_S)
        self._exposure = found
        self._exposed = True
        self._access.learn(shutter_speed=found.shutter_speed)
        return found.shutter_speed

    def _expose_at_start(self):
        """The first Start's exposure, from the device properties; an
        auto-exposure when none is set. A sensor not reached yet is exposed
        at the next Start."""
        if self._access.sensor is None:
            return
        if self.ShutterSpeedAtStart:
            self._set_shutter(int(limits.check("ShutterSpeed", self.ShutterSpeedAtStart)))
        elif self.ExposureTimeAtStart:
            self._set_shutter(shutter_speed_for(limits.check("ExposureTime", self.ExposureTimeAtStart)))
        else:
            self._auto_expose(self.AutoExposureTarget or None)

    def _setting(self, key):
        value = self._access.settings.get(key)
        if value is None:
            failures.throw(failures.ABSENT, f"not known yet: {self.dev_status()}", "OrbSensor.read")
        return value

    # The latest frame.

    @attribute(dtype=(float,), max_dim_x=NUM_FILTERS, unit="DN",
               doc="The latest frame: 1024 values, an average of Averages frames, dark-corrected when "
                   "DarkCorrection is on. A change event with every frame while streaming; INVALID "
                   "before the first frame")
    def FilterData(self):
        frame = self._latest.frame
        if frame is None:
            return np.zeros(0), time.time(), AttrQuality.ATTR_INVALID
        return frame.values, frame.timestamp, AttrQuality.ATTR_VALID

    @attribute(dtype=tango.DevLong64,
               doc="The number of FilterData's frame (of the last one averaged), from 0 at Start; "
                   "0 for Acquire's frame when idle, -1 before any")
    def FrameNumber(self):
        frame = self._latest.frame
        return -1 if frame is None else int(frame.seq)

    @attribute(dtype=(tango.DevLong,), max_dim_x=NUM_FILTERS,
               doc="The filters (1 to 1024) of FilterData's frame that read 4095 in any frame averaged")
    def Saturated(self):
        frame = self._latest.frame
        return np.zeros(0, np.int32) if frame is None else np.asarray(frame.saturated, np.int32)

    @attribute(dtype=tango.DevLong64, doc="Frames the stream lost since Start: not read in time (also "
                                          "while a call held the device for seconds), or dropped from an "
                                          "average under way by a change of settings or of Averages")
    def FramesLost(self):
        return self._streamer.lost

    @attribute(dtype=tango.DevLong64, doc="Frames the sensor took since Start that never reached the host: "
                                          "no transfer was waiting when they were ready (apart from "
                                          "FramesLost, which counts frames that arrived)")
    def FramesMissed(self):
        return self._streamer.missed

    @attribute(dtype=str, name="SensorID", doc="The sensor's ID text; empty until it was found")
    def sensor_id(self):
        return self._access.sensor_id or ""

    # The latest frame's spectrum and its colour.

    @attribute(dtype=(float,), max_dim_x=MAX_WAVELENGTHS, unit=CALIBRATED_UNIT,
               doc="The spectrum of FilterData's frame against Wavelengths, made with the sensor's "
                   "calibration and the dark frame of the frame's exposure (TakeDark, the sensor covered). "
                   "A change event with every frame that has one; INVALID when there is none "
                   "(SpectrumProblem says why)")
    def Spectrum(self):
        spectrum = self._spectrum.spectrum
        if spectrum is None:
            return np.zeros(0), time.time(), AttrQuality.ATTR_INVALID
        return spectrum.values, spectrum.timestamp, AttrQuality.ATTR_VALID

    @attribute(dtype=(float,), max_dim_x=MAX_WAVELENGTHS, unit="nm",
               doc="The wavelengths of Spectrum, ascending. A change event with the first Spectrum and "
                   "whenever they change (another calibration); INVALID before the first Spectrum")
    def Wavelengths(self):
        spectrum = self._spectrum.spectrum
        if spectrum is None:
            return np.zeros(0), time.time(), AttrQuality.ATTR_INVALID
        return spectrum.wavelengths, spectrum.timestamp, AttrQuality.ATTR_VALID

    @attribute(dtype=str, doc="Why the latest frame has no Spectrum (no calibration: make one with "
                              "`orb-sensor calibrate`; no dark frame of its exposure); empty when it has one")
    def SpectrumProblem(self):
        return self._spectrum.problem

    @attribute(dtype=str, doc="The sensor ID the calibration file was made for; empty without one")
    def CalibrationSensorID(self):
        return calibration_of(self._access.sensor)[0]

    @attribute(dtype=str, doc="When the calibration was made (as the file says); empty without one")
    def CalibrationDate(self):
        return calibration_of(self._access.sensor)[1]

    def _colour(self, name):
        value = self._spectrum.quantity(name)
        if value is None:
            return 0.0, time.time(), AttrQuality.ATTR_INVALID
        return value, self._spectrum.spectrum.timestamp, AttrQuality.ATTR_VALID

    @attribute(dtype=float, unit="K", format="%.0f",
               doc="Correlated colour temperature of Spectrum (Ohno 2013; 1000 to 100000 K); INVALID "
                   "without a spectrum or outside that range")
    def CCT(self):
        return self._colour("cct_k")

    @attribute(dtype=float, format="%.4f", doc="Distance of Spectrum's colour from the Planckian locus in "
                                               "the CIE 1960 UCS, positive above it")
    def Duv(self):
        return self._colour("duv")

    @attribute(dtype=float, format="%.4f", doc="CIE 1931 chromaticity x of Spectrum (2 degree observer)")
    def ChromaticityX(self):
        return self._colour("x")

    @attribute(dtype=float, format="%.4f", doc="CIE 1931 chromaticity y of Spectrum (2 degree observer)")
    def ChromaticityY(self):
        return self._colour("y")

    @attribute(dtype=float, format="%.1f", doc="CIE 13.3 general colour rendering index Ra of Spectrum; not "
                                               "meaningful when |Duv| exceeds 0.0054")
    def Ra(self):
        return self._colour("ra")

    # Settings.

    @attribute(dtype=tango.DevLong, access=RW,
               doc="The shutter speed, " + limits.describe("ShutterSpeed") +
                   "; exposure = " + EXPOSURE_FORMULA)
    def ShutterSpeed(self):
        return self._setting("shutter_speed")

    @ShutterSpeed.write
    @_waits
    def ShutterSpeed(self, value):
        self._set_shutter(int(limits.check("ShutterSpeed", value)))

    @attribute(dtype=float, access=RW, unit="ms", format="%.4f",
               doc="The exposure of the shutter speed, " + limits.describe("ExposureTime") +
                   " ms (10 MHz master clock); a write sets the nearest shutter speed")
    def ExposureTime(self):
        return exposure_ms(self._setting("shutter_speed"))

    @ExposureTime.write
    @_waits
    def ExposureTime(self, ms):
        self._set_shutter(shutter_speed_for(limits.check("ExposureTime", ms)))

    @attribute(dtype=tango.DevLong, access=RW,
               doc="Frames averaged into each FilterData frame, by the stream and by Acquire, " +
                   limits.describe("Averages"))
    def Averages(self):
        return self._streamer.averages

    @Averages.write
    def Averages(self, value):
        self._streamer.averages = int(limits.check("Averages", value))

    @attribute(dtype=tango.DevLong, access=RW, doc="The ADC's gain, " + limits.describe("AdcGain"))
    def AdcGain(self):
        return self._setting("adc_gain")

    @AdcGain.write
    @_waits
    def AdcGain(self, value):
        value = int(limits.check("AdcGain", value))
        self._access.call(lambda sensor: sensor.set_adc(gain=value), "setting the ADC gain")
        self._access.learn(adc_gain=value)

    @attribute(dtype=tango.DevLong, access=RW, doc="The ADC's range index, " + limits.describe("AdcRange"))
    def AdcRange(self):
        return self._setting("adc_range")

    @AdcRange.write
    @_waits
    def AdcRange(self, value):
        value = int(limits.check("AdcRange", value))
        self._access.call(lambda sensor: sensor.set_adc(range=value), "setting the ADC range")
        self._access.learn(adc_range=value)

    @attribute(dtype=bool, access=RW,
               doc="Subtract the dark frame (TakeDark) from every frame, streamed or acquired")
    def DarkCorrection(self):
        sensor = self._access.sensor
        return bool(sensor and sensor.dark_correction)

    @DarkCorrection.write
    def DarkCorrection(self, on):
        # The Sensor keeps the dark frame and subtracts it: no request.
        sensor = self._access.sensor
        if sensor is None:
            failures.throw(failures.ABSENT, f"not reached yet: {self.dev_status()}", "OrbSensor.DarkCorrection")
        if on and sensor.dark_frame is None:
            failures.throw(failures.BAD_VALUE, "DarkCorrection needs a dark frame: cover the sensor and run "
                                               "TakeDark first", "OrbSensor.DarkCorrection")
        sensor.dark_correction = bool(on)

    # Commands.

    @command(doc_in="Streams until Stop; FilterData sends a change event with every frame. The first "
                    "Start exposes the sensor first (ShutterSpeedAtStart, ExposureTimeAtStart, else an "
                    "auto-exposure) unless a client chose the exposure already. Also "
                    "while the sensor is away: the stream starts once it is back")
    @_waits
    def Start(self):
        if not self._exposed and not self._streamer.wanted:
            self._expose_at_start()
        self._streamer.stream(True)

    @command(doc_in="Ends the stream (the sensor stops within a second)")
    def Stop(self):
        self._streamer.stream(False)

    @command(dtype_out=(float,), doc_out="One frame, an average of Averages frames (also FilterData). "
                                         "While streaming, the stream's next frame")
    @_waits
    def Acquire(self):
        averages = self._streamer.averages
        shutter = self._access.settings.get("shutter_speed", SHUTTER_SPEED_LIMITS[1])
        wait = acquisition_timeout_s(averages, shutter) + REPLY_MARGIN_S
        if self._streamer.wanted:
            self._access.check()
            frame = self._latest.after(self._latest.count, wait)
            if frame is None:
                failures.throw(failures.SILENT, f"no frame from the stream within {wait:.1f} s: "
                               f"{self.dev_status()}", "OrbSensor.Acquire")
        else:
            # A stream just stopped may still hold the sensor.
            self._streamer.wait_closed(STREAM_CLOSE_S)
            frame = self._access.call(lambda sensor: sensor.read(averages=averages), "reading a frame",
                                    wait + WAIT_S)
            self._deliver(frame)
        return frame.values

    @command(dtype_in=tango.DevLong, doc_in=f"The peak to reach, 1 to {MAX_VALUE} DN; 0: AutoExposureTarget",
             dtype_out=tango.DevLong, doc_out="The shutter speed found, now set; AutoExposureOutcome says "
                                              "how it ended (Status warns when off target). Takes up to "
                                              f"{AUTO_EXPOSE_TIMEOUT_S:g} s: raise the client's time-out")
    @_waits
    def AutoExpose(self, target):
        return self._auto_expose(int(target) or self.AutoExposureTarget or None)

    @command(doc_in="Takes a dark frame (cover the sensor first) at the current exposure, "
                    f"{DARK_AVERAGES} averaged, for DarkCorrection; the shutter speed is kept")
    @_waits
    def TakeDark(self):
        self._access.check()
        with self._streamer.paused(STREAM_CLOSE_S):
            self._access.call(lambda sensor: sensor.dark(), "taking a dark frame",
                            acquisition_timeout_s(DARK_AVERAGES) + 2 * WAIT_S)

    @command(dtype_in=tango.DevVarLongArray, doc_in=led_command.USAGE, dtype_out=tango.DevLong,
             doc_out="The state word the LED module received: channel bits, intensity << 8")
    @_waits
    def SetLed(self, values):
        return led_command.set_led(values)

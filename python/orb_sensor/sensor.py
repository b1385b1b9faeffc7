"""Sensors as Python objects.

The library runs in a worker process that orb_sensor._process.supervisor starts on
the first call and replaces when it hangs or its sensor is replugged, so
every call returns within its time-out and a Sensor outlives an unplug: it
follows its sensor by ID. Calls on one sensor from several threads run one
after the other; two sensors work at once.
"""

import os
import time
from typing import Any, Dict, FrozenSet, Iterable, List, Optional, Tuple, Union

import numpy as np

from . import checks
from ._process import supervisor, usb_nodes
from .errors import NoSensorError, OrbTypeError, OrbValueError, SensorLostError
from .exposure import LIGHT_CHANGED, ON_TARGET, TOO_BRIGHT, TOO_DIM, AutoExposure, format_ms
from .facts import (ADC_GAIN_LIMITS, ADC_RANGE_LIMITS, DEFAULT_MASTER_CLOCK_MHZ, EXPOSURE_MS_LIMITS, LED_MODULE_ID,
                    MAX_VALUE, NUM_FILTERS, SHUTTER_SPEED_LIMITS, blank_time, exposure_ms, frame_period_s, shutter_speed_for)
from ._spectrum.frame_spectra import FrameSpectra
from ._spectrum.sensor_spectra import SensorSpectra
from .frame import Frame, saturated_filters
from .spectrum import CalibrationSource, Spectrum
from .spectrum_stream import SpectrumStream
from .stream import Stream

# Time-outs in seconds: for a setting (a few requests of at most 1 s each),
# and beyond the frames themselves for an acquisition.
CONTROL_TIMEOUT_S = 5.0
ACQUISITION_MARGIN_S = 2.0
# How much longer than its own time-out a call may take: the worker's
# answer on its way back.
REPLY_MARGIN_S = supervisor.GRACE_S
# The stream layer's auto-exposure ends within a few seconds on any light
# (its rounds are bounded); this bounds it on a sensor that stops answering.
AUTO_EXPOSE_TIMEOUT_S = 10.0
DARK_AVERAGES = 16


# The single shot settles after each of its requests for about 0.6 of the
# exposure's ticks in microseconds (the link's pause for a shutter speed);
# a read makes up to this many such pauses.
SINGLE_SHOT_SETTLES = 6


def acquisition_timeout_s(averages: int, shutter_speed: Optional[int] = None) -> float:
    """The time-out read() gives `averages` frames at a shutter speed (the
    longest when not given): twice their time, the single shot's settling
    pauses, and a margin."""
    shutter = shutter_speed or SHUTTER_SPEED_LIMITS[1]
    settle_s = exposure_ms(shutter) * 0.6 / 1000
    return ACQUISITION_MARGIN_S + 2 * averages * frame_period_s(shutter) + SINGLE_SHOT_SETTLES * settle_s

class Sensor:
    """One attached sensor, by index (0 upward, in the order the sensors
    were found) or by ID text.

        with Sensor() as s:
            s.exposure_ms = 20
            frame = s.read(averages=10)
            for frame in s.stream(frames=100):
                print(frame.seq, frame.values.max())

    `timeout` (seconds) bounds every setting; acquisitions add the time
    their frames take. Raises NoSensorError when no sensor is attached.
    """

    def __init__(self, index: Optional[int] = None, id: Optional[str] = None,
                 timeout: float = CONTROL_TIMEOUT_S) -> None:
        if index is not None and id is not None:
            raise OrbValueError("open a sensor by index or by ID, not both")
        self._timeout = checks.timeout(timeout)
        self._supervisor = supervisor.shared()
        position = 0
        if id is not None:
            id = checks.sensor_id(id)
        else:
            position = checks.integer("index", 0 if index is None else index, 0, 1023)
        if id == LED_MODULE_ID:
            raise OrbValueError(f"{id} is the LED module, not a sensor")
        ids = self.list()
        if not ids:
            raise NoSensorError()
        if id is None:
            if position >= len(ids):
                raise OrbValueError(f"index must be below {len(ids)}: {len(ids)} sensor(s) attached")
            id = ids[position]
        elif id not in ids:
            # Replugged since the sensors were connected: a new worker finds it.
            try:
                self._supervisor.locate(id)
            except SensorLostError:
                raise NoSensorError(f"no sensor with ID {id}: attached are "
                                    + (", ".join(self._supervisor.connected_ids()) or "none")) from None
        self._id = id
        self._lock = self._supervisor.sensor_lock(id)
        self._open = True
        # Dark frames by the shutter speed they were taken at: one is
        # subtracted only from frames of its own exposure.
        self._darks: Dict[int, np.ndarray] = {}
        self._dark_correction = False
        self._spectra = SensorSpectra(id)

    @staticmethod
    def list() -> List[str]:
        """The IDs of the attached sensors, in index order; empty when none.
        The LED module, which the library lists among them, is left out."""
        return [i for i in supervisor.shared().connected_ids() if i != LED_MODULE_ID]

    @staticmethod
    def bus_ids() -> List[str]:
        """The IDs of every device the library connected, the LED module's
        (LED_MODULE_ID) included."""
        return supervisor.shared().connected_ids()

    # Hooks for a front end that keeps sensors for long (the Tango device):
    # the state of the bus and of the library's process, without a request.

    @staticmethod
    def on_bus() -> FrozenSet[str]:
        """The bus addresses of the devices with the sensor's USB IDs now
        attached, read from sysfs (no USB traffic): a change means a
        sensor left or came."""
        return frozenset(usb_nodes.sensor_addresses())

    @staticmethod
    def reconnect(reason: str = "reconnecting the sensors") -> None:
        """Ends the library's process: the next call connects every sensor
        afresh (the library connects once per process, so a sensor plugged
        in after that is found so). Streams of other sensors start again
        by themselves."""
        supervisor.shared().end_worker(("restart", reason))

    @staticmethod
    def connections() -> int:
        """How many times the library's process has been started: a new
        number means the sensors were connected afresh."""
        return supervisor.shared().generation

    def close(self) -> None:
        """Retires this object; the sensor stays connected for others."""
        self._open = False

    def __enter__(self) -> "Sensor":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __repr__(self) -> str:
        try:
            shutter = f" shutter {self.shutter_speed}"
        except Exception:  # a repr must not fail: an unplugged sensor has none
            shutter = " (not reachable)"
        return f"<Sensor {self._id} index {self.index}{shutter}>"

    def _request(self, operation: str, *args: Any, timeout: Optional[float] = None, watch: bool = False) -> Any:
        if not self._open:
            raise OrbValueError("the sensor is closed")
        return self._supervisor.request(self._id, operation, args, timeout or self._timeout, watch=watch)

    # Identity.

    @property
    def id(self) -> str:
        """The sensor's ID text, as read when it was connected."""
        return self._id

    @property
    def index(self) -> Optional[int]:
        """The sensor's index among the sensors connected now."""
        ids = [i for i in self._supervisor.ids if i != LED_MODULE_ID]
        return ids.index(self._id) if self._id in ids else None

    # Settings.

    @staticmethod
    def shutter_speed_limits() -> Tuple[int, int]:
        """(lowest, highest) shutter speed."""
        return SHUTTER_SPEED_LIMITS

    @property
    def max_value(self) -> int:
        """The highest value a filter reads: 4095, saturation."""
        return MAX_VALUE

    def settings(self) -> Dict[str, int]:
        """The sensor's settings, read from it (or from its running stream):
        shutter_speed, blank_time, adc_range, adc_gain, adc_resolution,
        onboard_average."""
        with self._lock:
            settings = self._request("settings")
            self._supervisor.learn(self._id, settings, replace=True)
            return settings

    def _known_settings(self) -> Dict[str, int]:
        """The settings as last read or set through the package: a read()
        need not ask the sensor for them first."""
        return self._supervisor.known(self._id) or self.settings()

    def _learn(self, **changes: int) -> None:
        self._supervisor.learn(self._id, changes)

    @property
    def shutter_speed(self) -> int:
        """The shutter speed, 1 to 3000, read from the sensor; setting it
        takes effect from the next frame."""
        return self.settings()["shutter_speed"]

    @shutter_speed.setter
    def shutter_speed(self, value: int) -> None:
        value = checks.integer("shutter speed", value, *SHUTTER_SPEED_LIMITS)
        with self._lock:
            self._request("set_shutter", value)
            self._supervisor.remember(self._id, "set_shutter", (value,))
            self._learn(shutter_speed=value, blank_time=blank_time(value))

    @property
    def exposure_ms(self) -> float:
        """The exposure of the shutter speed, in milliseconds (at the 10 MHz
        master clock). Setting it picks the nearest shutter speed."""
        return exposure_ms(self.shutter_speed)

    @exposure_ms.setter
    def exposure_ms(self, ms: float) -> None:
        ms = checks.number("exposure_ms", ms, *EXPOSURE_MS_LIMITS)
        self.shutter_speed = shutter_speed_for(ms)

    def exposure_time_ms(self, shutter_speed: Optional[int] = None,
                         master_clock: int = DEFAULT_MASTER_CLOCK_MHZ) -> float:
        """The exposure of a shutter speed (the current one by default) in
        whole milliseconds for a master clock in MHz, truncated as the
        library reports it."""
        if shutter_speed is None:
            shutter_speed = self.shutter_speed
        shutter_speed = checks.integer("shutter speed", shutter_speed, *SHUTTER_SPEED_LIMITS)
        master_clock = checks.integer("master clock", master_clock, 1, 1000)
        return float(int(exposure_ms(shutter_speed, master_clock)))

    @property
    def adc(self) -> Tuple[int, int]:
        """(gain, range) of the sensor's ADC."""
        s = self.settings()
        return s["adc_gain"], s["adc_range"]

    def set_adc(self, gain: Optional[int] = None, range: Optional[int] = None) -> None:
        """Sets the ADC gain (0 or 1) and range index (0 to 255); an omitted
        one keeps its value."""
        if gain is not None:
            gain = checks.integer("ADC gain", gain, *ADC_GAIN_LIMITS)
        if range is not None:
            range = checks.integer("ADC range", range, *ADC_RANGE_LIMITS)
        with self._lock:
            current = self._request("settings")
            args = (current["adc_gain"] if gain is None else gain,
                    current["adc_range"] if range is None else range, current["adc_resolution"])
            self._request("set_adc", *args)
            self._supervisor.remember(self._id, "set_adc", args)
            self._learn(adc_gain=args[0], adc_range=args[1])

    # Acquisition.

    def _acquisition_timeout(self, frames: int, timeout: Optional[float],
                             shutter_speed: Optional[int] = None) -> float:
        if timeout is not None:
            return checks.timeout(timeout)
        return acquisition_timeout_s(frames, shutter_speed)

    def read(self, averages: int = 1, timeout: Optional[float] = None) -> Frame:
        """One Frame: the average of `averages` frames taken when asked
        (the sensor is started, the frames in flight are passed over).
        `saturated` lists the filters at 4095 in every frame averaged."""
        averages = checks.integer("averages", averages, 1, checks.INT_MAX)
        with self._lock:
            settings = self._known_settings()
            timeout = self._acquisition_timeout(averages, timeout, settings["shutter_speed"])
            values = self._request("read", averages, timeout=timeout)
        saturated = saturated_filters(values[np.newaxis])
        dark = self.dark_for(settings["shutter_speed"])
        corrected = dark is not None
        if corrected:
            values = values - dark
        return Frame(values, seq=0, timestamp=time.time(), shutter_speed=settings["shutter_speed"],
                     adc=(settings["adc_gain"], settings["adc_range"]), saturated=saturated,
                     averages=averages, sensor_id=self._id, dark_corrected=corrected)

    def filter_data(self, averages: int = 1, timeout: Optional[float] = None) -> np.ndarray:
        """The values of read(): numpy float64, 1024 filters."""
        return self.read(averages, timeout).values

    def stream(self, averages: int = 1, frames: Optional[int] = None, seconds: Optional[float] = None,
               timeout: Optional[float] = None, ring_frames: int = 0, spectra: bool = False,
               dark: Optional[Any] = None, calibration: Union[str, "os.PathLike[str]", None] = None,
               step: Optional[float] = None) -> Stream:
        """Every frame as the sensor makes it: a Stream, an iterator of
        Frame objects, `averages` frames averaged into each (changeable
        while it runs); gapless while the consumer keeps up (a Frame's
        `lost` counts what it missed; Stream says how). Ends after `frames`
        Frames or `seconds` seconds, or when the consumer closes it;
        `timeout` bounds the wait for any one frame. Settings may be
        changed while it runs: every frame after the change was exposed
        with it.

        With `spectra`, a SpectrumStream: the same stream, each Frame out
        made into a Spectrum as spectrum() makes one (`dark`, `calibration`
        and `step` as there; a given dark is of the current exposure). The
        operator is built before the first frame; a frame of an exposure
        with no dark ends the iteration with OrbValueError."""
        averages = checks.integer("averages", averages, 1, checks.INT_MAX)
        frames = checks.optional_count("frames", frames)
        if seconds is not None:
            seconds = checks.timeout(seconds, "seconds")
        ring_frames = checks.integer("ring_frames", ring_frames, 0, 1 << 20)
        timeout = self._acquisition_timeout(averages, timeout, self._known_settings()["shutter_speed"])
        def open_stream() -> Any:
            return self._supervisor.open_stream(self._id, ring_frames, self._timeout)
        if not isinstance(spectra, (bool, np.bool_)):
            raise OrbTypeError(f"spectra must be True or False, not {spectra!r}")
        if not spectra:
            if dark is not None or calibration is not None or step is not None:
                raise OrbValueError("dark=, calibration= and step= are for a stream of spectra: give spectra=True")
            return Stream(self, open_stream, averages, frames, seconds, timeout)
        shutter = self._known_settings()["shutter_speed"]
        maker = self._frame_spectra(dark, calibration, step, shutter)
        maker.operator(averages)
        if not self._dark_correction:
            maker.background(shutter)
        return SpectrumStream(self, open_stream, maker, averages, frames, seconds, timeout)

    def open_recording(self, path: str, averages: int = 1, kind: str = "hdf5") -> Any:
        """A writer of this sensor's frames into `path`, as `orb-sensor
        record` (HDF5) or `stream` (kind "csv" or "ndjson") write them, the
        run's facts (`averages` among them) read now: write(frame) for each
        Frame, close() at the end, `frames` the count written. Raises
        ValueError, leaving nothing behind, when `path` cannot be written."""
        from . import _recording
        _recording.check_output_path(path)
        return _recording.open_writer(kind, path, _recording.run_metadata(self, averages))

    # Spectra.

    def spectrum(self, averages: int = 1, refine: bool = False, dark: Optional[Any] = None,
                 calibration: Union[str, "os.PathLike[str]", None] = None,
                 step: Optional[float] = None, timeout: Optional[float] = None) -> Spectrum:
        """A Spectrum of `averages` frames read now, made with the sensor's
        calibration: the file found by its ID (docs/spectra.md says where),
        or the file `calibration` (refused when it is another sensor's).
        On the calibration's own wavelengths, or every `step` nm (0.5 to
        10). `refine` fits line spectra without negative values and finds
        their lines (slower; Spectrum.lines).

        The dark subtracted is at the frame's exposure: `dark` (1024 counts
        taken with the sensor covered at this exposure), else the one dark()
        took at this shutter speed. With neither, the spectrum would be off
        by the dark level, so it is refused (OrbValueError): cover the
        sensor and call dark() at this exposure first. A sensor with no
        calibration raises CalibrationError, which says where one was looked
        for and how to make one (`orb-sensor calibrate`). The operator built
        from a calibration is kept for the next call with the same grid and
        averages."""
        averages = checks.integer("averages", averages, 1, checks.INT_MAX)
        if not isinstance(refine, (bool, np.bool_)):
            raise OrbTypeError(f"refine must be True or False, not {refine!r}")
        maker = self._frame_spectra(dark, calibration, step, self._known_settings()["shutter_speed"])
        maker.operator(averages)
        with self._lock:
            if not self._dark_correction:
                maker.background(self._known_settings()["shutter_speed"])
            frame = self.read(averages, timeout)
        return maker.spectrum(frame, refine=bool(refine))

    def spectrum_of(self, frame: Frame, calibration: Union[str, "os.PathLike[str]", None] = None,
                    step: Optional[float] = None) -> Spectrum:
        """The Spectrum of a Frame this sensor made (read(), a Stream), as
        spectrum() makes one: the dark subtracted is the frame's own when it
        came dark-corrected, else the one dark() took at its shutter speed.
        For front ends that show filter data and spectra of one stream:
        raises OrbValueError when there is no dark of the frame's exposure,
        CalibrationError without a calibration. Asks the sensor nothing."""
        if not isinstance(frame, Frame):
            raise OrbTypeError(f"frame must be a Frame, not {type(frame).__name__}")
        if frame.sensor_id != self._id:
            raise OrbValueError(f"the frame is of sensor {frame.sensor_id}, not of {self._id}")
        return self._frame_spectra(None, calibration, step, frame.shutter_speed).spectrum(frame)

    def _frame_spectra(self, dark: Optional[Any], calibration: Union[str, "os.PathLike[str]", None],
                       step: Optional[float], shutter: int) -> FrameSpectra:
        """What turns this sensor's frames into spectra; a given dark is
        taken to be of the current exposure `shutter`."""
        if step is not None:
            step = checks.number("step", step, 0.5, 10.0)
        given_dark = None if dark is None else self._check_dark(dark)
        if given_dark is not None and self._dark_correction:
            raise OrbValueError("dark= is given but dark_correction is on, which subtracts dark()'s own: "
                                "switch it off to subtract this one")
        return FrameSpectra(self._spectra, self._id, calibration, step, self._darks.get, given_dark, shutter)

    def calibration(self, path: Union[str, "os.PathLike[str]", None] = None) -> CalibrationSource:
        """The calibration spectrum() uses: the file found by the sensor's ID,
        or `path` (refused when it is another sensor's). Raises
        CalibrationError saying how to make or install one when there is
        none. Asks the sensor nothing."""
        return self._spectra.source(path)

    @staticmethod
    def _check_dark(dark: Any) -> np.ndarray:
        try:
            values = np.asarray(dark, dtype=np.float64)
        except (TypeError, ValueError):
            raise OrbTypeError(f"dark must be 1024 numbers, not {type(dark).__name__}") from None
        if values.shape != (NUM_FILTERS,) or not np.all(np.isfinite(values)):
            raise OrbValueError(f"dark must be 1024 finite numbers, not {values.size} values")
        return values

    # Auto-exposure and dark.

    def auto_expose(self, target: Optional[int] = None, filters: Optional[Iterable[int]] = None,
                    timeout: float = AUTO_EXPOSE_TIMEOUT_S) -> AutoExposure:
        """Searches the shutter speed (1 to 3000) that puts the brightest of
        `filters` (numbers 1..1024; default all) at `target` DN (default
        3276, 80% of full scale), sets it and says how it ended: an
        AutoExposure whose `outcome` is "on target", "too dim", "too bright"
        or "light changed" (message() words it for a user). Ends within a
        few seconds on any light; a sensor that stops answering raises
        SensorTimeoutError within a read's bound. Stop a running Stream
        first."""
        if target is not None:
            target = checks.target(target)
        chosen = [] if filters is None else checks.filters(filters)
        timeout = checks.timeout(timeout)
        with self._lock:
            found = self._request("auto_expose", chosen, target, timeout=timeout, watch=True)
            shutter = found["shutter_speed"]
            self._supervisor.remember(self._id, "set_shutter", (shutter,))
            self._learn(shutter_speed=shutter, blank_time=blank_time(shutter))
        outcome = {"ON_TARGET": ON_TARGET, "TOO_DIM": TOO_DIM, "TOO_BRIGHT": TOO_BRIGHT,
                   "LIGHT_CHANGED": LIGHT_CHANGED}[found["outcome"]]
        return AutoExposure(outcome, shutter, found["level"], found["target"], found["tolerance"],
                            found["rounds"], found["frames"], found["elapsed_ms"] / 1000)

    def optimal_shutter_speed(self, filters: Optional[Iterable[int]] = None,
                              target: Optional[int] = None) -> int:
        """auto_expose()'s shutter speed."""
        return self.auto_expose(target=target, filters=filters).shutter_speed

    def dark(self, averages: int = DARK_AVERAGES, timeout: Optional[float] = None) -> np.ndarray:
        """Takes a dark frame at the current exposure (cover the sensor
        first), keeps it for dark_correction of frames of that exposure and
        returns it. Darks of other exposures are kept too."""
        with self._lock:
            correction, self._dark_correction = self._dark_correction, False
            try:
                frame = self.read(averages, timeout)
            finally:
                self._dark_correction = correction
        self._darks[frame.shutter_speed] = frame.values
        return frame.values

    @property
    def dark_frame(self) -> Optional[np.ndarray]:
        """The dark frame of the current exposure, None when none was taken
        at it. Asks the sensor nothing (a front end reads it for its status,
        also while the sensor is away): None while its settings are unknown."""
        known = self._supervisor.known(self._id)
        return None if not known else self._darks.get(known["shutter_speed"])

    def dark_shutter_speeds(self) -> List[int]:
        """The shutter speeds a dark frame was taken at."""
        return sorted(self._darks)

    def dark_for(self, shutter_speed: int) -> Optional[np.ndarray]:
        """The dark frame to subtract from a frame of `shutter_speed`: None
        when dark_correction is off. With it on, a frame of an exposure no
        dark frame was taken at is refused (OrbValueError), never corrected
        with the dark of another exposure."""
        if not self._dark_correction:
            return None
        dark = self._darks.get(shutter_speed)
        if dark is None:
            raise OrbValueError(f"dark correction is on but no dark frame was taken at shutter speed "
                                f"{shutter_speed} ({format_ms(exposure_ms(shutter_speed))} ms): take one "
                                "with dark() at this exposure, or switch dark_correction off")
        return dark

    @property
    def dark_correction(self) -> bool:
        """When on, read() and stream() subtract the dark frame of each
        frame's exposure (dark() must have been taken at the current one)."""
        return self._dark_correction

    @dark_correction.setter
    def dark_correction(self, on: bool) -> None:
        if not isinstance(on, (bool, np.bool_)):
            raise OrbTypeError(f"dark_correction must be True or False, not {on!r}")
        if on and self.dark_frame is None:
            raise OrbValueError("dark_correction needs a dark frame at the current exposure: call dark() first")
        self._dark_correction = bool(on)

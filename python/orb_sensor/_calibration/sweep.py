"""The sweep: at each wavelength the line is set, the exposure chosen on
the ladder, frames taken from one running stream and reduced to their mean
and scatter; then the light goes off and darks are taken at every exposure
used. The response, its error and the noise follow the calibration layout
(docs/spectra.md)."""

import time
from dataclasses import dataclass, field
from typing import Callable, Dict, Iterator, List, Optional

import numpy as np

from ..exposure import format_ms
from ..facts import FASTEST_FRAME_S, MAX_VALUE, NUM_FILTERS, exposure_ms, frame_period_s
from ..frame import Frame
from ..sensor import Sensor
from .ladder import Ladder

# The variance of a value rounded to whole DN: the least scatter a mean of
# real frames has, so that no error written is zero.
QUANTISATION_VARIANCE = 1.0 / 12.0
# Rounds of the exposure search within one step before it gives up.
MAX_ROUNDS = 12
# A frame is taken to show the light set only if its exposure began after
# the source answered; this covers the rest of a frame on the bus then.
SETTLE_S = FASTEST_FRAME_S + 0.0005
# A frame's time stamp is when the host saw it, which a busy host makes late:
# frames taken before a change of the light or the exposure can reach it
# after the change, at most one in each of the six transfers a stream keeps
# in flight, the one the sensor holds for a transfer, and the one it was
# exposing. These many frames seen after a change are passed over whatever
# their time stamps say. (Time stamps alone let whole steps of 4 frames take
# the previous step's line, and darks the last line, on a loaded machine.)
FRAMES_ON_THE_WAY = 8
# The longest wait for one frame (--timeout replaces it): the longest
# exposure's frames come every 0.27 s, and a busy machine holds a stream
# back for seconds now and then.
FRAME_TIMEOUT_S = 10.0
# The first step starts here (the line's brightest filter near 70% after
# about a millisecond at the emulator's default brightness).
FIRST_EXPOSURE_MS = 0.5


class SweepError(Exception):
    """A step that could not be exposed."""


@dataclass
class Plan:
    wavelengths: np.ndarray
    frames: int
    dark_frames: int
    power: np.ndarray  # the source's relative power at each wavelength


@dataclass
class Measured:
    """What the sweep measured, ready for calibration.write()."""
    response: np.ndarray
    response_error: np.ndarray
    noise: np.ndarray
    step_exposure_ms: np.ndarray
    dark_exposure_ms: np.ndarray
    dark: np.ndarray
    levels: List[float] = field(default_factory=list)  # the brightest filter per step, DN
    seconds: float = 0.0


@dataclass
class _Step:
    shutter: int
    mean: np.ndarray
    variance: np.ndarray
    peak: float


class Sweep:
    """Runs a Plan on a sensor with a light source (sources.py); `report`
    gets a line of progress now and then."""

    def __init__(self, sensor: Sensor, source, plan: Plan, report: Callable[[str], None],
                 pause_stream: bool = False, frame_timeout: Optional[float] = None) -> None:
        self._sensor = sensor
        self._source = source
        self._plan = plan
        self._report = report
        # A source that waits on the user: the sensor need not stream meanwhile.
        self._pause_stream = pause_stream
        self._frame_timeout = frame_timeout or FRAME_TIMEOUT_S
        self._ladder = Ladder()
        self._stream = None
        self._frames: Optional[Iterator[Frame]] = None
        self._shutter = 0
        self._used: set = set()
        self._started = 0.0
        self._changed_at = 0.0                # time.time() of the last change of light or exposure
        self._first_after: Optional[int] = None  # the number of the first frame seen after it

    def run(self) -> Measured:
        self._started = time.monotonic()
        self._stream = self._sensor.stream(averages=1, timeout=self._frame_timeout)
        self._frames = iter(self._stream)
        try:
            rung = self._ladder.nearest(FIRST_EXPOSURE_MS)
            steps: List[_Step] = []
            for j, nm in enumerate(self._plan.wavelengths):
                step, rung = self._measure(j, nm, rung)
                steps.append(step)
                self._used.add(step.shutter)
            darks = self._darks(sorted({s.shutter for s in steps}, reverse=True))
        finally:
            self._stream.close()
        return self._reduce(steps, darks)

    # Frames.

    def _changed(self) -> None:
        self._changed_at = time.time()
        self._first_after = None

    def _set_shutter(self, shutter: int) -> None:
        if shutter != self._shutter:
            self._sensor.shutter_speed = shutter
            self._shutter = shutter
            self._changed()

    def _fresh(self) -> Frame:
        """The next frame at the current shutter speed exposed wholly after
        the last change of light or exposure: seen after it, past the frames
        that may have been on their way then, and begun after it by its
        time stamp."""
        assert self._frames is not None
        after = self._changed_at + exposure_ms(self._shutter) / 1000 + SETTLE_S
        for frame in self._frames:
            if frame.timestamp < self._changed_at:
                continue
            if self._first_after is None:
                self._first_after = frame.seq
            if (frame.seq - self._first_after >= FRAMES_ON_THE_WAY and frame.shutter_speed == self._shutter
                    and frame.timestamp >= after):
                return frame
        raise SweepError("the sensor's stream ended")

    def _light(self, set_light: Callable[[], None]) -> None:
        if self._pause_stream and self._stream is not None:
            self._stream.stop()
        set_light()
        self._changed()

    # A step.

    def _measure(self, j: int, nm: float, rung: int):
        plan = self._plan
        self._light(lambda: self._source.set_wavelength(nm))
        for _ in range(MAX_ROUNDS):
            self._set_shutter(self._ladder.speeds[rung])
            self._progress(j, nm)
            frame = self._fresh()
            values = frame.values
            rung, good = self._ladder.judge(rung, float(values.max()), float(np.median(values)))
            if not good:
                continue
            stack = [values] + [self._fresh().values for _ in range(plan.frames - 1)]
            frames = np.array(stack)
            if (frames >= MAX_VALUE).any():
                # Noise took a filter to saturation: a rung down and again.
                rung = max(rung - 1, 0)
                continue
            return _Step(self._shutter, frames.mean(axis=0), frames.var(axis=0, ddof=1),
                         float(frames.mean(axis=0).max())), rung
        raise SweepError(f"no exposure put the brightest filter between 40 and 80% of full scale at "
                         f"{nm:g} nm within {MAX_ROUNDS} tries (last: shutter speed {self._shutter}, "
                         f"brightest filter {values.max():.0f} DN): the light is not steady or too bright "
                         "even at the shortest exposure")

    def _darks(self, shutters: List[int]) -> Dict[int, np.ndarray]:
        """Mean and variance of `dark_frames` frames at each shutter speed,
        the light off."""
        self._light(self._source.dark)
        out = {}
        for k, shutter in enumerate(shutters):
            self._set_shutter(shutter)
            left = sum(self._plan.dark_frames * frame_period_s(s) for s in shutters[k:])
            self._report(f"darks at {format_ms(exposure_ms(shutter))} ms ({k + 1} of {len(shutters)}), "
                         f"{_duration(left)} left")
            frames = np.array([self._fresh().values for _ in range(self._plan.dark_frames)])
            out[shutter] = np.stack([frames.mean(axis=0), frames.var(axis=0, ddof=1)])
        return out

    def _progress(self, j: int, nm: float) -> None:
        n = len(self._plan.wavelengths)
        elapsed = time.monotonic() - self._started
        left = ""
        if j:
            darks = self._plan.dark_frames * sum(frame_period_s(s) for s in self._used)
            left = f", about {_duration(elapsed / j * (n - j) + darks)} left"
        self._report(f"step {j + 1}/{n}: {nm:g} nm at {format_ms(exposure_ms(self._shutter))} ms{left}")

    # The numbers.

    def _reduce(self, steps: List[_Step], darks: Dict[int, np.ndarray]) -> Measured:
        plan = self._plan
        shutters = sorted(darks, key=exposure_ms)
        response = np.empty((NUM_FILTERS, len(steps)))
        error = np.empty_like(response)
        for j, step in enumerate(steps):
            dark_mean, dark_var = darks[step.shutter]
            scale = exposure_ms(step.shutter) * plan.power[j]
            response[:, j] = (step.mean - dark_mean) / scale
            error[:, j] = np.sqrt(np.maximum(step.variance, QUANTISATION_VARIANCE) / plan.frames
                                  + np.maximum(dark_var, QUANTISATION_VARIANCE) / plan.dark_frames) / scale
        noise = np.sqrt(np.mean([darks[s][1] for s in shutters], axis=0))
        return Measured(
            response=response, response_error=error, noise=noise,
            step_exposure_ms=np.array([exposure_ms(s.shutter) for s in steps]),
            dark_exposure_ms=np.array([exposure_ms(s) for s in shutters]),
            dark=np.array([darks[s][0] for s in shutters]),
            levels=[s.peak for s in steps], seconds=time.monotonic() - self._started)


def _duration(seconds: float) -> str:
    seconds = max(0, int(round(seconds)))
    return f"{seconds // 60} min {seconds % 60:02d} s" if seconds >= 60 else f"{seconds} s"

"""A sensor's stream of frames, as Sensor.stream() returns it."""

import collections
import queue
import threading
import time
from typing import TYPE_CHECKING, Any, Callable, Deque, Iterator, List, Optional

import numpy as np

from . import checks
from ._stream.grouping import Grouper
from .errors import OrbError, SensorLostError, SensorStalledError, SensorTimeoutError
from .frame import Frame

if TYPE_CHECKING:
    from .sensor import Sensor

# How long a stop may take before the worker is ended instead.
STOP_TIMEOUT_S = 0.8
# A stream starts again under its consumer at most this often within the
# window; a process that keeps failing is reported instead.
MAX_RESUMES = 3
RESUME_WINDOW_S = 30.0
# A wait for frames looks this often whether interrupt() was called.
INTERRUPT_POLL_S = 0.1
_FAILURES = {"lost": SensorLostError, "timeout": SensorTimeoutError, "stalled": SensorStalledError}
_STALL_ADVICE = ("; the next iteration retries it in a fresh library process: clear the stall "
                 "(replug only if it persists)")


def unix_time(monotonic_ns: int) -> float:
    """The library's time stamp (monotonic nanoseconds) in Unix seconds,
    with the offset taken now, so that a step of the wall clock during a
    long run shows in the frames that follow it."""
    return monotonic_ns / 1e9 + (time.time() - time.monotonic())


class Stream:
    """Every frame of a sensor as it makes them, as Frame objects: iterate
    it (`for frame in sensor.stream(): ...`). It is the one place where
    frames are numbered, averaged and counted lost; the sensor starts with
    the first frame asked for.

    Numbers: `seq` counts the sensor's frames from 0 at the first start. A
    stream stopped (stop(), interrupt(), or a failure raised by the
    iteration) starts again when iterated again and goes on at the next
    number: the sensor made no frames for it meanwhile. When the package
    has to replace the library's process under a running stream, the
    stream starts again by itself and the frames the sensor made meanwhile,
    estimated from the time that passed, count as lost.

    Averaging: each Frame averages `averages` consecutive frames of one
    setting. `averages` may be changed while the stream runs, from any
    thread: the next Frame out is the first of the new grouping.

    Partial groups, one rule: whatever breaks a group before it is full (a
    frame lost, a change of settings, a change of `averages`, a stop) drops
    the frames gathered so far; they are counted in `lost` of the next
    Frame out, and the next frame starts a new group. So `lost` of a Frame
    counts every frame since the Frame before it that is in no Frame: lost
    on the way (the library's ring or the package's queue was full, a frame
    came short, a restart) or dropped from a group. Frames the library
    itself passes over after a change of settings (exposed partly with the
    old one) are not counted lost.

    Missed: `missed` of a Frame counts the frames the sensor took since the
    Frame before it that never reached the host, because no transfer
    waited for them when they were ready (the host was too slow to take
    them): the sensor does not number them, so they are apart from `lost`.
    A run is complete when both stay 0.

    `delivered`, `lost` and `missed` are the totals of the Frames out so far. The
    stream ends after `frames` Frames or `seconds` seconds (if given), and
    on close(); it is iterated from one thread at a time.
    """

    def __init__(self, sensor: "Sensor", open_stream: Callable[[], Any], averages: int = 1,
                 frames: Optional[int] = None, seconds: Optional[float] = None,
                 timeout: float = 10.0) -> None:
        self._sensor = sensor
        self._open_stream = open_stream
        self._grouper = Grouper(checks.integer("averages", averages, 1, checks.INT_MAX), sensor.id,
                                dark=self._dark, to_unix=unix_time)
        self._frames = frames
        self._seconds = seconds
        self._timeout = timeout
        self._end_at: Optional[float] = None
        self._handle: Any = None
        self._records: Deque[Any] = collections.deque()
        self._resumes: List[float] = []
        self._interrupt = threading.Event()
        self._closed = False

    # What a consumer reads and sets.

    @property
    def sensor_id(self) -> str:
        return self._sensor.id

    @property
    def averages(self) -> int:
        """Frames averaged into each Frame."""
        return self._grouper.averages

    @averages.setter
    def averages(self, value: int) -> None:
        self._grouper.averages = checks.integer("averages", value, 1, checks.INT_MAX)

    @property
    def delivered(self) -> int:
        """Frames out so far."""
        return self._grouper.delivered

    @property
    def lost(self) -> int:
        """The sum of `lost` of the Frames out so far."""
        return self._grouper.lost

    @property
    def missed(self) -> int:
        """The sum of `missed` of the Frames out so far."""
        return self._grouper.missed

    @property
    def running(self) -> bool:
        """Whether the sensor streams for this stream now."""
        return self._handle is not None

    # Iteration.

    def __iter__(self) -> Iterator[Frame]:
        return self

    def __next__(self) -> Frame:
        if self._closed or (self._frames is not None and self.delivered >= self._frames):
            self.close()
            raise StopIteration
        try:
            return self._next_frame()
        except _Interrupted:
            self.stop()
            raise StopIteration from None
        except StopIteration:
            self.close()
            raise
        except BaseException:
            # Lost, silent, Ctrl-C: the next iteration starts it again.
            self.stop()
            raise

    def _next_frame(self) -> Frame:
        while True:
            if self._interrupt.is_set():
                raise _Interrupted()
            while self._records:
                if self._interrupt.is_set():
                    raise _Interrupted()
                frame = self._grouper.add(self._records.popleft())
                if frame is not None:
                    return frame
            if self._handle is None:
                self._start()
            self._records.extend(self._wait_for_records())

    def _wait_for_records(self) -> Any:
        waited = 0.0
        while True:
            if self._interrupt.is_set():
                raise _Interrupted()
            wait = min(INTERRUPT_POLL_S, self._timeout - waited)
            if self._end_at is not None:
                left = self._end_at - time.monotonic()
                if left <= 0:
                    raise StopIteration
                wait = min(wait, left)
            try:
                kind, payload = self._handle.channel.get(max(wait, 0))
            except queue.Empty:
                waited += wait
                if waited >= self._timeout:
                    # The frame transfer may be held by the sensor for good
                    # (the link cannot resubmit it): the next iteration
                    # starts in a fresh library process, as after a replug.
                    self._handle.ended()
                    raise SensorTimeoutError(f"sensor {self.sensor_id} is not answering: no frame within "
                                             f"{self._timeout:.1f} s (it is still on the bus)") from None
                continue
            if kind == "frames":
                return payload
            self._resume(payload)
            waited = 0.0

    def _start(self) -> None:
        self._handle = self._open_stream()
        if self._end_at is None and self._seconds is not None:
            self._end_at = time.monotonic() + self._seconds

    def _resume(self, failure: Any) -> None:
        """The library's stream ended under this one: started again in a new
        worker when another sensor's replug or loss ended it, else raised."""
        self._handle.ended()
        failure = failure or ("restart", "the stream ended")
        now = time.monotonic()
        self._resumes = [t for t in self._resumes if now - t < RESUME_WINDOW_S]
        if failure[0] not in ("ended", "restart") or len(self._resumes) >= MAX_RESUMES:
            advice = _STALL_ADVICE if failure[0] == "stalled" else ""
            raise _FAILURES.get(failure[0], OrbError)(f"sensor {self.sensor_id}: {failure[1]}{advice}")
        self._resumes.append(now)
        self._handle.stop(STOP_TIMEOUT_S)
        self._handle = None
        self._records.clear()
        self._grouper.restart(stopped=False)
        self._start()

    def _dark(self, shutter_speed: int) -> Optional[np.ndarray]:
        return self._sensor.dark_for(shutter_speed)

    # Ending it.

    def interrupt(self) -> None:
        """From any thread: the iteration ends (StopIteration) within about
        a tenth of a second, even in the middle of a group, and the stream
        stops. Iterating it again starts it again."""
        self._interrupt.set()

    def stop(self) -> None:
        """Stops the sensor streaming; iterating again starts it again (the
        group under way is dropped, as the rule says)."""
        self._interrupt.clear()
        handle, self._handle = self._handle, None
        self._records.clear()
        if handle is not None:
            self._grouper.restart(stopped=True)
            handle.stop(STOP_TIMEOUT_S)

    def close(self) -> None:
        """Stops the stream for good: iterating ends at once."""
        self._closed = True
        self.stop()

    def __enter__(self) -> "Stream":
        return self

    def __exit__(self, *exc_info: Any) -> None:
        self.close()

    def __del__(self) -> None:
        # As a generator's end would: a stream dropped unfinished stops.
        try:
            self.close()
        except Exception:  # nothing to tell anyone while collected
            pass

    def __repr__(self) -> str:
        return (f"<Stream of {self.sensor_id}: {self.averages} averaged, {self.delivered} delivered, "
                f"{self.lost} lost, {self.missed} missed{'' if self.running else ', stopped'}>")


class _Interrupted(Exception):
    pass

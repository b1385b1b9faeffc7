"""A device's stream: a thread that runs Sensor.stream() while the device
streams, averages the frames and hands each average to the device. After
a failure it tries again by itself, so a replugged sensor streams again
with nobody asking."""

import contextlib
import threading

from ..errors import OrbError
from .failures import Busy
from .frames import Averager

CLOSE_WAIT_S = 3.0


class Streamer:
    """`deliver(frame)` receives every averaged Frame on the stream's
    thread; `on_change()` is called when `wanted` changes."""

    def __init__(self, link, deliver, on_change=lambda: None):
        self._link = link
        self._deliver = deliver
        self._on_change = on_change
        self._changed = threading.Condition()
        self.wanted = False
        # Read with every frame: a change starts a new average.
        self.averages = 1
        self.open = False
        # The frames are numbered from 0 at start(), on across the streams
        # this thread opens again (after a pause, or once the sensor is
        # back), during which the sensor made no frames.
        self._next_seq = 0
        self._pauses = 0
        self._closed = False
        self._thread = threading.Thread(target=self._run, name="orb-tango-stream", daemon=True)

    def start(self):
        """Starts the thread; it streams once `stream()` asks."""
        self._thread.start()

    def stream(self, on):
        with self._changed:
            if on and not self.wanted:
                self._next_seq = 0
            self.wanted = on
            self._changed.notify_all()
        self._on_change()

    def wait_closed(self, wait):
        """Whether no stream holds the sensor, waiting up to `wait` seconds
        for one being closed."""
        with self._changed:
            return self._changed.wait_for(lambda: not self.open, wait)

    @contextlib.contextmanager
    def paused(self, wait):
        """Closes the stream while the block runs (the library takes no
        other acquisition meanwhile), and opens it again afterwards."""
        with self._changed:
            self._pauses += 1
        try:
            if not self.wait_closed(wait):
                raise Busy(f"the stream did not stop within {wait:g} s; try again")
            yield
        finally:
            with self._changed:
                self._pauses -= 1
                self._changed.notify_all()

    def _should_stream(self):
        return self.wanted and not self._pauses and not self._closed

    def _run(self):
        while True:
            with self._changed:
                self._changed.wait_for(lambda: self._closed or self._should_stream())
                if self._closed:
                    return
                # Under the same lock as the test: a pause that begins now
                # waits for this stream to close.
                self.open = True
            retry = self._stream_until_stopped()
            if retry:
                with self._changed:
                    self._changed.wait_for(lambda: self._closed or not self.wanted, retry)

    def _stream_until_stopped(self):
        """Streams until the device stops it (0 returned) or the sensor
        fails (the seconds to wait before trying again)."""
        frames = None
        try:
            frames = self._link.open().stream()
            averager = Averager(self.averages)
            first_seq = self._next_seq
            for frame in frames:
                self._link.reached()
                if not self._should_stream():
                    return 0
                frame.seq += first_seq
                self._next_seq = frame.seq + 1
                if averager.size != self.averages:
                    averager = Averager(self.averages)
                average = averager.add(frame)
                if average is not None:
                    self._deliver(average)
            return 0
        except OrbError as e:
            self._link.report(e)
            return self._link.retry_s()
        finally:
            if frames is not None:
                frames.close()
            with self._changed:
                self.open = False
                self._changed.notify_all()

    def close(self):
        """Ends the stream and the thread."""
        with self._changed:
            self._closed = True
            self._changed.notify_all()
        self._thread.join(CLOSE_WAIT_S)

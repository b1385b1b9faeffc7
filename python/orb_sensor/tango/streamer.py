"""A device's stream: a thread that iterates the sensor's Stream while the
device streams and hands each Frame to the device. The Stream numbers,
averages and counts what is lost; one Stream lasts from Start to Stop,
across the pauses of commands and the sensor's absences, so its numbers
and its count of lost frames go on. After a failure the thread tries
again by itself, so a replugged sensor streams again with nobody asking."""

import contextlib
import threading

from ..errors import OrbError
from .failures import Busy

CLOSE_WAIT_S = 3.0


class Streamer:
    """`deliver(frame)` receives every Frame on the stream's thread;
    `on_change()` is called when `wanted` changes."""

    def __init__(self, sensor_access, deliver, on_change=lambda: None):
        self._access = sensor_access
        self._deliver = deliver
        self._on_change = on_change
        self._changed = threading.Condition()
        self.wanted = False
        self.open = False
        # The Stream since Start: made once the sensor is reached.
        self._frames = None
        self._averages = 1
        self._pauses = 0
        self._closed = False
        self._thread = threading.Thread(target=self._run, name="orb-tango-stream", daemon=True)

    def start(self):
        """Starts the thread; it streams once `stream()` asks."""
        self._thread.start()

    @property
    def averages(self):
        """Frames averaged into each Frame: the Stream's, once there is one."""
        frames = self._frames
        return self._averages if frames is None else frames.averages

    @averages.setter
    def averages(self, value):
        self._averages = value
        frames = self._frames
        if frames is not None:
            frames.averages = value

    @property
    def lost(self):
        """Frames the stream lost since Start."""
        frames = self._frames
        return 0 if frames is None else frames.lost

    @property
    def missed(self):
        """Frames the sensor took since Start that never reached the host."""
        frames = self._frames
        return 0 if frames is None else frames.missed

    def stream(self, on):
        with self._changed:
            if on and not self.wanted:
                # A new Start numbers from 0 again.
                self._frames = None
            self.wanted = on
            self._changed.notify_all()
        if not on:
            self._interrupt()
        self._on_change()

    def wait_closed(self, wait):
        """Whether no stream holds the sensor, waiting up to `wait` seconds
        for one being closed."""
        with self._changed:
            return self._changed.wait_for(lambda: not self.open, wait)

    @contextlib.contextmanager
    def paused(self, wait):
        """Stops the stream while the block runs (the library takes no
        other acquisition meanwhile), and starts it again afterwards."""
        with self._changed:
            self._pauses += 1
        self._interrupt()
        try:
            if not self.wait_closed(wait):
                raise Busy(f"the stream did not stop within {wait:g} s; try again")
            yield
        finally:
            with self._changed:
                self._pauses -= 1
                self._changed.notify_all()

    def should_stream(self):
        return self.wanted and not self._pauses and not self._closed

    def _interrupt(self):
        frames = self._frames
        if frames is not None:
            frames.interrupt()

    def _run(self):
        while True:
            with self._changed:
                self._changed.wait_for(lambda: self._closed or self.should_stream())
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
        frames = self._frames
        try:
            sensor = self._access.open()
            if frames is None or frames.sensor_id != sensor.id:
                frames = self._frames = sensor.stream(averages=self._averages)
            for frame in frames:
                self._access.reached()
                if not self.should_stream():
                    return 0
                self._deliver(frame)
                if not self.should_stream():
                    return 0
            return 0
        except OrbError as e:
            self._access.report(e)
            return self._access.retry_s()
        finally:
            if frames is not None:
                frames.stop()
            with self._changed:
                self.open = False
                self._changed.notify_all()

    def close(self):
        """Ends the stream and the thread."""
        with self._changed:
            self._closed = True
            self._changed.notify_all()
        self._interrupt()
        self._thread.join(CLOSE_WAIT_S)

"""What the tool is doing and for how long, on a terminal only."""

import sys
import threading
import time


class Progress:
    """Redraws "[  3.2 s] step" on stderr while a step runs; silent when
    stderr is not a terminal. The library's calls release the interpreter,
    so the ticker keeps going through a long acquisition."""

    def __init__(self, stream=None):
        self._stream = stream or sys.stderr
        self._enabled = self._stream.isatty()
        self._start = time.monotonic()
        self._step = ""
        self._stop = threading.Event()
        self._thread = None
        if self._enabled:
            self._thread = threading.Thread(target=self._tick, daemon=True)
            self._thread.start()

    def step(self, text):
        self._step = text
        self._draw()

    def _draw(self):
        if self._enabled and self._step:
            elapsed = time.monotonic() - self._start
            self._stream.write(f"\r\033[K[{elapsed:6.1f} s] {self._step}")
            self._stream.flush()

    def _tick(self):
        while not self._stop.wait(0.2):
            self._draw()

    def done(self):
        if self._thread:
            self._stop.set()
            self._thread.join()
            self._thread = None
            self._stream.write("\r\033[K")
            self._stream.flush()


class StatusLine:
    """One line on stderr, when it is a terminal, redrawn a few times a
    second while frames come: frames/s, frames lost and missed (the
    stream's own totals), saturated filters."""

    REDRAW_S = 0.25

    def __init__(self, stream=None):
        self._stream = stream or sys.stderr
        self._enabled = self._stream.isatty()
        self._shown = False
        self._since = self._drawn = time.monotonic()
        self._counted = 0

    def update(self, frames, frame):
        """`frame` just came from the Stream `frames`."""
        now = time.monotonic()
        if not self._enabled or now - self._drawn < self.REDRAW_S:
            return
        delivered = frames.delivered
        rate = (delivered - self._counted) / (now - self._since)
        self._since, self._counted, self._drawn = now, delivered, now
        self._stream.write(f"\r\033[K{delivered} frames, {rate:.0f}/s, {frames.lost} lost, {frames.missed} missed, "
                           f"{len(frame.saturated)} saturated")
        self._stream.flush()
        self._shown = True

    def done(self):
        if self._enabled and self._shown:
            self._stream.write("\r\033[K")
            self._stream.flush()

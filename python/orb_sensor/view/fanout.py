"""The newest frame for each page, handed from the sensor's thread to the
event loop. A page gets a frame only after it has painted the one before
(it says so over its WebSocket): what it could not paint is replaced by a
newer frame, never queued."""

import asyncio
import threading


class Slot:
    """One page's mailbox: the newest frame not yet sent, and whether the
    status changed since it was last sent."""

    def __init__(self, loop):
        self._loop = loop
        self._lock = threading.Lock()
        self._wake = asyncio.Event()
        # Set while the loop waits: only then is it worth a wake-up, so a
        # sensor at 594 frames/s costs the loop a call per painted frame.
        self._waiting = False
        self._frame = None
        self._status = True
        self._painted = True

    def _offer(self, frame=None, status=False, painted=False):
        with self._lock:
            if frame is not None:
                self._frame = frame
            self._status |= status
            self._painted |= painted
            wake, self._waiting = self._waiting, False
        if wake:
            self._loop.call_soon_threadsafe(self._wake.set)

    def frame(self, frame):
        self._offer(frame=frame)

    def status(self):
        self._offer(status=True)

    def repaint(self, frame):
        """Sends `frame` (the one on the page) without waiting for a paint."""
        if frame is not None:
            self._offer(frame=frame, painted=True)

    def painted(self):
        self._offer(painted=True)

    async def next(self):
        """("status", None) or ("frame", the newest frame), as soon as there
        is one to send."""
        while True:
            with self._lock:
                if self._status:
                    self._status = False
                    return "status", None
                if self._painted and self._frame is not None:
                    frame, self._frame, self._painted = self._frame, None, False
                    return "frame", frame
                self._waiting = True
                self._wake.clear()
            await self._wake.wait()


class Fanout:
    def __init__(self):
        self._lock = threading.Lock()
        self._slots = set()

    def join(self, loop, current):
        slot = Slot(loop)
        if current is not None:
            slot.frame(current)
        with self._lock:
            self._slots.add(slot)
        return slot

    def leave(self, slot):
        with self._lock:
            self._slots.discard(slot)

    def _each(self):
        with self._lock:
            return list(self._slots)

    def frame(self, frame):
        for slot in self._each():
            slot.frame(frame)

    def status(self):
        for slot in self._each():
            slot.status()

    def repaint(self, frame):
        for slot in self._each():
            slot.repaint(frame)

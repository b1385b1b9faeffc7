"""A device's events, sent from a thread of their own.

Sending an event takes the device's monitor, which a call on the device
holds until it returns, and a call that waits on the sensor holds it for
seconds. So no thread that serves the sensor sends events itself: the
stream's thread and the sensor's hand their news over here and go on, and
frames queue while a call runs. A full queue holds the stream's thread
back rather than dropping frames: the stream's own queue then fills, and
the stream counts what it loses (the device counts nothing itself). (Letting go of the monitor inside a call
instead is not safe with this PyTango: when another thread takes the
monitor at that moment, the call spins for ever holding the interpreter.)
"""

import collections
import logging
import threading

import tango

LOG = logging.getLogger(__name__)
# Frames wait only while a call holds the device: at most this many (1.7 s
# of the fastest stream, 8 MB), then the stream's thread waits for room.
CAPACITY = 1024
# How often a frame waiting for room looks whether it is still wanted.
ROOM_POLL_S = 0.1
# A State event not sent is tried again this often, until it is.
RETRY_S = 0.5


class Outbox:
    """`send_state()` and `send_frame(frame)` send `device`'s events; they
    run on the outbox's thread (an omniORB thread, as Tango wants of a
    thread that sends) holding the device's monitor."""

    def __init__(self, device, send_state, send_frame):
        self._device = device
        self._send_state = send_state
        self._send_frame = send_frame
        self._frames = collections.deque()
        self._state_due = False
        self._closed = False
        self._changed = threading.Condition()
        self._thread = threading.Thread(target=self._run, name="orb-tango-events", daemon=True)

    def start(self):
        self._thread.start()

    def frame(self, frame, wanted=lambda: True):
        """Queues `frame`'s event, waiting while the queue is full for as
        long as `wanted()` (a stream being stopped gives up: its last frames
        are not sent, as those after the stop are not)."""
        with self._changed:
            while len(self._frames) >= CAPACITY and not self._closed:
                if not wanted():
                    return
                self._changed.wait(ROOM_POLL_S)
            self._frames.append(frame)
            self._changed.notify_all()

    def state_changed(self):
        with self._changed:
            self._state_due = True
            self._changed.notify_all()

    def close(self):
        """Nothing is sent after this returns when the caller holds the
        device's monitor (as Tango's calls on the device do); the thread
        ends once it has the monitor again."""
        with self._changed:
            self._closed = True
            self._changed.notify_all()

    def _run(self):
        unsent = False
        with tango.EnsureOmniThread():
            while True:
                with self._changed:
                    self._changed.wait_for(lambda: self._closed or self._state_due or self._frames,
                                           RETRY_S if unsent else None)
                    if self._closed:
                        return
                    state_due, self._state_due = self._state_due or unsent, False
                    frames, self._frames = self._frames, collections.deque()
                    # Room again for a stream's thread that waits.
                    self._changed.notify_all()
                if state_due:
                    unsent = not self._sent(self._send_state, "State")
                for frame in frames:
                    self._sent(self._send_frame, "FilterData", frame)

    def _sent(self, send, attribute, *value):
        try:
            with tango.AutoTangoMonitor(self._device):
                if not self._closed:
                    send(*value)
            return True
        except tango.DevFailed as e:
            LOG.warning("%s: a %s event was not sent: %s", self._device.get_name(), attribute,
                        e.args[0].desc.strip())
            return False

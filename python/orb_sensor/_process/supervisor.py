"""Starts, watches and replaces the worker process that owns the library.

The library can be connected once per process, keeps one current sensor,
and some of its calls wait for ever; so it lives in a worker
(orb_sensor._process.worker) and this process never loads it. Every request has a
deadline. A worker that misses one, or dies, is ended; the next request
brings a new one up, which connects the sensors afresh and finds each
again by its ID. The worker's standard output, where the library prints,
becomes records of the logger "orb_sensor.library".
"""

import itertools
import logging
import os
import queue
import signal
import socket
import subprocess
import sys
import threading
import time

import numpy as np

from ..errors import (OrbError, OrbValueError, SensorLostError, SensorRefusedError, SensorStalledError,
                      SensorTimeoutError)
from . import usb_nodes, wire_format
from .stream_abi import FRAME_DTYPE

LIBRARY_LOG = logging.getLogger("orb_sensor.library")
WORKER_LOG = logging.getLogger("orb_sensor.worker")
# duConnect brings every sensor up with its pauses (0.7 s each), and a
# sensor that does not answer costs the library's own time-outs: the
# connect is given so much for each sensor on the bus.
CONNECT_BASE_S = 1.5
CONNECT_PER_SENSOR_S = 1.0
CONNECT_MAX_S = 30.0
# Beyond a request's own time-out, for the worker to answer it.
GRACE_S = 1.0
# How often a long request checks that its sensor is still on the bus and
# still sends frames.
PRESENCE_POLL_S = 0.25
# Requests that wait for frames: a time-out of theirs ends the worker.
FRAME_OPERATIONS = ("read", "auto_expose", "stream_start")
# For the settings put back after reconnecting.
CONTROL_TIMEOUT_S = 5.0
# Frames a stream keeps for a consumer that falls behind before it drops
# the newest (the gap in their numbers counts them lost): 14 s at the
# sensor's fastest pace.
STREAM_BACKLOG_FRAMES = 8192



class _Ended(OrbError):
    """The library's frame path ended: the worker must be replaced."""


_EXCEPTIONS = {"lost": SensorLostError, "timeout": SensorTimeoutError, "value": OrbValueError,
               "ended": _Ended, "stalled": SensorStalledError, "refused": SensorRefusedError}


def _raise(kind, text):
    raise _EXCEPTIONS.get(kind, OrbError)(text)


def seconds(s):
    """A time for people: to a tenth of a second."""
    return f"{s:.1f} s"


def _stall_advice(text):
    return (f"{text}; retried in a fresh library process, and the next call tries again: clear the stall "
            "(replug only if it persists)")


class _Pending:
    __slots__ = ("done", "ok", "value")

    def __init__(self):
        self.done = threading.Event()
        self.ok = False
        self.value = None


class StreamChannel:
    """Frames of one stream as the worker sends them, for one consumer."""

    def __init__(self):
        self._items = queue.SimpleQueue()
        self._lock = threading.Lock()
        self._queued = 0

    def feed(self, block):
        count = len(block) // FRAME_DTYPE.itemsize
        with self._lock:
            if self._queued + count > STREAM_BACKLOG_FRAMES:
                return
            self._queued += count
        self._items.put(("frames", block))

    def end(self, failure):
        self._items.put(("ended", failure))

    def get(self, timeout):
        """("frames", records) or ("ended", failure or None); queue.Empty
        after `timeout` seconds."""
        kind, payload = self._items.get(timeout=timeout)
        if kind == "frames":
            records = np.frombuffer(payload, FRAME_DTYPE)
            with self._lock:
                self._queued -= len(records)
            return kind, records
        return kind, payload


class WorkerProcess:
    """One worker process (orb_sensor._process.worker, whose RequestServer
    answers) and the threads that read what it sends."""

    def __init__(self):
        parent, child = socket.socketpair()
        package_root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
        env = dict(os.environ)
        env["PYTHONPATH"] = os.pathsep.join(filter(None, [package_root, env.get("PYTHONPATH")]))
        # Its own session: the terminal's Ctrl-C reaches this process, which
        # decides what becomes of the worker.
        self.process = subprocess.Popen(
            [sys.executable, "-m", "orb_sensor._process.worker", str(child.fileno())],
            pass_fds=(child.fileno(),), env=env, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        child.close()
        self._sock = parent
        self._send_lock = threading.Lock()
        self._pending = {}
        self._streams = {}
        self._lock = threading.Lock()
        self._ids = itertools.count(1)
        self.alive = True
        self.failure = None
        for stream, log in ((self.process.stdout, LIBRARY_LOG), (self.process.stderr, WORKER_LOG)):
            threading.Thread(target=self._log_lines, args=(stream, log), daemon=True).start()
        threading.Thread(target=self._read, daemon=True).start()

    @staticmethod
    def _log_lines(stream, log):
        for line in stream:
            log.debug("%s", line.decode("utf-8", "replace").rstrip("\n"))

    def _read(self):
        while True:
            try:
                message = wire_format.receive(self._sock)
            except (EOFError, OSError):
                break
            kind = message[0]
            if kind == "reply":
                _, request_id, ok, value = message
                with self._lock:
                    pending = self._pending.pop(request_id, None)
                if pending is not None:
                    pending.ok, pending.value = ok, value
                    pending.done.set()
            else:
                _, index, stream_id, payload = message
                channel = self._streams.get((index, stream_id))
                if channel is not None:
                    if kind == "frames":
                        channel.feed(payload)
                    else:
                        channel.end(payload)
        self._gone()

    def _gone(self):
        with self._lock:
            self.alive = False
            pending, self._pending = self._pending, {}
            streams, self._streams = self._streams, {}
        code = self.process.poll()
        if self.failure is None:
            how = f"signal {-code}" if code is not None and code < 0 else f"status {code}"
            self.failure = ("library", f"the library's process ended unexpectedly ({how}); "
                                       "the next call starts it again")
        for p in pending.values():
            p.ok, p.value = False, self.failure
            p.done.set()
        for channel in streams.values():
            channel.end(self.failure)

    def send(self, index, operation, args):
        pending = _Pending()
        with self._lock:
            if not self.alive:
                pending.ok, pending.value = False, self.failure
                pending.done.set()
                return pending
            request_id = next(self._ids)
            self._pending[request_id] = pending
        try:
            with self._send_lock:
                wire_format.send(self._sock, (request_id, index, operation, args))
        except OSError:
            self.end(("library", "the library's process does not take requests"))
        return pending

    def open_stream(self, index, stream_id):
        channel = StreamChannel()
        with self._lock:
            self._streams[(index, stream_id)] = channel
        return channel

    def close_stream(self, index, stream_id):
        with self._lock:
            self._streams.pop((index, stream_id), None)

    def end(self, failure):
        """Kills the process; whatever waits on it fails with `failure`."""
        with self._lock:
            if self.failure is None:
                self.failure = failure
            # No new request goes to it, even before its reader has seen
            # the socket close.
            self.alive = False
        try:
            self.process.send_signal(signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        try:
            self._sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


class Supervisor:
    """The worker of this process, and the sensors it connected."""

    def __init__(self):
        self._lock = threading.RLock()
        self._worker = None
        self.ids = []
        self.library_path = ""
        self._nodes_at_connect = set()
        self.generation = 0
        self._stream_ids = itertools.count(1)
        self._sensor_locks = {}
        # What the package set on each sensor, by ID: a new worker's connect
        # brings the sensors up afresh, and this puts their settings back.
        self._wanted = {}
        self._known = {}

    def sensor_lock(self, sensor_id):
        with self._lock:
            return self._sensor_locks.setdefault(sensor_id, threading.RLock())

    def known(self, sensor_id):
        """The sensor's settings as last read or set through this worker,
        or None."""
        with self._lock:
            generation, settings = self._known.get(sensor_id, (None, None))
            return dict(settings) if generation == self.generation and settings else None

    def learn(self, sensor_id, settings, replace=False):
        with self._lock:
            generation, known = self._known.get(sensor_id, (None, None))
            if replace:
                self._known[sensor_id] = (self.generation, dict(settings))
            elif generation == self.generation and known:
                known.update(settings)

    def remember(self, sensor_id, operation, args):
        with self._lock:
            self._wanted.setdefault(sensor_id, {})[operation] = args

    # The worker's life.

    def _start(self):
        self._worker = WorkerProcess()
        self.generation += 1
        self._nodes_at_connect = usb_nodes.sensor_addresses()
        timeout = min(CONNECT_BASE_S + CONNECT_PER_SENSOR_S * len(self._nodes_at_connect), CONNECT_MAX_S)
        try:
            reply = self.wait(self._worker, self._worker.send(None, "connect", ()), timeout,
                              what="connecting the sensors")
        except BaseException:
            self.ids = []
            raise
        self.ids = reply["ids"]
        self.library_path = reply["library"]
        for index, sensor_id in enumerate(self.ids):
            for operation, args in self._wanted.get(sensor_id, {}).items():
                pending = self._worker.send(index, operation, (*args, int(CONTROL_TIMEOUT_S * 1000)))
                if not pending.done.wait(CONTROL_TIMEOUT_S + GRACE_S) or not pending.ok:
                    WORKER_LOG.debug("sensor %s: %s %s not restored after reconnecting",
                                       sensor_id, operation, args)

    def _healthy(self):
        return self._worker is not None and self._worker.alive

    def end_worker(self, failure, generation=None):
        """Ends the worker (of `generation`, if given): every sensor is
        connected afresh by the next request."""
        with self._lock:
            if self._worker is not None and generation in (None, self.generation):
                self._worker.end(failure)

    def connected_ids(self):
        """The IDs of the sensors the worker connected, connecting first
        when no worker runs."""
        with self._lock:
            if not self._healthy():
                self._start()
            return list(self.ids)

    def locate(self, sensor_id):
        """The index of `sensor_id` in a worker that can reach it. A new
        worker is started when the old one has ended, or when the sensor is
        missing and the bus has changed since the sensors were connected (a
        replug, which also cuts the streams of the others: they resume)."""
        with self._lock:
            if self._healthy():
                if sensor_id in self.ids:
                    return self.ids.index(sensor_id)
                if usb_nodes.sensor_addresses() == self._nodes_at_connect:
                    raise SensorLostError(self._missing(sensor_id))
                self._worker.end(("restart", "reconnecting the sensors after a replug"))
            self._start()
            if sensor_id not in self.ids:
                raise SensorLostError(self._missing(sensor_id))
            return self.ids.index(sensor_id)

    def _missing(self, sensor_id):
        on_bus = len(self._nodes_at_connect)
        if on_bus > len(self.ids):
            return (f"sensor {sensor_id} could not be opened: {on_bus} device(s) on the bus, "
                    f"{len(self.ids)} opened; `orb-sensor doctor` says why")
        return f"sensor {sensor_id} is not on the bus: plug it back in"

    # Requests.

    def request(self, sensor_id, operation, args, timeout, watch=False):
        """Runs `operation` on the sensor's worker thread and returns its
        value, or raises what it failed with. `timeout` is the request's
        own, in seconds; `watch` checks the sensor's presence while it runs
        (for calls of the library that wait for ever). A request that found
        the library's frame path ended (another sensor left) is run once
        more in a new worker, and so is one that found its sensor gone
        when it has come back since (replugged between two calls)."""
        for attempt in (1, 2):
            with self._lock:
                index = self.locate(sensor_id)
                worker, generation = self._worker, self.generation
            pending = worker.send(index, operation, (*args, int(timeout * 1000)))
            try:
                return self.wait(worker, pending, timeout + GRACE_S, what=operation.replace("_", " "),
                                 watch_index=index if watch else None)
            except (_Ended, SensorLostError, SensorTimeoutError) as e:
                if isinstance(e, SensorTimeoutError) and not isinstance(e, SensorStalledError) \
                        and operation not in FRAME_OPERATIONS:
                    raise
                self._after_failure(sensor_id, e, generation, attempt)

    def _after_failure(self, sensor_id, error, generation, attempt):
        """A request failed with `error`: the worker it ran in is ended
        (after a stall, or a time-out waiting for frames, its frame
        transfer is gone or may be held by the sensor for good, and the
        link cannot resubmit it: the next call connects afresh, as after a
        replug); returns when it is worth a second try in a new worker,
        else raises what the user reads."""
        self.end_worker(("restart", f"sensor {sensor_id}: {error}"), generation)
        if isinstance(error, SensorStalledError):
            if attempt == 2:
                raise SensorStalledError(_stall_advice(str(error))) from None
            return
        if isinstance(error, SensorTimeoutError):
            raise error
        if attempt == 2 or not self._bus_changed(error):
            if isinstance(error, _Ended):
                raise SensorTimeoutError(f"sensor {sensor_id}: the library's frame path ended with the sensor "
                                         "on the bus; the next call starts it afresh") from None
            raise error

    def _bus_changed(self, error):
        """Whether a failed request is worth a second try in a new worker:
        the frame path ended under it (another sensor left), or a device
        came onto the bus since the sensors were connected (the sensor was
        replugged between two calls)."""
        return isinstance(error, _Ended) or bool(usb_nodes.sensor_addresses() - self._nodes_at_connect)

    @staticmethod
    def wait(worker, pending, timeout, what, watch_index=None):
        deadline = time.monotonic() + timeout
        watch = None if watch_index is None else _FrameWatch(worker, watch_index)
        try:
            while not pending.done.wait(min(PRESENCE_POLL_S, max(deadline - time.monotonic(), 0))):
                if time.monotonic() >= deadline:
                    worker.end(("restart", f"{what}: no answer within {seconds(timeout)}"))
                    _raise("timeout", f"{what}: no answer within {seconds(timeout)}; "
                                      "the sensor is not answering")
                if watch is not None:
                    fault = watch.fault()
                    if fault is not None:
                        worker.end(("restart", f"{what}: {fault[1]}"))
                        _raise(fault[0], f"{what}: {fault[1]}")
        except KeyboardInterrupt:
            # What the worker is doing may take long or never end.
            worker.end(("restart", "interrupted"))
            raise
        if pending.ok:
            return pending.value
        _raise(*pending.value)


    # Streams.

    def open_stream(self, sensor_id, ring_frames, timeout):
        for attempt in (1, 2):
            with self._lock:
                index = self.locate(sensor_id)
                worker, generation = self._worker, self.generation
                stream_id = next(self._stream_ids)
                channel = worker.open_stream(index, stream_id)
            try:
                self.wait(worker, worker.send(index, "stream_start", (stream_id, ring_frames, int(timeout * 1000))),
                           timeout + GRACE_S, what="starting the stream")
                return _StreamHandle(self, worker, generation, index, stream_id, channel)
            except BaseException as e:
                worker.close_stream(index, stream_id)
                if not isinstance(e, (_Ended, SensorLostError, SensorTimeoutError)):
                    raise
                self._after_failure(sensor_id, e, generation, attempt)


class _FrameWatch:
    """Watches a request that has no time-out of its own (the library's
    auto-exposure search) by its sensor's frames: a sensor that left, a
    stalled frame endpoint or an ended frame path shows at once, and one
    that sends no frame for longer than the library's own pauses allow at
    the shutter speed in use (the worker's patience_ms, a few seconds) is
    not answering. So the call reports a fault within about a read's
    bound, not its whole deadline."""

    def __init__(self, worker, index):
        self._worker, self._index = worker, index
        self._completed = None
        self._since = time.monotonic()

    def fault(self):
        """(kind, text) of a fault seen now, or None."""
        probe = self._worker.send(None, "activity", (self._index,))
        if not probe.done.wait(PRESENCE_POLL_S * 4):
            return None
        if not probe.ok:
            kind, text = probe.value
            return (kind, text) if kind in ("lost", "stalled", "ended") else None
        now, activity = time.monotonic(), probe.value
        if activity["completed"] != self._completed:
            self._completed, self._since = activity["completed"], now
            return None
        silent = now - self._since
        if silent * 1000 > activity["patience_ms"]:
            return ("timeout", f"the sensor is not answering: no frame for {seconds(silent)} "
                               "(it is still on the bus)")
        return None


class _StreamHandle:
    def __init__(self, supervisor, worker, generation, index, stream_id, channel):
        self.supervisor, self.worker, self.generation = supervisor, worker, generation
        self.index, self.stream_id, self.channel = index, stream_id, channel

    def stop(self, timeout):
        """Stops the stream in the worker; a worker that does not answer in
        time is ended (the next call starts another)."""
        try:
            if self.worker.alive:
                self.supervisor.wait(self.worker, self.worker.send(self.index, "stream_stop",
                                                                    (int(timeout * 1000),)),
                                      timeout, what="stopping the stream")
        except OrbError:
            pass
        finally:
            self.worker.close_stream(self.index, self.stream_id)

    def stats(self, timeout=2.0):
        return self.supervisor.wait(self.worker, self.worker.send(self.index, "stats", ()), timeout,
                                     what="reading the stream's counters")

    def ended(self):
        """The stream failed: no request of this worker can be trusted."""
        self.supervisor.end_worker(("restart", "a stream ended"), self.generation)


_shared = None
_shared_lock = threading.Lock()


def shared():
    """The supervisor of this process's sensors."""
    global _shared
    with _shared_lock:
        if _shared is None:
            _shared = Supervisor()
        return _shared


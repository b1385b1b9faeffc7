"""One sensor as a device reaches it: found by ID or index once it is
there, followed by ID from then on, and every call on it made on a thread
of its own, which a Tango call waits on for a bounded time only.

The package bounds each request, but a request that finds the library's
process gone waits for a new one to connect every sensor (most of a
second per sensor), and meanwhile the requests of all other sensors
wait too. A Tango client must not, so its calls wait here at most WAIT_S.
"""

import concurrent.futures
import queue
import threading
import time

from ..errors import NoSensorError, OrbError, SensorLostError, SensorStalledError, SensorTimeoutError
from ..sensor import Sensor
from . import health
from .failures import Busy

# Each request's own time-out, and how long a Tango call waits for one:
# under the 3 s a Tango client waits by default.
REQUEST_TIMEOUT_S = 1.5
WAIT_S = 2.5
# An idle device looks at the bus this often (sysfs: no USB traffic), and
# reads the sensor's settings when the bus changed (an unplug, a replug)
# or REFRESH_S after the last read, which keeps the attributes current.
PRESENCE_S = 0.25
REFRESH_S = 5.0
CLOSE_WAIT_S = 3.0

_REFUSALS = {health.LOST: SensorLostError, health.SILENT: SensorTimeoutError, health.STALLED: SensorStalledError,
             health.CONNECTING: Busy}


class SensorAccess:
    """`sensor_id` (text) or else `index` chooses the sensor. `on_change()`
    is called from its threads when `problem` changes: None while
    the sensor answers, else (kind, text) as health.problem_of gives it.
    Set `streaming` to a callable that says when a stream looks after the
    sensor, so that it does not poll it meanwhile."""

    def __init__(self, sensor_id=None, index=0, on_change=lambda: None):
        self.sensor_id = sensor_id
        self._index = index
        self.sensor = None
        self.settings = {}
        self.problem = (health.CONNECTING, "looking for the sensor")
        self.streaming = lambda: False
        self._on_change = on_change
        self._open_lock = threading.Lock()
        self._calls = queue.Queue()
        self._addresses = None
        # The library process of the last failure, and how often in a row
        # a new one failed too.
        self._failed_generation = None
        self._doublings = 0
        self._closed = False
        self._thread = threading.Thread(target=self._serve, name="orb-tango-sensor", daemon=True)

    def start(self):
        """Starts looking for the sensor, and serving calls."""
        self._thread.start()

    @property
    def name(self):
        return self.sensor_id or f"at index {self._index}"

    def open(self):
        """The Sensor, opened when first reached; raises OrbError while it
        cannot be."""
        with self._open_lock:
            if self.sensor is None:
                self.sensor = self._find()
                self.sensor_id = self.sensor.id
            return self.sensor

    def _find(self):
        # The library connects once per process: a sensor plugged in after
        # it did is found by a new one only, and a new one cuts the streams
        # of every other sensor. So a sensor not found is looked for again
        # only once a device has appeared on the bus.
        seen = Sensor.on_bus()
        first, appeared = self._addresses is None, bool(seen - (self._addresses or frozenset()))
        self._addresses = seen
        if self.sensor_id is not None:
            if not (first or appeared):
                raise SensorLostError(f"sensor {self.sensor_id} is not on the bus")
            # A replugged sensor is found by a new library process, which
            # Sensor starts when the ID is not among those connected.
            return Sensor(id=self.sensor_id, timeout=REQUEST_TIMEOUT_S)
        if appeared and not first:
            Sensor.reconnect(f"looking for a sensor at index {self._index}")
        ids = Sensor.list()
        if self._index < len(ids):
            return Sensor(index=self._index, timeout=REQUEST_TIMEOUT_S)
        raise NoSensorError(f"no sensor at index {self._index}: {len(ids)} attached")

    # What the device learns of the sensor.

    def reached(self):
        if self.problem is not None:
            self.problem = None
            self._failed_generation, self._doublings = None, 0
            self._on_change()

    def report(self, error):
        problem = health.problem_of(error)
        if problem is None:
            return
        generation = Sensor.connections()
        started = self._failed_generation not in (None, generation)
        self._doublings = self._doublings + 1 if started else 0
        self._failed_generation = generation
        if problem != self.problem:
            self.problem = problem
            self._on_change()

    def retry_s(self):
        """How long to wait before trying the sensor again."""
        kind = self.problem[0] if self.problem else health.FAILED
        if kind in health.NO_BACKOFF:
            return health.RETRY_S[kind]
        return min(health.RETRY_S[kind] * 2 ** self._doublings, health.MAX_RETRY_S)

    def learn(self, **settings):
        self.settings = {**self.settings, **settings}

    # Calls.

    def check(self):
        """Raises what a call would meet when the sensor is known to be out
        of reach: the text says what to do."""
        problem = self.problem
        if problem is not None and problem[0] in _REFUSALS:
            raise _REFUSALS[problem[0]](health.advice(self.name, problem))

    def call(self, work, what, wait=WAIT_S):
        """work(sensor)'s value, run on this object's thread. A sensor known to
        be unreachable is not tried: the refusal says what to do. Raises
        the package's exception, or Busy when no answer came within `wait`
        seconds (a call not started by then never runs)."""
        self.check()
        future = concurrent.futures.Future()
        self._calls.put((work, future))
        try:
            return future.result(wait)
        except concurrent.futures.TimeoutError:
            future.cancel()
            raise Busy(f"{what}: sensor {self.name} did not answer within {wait:g} s (the library may be "
                       "reconnecting the sensors); try again") from None

    def _run(self, work):
        try:
            value = work(self.open())
        except OrbError as e:
            self.report(e)
            raise
        self.reached()
        return value

    def _poll(self):
        try:
            self.settings = self._run(lambda sensor: sensor.settings())
        except OrbError:
            pass

    def _serve(self):
        next_read = time.monotonic()
        bus = None
        while True:
            try:
                item = self._calls.get(timeout=PRESENCE_S)
            except queue.Empty:
                item = None
            if self._closed:
                return
            if item is not None:
                work, future = item
                if future.set_running_or_notify_cancel():
                    try:
                        future.set_result(self._run(work))
                    except BaseException as e:  # the caller receives it
                        future.set_exception(e)
            elif not self.streaming():
                now, seen = time.monotonic(), Sensor.on_bus()
                if seen != bus or now >= next_read:
                    bus = seen
                    self._poll()
                    next_read = now + (REFRESH_S if self.problem is None else self.retry_s())

    def close(self):
        """Ends the thread (after the call it runs, if any)."""
        self._closed = True
        self._calls.put(None)
        self._thread.join(CLOSE_WAIT_S)

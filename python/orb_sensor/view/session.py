"""The sensor the page looks at, streamed in a thread of its own.

The thread iterates the sensor's Stream and hands each Frame to the pages
and to the recording; the Stream numbers, averages (as the page asks) and
counts what is lost. What needs the sensor alone, auto-exposure and a dark
frame, runs in the same thread while the Stream is stopped; it goes on
afterwards with the next number. When the sensor is lost (left the bus),
not answering or its frame endpoint stalled, the thread says which and
tries again every half second: once it is back or the fault is cleared,
frames come again by themselves.
"""

import concurrent.futures
import os
import queue
import threading
import time

from ..errors import OrbError, SensorLostError, SensorStalledError, SensorTimeoutError
from ..facts import exposure_ms
from ..sensor import Sensor
from .fanout import Fanout
from .recorder import Recorder
from .spectra import Spectra

RETRY_S = 0.5
# States the thread tries again from, each a fault the page names.
FAULT_STATES = ("lost", "not answering", "endpoint stalled", "failed")
# The frame rate is counted over at least this long.
RATE_WINDOW_S = 1.0


class Session:
    def __init__(self, sensor, sensor_ids, directory=None):
        self.sensor_ids = sensor_ids
        self._sensors = {sensor.id: sensor}
        self.sensor = sensor
        self.stream = sensor.stream()
        self.frozen = False
        self.state, self.message = "starting", ""
        self.settings = {}
        # The last auto-exposure's AutoExposure: an off-target outcome stays
        # on the page as a warning while the sensor streams.
        self.exposure = None
        self.target = None  # the auto-exposures' target; None: the layer's
        # The frame on the page, and whether the dark frame was subtracted
        # from it: one tuple, so that the two are read together.
        self.shown = None
        self.lights = None
        self.spectra = Spectra()
        self.fanout = Fanout()
        self.recorder = Recorder(directory or os.getcwd())
        # The sensor's frame rate, from the numbers of the frames: the
        # number of the latest, and one from at least RATE_WINDOW_S before.
        self._latest_seq = None
        self._rate, self._rate_mark = 0.0, (time.monotonic(), None)
        self._jobs = queue.SimpleQueue()
        # Set to end the running stream (a job waits, or the view ends), and
        # to cut the wait between two tries short.
        self._interrupt = threading.Event()
        self._stopping = False
        self._thread = threading.Thread(target=self._run, name="orb-view-session", daemon=True)

    def start(self):
        self._thread.start()

    def stop(self, timeout=5.0):
        self._stopping = True
        self._interrupt.set()
        self.stream.interrupt()
        if self._thread.is_alive():
            self._thread.join(timeout)
        self.stream.close()
        self.recorder.stop()
        if self.lights is not None:
            self.lights.close()

    # The thread.

    def _run(self):
        while not self._stopping:
            self._interrupt.clear()
            self._run_jobs()
            try:
                self._stream()
            except SensorLostError as e:
                self._set_state("lost", str(e))
            except SensorStalledError as e:
                self._set_state("endpoint stalled", str(e))
            except SensorTimeoutError as e:
                # On the bus but silent (a hung firmware): not "lost".
                self._set_state("not answering", str(e))
            except OrbError as e:
                self._set_state("failed", str(e))
            except Exception as e:  # a fault of the view's own: shown, and tried again
                self._set_state("failed", f"internal error: {type(e).__name__}: {e}")
            if self.state in FAULT_STATES:
                self._interrupt.wait(RETRY_S)

    def _stream(self):
        s = self.sensor.settings()
        self._note(shutter_speed=s["shutter_speed"], adc_gain=s["adc_gain"], adc_range=s["adc_range"])
        stream = self.stream
        try:
            for frame in stream:
                if self.state != "streaming":
                    self._set_state("streaming", self._exposure_warning())
                self._latest_seq = frame.seq
                self.recorder.write(frame)
                if not self.frozen:
                    self.shown = (frame, frame.dark_corrected)
                    self.fanout.frame(frame)
                if self._interrupt.is_set() or self._stopping:
                    return
        finally:
            # Stopped, not closed: after the job the numbers go on.
            stream.stop()

    def _run_jobs(self):
        while True:
            try:
                job, what, future = self._jobs.get_nowait()
            except queue.Empty:
                return
            self._set_state("busy", what)
            try:
                future.set_result(job(self.sensor))
            except Exception as e:  # the page is told, the thread goes on
                future.set_exception(e)

    def submit(self, job, what):
        """Runs job(sensor) in the session's thread with the stream stopped;
        a future of its result. `what` is shown on the page meanwhile."""
        future = concurrent.futures.Future()
        self._jobs.put((job, what, future))
        self._interrupt.set()
        self.stream.interrupt()
        return future

    # What the page sees.

    def _set_state(self, state, message=""):
        self.state, self.message = state, message
        self.fanout.status()

    def _note(self, **settings):
        self.settings.update(settings)
        self.fanout.status()

    def set_shutter_speed(self, value):
        self.sensor.shutter_speed = value
        self._note(shutter_speed=value)

    def set_exposure_ms(self, ms):
        self.sensor.exposure_ms = ms
        self._note(shutter_speed=self.sensor.shutter_speed)

    def set_adc(self, gain, range):
        self.sensor.set_adc(gain=gain, range=range)
        self._note(**{k: v for k, v in (("adc_gain", gain), ("adc_range", range)) if v is not None})

    @property
    def averages(self):
        return self.stream.averages

    def set_averages(self, n):
        self.stream.averages = n
        self.fanout.status()

    def set_frozen(self, frozen):
        self.frozen = frozen
        self.fanout.status()

    def set_dark_correction(self, on):
        self.sensor.dark_correction = on
        self.fanout.status()

    def _exposure_warning(self):
        return "" if self.exposure is None or self.exposure.ok else self.exposure.message()

    def _auto_expose(self, sensor, target):
        self.exposure = sensor.auto_expose(target=target)
        self._note(shutter_speed=self.exposure.shutter_speed)
        return self.exposure.shutter_speed

    def auto_expose(self, target):
        return self.submit(lambda sensor: self._auto_expose(sensor, target), "auto-exposure")

    def take_dark(self):
        return self.submit(lambda sensor: sensor.dark(), "taking a dark frame")

    def take_reference(self):
        return self.submit(lambda sensor: self.spectra.take_reference(sensor, self.averages),
                           "taking a reference spectrum")

    def spectra_changed(self):
        """The spectrum's mode, reference or overlay changed: the page
        draws the frame on it again (also when frozen)."""
        self.fanout.repaint(self.current)
        self.fanout.status()

    def switch(self, sensor_id):
        def job(_):
            self.recorder.stop()
            # The label names the chosen sensor's recording, none yet.
            self.recorder.forget()
            if sensor_id not in self._sensors:
                self._sensors[sensor_id] = Sensor(id=sensor_id)
            self.sensor = self._sensors[sensor_id]
            averages, old = self.stream.averages, self.stream
            self.stream = self.sensor.stream(averages=averages)
            old.close()
            self.settings, self.shown, self.exposure = {}, None, None
            # Another sensor's reference is no reference of this one.
            self.spectra.clear_reference()
            self._latest_seq, self._rate_mark = None, (time.monotonic(), None)
            # A sensor the view switches to is exposed for its own light.
            self._set_state("busy", f"auto-exposure of sensor {sensor_id}")
            self._auto_expose(self.sensor, self.target)
            return sensor_id
        return self.submit(job, f"opening sensor {sensor_id}")

    def set_lights(self, channels, intensity):
        self.lights.set(channels, intensity)
        self.fanout.status()

    def start_recording(self):
        self.recorder.start(self.sensor, self.averages)
        self.fanout.status()

    def stop_recording(self):
        self.recorder.stop()
        self.fanout.status()

    @property
    def current(self):
        """The frame on the page, None before the first."""
        return None if self.shown is None else self.shown[0]

    def status(self):
        now, seq = time.monotonic(), self._latest_seq
        mark_time, mark_seq = self._rate_mark
        if now - mark_time >= RATE_WINDOW_S:
            made = 0 if seq is None or mark_seq is None or seq < mark_seq else seq - mark_seq
            self._rate = made / (now - mark_time)
            self._rate_mark = (now, seq)
        shutter = self.settings.get("shutter_speed")
        state = "frozen" if self.frozen and self.state == "streaming" else self.state
        return {
            "sensor_id": self.sensor.id, "sensors": self.sensor_ids, "state": state, "message": self.message,
            "shutter_speed": shutter, "exposure_ms": None if shutter is None else exposure_ms(shutter),
            "averages": self.averages,
            "adc": {"gain": self.settings.get("adc_gain"), "range": self.settings.get("adc_range")},
            "frames": self.stream.delivered,
            "frame_number": None if self.current is None else int(self.current.seq),
            "lost": self.stream.lost, "missed": self.stream.missed, "frame_rate": round(self._rate, 1), "frozen": self.frozen,
            "auto_exposure": None if self.exposure is None else {
                "outcome": self.exposure.outcome, "message": self.exposure.message()},
            "dark": self.sensor.dark_frame is not None, "dark_correction": self.sensor.dark_correction,
            "recording": self.recorder.status(),
            "led": None if self.lights is None else self.lights.status(),
            **self.spectra.status(self.sensor),
        }

"""The process that owns the library: started and supervised by
orb_sensor._process.supervisor (as its WorkerProcess), never imported by a
user's program.

It connects every attached sensor once, then serves requests that arrive
on the socket it was given: one thread per sensor, so that requests on one
sensor run in order while two sensors work at once. The library's own
lines go to this process's standard output, which the supervisor turns
into log records. Replies and frames go back on the socket.

Request:  (request_id, sensor_index or None, operation, arguments)
Reply:    ("reply", request_id, ok, value or (error kind, text))
Frames:   ("frames", index, stream_id, PickleBuffer of stream_abi.FRAME_DTYPE records)
End:      ("ended", index, stream_id, (error kind, text) or None)
"""

import ctypes
import os
import pickle
import queue
import socket
import sys
import threading
import time

import numpy as np

from ..facts import NUM_FILTERS
from . import library, wire_format
from .stream_abi import (ACTIVITY_DTYPE, EXPOSURE_RESULT_DTYPE, FRAME_DTYPE, SETTINGS_DTYPE, STATS_DTYPE,
                         ExposureOutcome, StreamResult)

OK = StreamResult.OK
# Frames sent in one message: those that come within BATCH_WINDOW_S of the
# first, at most BATCH_FRAMES. The window adds its length to a frame's
# delay and divides the cost of a message among several frames.
BATCH_FRAMES = 64
BATCH_WINDOW_S = 0.010
PUMP_WAIT_MS = 20


class Failure(Exception):
    """An error for the supervisor: `kind` names the exception it raises."""

    def __init__(self, kind, text):
        super().__init__(text)
        self.kind = kind


# The supervisor's exception for each result, and the words a user reads.
_KINDS = {StreamResult.ERR_TIMEOUT: "timeout", StreamResult.ERR_LOST: "lost", StreamResult.ERR_ENDED: "ended",
          StreamResult.ERR_INVALID: "value", StreamResult.ERR_STALLED: "stalled", StreamResult.ERR_USB: "refused"}
_WORDS = {StreamResult.ERR_TIMEOUT: "the sensor is not answering (it is still on the bus)",
          StreamResult.ERR_LOST: "the sensor was lost: it left the bus",
          StreamResult.ERR_STALLED: "the sensor's frame endpoint stalled (it is still on the bus)",
          StreamResult.ERR_USB: "the sensor refused the request",
          StreamResult.ERR_SHORT_FRAME: "frames came short, and whole ones did not replace them in time"}


def _stream_failure(lib, result, what):
    kind = _KINDS.get(result, "library")
    words = _WORDS.get(result) or lib.orb_stream_result_text(result).decode()
    return Failure(kind, f"{what}: {words}")


def _sensor_ids(lib, total):
    entries = lib.duGetSensorList()
    if not entries:
        return []
    try:
        return [ctypes.string_at(entries[i]).decode("ascii", "replace") for i in range(total)]
    finally:
        for i in range(total):
            library.free(entries[i])
        library.free(entries)


class RequestServer:
    """Serves the supervisor's requests on the socket `sock`."""

    def __init__(self, sock):
        self._sock = sock
        self._send_lock = threading.Lock()
        # The du... calls work on the library's one current sensor.
        self._du_lock = threading.Lock()
        self._lib = None
        self._queues = {}
        self._pumps = {}
        self._led_open = False

    def send(self, message):
        with self._send_lock:
            wire_format.send(self._sock, message)

    # Requests without a sensor.

    def op_connect(self):
        self._lib = library.load()
        with self._du_lock:
            total = self._lib.duConnect()
            ids = _sensor_ids(self._lib, total) if total > 0 else []
        return {"ids": ids, "library": os.path.realpath(self._lib._name)}

    def op_led(self, on, intensity):
        """The LED driver stays open until this process ends: its close
        would end the libusb context of the process."""
        lib = library.load()
        if not self._led_open:
            if lib.connect_LED_device() != 1:
                raise Failure("nodevice", "no LED module found (or it could not be opened)")
            self._led_open = True
        flags = (ctypes.c_bool * max(len(on), 1))(*on)
        if lib.set_state_to_led_device(flags, len(on), intensity) != 1:
            raise Failure("nodevice", "the LED module did not take the request")
        return True

    def op_present(self, index):
        """Asks the bus, not the sensor: answered at once, even while the
        sensor's own thread waits on it."""
        self._present(index)
        return True

    def op_activity(self, index):
        """What the sensor's frame path has done (orb_frame_activity_get),
        answered at once like present: the supervisor watches a request
        without a time-out of its own by it."""
        raw = np.zeros(1, ACTIVITY_DTYPE)
        r = self._lib.orb_frame_activity_get(index, raw.ctypes.data)
        if r != OK:
            raise _stream_failure(self._lib, r, f"sensor {index}")
        return {name: int(raw[name][0]) for name in raw.dtype.names}

    # Requests on one sensor, each on that sensor's thread.

    def _present(self, index):
        r = self._lib.orb_sensor_present(index)
        if r != OK:
            raise _stream_failure(self._lib, r, f"sensor {index}")

    def op_settings(self, index, timeout_ms):
        raw = np.zeros(1, SETTINGS_DTYPE)
        r = self._lib.orb_stream_get_settings(index, raw.ctypes.data, timeout_ms)
        if r != OK:
            raise _stream_failure(self._lib, r, "reading the settings")
        return {name: int(raw[name][0]) for name in raw.dtype.names}

    def op_set_shutter(self, index, shutter, timeout_ms):
        r = self._lib.orb_stream_set_shutter_speed(index, shutter, timeout_ms)
        if r != OK:
            raise _stream_failure(self._lib, r, "setting the shutter speed")
        return shutter

    def op_set_adc(self, index, gain, adc_range, resolution, timeout_ms):
        r = self._lib.orb_stream_set_adc(index, gain, adc_range, resolution, timeout_ms)
        if r != OK:
            raise _stream_failure(self._lib, r, "setting the ADC")
        return True

    def op_read(self, index, averages, timeout_ms):
        out = np.zeros(NUM_FILTERS, np.float64)
        r = self._lib.orb_single_shot(index, out.ctypes.data_as(ctypes.POINTER(ctypes.c_double)),
                                      averages, timeout_ms)
        if r != OK:
            raise _stream_failure(self._lib, r, "reading a frame")
        return out

    def op_auto_expose(self, index, filters, target, timeout_ms):
        """The stream layer's search, bounded by its own time-out; on a
        stream of its own (the package's stream is stopped first)."""
        if index in self._pumps:
            raise Failure("value", "stop the stream before an auto-exposure")
        array = (ctypes.c_int * len(filters))(*filters) if filters else None
        out = np.zeros(1, EXPOSURE_RESULT_DTYPE)
        r = self._lib.orb_stream_auto_expose(index, array, len(filters), target or 0, 0, timeout_ms,
                                             out.ctypes.data)
        if r != OK:
            raise _stream_failure(self._lib, r, "auto-exposure")
        result = {name: int(out[name][0]) for name in out.dtype.names}
        result["outcome"] = ExposureOutcome(result["outcome"]).name
        return result

    def op_stream_start(self, index, stream_id, ring_frames, timeout_ms):
        r = self._lib.orb_stream_start(index, ring_frames, timeout_ms)
        if r != OK:
            raise _stream_failure(self._lib, r, "starting the stream")
        stop = threading.Event()
        pump = threading.Thread(target=self._pump, args=(index, stream_id, stop), daemon=True)
        self._pumps[index] = (stop, pump)
        pump.start()
        return True

    def op_stream_stop(self, index, timeout_ms):
        entry = self._pumps.pop(index, None)
        if entry is None:
            return False
        stop, pump = entry
        stop.set()
        pump.join()
        r = self._lib.orb_stream_stop(index, timeout_ms)
        if r not in (OK, StreamResult.ERR_NOT_STREAMING, StreamResult.ERR_LOST, StreamResult.ERR_ENDED):
            raise _stream_failure(self._lib, r, "stopping the stream")
        return True

    def op_stats(self, index):
        raw = np.zeros(1, STATS_DTYPE)
        self._lib.orb_stream_get_stats(index, raw.ctypes.data)
        return {name: int(raw[name][0]) for name in raw.dtype.names}

    def _pump(self, index, stream_id, stop):
        """Moves frames from the library's ring to the socket in batches;
        when the socket is slow, the ring fills and the library counts the
        frames it drops."""
        lib = self._lib
        size = FRAME_DTYPE.itemsize
        block = bytearray(size * BATCH_FRAMES)
        base = ctypes.addressof((ctypes.c_char * len(block)).from_buffer(block))
        # The batch goes out from the block itself: the send returns before
        # the next batch is read into it.
        view = memoryview(block)
        failure = None
        while not stop.is_set():
            count = 0
            r = lib.orb_stream_read(index, base, PUMP_WAIT_MS)
            # Frames that follow within the batch window travel together:
            # one message for several frames costs both processes less.
            window_end = time.monotonic() + BATCH_WINDOW_S
            while r == OK:
                count += 1
                left_ms = int((window_end - time.monotonic()) * 1000)
                if count == BATCH_FRAMES or left_ms <= 0:
                    break
                r = lib.orb_stream_read(index, base + count * size, left_ms)
            if r == StreamResult.ERR_TIMEOUT and count:
                r = OK
            if count:
                try:
                    self.send(("frames", index, stream_id, pickle.PickleBuffer(view[:count * size])))
                except OSError:
                    return
            if r not in (OK, StreamResult.ERR_TIMEOUT):
                failure = _stream_failure(lib, r, "streaming")
                break
        try:
            self.send(("ended", index, stream_id, (failure.kind, str(failure)) if failure else None))
        except OSError:
            pass

    # Dispatch.

    def _run(self, request_id, operation, args):
        try:
            value = getattr(self, "op_" + operation)(*args)
            reply = ("reply", request_id, True, value)
        except Failure as e:
            reply = ("reply", request_id, False, (e.kind, str(e)))
        except Exception as e:  # a fault of this process, reported, not fatal
            reply = ("reply", request_id, False, ("library", f"{type(e).__name__}: {e}"))
        try:
            self.send(reply)
        except OSError:
            pass

    def _sensor_thread(self, requests):
        while True:
            item = requests.get()
            if item is None:
                return
            self._run(*item)

    def serve(self):
        while True:
            try:
                request_id, index, operation, args = wire_format.receive(self._sock)
            except (EOFError, OSError):
                return
            if index is None:
                self._run(request_id, operation, args)
                continue
            if index not in self._queues:
                self._queues[index] = queue.Queue()
                threading.Thread(target=self._sensor_thread, args=(self._queues[index],), daemon=True).start()
            self._queues[index].put((request_id, operation, (index, *args)))


def main():
    sock = socket.socket(fileno=int(sys.argv[1]))
    # The library's lines reach the supervisor's log as they are printed,
    # not when a pipe's buffer fills.
    libc = ctypes.CDLL(None)
    libc.setvbuf(ctypes.c_void_p.in_dll(libc, "stdout"), None, 1, 0)  # _IOLBF
    RequestServer(sock).serve()
    # Sensors stay claimed until the process ends; the supervisor ends it.
    os._exit(0)


if __name__ == "__main__":
    main()

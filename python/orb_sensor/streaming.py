"""Frames of a running stream as Frame objects: raw records from the
worker, averaged in groups and dark-corrected here."""

import queue
import time

import numpy as np

from .errors import OrbError, SensorLostError, SensorTimeoutError
from .frame import Frame, exposure_ms, saturated_filters

# How long a stop may take before the worker is ended instead.
STOP_TIMEOUT_S = 0.8
_FAILURES = {"lost": SensorLostError, "timeout": SensorTimeoutError}
# The sensor's fastest pace: a frame every 32/19 ms.
FASTEST_FRAME_NS = 32 / 19 * 1e6
# A stream starts again at most this often within the window; a process
# that keeps failing is reported instead.
MAX_RESUMES = 3
RESUME_WINDOW_S = 30.0


class _Group:
    """Raw frames waiting to be averaged: all with the same settings."""

    def __init__(self, size):
        self.size = size
        self.rows = []
        self.settings = None
        self.lost = 0

    def add(self, record):
        settings = record["settings"]
        if self.rows and settings != self.settings:
            # Frames of another exposure do not belong in the average.
            self.lost += len(self.rows)
            self.rows = []
        self.settings = settings
        self.lost += int(record["lost_before"])
        self.rows.append(record)
        return len(self.rows) == self.size

    def take(self):
        rows, lost = self.rows, self.lost
        self.rows, self.lost = [], 0
        return rows, lost


class _Numbering:
    """Sequence numbers that go on across a restarted stream: the frames
    the sensor made meanwhile are estimated from the time that passed and
    counted lost."""

    def __init__(self):
        self.offset = 0
        self.last_seq = None
        self.last_time_ns = None
        self.resumed = False

    def place(self, record):
        seq, now = int(record["sequence"]), int(record["timestamp_ns"])
        gap = 0
        if self.resumed and self.last_seq is not None:
            period_ns = max(exposure_ms(int(record["settings"]["shutter_speed"])) * 1e6, FASTEST_FRAME_NS)
            gap = max(int(round((now - self.last_time_ns) / period_ns)) - 1, 0)
            self.offset = self.last_seq + 1 + gap - seq
            self.resumed = False
        self.last_seq, self.last_time_ns = seq + self.offset, now
        return self.last_seq, gap


def frames(open_stream, sensor, averages, count, seconds, timeout):
    """Yields Frame objects until `count` frames or `seconds` have passed
    (both None: until the consumer stops), then stops the stream. Raises
    SensorTimeoutError when no frame comes for `timeout` seconds and
    SensorLostError when the sensor leaves. When the library's process is
    replaced under it (another sensor was replugged, or left), the stream
    starts again in the new one and goes on."""
    group = _Group(averages)
    numbering = _Numbering()
    delivered = 0
    end_at = None if seconds is None else time.monotonic() + seconds
    handle = open_stream()
    dropped_seen = 0
    resumes = []
    try:
        while count is None or delivered < count:
            wait = timeout
            if end_at is not None:
                wait = min(wait, end_at - time.monotonic())
                if wait <= 0:
                    return
            try:
                kind, payload = handle.channel.get(wait)
            except queue.Empty:
                if end_at is not None and time.monotonic() >= end_at:
                    return
                raise SensorTimeoutError(f"no frame from sensor {sensor.id} within {timeout:g} s") from None
            if kind == "ended":
                handle.ended()
                failure = payload or ("restart", "the stream ended")
                now = time.monotonic()
                resumes = [t for t in resumes if now - t < RESUME_WINDOW_S]
                if failure[0] not in ("ended", "restart") or len(resumes) >= MAX_RESUMES:
                    raise _FAILURES.get(failure[0], OrbError)(f"sensor {sensor.id}: {failure[1]}")
                resumes.append(now)
                handle = open_stream()
                numbering.resumed = True
                dropped_seen = 0
                continue
            for record in payload:
                seq, gap = numbering.place(record)
                group.lost += gap
                if not group.add(record):
                    continue
                rows, lost = group.take()
                dropped = handle.channel.dropped
                lost += dropped - dropped_seen
                dropped_seen = dropped
                yield _frame(rows, seq, lost, sensor)
                delivered += 1
                if count is not None and delivered >= count:
                    return
    finally:
        handle.stop(STOP_TIMEOUT_S)


_NONE = np.zeros(0, dtype=np.intp)


def unix_time(monotonic_ns):
    """The library's time stamp (monotonic nanoseconds) in Unix seconds,
    with the offset taken now, so that a step of the wall clock during a
    long run shows in the frames that follow it."""
    return monotonic_ns / 1e9 + (time.time() - time.monotonic())


def _saturated(rows, raw):
    # The library counts a frame's saturated filters: most frames have none,
    # and then there is nothing to look for.
    if all(int(r["saturated"]) == 0 for r in rows):
        return _NONE
    return saturated_filters(raw)


def _frame(rows, seq, lost, sensor):
    raw = np.stack([r["values"] for r in rows]) if len(rows) > 1 else rows[0]["values"][np.newaxis]
    values = raw.mean(axis=0) if len(rows) > 1 else raw[0].astype(np.float64)
    dark = sensor.dark_frame if sensor.dark_correction else None
    if dark is not None:
        values = values - dark
    last = rows[-1]
    settings = last["settings"]
    return Frame(values, seq=seq,
                 timestamp=unix_time(int(last["timestamp_ns"])),
                 shutter_speed=int(settings["shutter_speed"]),
                 adc=(int(settings["adc_gain"]), int(settings["adc_range"])),
                 saturated=_saturated(rows, raw), lost=lost, averages=len(rows), sensor_id=sensor.id)

"""CSV and NDJSON writers: one line of text per frame.

Floats are written in their shortest exact form (repr), so a reader gets
back the very values that were recorded.
"""

import json
import os
import stat
import sys

import numpy as np

from ..facts import NUM_FILTERS
from .writer import Writer

CSV_COLUMNS = ("seq", "timestamp", "shutter_speed", "exposure_ms", "adc_gain", "adc_range",
               "averages", "lost", "missed", "n_saturated") + tuple(f"f{n}" for n in range(1, NUM_FILTERS + 1))


def _to_json(value):
    return json.dumps(value, separators=(",", ":"), default=_numpy_to_json)


def _numpy_to_json(value):
    """Lets numpy numbers and arrays in run metadata through."""
    if isinstance(value, (np.generic, np.ndarray)):
        return value.tolist()
    raise TypeError(f"{type(value).__name__} {value!r} cannot be recorded")


class _TextWriter(Writer):
    def __init__(self, path_or_stream):
        self._owned = isinstance(path_or_stream, (str, os.PathLike)) and path_or_stream != "-"
        if self._owned:
            self._out = open(path_or_stream, "w", encoding="utf-8")
        else:
            self._out = sys.stdout if path_or_stream == "-" else path_or_stream
        # A reader at the other end of a pipe or a terminal sees each frame as
        # it comes; a file is left to its buffer.
        self._flush_each = _is_pipe_or_terminal(self._out)
        self._closed = False

    def _line(self, text):
        self._out.write(text + "\n")

    def write(self, frame):
        self._line(self._format(frame))
        self.frames += 1
        if self._flush_each:
            self._out.flush()

    def flush(self):
        self._out.flush()

    def close(self):
        if self._closed:
            return
        self._closed = True
        if self._owned:
            self._out.close()
        else:
            self._out.flush()


def _is_pipe_or_terminal(stream):
    try:
        return not stat.S_ISREG(os.fstat(stream.fileno()).st_mode)
    except (AttributeError, OSError, ValueError):
        # An in-memory stream: nobody waits on the other end.
        return False


class CsvWriter(_TextWriter):
    """"# key: value" comment lines for the run (values as JSON, so that their
    types come back), the header row, then a row per frame."""

    def __init__(self, path_or_stream, run_metadata):
        super().__init__(path_or_stream)
        for key, value in run_metadata.items():
            self._line(f"# {key}: {_to_json(value)}")
        self._line(",".join(CSV_COLUMNS))

    def _format(self, frame):
        m = frame.metadata()
        head = [m["seq"], m["timestamp"], m["shutter_speed"], m["exposure_ms"], m["adc_gain"],
                m["adc_range"], m["averages"], m["lost"], m["missed"], len(m["saturated"])]
        return ",".join(map(repr, head + frame.values.tolist()))


class NdjsonWriter(_TextWriter):
    """{"run": {...}} on the first line, then the frame's metadata with its
    "filter_data" on each line."""

    def __init__(self, path_or_stream, run_metadata):
        super().__init__(path_or_stream)
        self._line(_to_json({"run": run_metadata}))

    def _format(self, frame):
        return _to_json(dict(frame.metadata(), filter_data=frame.values.tolist()))

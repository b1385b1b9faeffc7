"""Raw frame records in, numbered and averaged Frames out, with what was
lost counted: the one place of the package that does any of the three.
It knows no sensor and no process, so that its rule can be tested on its
own; orb_sensor.Stream feeds it the records the worker sends.

The rule (Stream's docstring and the package's README say it to users):
- Frames are numbered by the sensor's count from 0 at the start of the
  stream. A restart under the stream (its worker was replaced) goes on from
  there, the frames made meanwhile estimated from the time that passed; a
  restart after the stream was stopped (or failed) goes on at the next
  number, since the sensor made no frames for it meanwhile.
- A frame out averages `averages` consecutive frames of one setting (the
  records' settings).
- Whatever breaks a group before it is full (a frame lost, a change of
  settings, a change of `averages`, a stop or a restart) drops the frames
  gathered so far: they are counted lost, and the next frame taken starts
  a new group, with the grouping asked for then.
- `lost` of a frame out counts the frames since the frame out before it
  that are in no frame out: those the sensor made and never arrived (a gap
  in the count) and those of dropped groups. Frames the library discards
  itself after a change of settings (stale: exposed partly with the old
  setting) are passed over, not counted lost. So for each frame out,
  seq - previous seq - averages = lost + stale frames passed over.
- `missed` of a frame out counts the frames the sensor took since the frame
  out before it while no transfer of the host waited for them (the
  library's missed_before): they never reached the host, have no number
  and are in no gap of the count, so they are neither lost nor break a
  group.
"""

from typing import Callable, Optional, Tuple

import numpy as np

from ..facts import NUM_FILTERS, frame_period_s
from ..frame import Frame, saturated_filters

# How the next record continues the numbering after the records before it.
CONTINUOUS, AFTER_STOP, AFTER_RESTART = "continuous", "after stop", "after restart"


def _settings_key(record) -> Tuple[int, ...]:
    return tuple(int(v) for v in record["settings"].item())


class Grouper:
    """`averages` (at least 1) may be changed at any time: it takes effect
    with the next record. `dark(shutter_speed)` gives the dark frame to subtract
    from a frame out of that exposure, or None (it may refuse one); `to_unix(ns)` turns a record's monotonic time stamp
    into Unix seconds."""

    def __init__(self, averages: int, sensor_id: str = "",
                 dark: Callable[[int], Optional[np.ndarray]] = lambda shutter: None,
                 to_unix: Callable[[int], float] = lambda ns: ns / 1e9) -> None:
        self.averages = averages
        self.sensor_id = sensor_id
        self._dark = dark
        self._to_unix = to_unix
        self._next = CONTINUOUS
        self._offset = 0
        self._last_seq: Optional[int] = None
        self._last_ns = 0
        self._lost = 0
        self._missed = 0
        self._size = averages
        self._count = 0
        self._key: Tuple[int, ...] = ()
        self._sum = np.zeros(NUM_FILTERS)
        self._saturated = np.zeros(NUM_FILTERS, bool)
        self._last_record = None
        # Totals over every frame out.
        self.delivered = 0
        self.lost = 0
        self.missed = 0

    def restart(self, stopped: bool) -> None:
        """The next record starts a new stream of the library, whose count
        begins again: after a stop (`stopped`: the sensor made no frames
        for this stream meanwhile) or under a running stream (the frames
        made meanwhile are estimated)."""
        self._drop_group()
        self._next = AFTER_STOP if stopped else AFTER_RESTART

    def add(self, record) -> Optional[Frame]:
        """A Frame when `record` completes a group, else None."""
        seq, now = int(record["sequence"]), int(record["timestamp_ns"])
        gap = 0
        if self._last_seq is not None:
            if self._next == CONTINUOUS:
                gap = seq + self._offset - self._last_seq - 1
                gap = max(gap - int(record["stale_before"]), 0)
            else:
                if self._next == AFTER_RESTART:
                    period_ns = frame_period_s(int(record["settings"]["shutter_speed"])) * 1e9
                    gap = max(int(round((now - self._last_ns) / period_ns)) - 1, 0)
                self._offset = self._last_seq + 1 + gap - seq
        self._next = CONTINUOUS
        self._last_seq, self._last_ns = seq + self._offset, now
        key = _settings_key(record)
        if self._count and (gap or record["stale_before"] or key != self._key or self._size != self.averages):
            self._drop_group()
        self._lost += gap
        self._missed += int(record["missed_before"])
        if not self._count:
            self._size, self._key = self.averages, key
        self._take(record)
        return self._frame_out() if self._count >= self._size else None

    def _take(self, record) -> None:
        values = record["values"]
        if self._count:
            self._sum += values
        else:
            self._sum[:] = values
            self._saturated[:] = False
        if int(record["saturated"]):
            self._saturated[saturated_filters(values) - 1] = True
        self._count += 1
        self._last_record = record

    def _drop_group(self) -> None:
        self._lost += self._count
        self._count = 0

    def _frame_out(self) -> Frame:
        last, count = self._last_record, self._count
        values = self._sum / count if count > 1 else self._sum.copy()
        settings = last["settings"]
        dark = self._dark(int(settings["shutter_speed"]))
        if dark is not None:
            values = values - dark
        frame = Frame(values, seq=self._last_seq, timestamp=self._to_unix(int(last["timestamp_ns"])),
                      shutter_speed=int(settings["shutter_speed"]),
                      adc=(int(settings["adc_gain"]), int(settings["adc_range"])),
                      saturated=np.flatnonzero(self._saturated) + 1, lost=self._lost, missed=self._missed, averages=count,
                      sensor_id=self.sensor_id, dark_corrected=dark is not None)
        self._count = 0
        self.delivered += 1
        self.lost += self._lost
        self.missed += self._missed
        self._lost = self._missed = 0
        return frame

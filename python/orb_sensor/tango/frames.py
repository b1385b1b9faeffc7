"""Frames as the device serves them: raw frames of the stream averaged
in groups of Averages, and the latest one, which FilterData and its
companions read and Acquire waits for."""

import threading

import numpy as np

from ..frame import Frame


class Averager:
    """Raw frames in groups of `size`, each group as one Frame. A change of
    settings starts a new group: frames of another exposure do not belong
    in the average, and those dropped count as lost."""

    def __init__(self, size):
        self.size = size
        self._group = []

    def add(self, frame):
        """The averaged Frame when `frame` completes a group, else None."""
        if self.size == 1:
            return frame
        group = self._group
        dropped = 0
        if group and (frame.shutter_speed, frame.adc) != (group[0].shutter_speed, group[0].adc):
            dropped = len(group) + sum(f.lost for f in group)
            group.clear()
        group.append(frame)
        if dropped:
            # Carried by the frame that started the new group.
            frame.lost += dropped
        if len(group) < self.size:
            return None
        self._group = []
        last = group[-1]
        saturated = np.unique(np.concatenate([f.saturated for f in group]))
        return Frame(np.mean([f.values for f in group], axis=0), seq=last.seq, timestamp=last.timestamp,
                     shutter_speed=last.shutter_speed, adc=last.adc, saturated=saturated,
                     lost=sum(f.lost for f in group), averages=len(group), sensor_id=last.sensor_id)


class LatestFrame:
    """The last frame delivered, and how many have been."""

    def __init__(self):
        self._changed = threading.Condition()
        self.frame = None
        self.count = 0
        self.lost = 0

    def put(self, frame):
        with self._changed:
            self.frame = frame
            self.count += 1
            self.lost += int(frame.lost)
            self._changed.notify_all()

    def add_lost(self, n):
        with self._changed:
            self.lost += n

    def reset_lost(self):
        with self._changed:
            self.lost = 0

    def after(self, count, timeout):
        """The first frame delivered after the `count`-th, or None when
        none comes within `timeout` seconds."""
        with self._changed:
            if not self._changed.wait_for(lambda: self.count > count, timeout):
                return None
            return self.frame

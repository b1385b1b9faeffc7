"""Frames of the stream averaged in groups, in the session rather than by
Sensor.stream(averages=...): a change of the count, or a pause for
auto-exposure, then takes effect within one frame of the sensor instead of
one group, which at shutter speed 3000 and 100 averages is half a minute."""

import numpy as np

from ..frame import NUM_FILTERS, Frame


class Averager:
    """Running sums, so that any count costs the same memory."""

    def __init__(self):
        self._count = 0

    def add(self, frame, size, dark_corrected):
        """The average of the frames since the last one returned once there
        are `size` of them, else None. A frame of another exposure, ADC
        setting or dark correction starts a new group: it does not belong in
        the same average."""
        key = (frame.shutter_speed, frame.adc, dark_corrected)
        if self._count and key != self._key:
            self._count = 0
        if size == 1 and not self._count:
            return frame
        if not self._count:
            self._key = key
            self._sum = np.zeros(NUM_FILTERS)
            self._saturated = np.zeros(NUM_FILTERS, bool)
            self._lost = 0
        self._sum += frame.values
        self._saturated[frame.saturated - 1] = True
        self._lost += frame.lost
        self._count += 1
        if self._count < size:
            return None
        count, self._count = self._count, 0
        return Frame(self._sum / count, seq=frame.seq, timestamp=frame.timestamp,
                     shutter_speed=frame.shutter_speed, adc=frame.adc,
                     saturated=np.flatnonzero(self._saturated) + 1, lost=self._lost, averages=count,
                     sensor_id=frame.sensor_id)

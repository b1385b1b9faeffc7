"""The latest Frame of a device, which FilterData and its companions read
and Acquire waits for."""

import threading


class LatestFrame:
    """The last frame delivered, and how many have been."""

    def __init__(self):
        self._changed = threading.Condition()
        self.frame = None
        self.count = 0

    def put(self, frame):
        with self._changed:
            self.frame = frame
            self.count += 1
            self._changed.notify_all()

    def after(self, count, timeout):
        """The first frame delivered after the `count`-th, or None when
        none comes within `timeout` seconds."""
        with self._changed:
            if not self._changed.wait_for(lambda: self.count > count, timeout):
                return None
            return self.frame

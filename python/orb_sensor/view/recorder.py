"""The page's recording: an HDF5 file in the current directory, written as
`orb-sensor record` writes it (Sensor.open_recording), one Frame of the
stream at a time."""

import os
import threading
import time


class Recorder:
    def __init__(self, directory):
        self._directory = directory
        self._lock = threading.Lock()
        self._writer = None
        self.name = None
        self.frames = 0
        self.failure = None

    def _path(self, sensor_id):
        stem = f"orb-{sensor_id}-{time.strftime('%Y%m%d-%H%M%S')}"
        path, n = os.path.join(self._directory, stem + ".h5"), 1
        while os.path.exists(path):
            n += 1
            path = os.path.join(self._directory, f"{stem}-{n}.h5")
        return path

    def start(self, sensor, averages):
        with self._lock:
            if self._writer is not None:
                return
            path = self._path(sensor.id)
            self._writer = sensor.open_recording(path, averages)
            self.name, self.frames, self.failure = os.path.basename(path), 0, None

    def write(self, frame):
        with self._lock:
            if self._writer is None:
                return
            try:
                self._writer.write(frame)
                self.frames = self._writer.frames
            except (OSError, ValueError) as e:
                # A full disk ends the recording, not the view.
                self.failure = f"{self.name}: {e}"
                self._close()

    def stop(self):
        with self._lock:
            if self._writer is not None:
                self._close()

    def forget(self):
        """Clears the name and count of the last recording (not while one
        runs)."""
        with self._lock:
            if self._writer is None:
                self.name, self.frames, self.failure = None, 0, None

    def _close(self):
        writer, self._writer = self._writer, None
        try:
            writer.close()
        except (OSError, ValueError) as e:
            self.failure = self.failure or f"{self.name}: {e}"
        self.frames = writer.frames

    def status(self):
        with self._lock:
            return {"on": self._writer is not None, "name": self.name, "frames": self.frames,
                    "failure": self.failure}

"""What Sensor.spectrum() keeps between calls: the calibrations it loaded
and the operators built from them, one per (calibration, grid, averages),
since building one takes far longer than applying it."""

import hashlib
import os
import threading
from typing import Dict, Optional, Tuple, Union

from ..errors import CalibrationError
from ..spectrum import CalibrationSource
from . import library
from .calibration import Calibration, find
from .engine import Operator

# A file is known by its path and what the file system says of it: a file
# rewritten in place (a new calibration) is loaded afresh.
_FileKey = Tuple[str, int, int]


def _file_key(path: str) -> _FileKey:
    st = os.stat(path)
    return (os.path.realpath(path), st.st_mtime_ns, st.st_size)


def _sha256(path: str) -> str:
    digest = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            digest.update(block)
    return digest.hexdigest()


class SensorSpectra:
    """The calibrations and operators of one sensor."""

    def __init__(self, sensor_id: str) -> None:
        self._sensor_id = sensor_id
        self._lock = threading.Lock()
        self._calibrations: Dict[_FileKey, Tuple[Calibration, CalibrationSource]] = {}
        self._operators: Dict[Tuple[_FileKey, float, int], Operator] = {}

    def source(self, path: Union[str, "os.PathLike[str]", None]) -> CalibrationSource:
        """The calibration file that would be used: found by the sensor's ID
        when path is None; another sensor's file is refused by ID."""
        with self._lock:
            return self._load(path)[2]

    def operator(self, path: Union[str, "os.PathLike[str]", None], step: Optional[float],
                 averages: int) -> Tuple[Operator, CalibrationSource]:
        """The operator of that calibration on its own grid or a step in nm."""
        grid = library.GRID_CALIBRATION if step is None else float(step)
        with self._lock:
            key, calibration, source = self._load(path)
            op_key = (key, grid, averages)
            if op_key not in self._operators:
                self._operators[op_key] = Operator(calibration, grid, averages=averages)
            return self._operators[op_key], source

    def _load(self, path: Union[str, "os.PathLike[str]", None]) -> Tuple[_FileKey, Calibration,
                                                                         CalibrationSource]:
        path = find(self._sensor_id) if path is None else os.fspath(path)
        try:
            key = _file_key(path)
        except OSError as e:
            raise CalibrationError(f"calibration {path}: {e.strerror}", code=12) from None
        if key not in self._calibrations:
            # Only the newest version of a file is kept.
            self._forget(key[0])
            calibration = Calibration(path, self._sensor_id)
            info = calibration.info
            self._calibrations[key] = (calibration, CalibrationSource(
                info.sensor_id, info.created, _sha256(path), info.path))
        calibration, source = self._calibrations[key]
        return key, calibration, source

    def _forget(self, real_path: str) -> None:
        for key in [k for k in self._calibrations if k[0] == real_path]:
            del self._calibrations[key]
        for op_key in [k for k in self._operators if k[0][0] == real_path]:
            del self._operators[op_key]

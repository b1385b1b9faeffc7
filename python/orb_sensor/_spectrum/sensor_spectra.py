"""What Sensor.spectrum() keeps between calls: the calibrations it loaded
and the operators built from them, one per (calibration, grid, averages),
since building one takes far longer than applying it."""

import hashlib
import os
import threading
import time
from typing import Dict, Optional, Tuple, Union

from ..errors import CalibrationError
from ..spectrum import CalibrationSource
from . import library
from .calibration import Calibration, find
from .engine import Operator

# A file is known by its path and what the file system says of it: a file
# rewritten in place (a new calibration) is loaded afresh.
_FileKey = Tuple[str, int, int]

# Where the file is, and its status, are looked at again after this long,
# not with every spectrum: finding it (the search path, the real path, the
# status) costs several times the spectrum itself, and a front end making
# spectra at the sensor's pace for ten sensors would spend a core on it. A
# calibration replaced is used within this time.
LOOK_AGAIN_S = 2.0


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
        # path given (None: found by ID) -> (when looked, the path, its key)
        self._looked: Dict[Optional[str], Tuple[float, str, _FileKey]] = {}

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
        path, key = self._located(None if path is None else os.fspath(path))
        if key not in self._calibrations:
            # Only the newest version of a file is kept.
            self._forget(key[0])
            calibration = Calibration(path, self._sensor_id)
            info = calibration.info
            self._calibrations[key] = (calibration, CalibrationSource(
                info.sensor_id, info.created, _sha256(path), info.path))
        calibration, source = self._calibrations[key]
        return key, calibration, source

    def _located(self, given: Optional[str]) -> Tuple[str, _FileKey]:
        now = time.monotonic()
        looked = self._looked.get(given)
        if looked is not None and now - looked[0] < LOOK_AGAIN_S:
            return looked[1], looked[2]
        path = find(self._sensor_id) if given is None else given
        try:
            key = _file_key(path)
        except OSError as e:
            raise CalibrationError(f"calibration {path}: {e.strerror}", code=12) from None
        self._looked[given] = (now, path, key)
        return path, key

    def _forget(self, real_path: str) -> None:
        for key in [k for k in self._calibrations if k[0] == real_path]:
            del self._calibrations[key]
        for op_key in [k for k in self._operators if k[0][0] == real_path]:
            del self._operators[op_key]

"""A spectrum: power per nm against wavelength, made from a frame with the
sensor unit's calibration (Sensor.spectrum()), or read from a CSV file.

    with Sensor() as s:
        s.dark()                                # the sensor covered, at the exposure to come
        spectrum = s.spectrum(averages=16)
    spectrum.wavelengths, spectrum.values       # nm, power per nm
    spectrum.peaks(min_prominence=0.05)         # positions between samples, heights, widths
    spectrum.to_csv("lamp.csv")                 # wavelength_nm,value after a # header
    spectrum.colour().cct_k
"""

import copy
import json
import math
import os
from dataclasses import dataclass
from typing import Any, Dict, List, Optional, Tuple, Union

import numpy as np

from ._spectrum import engine, jcamp, notebook
from ._spectrum.engine import Line, Peak
from .colour import Colour, colorimetry
from .errors import OrbValueError

# What a spectrum from a calibration is measured in: the unit of the power
# the calibration's line source was taken to have, per nm.
CALIBRATED_UNIT = "calibration source power/nm"
CSV_HEADER = "wavelength_nm,value"

__all__ = ["Spectrum", "CalibrationSource", "Peak", "Line", "CALIBRATED_UNIT", "CSV_HEADER"]


@dataclass(frozen=True)
class CalibrationSource:
    """The calibration file a spectrum was made with."""
    sensor_id: str
    created: str
    sha256: str
    path: str


class Spectrum:
    """Values against wavelength, with what they came from.

    wavelengths   numpy float64, nm, ascending
    values        numpy float64, `unit` (a calibrated spectrum: the
                  calibration source's power per nm)
    seq, timestamp, shutter_speed, exposure_ms, averages, lost, missed,
    saturated, sensor_id     of the frame it was made from (as Frame has them; 0, None
                  or empty for a spectrum read from a file)
    calibration   a CalibrationSource, or None
    lines         with the refinement, the lines it found (wavelength_nm,
                  power), strongest first; else None
    """

    __slots__ = ("wavelengths", "values", "unit", "seq", "timestamp", "shutter_speed", "exposure_ms",
                 "averages", "lost", "missed", "saturated", "sensor_id", "calibration", "lines", "_operator")

    def __init__(self, wavelengths: Any, values: Any, unit: str = CALIBRATED_UNIT, *, seq: int = 0,
                 timestamp: float = 0.0, shutter_speed: Optional[int] = None,
                 exposure_ms: Optional[float] = None, averages: int = 1, lost: int = 0, missed: int = 0,
                 saturated: Any = (), sensor_id: str = "",
                 calibration: Optional[CalibrationSource] = None,
                 lines: Optional[List[Line]] = None, operator: Optional[engine.Operator] = None) -> None:
        self.wavelengths = np.array(wavelengths, dtype=np.float64)
        self.values = np.array(values, dtype=np.float64)
        if self.wavelengths.ndim != 1 or self.wavelengths.shape != self.values.shape:
            raise OrbValueError(f"wavelengths ({self.wavelengths.size}) and values ({self.values.size}) "
                                "must be two lists of the same length")
        if self.wavelengths.size < 2 or not np.all(np.diff(self.wavelengths) > 0):
            raise OrbValueError("wavelengths must be at least 2, strictly ascending")
        self.unit = unit
        self.seq = seq
        self.timestamp = timestamp
        self.shutter_speed = shutter_speed
        self.exposure_ms = exposure_ms
        self.averages = averages
        self.lost = lost
        self.missed = missed
        self.saturated = np.array(saturated, dtype=np.int64)
        self.sensor_id = sensor_id
        self.calibration = calibration
        self.lines = lines
        # The operator that made these values, which knows where it puts a
        # line's peak; None once they are another spectrum's or refined.
        self._operator = operator

    # The operator is shared, never copied: it does not change once built,
    # and it lives in this process (a pickled spectrum finds its peaks as
    # any spectrum's).
    def __getstate__(self) -> Dict[str, Any]:
        return {name: getattr(self, name) for name in self.__slots__ if name != "_operator"}

    def __setstate__(self, state: Dict[str, Any]) -> None:
        for name, value in state.items():
            setattr(self, name, value)
        self._operator = None

    def __copy__(self) -> "Spectrum":
        out = Spectrum.__new__(Spectrum)
        for name in self.__slots__:
            setattr(out, name, getattr(self, name))
        return out

    def __deepcopy__(self, memo: Dict[int, Any]) -> "Spectrum":
        out = Spectrum.__new__(Spectrum)
        memo[id(self)] = out
        for name in self.__slots__:
            value = getattr(self, name)
            setattr(out, name, value if name == "_operator" else copy.deepcopy(value, memo))
        return out

    def peaks(self, min_prominence: float = 0.05) -> List[Peak]:
        """Peaks whose prominence is at least `min_prominence` times the
        highest value, highest first: position between samples (nm),
        height, full width at half height (nm), prominence. In a spectrum
        made from a frame, a peak as narrow as a line is placed at the line
        that makes it (the reconstruction moves a line's peak toward where
        the filters see more, by up to a few nm past 1000 nm)."""
        if isinstance(min_prominence, bool) or not isinstance(min_prominence, (int, float)) \
                or not 0 <= min_prominence <= 1:
            raise OrbValueError(f"min_prominence must be a number from 0 to 1, not {min_prominence!r}")
        if self._operator is not None and self.lines is None:
            return self._operator.line_peaks(self.values, float(min_prominence))
        return engine.peaks(self.wavelengths, self.values, float(min_prominence))

    def colour(self) -> Colour:
        """The colorimetry of this spectrum (it must cover 380 to 780 nm)."""
        return colorimetry(self.wavelengths, self.values)

    def metadata(self) -> Dict[str, Any]:
        """What the spectrum came from, as plain Python values."""
        out: Dict[str, Any] = {"unit": self.unit, "sensor_id": self.sensor_id, "seq": int(self.seq),
                               "timestamp": float(self.timestamp), "shutter_speed": self.shutter_speed,
                               "exposure_ms": self.exposure_ms, "averages": int(self.averages),
                               "lost": int(self.lost), "missed": int(self.missed), "saturated": [int(f) for f in self.saturated]}
        if self.calibration is not None:
            out.update(calibration_sensor_id=self.calibration.sensor_id,
                       calibration_created=self.calibration.created,
                       calibration_sha256=self.calibration.sha256,
                       calibration_path=self.calibration.path)
        if self.lines is not None:
            out["lines"] = [[line.wavelength_nm, line.power] for line in self.lines]
        return out

    def to_csv(self, path: Union[str, "os.PathLike[str]", None] = None) -> Optional[str]:
        """`wavelength_nm,value` per line after a commented header of the
        metadata (`# key: JSON value`). Written to `path`, or returned as
        text when no path is given."""
        lines = [f"# {key}: {json.dumps(value)}" for key, value in self.metadata().items()]
        lines.append(CSV_HEADER)
        lines.extend(f"{w!r},{v!r}" for w, v in zip(self.wavelengths.tolist(), self.values.tolist()))
        text = "\n".join(lines) + "\n"
        if path is None:
            return text
        with open(path, "w", encoding="utf-8") as out:
            out.write(text)
        return None

    def to_jcamp(self, path: Union[str, "os.PathLike[str]", None] = None,
                 title: Optional[str] = None) -> Optional[str]:
        """JCAMP-DX 4.24 (`##XYDATA=(X++(Y..Y))`, wavelengths in nm) with
        the unit, a title, the origin, the sensor ID, the exposure and the
        calibration. Written to `path`, or returned as text when no path is
        given."""
        if title is None:
            title = f"spectrum of {self.sensor_id}, frame {self.seq}" if self.sensor_id else "spectrum"
        try:
            text = jcamp.text(self, title)
        except ValueError as e:
            raise OrbValueError(str(e)) from None
        if path is None:
            return text
        with open(path, "w", encoding="ascii", errors="replace") as out:
            out.write(text)
        return None

    def to_pandas(self) -> Any:
        """A pandas DataFrame: column `value`, indexed by `wavelength_nm`,
        the metadata in its `attrs`. Raises OrbError when pandas is not
        installed."""
        return notebook.dataframe(self)

    to_dataframe = to_pandas

    def _repr_html_(self) -> str:
        # A notebook shows a small plot with the peaks and a summary.
        return notebook.html_repr(self)

    @classmethod
    def from_csv(cls, path: Union[str, "os.PathLike[str]"], name: Optional[str] = None) -> "Spectrum":
        """A spectrum from a text file of `wavelength_nm,value` lines: `#`
        comments, blank lines and one header line naming the columns
        allowed; a `# unit: ...` comment (as to_csv writes) sets the unit.
        Raises OrbValueError naming the file (as `name`, when given) and
        the line at fault."""
        label = name or os.fspath(path)
        try:
            with open(path, encoding="utf-8") as f:
                text = f.read()
        except (OSError, UnicodeDecodeError) as e:
            raise OrbValueError(f"{label}: cannot read it: {getattr(e, 'strerror', None) or e}") from None
        nm, values, unit = _parse_csv(text, label)
        return cls(nm, values, unit)

    def __repr__(self) -> str:
        where = f" of {self.sensor_id}" if self.sensor_id else ""
        return (f"<Spectrum{where}: {self.wavelengths.size} samples, {self.wavelengths[0]:g} to "
                f"{self.wavelengths[-1]:g} nm, {self.unit}>")


def _parse_csv(text: str, label: str) -> Tuple[List[float], List[float], str]:
    nm: List[float] = []
    values: List[float] = []
    unit = ""
    header_seen = False
    for number, raw in enumerate(text.splitlines(), start=1):
        line = raw.strip()
        if not line:
            continue
        if line.startswith("#"):
            key, _, value = line[1:].partition(":")
            if key.strip() == "unit":
                try:
                    unit = str(json.loads(value))
                except ValueError:
                    unit = value.strip()
            continue
        parts = [p.strip() for p in line.split(",")]
        try:
            if len(parts) != 2:
                raise ValueError
            w, v = float(parts[0]), float(parts[1])
        except ValueError:
            if not nm and not header_seen and not line[:1].isdigit():
                header_seen = True
                continue
            raise OrbValueError(f"{label}:{number}: not wavelength_nm,value: {raw!r}") from None
        if not (math.isfinite(w) and math.isfinite(v)):
            raise OrbValueError(f"{label}:{number}: not a finite number: {raw!r}")
        if nm and w <= nm[-1]:
            raise OrbValueError(f"{label}:{number}: wavelength {w:g} nm does not follow {nm[-1]:g} nm "
                                "(they must be strictly ascending)")
        nm.append(w)
        values.append(v)
    if len(nm) < 2:
        raise OrbValueError(f"{label}: fewer than 2 lines of wavelength_nm,value")
    return nm, values, unit

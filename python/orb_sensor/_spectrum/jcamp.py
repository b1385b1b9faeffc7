"""A Spectrum as JCAMP-DX 4.24 text, which spectroscopy software reads.

Y values go in as whole numbers times YFACTOR (the form every reader
takes), scaled so that the largest is about 1e9: ten significant digits of
the largest value. An evenly spaced grid (a calibration's, or a step) is
written as ##XYDATA=(X++(Y..Y)), ten or so Y per line after the X of the
first; an uneven one as ##XYPOINTS=(XY..XY), a pair per line. Labels
beginning with $ are this package's own (sensor ID, exposure, calibration),
which readers keep or pass over."""

import datetime
import textwrap
from typing import TYPE_CHECKING, List

import numpy as np

from .. import __version__

if TYPE_CHECKING:
    from ..spectrum import Spectrum

DATA_TYPE = "UV/VIS SPECTRUM"
# The standard's limit on a line of compressed or tabular data.
MAX_LINE = 80
# The largest |Y| after scaling, within a 32-bit integer for old readers.
Y_SCALE = 1e9
# Relative spread of the steps under which a grid counts as even.
EVEN_TOLERANCE = 1e-6


def _number(x: float) -> str:
    return f"{x:.10g}"


def _label_text(text: str) -> str:
    # A value runs to the end of its line, and "##" would start a label.
    return " ".join(str(text).split()).replace("##", "# #")


def _even(nm: np.ndarray) -> bool:
    steps = np.diff(nm)
    return bool(np.all(np.abs(steps - steps.mean()) <= EVEN_TOLERANCE * steps.mean()))


def _xydata(x: np.ndarray, y_int: np.ndarray) -> List[str]:
    lines = []
    i = 0
    while i < y_int.size:
        line = _number(x[i])
        j = i
        while j < y_int.size and len(line) + 1 + len(str(y_int[j])) <= MAX_LINE:
            line += " " + str(y_int[j])
            j += 1
        lines.append(line)
        i = j
    return lines


def header(spectrum: "Spectrum", title: str) -> List[str]:
    labels = [("TITLE", title), ("JCAMP-DX", "4.24"), ("DATA TYPE", DATA_TYPE),
              ("ORIGIN", f"orb_sensor {__version__}" + (f", sensor {spectrum.sensor_id}" if spectrum.sensor_id else "")),
              ("OWNER", "")]
    if spectrum.timestamp > 0:
        when = datetime.datetime.fromtimestamp(spectrum.timestamp, datetime.timezone.utc)
        labels.append(("LONGDATE", when.strftime("%Y/%m/%d %H:%M:%S") + " UTC"))
    if spectrum.sensor_id:
        labels.append(("SPECTROMETER/DATA SYSTEM", f"filter-array spectral sensor {spectrum.sensor_id}, "
                                                   f"orb_sensor {__version__}"))
        labels.append(("$SENSOR ID", spectrum.sensor_id))
    if spectrum.exposure_ms is not None:
        labels.append(("SAMPLING PROCEDURE", f"exposure {spectrum.exposure_ms:g} ms (shutter speed "
                                             f"{spectrum.shutter_speed}), {spectrum.averages} frame(s) averaged"))
        labels += [("$EXPOSURE MS", _number(spectrum.exposure_ms)), ("$SHUTTER SPEED", str(spectrum.shutter_speed))]
    labels += [("$AVERAGES", str(spectrum.averages)), ("$SEQ", str(spectrum.seq)), ("$LOST", str(spectrum.lost)),
               ("$SATURATED FILTERS", " ".join(str(int(f)) for f in spectrum.saturated))]
    if spectrum.calibration is not None:
        labels += [("$CALIBRATION SENSOR ID", spectrum.calibration.sensor_id),
                   ("$CALIBRATION CREATED", spectrum.calibration.created),
                   ("$CAL SHA256", spectrum.calibration.sha256)]
    lines: List[str] = []
    for name, value in labels:
        # A long text value goes on over the lines after its label's.
        lines += textwrap.wrap(f"##{name}={_label_text(value)}", MAX_LINE, break_long_words=False) or [f"##{name}="]
    return lines


def text(spectrum: "Spectrum", title: str) -> str:
    x, y = spectrum.wavelengths, spectrum.values
    if not np.all(np.isfinite(y)):
        raise ValueError("a spectrum with values that are not finite numbers cannot be written as JCAMP-DX")
    top = float(np.max(np.abs(y)))
    yfactor = float(_number(top / Y_SCALE)) if top > 0 else 1.0
    y_int = np.rint(y / yfactor).astype(np.int64)
    lines = header(spectrum, title)
    lines += ["##XUNITS=NANOMETERS", f"##YUNITS={_label_text(spectrum.unit) or 'ARBITRARY UNITS'}",
              "##XFACTOR=1", f"##YFACTOR={_number(yfactor)}", f"##FIRSTX={_number(x[0])}",
              f"##LASTX={_number(x[-1])}", f"##NPOINTS={x.size}", f"##FIRSTY={_number(y_int[0] * yfactor)}",
              f"##MAXY={_number(y_int.max() * yfactor)}", f"##MINY={_number(y_int.min() * yfactor)}"]
    if _even(x):
        lines.append(f"##DELTAX={_number((x[-1] - x[0]) / (x.size - 1))}")
        lines.append("##XYDATA=(X++(Y..Y))")
        lines += _xydata(x, y_int)
    else:
        lines.append("##XYPOINTS=(XY..XY)")
        lines += [f"{_number(xi)}, {yi}" for xi, yi in zip(x.tolist(), y_int.tolist())]
    lines.append("##END=")
    return "\n".join(lines) + "\n"

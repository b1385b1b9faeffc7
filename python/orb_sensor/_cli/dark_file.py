"""A dark frame from a file `orb-sensor acquire` wrote (CSV or --json),
for `spectrum --dark FILE`: its 1024 values and the shutter speed it was
taken at."""

import json
from typing import NamedTuple

import numpy as np

from ..errors import OrbValueError
from ..facts import NUM_FILTERS
from .._recording.text import CSV_COLUMNS

# Where the values start in acquire's CSV row, and where the shutter speed is.
_FIRST_VALUE = CSV_COLUMNS.index("f1")
_SHUTTER = CSV_COLUMNS.index("shutter_speed")


class DarkFile(NamedTuple):
    values: np.ndarray
    shutter_speed: int


def read_dark(path):
    """Raises OrbValueError naming --dark and the file when it is not a
    frame of acquire."""
    def refuse(why):
        return OrbValueError(f"--dark {path}: {why}; write one with `orb-sensor acquire -n 16 "
                             "--shutter N -o dark.csv` with the sensor covered")
    try:
        with open(path, encoding="utf-8") as f:
            text = f.read()
    except (OSError, UnicodeDecodeError) as e:
        raise refuse(f"cannot read it ({getattr(e, 'strerror', None) or e})") from None
    if text.lstrip().startswith("{"):
        try:
            doc = json.loads(text)
            values, shutter = doc["filter_data"], int(doc["shutter_speed"])
        except (ValueError, KeyError, TypeError):
            raise refuse("not the JSON of `orb-sensor acquire --json`") from None
    else:
        rows = [line for line in text.splitlines() if line.strip() and not line.startswith("#")]
        if len(rows) != 2 or rows[0] != ",".join(CSV_COLUMNS):
            raise refuse("not the CSV of one frame of `orb-sensor acquire`")
        fields = rows[1].split(",")
        try:
            values, shutter = [float(v) for v in fields[_FIRST_VALUE:]], int(fields[_SHUTTER])
        except ValueError:
            raise refuse("its row holds something other than numbers") from None
    values = np.asarray(values, dtype=np.float64) if isinstance(values, list) else None
    if values is None or values.shape != (NUM_FILTERS,) or not np.all(np.isfinite(values)):
        raise refuse(f"it does not hold {NUM_FILTERS} filter values")
    return DarkFile(values, shutter)

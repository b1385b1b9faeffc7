"""A frame as one binary WebSocket message: a 4-byte little-endian length,
the metadata as JSON (padded with spaces to a multiple of 4 bytes), then
arrays of little-endian float32, which the page reads as Float32Arrays
without copying.

Filter data ("kind": "filters"): the frame's 1024 values. A spectrum
("kind": "spectrum"): `n` wavelengths (nm), the `n` values drawn, and the
overlay's `n` values when "overlay" names one (NaN where there is none);
`n` is 0 and "problem" says why when there is no spectrum to draw;
"peak_dn" is the frame's highest value."""

import json
import struct

import numpy as np

from .spectra import MODES


def _message(head, *arrays):
    text = json.dumps(head, allow_nan=False).encode()
    text += b" " * (-len(text) % 4)
    return b"".join((struct.pack("<I", len(text)), text, *(np.asarray(a).astype("<f4").tobytes() for a in arrays)))


def frame_message(frame):
    return _message({"kind": "filters", "sensor_id": frame.sensor_id, **frame.metadata()}, frame.values)


def spectrum_message(shown, mode, overlay):
    """`shown` a spectra.Shown; `overlay` (name, values on its wavelengths) or None."""
    frame = shown.frame
    head = {"kind": "spectrum", "sensor_id": frame.sensor_id, **frame.metadata(), "mode": mode,
            "label": MODES[mode][0], "unit": shown.unit, "problem": shown.problem, "colour": shown.colour,
            "peaks": [[float(nm), float(height)] for nm, height in shown.peaks], "n": 0, "overlay": None,
            "peak_dn": float(frame.values.max())}
    if shown.curve is None:
        return _message(head)
    head["n"] = int(shown.spectrum.wavelengths.size)
    arrays = [shown.spectrum.wavelengths, shown.curve]
    if overlay is not None:
        head["overlay"] = overlay[0]
        arrays.append(overlay[1])
    return _message(head, *arrays)

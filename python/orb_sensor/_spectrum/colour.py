"""The colorimetry of a spectrum (liborb_spectrum's orb_colour calls; the
CIE tables are read from colord-data at run time)."""

import ctypes
from typing import Any, Dict, Optional

import numpy as np

from ..errors import SpectrumError
from . import library

_context: Optional[ctypes.c_void_p] = None


def _colour_context() -> ctypes.c_void_p:
    global _context
    if _context is None:
        lib = library.load()
        handle = ctypes.c_void_p()
        message = ctypes.create_string_buffer(1024)
        result = lib.orb_colour_create(ctypes.byref(handle), None, message, len(message))
        if result != library.OK:
            raise SpectrumError(message.value.decode(errors="replace"), code=-result)
        _context = handle
    return _context


def colorimetry(wavelength_nm, value) -> Dict[str, Any]:
    """Every colour quantity of a spectrum (ascending wavelengths covering
    380 to 780 nm, values in any relative unit), as a dict: X, Y, Z, x, y,
    u_prime, v_prime, the 10-degree observer's X10.. y10, cct_k, duv, ra, r
    (R1 to R14), delta_c, ra_meaningful, peak_nm, centroid_nm, dominant_nm,
    purity."""
    lib = library.load()
    nm = np.ascontiguousarray(wavelength_nm, dtype=np.float64)
    values = np.ascontiguousarray(value, dtype=np.float64)
    if nm.shape != values.shape or nm.ndim != 1:
        raise ValueError("wavelengths and values differ in shape")
    result = library.Colorimetry()
    code = lib.orb_colour_compute(_colour_context(), library.doubles(nm), library.doubles(values),
                                  nm.size, ctypes.byref(result))
    if code != library.OK:
        text = (lib.orb_colour_result_text(code) or b"").decode()
        raise SpectrumError(text, code=-code if -31 <= code < 0 else -1)
    out: Dict[str, Any] = {}
    for name, _ in library.Colorimetry._fields_:
        field = getattr(result, name)
        out[name] = list(field) if name == "r" else field
    out["ra_meaningful"] = bool(out["ra_meaningful"])
    return out

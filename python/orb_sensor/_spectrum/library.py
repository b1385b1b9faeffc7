"""Loading liborb_spectrum and declaring its C calls (orb_spectrum.h,
orb_colour.h) for ctypes."""

import ctypes
import ctypes.util
import os

from .._native import declare, open_first
from .._process import library as device_library

LIBRARY_ENV = "ORB_SPECTRUM_LIBRARY"
SONAME = "liborb_spectrum.so.1"

FILTERS = 1024
SPECIAL_INDICES = 14
GRID_CALIBRATION = 0.0
GRID_LIBRARY = -1.0
OK = 1

_dp = ctypes.POINTER(ctypes.c_double)
_ip = ctypes.POINTER(ctypes.c_int)
_vp = ctypes.c_void_p
_cp = ctypes.c_char_p
_i = ctypes.c_int
_d = ctypes.c_double


class CalibrationData(ctypes.Structure):
    _fields_ = [("sensor_id", _cp), ("wavelength_count", _i), ("wavelength_nm", _dp),
                ("response", _dp), ("response_error", _dp), ("noise", _dp),
                ("step_exposure_ms", _dp), ("dark_count", _i), ("dark_exposure_ms", _dp),
                ("dark", _dp), ("adc_gain", _i), ("adc_range", _i), ("adc_resolution", _i),
                ("onboard_average", _i), ("sweep_start_nm", _d), ("sweep_stop_nm", _d),
                ("sweep_step_nm", _d), ("frames_averaged", _i), ("dark_frames", _i),
                ("source", _cp), ("source_power", _cp), ("created", _cp),
                ("software_version", _cp)]


class CalibrationInfo(ctypes.Structure):
    _fields_ = [("sensor_id", ctypes.c_char * 64), ("created", ctypes.c_char * 32),
                ("software_version", ctypes.c_char * 32), ("layout_version", _i),
                ("wavelength_count", _i), ("first_nm", _d), ("last_nm", _d),
                ("sweep_step_nm", _d), ("frames_averaged", _i), ("dark_frames", _i),
                ("unusable_filters", _i)]


class Options(ctypes.Structure):
    _fields_ = [("strength", _d), ("averages", _i)]


class Line(ctypes.Structure):
    _fields_ = [("wavelength_nm", _d), ("power", _d)]


class Peak(ctypes.Structure):
    _fields_ = [("wavelength_nm", _d), ("height", _d), ("fwhm_nm", _d), ("prominence", _d)]


class Colorimetry(ctypes.Structure):
    _fields_ = [("X", _d), ("Y", _d), ("Z", _d), ("x", _d), ("y", _d),
                ("u_prime", _d), ("v_prime", _d),
                ("X10", _d), ("Y10", _d), ("Z10", _d), ("x10", _d), ("y10", _d),
                ("cct_k", _d), ("duv", _d), ("ra", _d), ("r", _d * SPECIAL_INDICES),
                ("delta_c", _d), ("ra_meaningful", _i), ("peak_nm", _d), ("centroid_nm", _d),
                ("dominant_nm", _d), ("purity", _d)]


_PROTOTYPES = {
    "orb_calibration_file_name": (_i, [_cp, _cp, _i]),
    "orb_calibration_find": (_i, [_cp, _cp, _i, _cp, _i]),
    "orb_calibration_load": (_i, [ctypes.POINTER(_vp), _cp, _cp, _cp, _i]),
    "orb_calibration_destroy": (None, [_vp]),
    "orb_calibration_get_info": (_i, [_vp, ctypes.POINTER(CalibrationInfo)]),
    "orb_calibration_unusable_filters": (_i, [_vp, _ip]),
    "orb_calibration_write": (_i, [_cp, ctypes.POINTER(CalibrationData), _cp, _i]),
    "orb_spectrum_create": (_i, [ctypes.POINTER(_vp), _vp, _d, ctypes.POINTER(Options), _cp, _i]),
    "orb_spectrum_destroy": (None, [_vp]),
    "orb_spectrum_size": (_i, [_vp]),
    "orb_spectrum_wavelengths": (_i, [_vp, _dp]),
    "orb_spectrum_get_strength": (_i, [_vp, _dp, _ip]),
    "orb_spectrum_apply": (_i, [_vp, _dp, _dp, _d, _dp]),
    "orb_spectrum_refine": (_i, [_vp, _dp, _dp, _d, _dp, ctypes.POINTER(Line), _i, _ip]),
    "orb_spectrum_peaks": (_i, [_dp, _dp, _i, _d, ctypes.POINTER(Peak), _i, _ip]),
    "orb_spectrum_line_peaks": (_i, [_vp, _dp, _d, ctypes.POINTER(Peak), _i, _ip]),
    "orb_spectrum_result_text": (_cp, [_i]),
    "orb_colour_create": (_i, [ctypes.POINTER(_vp), _cp, _cp, _i]),
    "orb_colour_destroy": (None, [_vp]),
    "orb_colour_compute": (_i, [_vp, _dp, _dp, _i, ctypes.POINTER(Colorimetry)]),
    "orb_colour_cct": (_i, [_vp, _d, _d, _dp, _dp]),
    "orb_colour_result_text": (_cp, [_i]),
}

_lib = None


def candidates():
    """Where the library is looked for, in order: the variable, beside the
    sensor library the package uses, under the installed package's prefix,
    then the loader's own search."""
    env = os.environ.get(LIBRARY_ENV)
    if env:
        return [env]
    found = []
    device = os.environ.get(device_library.LIBRARY_ENV)
    if device and os.sep in device:
        found.append(os.path.join(os.path.dirname(device), SONAME))
    here = os.path.dirname(os.path.abspath(__file__))
    found.append(os.path.normpath(os.path.join(here, "..", "..", "..", "..", SONAME)))
    found.append(ctypes.util.find_library("orb_spectrum") or SONAME)
    return found


def load():
    """The loaded library, its calls declared."""
    global _lib
    if _lib is not None:
        return _lib
    lib = open_first(candidates(), "spectrum", LIBRARY_ENV)
    declare(lib, _PROTOTYPES)
    _lib = lib
    return lib


def doubles(array):
    """A pointer to a C-contiguous float64 numpy array's data."""
    return array.ctypes.data_as(_dp)

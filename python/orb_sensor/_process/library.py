"""Loading liborb_device and declaring the du... entry points for ctypes.

The library is loaded on first use, not at import: a program that re-executes
itself under the sensor emulator must not have libusb started before that.
"""

import ctypes
import ctypes.util
import os

from .._native import declare, open_first

LIBRARY_ENV = "ORB_DEVICE_LIBRARY"
SONAME = "liborb_device.so.1"
BASE_SONAME = "libVarnelBase.so.1"

_c_int_p = ctypes.POINTER(ctypes.c_int)
_c_double_p = ctypes.POINTER(ctypes.c_double)

_PROTOTYPES = {
    "duConnect": (ctypes.c_int, []),
    "duDisconnect": (ctypes.c_int, []),
    # A plain pointer, not c_char_p, so that the host can free what it gets.
    "duGetSensorList": (ctypes.POINTER(ctypes.c_void_p), []),
    "duGetMaxSensorCount": (ctypes.c_int, []),
    "duActivateSensorWithIndex": (ctypes.c_int, [ctypes.c_int]),
    "duActivateSensorWithID": (ctypes.c_int, [ctypes.c_char_p]),
    "duGetTotalSensors": (ctypes.c_int, []),
    "duGetSensorID": (ctypes.c_int, [ctypes.c_char_p]),
    "duGetShutterSpeed": (ctypes.c_int, []),
    "duGetShutterSpeedLimits": (ctypes.c_int, [_c_int_p, _c_int_p]),
    "duShutterSpeedToExposureTime": (ctypes.c_int, [ctypes.c_int, ctypes.c_int, _c_double_p]),
    "duExposureTimeToShutterSpeed": (ctypes.c_int, [ctypes.c_int, ctypes.c_double, _c_int_p]),
    "duSetShutterSpeed": (ctypes.c_int, [ctypes.c_int]),
    "duGetOptimalShutterSpeed": (ctypes.c_int, [_c_int_p, ctypes.c_int]),
    "duGetOptimalShutterSpeed2": (ctypes.c_int, [_c_int_p, ctypes.c_int, ctypes.c_int]),
    "duGetFilterData": (ctypes.c_int, [_c_double_p, ctypes.c_int]),
    "duSetSensorParameters": (ctypes.c_int, [ctypes.c_int, ctypes.c_int]),
    "duGetSensorParameters": (ctypes.c_int, [_c_int_p, _c_int_p]),
}

_c_void_p = ctypes.c_void_p

# The streaming and bounded calls (orb_stream.h). Frames and settings are
# passed as raw buffers: stream_abi knows their layout.
_STREAM_PROTOTYPES = {
    "orb_stream_start": (ctypes.c_int, [ctypes.c_int, ctypes.c_int, ctypes.c_int]),
    "orb_stream_read": (ctypes.c_int, [ctypes.c_int, _c_void_p, ctypes.c_int]),
    "orb_stream_stop": (ctypes.c_int, [ctypes.c_int, ctypes.c_int]),
    "orb_stream_get_stats": (ctypes.c_int, [ctypes.c_int, _c_void_p]),
    "orb_stream_get_settings": (ctypes.c_int, [ctypes.c_int, _c_void_p, ctypes.c_int]),
    "orb_stream_set_shutter_speed": (ctypes.c_int, [ctypes.c_int, ctypes.c_int, ctypes.c_int]),
    "orb_stream_set_adc": (ctypes.c_int, [ctypes.c_int] * 5),
    "orb_single_shot": (ctypes.c_int, [ctypes.c_int, _c_double_p, ctypes.c_int, ctypes.c_int]),
    "orb_sensor_present": (ctypes.c_int, [ctypes.c_int]),
    "orb_frame_activity_get": (ctypes.c_int, [ctypes.c_int, _c_void_p]),
    "orb_stream_result_text": (ctypes.c_char_p, [ctypes.c_int]),
    "orb_stream_auto_expose": (ctypes.c_int, [ctypes.c_int, _c_int_p, ctypes.c_int, ctypes.c_int, ctypes.c_int,
                                              ctypes.c_int, _c_void_p]),
    "orb_exposure_outcome_text": (ctypes.c_char_p, [ctypes.c_int]),
}
_PROTOTYPES.update(_STREAM_PROTOTYPES)

# The LED driver calls have C++ linkage: they are reached by their (stable,
# Itanium ABI) mangled names.
_LED_PROTOTYPES = {
    "connect_LED_device": ("_Z18connect_LED_devicev", ctypes.c_int, []),
    "is_led_driver_open": ("_Z18is_led_driver_openv", ctypes.c_int, []),
    "is_led_driver_close": ("_Z19is_led_driver_closev", ctypes.c_int, []),
    "set_state_to_led_device": ("_Z23set_state_to_led_devicePbii", ctypes.c_int,
                                [ctypes.POINTER(ctypes.c_bool), ctypes.c_int, ctypes.c_int]),
}

_lib = None
_libc = None


def candidates():
    """Where the library is looked for, in order."""
    env = os.environ.get(LIBRARY_ENV)
    if env:
        return [env]
    # An installed package sits in <prefix>/lib/python3/dist-packages/orb_sensor
    # (this module in its _process), the library in <prefix>/lib.
    here = os.path.dirname(os.path.abspath(__file__))
    beside_prefix = os.path.normpath(os.path.join(here, "..", "..", "..", "..", SONAME))
    found = ctypes.util.find_library("orb_device")
    return [p for p in (beside_prefix, found, SONAME) if p]


def _load_base_beside(path):
    """An installed tree under a prefix the loader does not search keeps the
    base library the sensor library needs in the same directory."""
    base = os.path.join(os.path.dirname(path), BASE_SONAME)
    if os.sep in path and os.path.exists(base):
        ctypes.CDLL(base, mode=ctypes.RTLD_GLOBAL)


def load():
    """The loaded library, its entry points declared."""
    global _lib
    if _lib is not None:
        return _lib
    lib = open_first(candidates(), "sensor", LIBRARY_ENV, _load_base_beside)
    declare(lib, _PROTOTYPES)
    for name, (symbol, restype, argtypes) in _LED_PROTOTYPES.items():
        fn = getattr(lib, symbol)
        fn.restype = restype
        fn.argtypes = argtypes
        setattr(lib, name, fn)
    _lib = lib
    return lib


def free(pointer):
    """Releases memory the library allocated with malloc."""
    global _libc
    if _libc is None:
        _libc = ctypes.CDLL(ctypes.util.find_library("c"))
        _libc.free.argtypes = [ctypes.c_void_p]
        _libc.free.restype = None
    _libc.free(pointer)

"""What orb_stream.h defines, for Python: the result codes of the stream
calls, and the settings, frame, counter and activity records as numpy dtypes. Defined
here only; tests/test_stream_abi.py holds them against the header."""

import enum

import numpy as np

from ..facts import MAX_VALUE, NUM_FILTERS


class StreamResult(enum.IntEnum):
    """enum orb_stream_result."""

    OK = 1
    ERR_TIMEOUT = -101
    ERR_LOST = -102
    ERR_ENDED = -103
    ERR_NOT_CONNECTED = -104
    ERR_INVALID = -105
    ERR_BUSY = -106
    ERR_NOT_STREAMING = -107
    ERR_USB = -108
    ERR_VERIFY = -109
    ERR_NO_MEMORY = -110
    ERR_UNSUPPORTED = -111
    ERR_SHORT_FRAME = -112
    ERR_STALLED = -113


class ExposureOutcome(enum.IntEnum):
    """enum orb_exposure_outcome."""

    ON_TARGET = 0
    TOO_DIM = 1
    TOO_BRIGHT = 2
    LIGHT_CHANGED = 3


# ORB_STREAM_FILTERS and ORB_STREAM_SATURATED are the package's own facts.
STREAM_FILTERS = NUM_FILTERS
STREAM_SATURATED = MAX_VALUE
STREAM_MAX_RING = 1048576
# ORB_EXPOSURE_...: the auto-exposure's default target, tolerance (percent
# of the target), round bound and a read's bound (ms).
EXPOSURE_DEFAULT_TARGET = 3276
EXPOSURE_DEFAULT_TOLERANCE_PERCENT = 8
EXPOSURE_MAX_ROUNDS = 6
EXPOSURE_READ_BOUND_MS = 3000

SETTINGS_DTYPE = np.dtype([("shutter_speed", "<i4"), ("blank_time", "<i4"), ("adc_range", "<i4"),
                           ("adc_gain", "<i4"), ("adc_resolution", "<i4"), ("onboard_average", "<i4")],
                          align=True)
FRAME_DTYPE = np.dtype([("sequence", "<u8"), ("timestamp_ns", "<u8"), ("lost_before", "<u4"),
                        ("stale_before", "<u4"), ("settings", SETTINGS_DTYPE), ("saturated", "<i4"),
                        ("values", "<u2", (STREAM_FILTERS,)), ("missed_before", "<u4")], align=True)
STATS_DTYPE = np.dtype([("completed", "<u8"), ("delivered", "<u8"), ("lost", "<u8"),
                        ("short_frames", "<u8"), ("stale", "<u8"), ("queued", "<u4"),
                        ("capacity", "<u4"), ("max_queued", "<u4"), ("missed", "<u4")], align=True)
ACTIVITY_DTYPE = np.dtype([("completed", "<u8"), ("short_frames", "<u8"), ("dropped_short", "<u8"),
                           ("idle_ms", "<u4"), ("patience_ms", "<u4")], align=True)
EXPOSURE_RESULT_DTYPE = np.dtype([(name, "<i4") for name in ("outcome", "shutter_speed", "level", "target",
                                                              "tolerance", "rounds", "frames", "elapsed_ms")],
                                  align=True)

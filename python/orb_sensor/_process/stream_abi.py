"""What orb_stream.h defines, for Python: the result codes of the stream
calls, and the settings, frame and counter records as numpy dtypes. Defined
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


# ORB_STREAM_FILTERS and ORB_STREAM_SATURATED are the package's own facts.
STREAM_FILTERS = NUM_FILTERS
STREAM_SATURATED = MAX_VALUE
STREAM_MAX_RING = 1048576

SETTINGS_DTYPE = np.dtype([("shutter_speed", "<i4"), ("blank_time", "<i4"), ("adc_range", "<i4"),
                           ("adc_gain", "<i4"), ("adc_resolution", "<i4"), ("onboard_average", "<i4")],
                          align=True)
FRAME_DTYPE = np.dtype([("sequence", "<u8"), ("timestamp_ns", "<u8"), ("lost_before", "<u4"),
                        ("stale_before", "<u4"), ("settings", SETTINGS_DTYPE), ("saturated", "<i4"),
                        ("values", "<u2", (STREAM_FILTERS,)), ("missed_before", "<u4")], align=True)
STATS_DTYPE = np.dtype([("completed", "<u8"), ("delivered", "<u8"), ("lost", "<u8"),
                        ("short_frames", "<u8"), ("stale", "<u8"), ("queued", "<u4"),
                        ("capacity", "<u4"), ("max_queued", "<u4"), ("missed", "<u4")], align=True)

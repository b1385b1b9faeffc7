"""The layouts the worker and this process exchange: the library's frame,
settings and stream counters as numpy dtypes (orb_stream.h), and the
length-prefixed messages on the worker's socket."""

import pickle
import struct

import numpy as np

from .frame import NUM_FILTERS

SETTINGS_DTYPE = np.dtype([("shutter_speed", "<i4"), ("blank_time", "<i4"), ("adc_range", "<i4"),
                           ("adc_gain", "<i4"), ("adc_resolution", "<i4"), ("onboard_average", "<i4")],
                          align=True)
FRAME_DTYPE = np.dtype([("sequence", "<u8"), ("timestamp_ns", "<u8"), ("lost_before", "<u4"),
                        ("stale_before", "<u4"), ("settings", SETTINGS_DTYPE), ("saturated", "<i4"),
                        ("values", "<u2", (NUM_FILTERS,))], align=True)
STATS_DTYPE = np.dtype([("completed", "<u8"), ("delivered", "<u8"), ("lost", "<u8"),
                        ("short_frames", "<u8"), ("stale", "<u8"), ("queued", "<u4"),
                        ("capacity", "<u4"), ("max_queued", "<u4")], align=True)

_HEADER = struct.Struct("<I")


def send(sock, message):
    """One message: a pickle behind its length. Blocks wrapped in
    pickle.PickleBuffer travel beside the pickle, not copied into it."""
    buffers = []
    body = pickle.dumps(message, protocol=5, buffer_callback=buffers.append)
    parts = [body] + [b.raw() for b in buffers]
    head = struct.pack(f"<I{len(parts)}I", len(parts), *(len(p) for p in parts))
    sock.sendall(_HEADER.pack(len(head)) + head + b"".join(parts))


def _exactly(sock, n):
    data = bytearray(n)
    view = memoryview(data)
    got = 0
    while got < n:
        k = sock.recv_into(view[got:], n - got)
        if k == 0:
            raise EOFError("the other end closed")
        got += k
    return data


def receive(sock):
    """The next message, or EOFError when the other end has gone."""
    (head_len,) = _HEADER.unpack(_exactly(sock, _HEADER.size))
    head = _exactly(sock, head_len)
    (count,) = struct.unpack_from("<I", head)
    sizes = struct.unpack_from(f"<{count}I", head, 4)
    body = _exactly(sock, sum(sizes))
    view = memoryview(body)
    parts, at = [], 0
    for size in sizes:
        parts.append(view[at:at + size])
        at += size
    return pickle.loads(parts[0], buffers=parts[1:])

"""A frame as one binary WebSocket message: a 4-byte little-endian length,
the frame's metadata as JSON (padded with spaces to a multiple of 4 bytes),
then its 1024 values as little-endian float32, which the page reads as a
Float32Array without copying."""

import json
import struct


def frame_message(frame):
    head = json.dumps({"sensor_id": frame.sensor_id, **frame.metadata()}).encode()
    head += b" " * (-len(head) % 4)
    return b"".join((struct.pack("<I", len(head)), head, frame.values.astype("<f4").tobytes()))

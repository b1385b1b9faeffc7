"""The length-prefixed messages on the worker's socket: a pickle, with
blocks of frame records (stream_abi.FRAME_DTYPE) travelling beside it
rather than inside it."""

import pickle
import socket
import struct
from typing import Any, List

_HEADER = struct.Struct("<I")


def send(sock: socket.socket, message: Any) -> None:
    """One message: a pickle behind its length. Blocks wrapped in
    pickle.PickleBuffer go out as they are, beside the pickle: the parts are
    handed to the socket together, never joined into a new buffer."""
    buffers: List[pickle.PickleBuffer] = []
    body = pickle.dumps(message, protocol=5, buffer_callback=buffers.append)
    parts = [memoryview(body)] + [b.raw() for b in buffers]
    head = struct.pack(f"<I{len(parts)}I", len(parts), *(p.nbytes for p in parts))
    _send_parts(sock, [memoryview(_HEADER.pack(len(head)) + head)] + parts)


def _send_parts(sock: socket.socket, parts: List[memoryview]) -> None:
    # sendmsg may take part of what it is given (a signal, a full buffer):
    # the rest goes on from where it stopped.
    while parts:
        sent = sock.sendmsg(parts)
        while parts and sent >= parts[0].nbytes:
            sent -= parts[0].nbytes
            parts.pop(0)
        if parts and sent:
            parts[0] = parts[0][sent:]


def _exactly(sock: socket.socket, n: int) -> bytearray:
    data = bytearray(n)
    view = memoryview(data)
    got = 0
    while got < n:
        k = sock.recv_into(view[got:], n - got)
        if k == 0:
            raise EOFError("the other end closed")
        got += k
    return data


def receive(sock: socket.socket) -> Any:
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

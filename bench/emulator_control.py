"""The launcher's control socket, as the Python benchmarks use it."""

import os
import socket


def bench(command):
    """One command to the launcher's bench, as `orb-emulate ctl` sends it;
    its answer's lines."""
    with socket.socket(socket.AF_UNIX) as c:
        c.connect(os.environ["ORB_EMULATE_CONTROL"])
        c.sendall(command.encode() + b"\n")
        answer = ""
        while True:
            chunk = c.recv(4096)
            if not chunk:
                break
            answer += chunk.decode()
            last = answer.rstrip("\n").rsplit("\n", 1)[-1]
            if answer.endswith("\n") and (last == "ok" or last.startswith("error:")):
                break
    lines = answer.splitlines()
    if not lines or lines[-1] != "ok":
        raise RuntimeError(f"bench: {command}: {answer.strip() or 'no answer'}")
    return lines

"""The emulator's control channel: the socket orb-emulate names in
$ORB_EMULATE_CONTROL for the command it runs. Under the emulator the tool
drives the light through it where a person or a lab's source would act:
the monochromator of a calibration sweep, the cap over the sensor for a
dark frame. It only sends commands: the emulator's model stays its own."""

import os
import socket
from typing import Optional

from .errors import OrbError

CONTROL_ENV = "ORB_EMULATE_CONTROL"
# The emulator answers a command within milliseconds; this is for a busy machine.
ANSWER_TIMEOUT_S = 10.0


class ControlError(OrbError):
    """The emulator's control channel did not answer, or refused a command."""


def control_path() -> Optional[str]:
    """The emulator's control socket, when this runs under orb-emulate."""
    return os.environ.get(CONTROL_ENV) or None


class Channel:
    """One connection to the control socket at `path`, for any number of
    commands."""

    def __init__(self, path: str) -> None:
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(ANSWER_TIMEOUT_S)
        try:
            self._socket.connect(path)
        except OSError as e:
            self._socket.close()
            raise ControlError(f"the emulator's control channel {path} does not answer: {e.strerror or e}") from None
        self._pending = b""

    def command(self, line: str) -> None:
        """Sends one command and waits for its "ok"; an "error:" answer is
        a ControlError that says why."""
        try:
            self._socket.sendall(line.encode() + b"\n")
            while True:
                while b"\n" not in self._pending:
                    chunk = self._socket.recv(4096)
                    if not chunk:
                        raise ControlError(f"the emulator closed its control channel during '{line}'")
                    self._pending += chunk
                text, self._pending = self._pending.split(b"\n", 1)
                word = text.decode(errors="replace")
                if word == "ok":
                    return
                if word.startswith("error:"):
                    raise ControlError(f"the emulator refused '{line}': {word[6:].strip()}")
        except OSError as e:
            raise ControlError(f"the emulator's control channel failed during '{line}': {e.strerror or e}") from None

    def close(self) -> None:
        self._socket.close()

    def __enter__(self) -> "Channel":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

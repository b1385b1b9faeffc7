"""Checked calls into liborb_spectrum: a result other than OK becomes the
package's exception, with the library's own message."""

import ctypes
from typing import Callable, Type

from ..errors import CalibrationError, OrbError, SpectrumError
from . import library

MESSAGE_SIZE = 1024

# Results that concern the calibration file rather than the data.
_CALIBRATION_RESULTS = {-12, -15, -302, -303, -304, -306}


def error_for(result: int, message: str = "") -> OrbError:
    lib = library.load()
    text = message or (lib.orb_spectrum_result_text(result) or b"").decode()
    kind: Type[OrbError] = CalibrationError if result in _CALIBRATION_RESULTS else SpectrumError
    # Results down to -31 are minus a library status code; the rest have none.
    return kind(text, code=-result if -31 <= result < 0 else -1)


def with_message(call: Callable[..., int], *args) -> None:
    """Calls a function whose last two parameters are a message buffer."""
    buffer = ctypes.create_string_buffer(MESSAGE_SIZE)
    result = call(*args, buffer, MESSAGE_SIZE)
    if result != library.OK:
        raise error_for(result, buffer.value.decode(errors="replace"))


def checked(result: int) -> None:
    if result != library.OK:
        raise error_for(result)

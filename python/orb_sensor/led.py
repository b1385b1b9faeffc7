"""The USB LED light module, through the library's LED driver.

The driver is the first device with the sensor's USB IDs (0483:5740): the
module is not told apart from a sensor, so with a sensor enumerated first it
is the sensor that receives the request. One request sets every channel:
channel bits in the low byte of the state word, intensity from bit 8 up.
"""

from typing import Any, Iterable, Optional

from . import checks
from ._process import supervisor
from .errors import OrbError, OrbTypeError

CONTROL_TIMEOUT_S = 5.0

# Eight channel bits in the state word; a ninth channel would land on the
# intensity's lowest bit, so the package refuses it rather than send it.
MAX_CHANNELS = 8
MAX_INTENSITY = 255

# The maker's names of the channels by position, as the module header lists them.
CHANNEL_LABELS = ("468 nm", "529 nm", "572 nm", "610 nm", "640 nm", "740 nm",
                  "940 nm", "574 nm", "15000K", "6600K", "430 nm", "850 nm")


def state_word(channels: Iterable[int], intensity: int) -> int:
    """The 16-bit value the module receives for these channels on (checked
    by the caller: 0 to MAX_CHANNELS - 1, intensity 0 to MAX_INTENSITY)."""
    bits = 0
    for ch in channels:
        bits |= 1 << ch
    return bits | intensity << 8


class NoLedModuleError(LookupError):
    def __init__(self, text: str = "no LED module found (or it could not be opened)") -> None:
        super().__init__(text)


class LedModule:
    """The LED module, driven from a worker process of its own.

        with LedModule() as led:
            led.set(channels=[0, 2], intensity=100)

    Closing the library's LED driver ends libusb's default context, which
    sensors in the same process share: so the driver never runs in the
    sensors' worker. The module is opened by the first set().
    """

    def __init__(self, timeout: float = CONTROL_TIMEOUT_S) -> None:
        self._timeout = checks.timeout(timeout)
        self._worker: Optional[supervisor.WorkerProcess] = None

    def set(self, channels: Iterable[int] = (), intensity: int = 0) -> int:
        """Switches the given channels on and every other one off. Returns
        the state word sent."""
        if isinstance(channels, (str, bytes)):
            raise OrbTypeError(f"channels must be channel numbers, not text {channels!r}")
        on = sorted({checks.integer("LED channel", ch, 0, MAX_CHANNELS - 1) for ch in channels})
        intensity = checks.integer("LED intensity", intensity, 0, MAX_INTENSITY)
        word = state_word(on, intensity)
        count = on[-1] + 1 if on else 0
        if self._worker is None or not self._worker.alive:
            self._worker = supervisor.WorkerProcess()
        pending = self._worker.send(None, "led", ([ch in on for ch in range(count)], intensity))
        try:
            supervisor.Supervisor.wait(self._worker, pending, self._timeout, what="setting the LED module")
        except OrbError as e:
            raise NoLedModuleError(str(e)) from None
        return word

    def off(self) -> int:
        return self.set((), 0)

    def close(self) -> None:
        if self._worker is not None:
            self._worker.end(("restart", "the LED module was closed"))
            self._worker = None

    def __enter__(self) -> "LedModule":
        return self

    def __exit__(self, *_: Any) -> None:
        self.close()

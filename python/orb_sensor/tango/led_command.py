"""SetLed's argument and the one LED module of the server: the library's
LED driver runs in a process of its own (orb_sensor.led), shared by every
device, one request at a time."""

import threading

from ..errors import OrbValueError
from ..led import LedModule

# Starting the LED's process and opening the module take most of this
# on the first call.
LED_TIMEOUT_S = 2.5
USAGE = ("SetLed takes the channels to switch on (0 to 7) and the intensity (0 to 255) last: "
         "[0, 2, 100] switches channels 0 and 2 on at 100 and the others off; [0] switches all off")

_module = None
_lock = threading.Lock()


def set_led(values):
    """Sends the state; returns the 16-bit word the module received."""
    global _module
    values = [int(v) for v in values]
    if not values:
        raise OrbValueError(USAGE)
    *channels, intensity = values
    with _lock:
        if _module is None:
            _module = LedModule(timeout=LED_TIMEOUT_S)
        try:
            return _module.set(channels, intensity)
        except ValueError as e:
            raise OrbValueError(f"{e} ({USAGE})") from None

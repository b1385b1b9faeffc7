"""The USB LED light module, through the library's LED driver.

The driver is the first device with the sensor's USB IDs (0483:5740): the
module is not told apart from a sensor, so with a sensor enumerated first it
is the sensor that receives the request. One request sets every channel:
channel bits in the low byte of the state word, intensity from bit 8 up.
"""

import ctypes

from . import library

# Eight channel bits in the state word; a ninth channel would land on the
# intensity's lowest bit, so the package refuses it rather than send it.
MAX_CHANNELS = 8
MAX_INTENSITY = 255

# The maker's names of the channels by position, as the module header lists them.
CHANNEL_LABELS = ("468 nm", "529 nm", "572 nm", "610 nm", "640 nm", "740 nm",
                  "940 nm", "574 nm", "15000K", "6600K", "430 nm", "850 nm")


def state_word(channels, intensity):
    """The 16-bit value the module receives for these channels on."""
    for ch in channels:
        if not 0 <= ch < MAX_CHANNELS:
            raise ValueError(f"LED channel {ch} is outside 0..{MAX_CHANNELS - 1}")
    if not 0 <= intensity <= MAX_INTENSITY:
        raise ValueError(f"LED intensity {intensity} is outside 0..{MAX_INTENSITY}")
    bits = 0
    for ch in channels:
        bits |= 1 << ch
    return bits | intensity << 8


class NoLedModuleError(LookupError):
    def __init__(self):
        super().__init__("no LED module found (or it could not be opened)")


class LedModule:
    """The LED driver, open for the life of the object.

        with LedModule() as led:
            led.set(channels=[0, 2], intensity=100)

    Closing the driver also ends libusb's default context, which sensors
    opened in the same process share: use it in a process of its own, or
    after the sensors are done.
    """

    def __init__(self):
        self._lib = library.load()
        if self._lib.connect_LED_device() != 1:
            raise NoLedModuleError()

    def set(self, channels=(), intensity=0):
        """Switches the given channels on and every other one off. Returns
        the state word sent."""
        channels = sorted(set(channels))
        word = state_word(channels, intensity)
        count = channels[-1] + 1 if channels else 0
        on = (ctypes.c_bool * max(count, 1))(*[ch in channels for ch in range(count)])
        if self._lib.set_state_to_led_device(on, count, intensity) != 1:
            raise NoLedModuleError()
        return word

    def off(self):
        return self.set((), 0)

    def close(self):
        if self._lib is not None:
            self._lib.is_led_driver_close()
            self._lib = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

"""The LED module's controls on the page, when the bus has one."""

from ..facts import LED_MODULE_ID
from ..led import CHANNEL_LABELS, MAX_CHANNELS, LedModule, NoLedModuleError


class Lights:
    def __init__(self):
        self._module = LedModule()
        self.channels, self.intensity = [], 0

    @classmethod
    def find(cls, ids):
        """The module's controls, found by switching it off; None without
        one. Only a bus with a device that is no sensor is tried: the
        library's LED driver takes the first device with the sensor's USB
        IDs, so a sensor alone would take the request and pass for one."""
        if LED_MODULE_ID not in ids:
            return None
        lights = cls()
        try:
            lights.set([], 0)
        except NoLedModuleError:
            lights.close()
            return None
        return lights

    def set(self, channels, intensity):
        """Raises OrbValueError or OrbTypeError, before anything is sent,
        for a channel or an intensity the module cannot take."""
        self._module.set(channels, intensity)
        self.channels, self.intensity = sorted(set(channels)), intensity

    def status(self):
        return {"channels": self.channels, "intensity": self.intensity,
                "labels": list(CHANNEL_LABELS[:MAX_CHANNELS])}

    def close(self):
        self._module.close()

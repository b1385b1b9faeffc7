"""The sensors as Tango devices: the device class OrbSensor and the
server orb-tango (server.main). Built on the package, so the library runs
in the supervised worker process and a sensor that leaves never blocks a
Tango call."""

from .device import OrbSensor
from .server import main

__all__ = ["OrbSensor", "main"]

"""orb-tango INSTANCE: the Tango device server of the spectral sensors
attached to this host, one OrbSensor device per sensor (docs/remote.md
says how to register them)."""

import logging
import sys

import tango
from tango.server import run

from .device import OrbSensor

USAGE = """usage: orb-tango INSTANCE [Tango options, e.g. -v4, -nodb -dlist a/b/c -port N]

Serves the OrbSensor devices that the Tango database lists for the server
orb-tango/INSTANCE; each device's property SensorID (or SensorIndex) says
which sensor it is. Register them first:
  tango_admin --add-server orb-tango/INSTANCE OrbSensor lab/orb/1
  tango_admin --add-property lab/orb/1 SensorID C1234-7-20-33-1
"""


def main(argv=None):
    argv = list(sys.argv if argv is None else argv)
    if len(argv) < 2 or argv[1] in ("-h", "--help"):
        sys.stderr.write(USAGE)
        return 0 if len(argv) > 1 else 2
    logging.basicConfig(level=logging.WARNING, format="orb-tango: %(name)s: %(message)s")
    try:
        run((OrbSensor,), args=argv, raises=True)
    except tango.DevFailed as e:
        sys.stderr.write(f"orb-tango: {e.args[0].desc.strip()}\n")
        return 1
    except KeyboardInterrupt:
        return 130
    return 0

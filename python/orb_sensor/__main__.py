"""python3 -m orb_sensor: the orb-sensor tool."""

import sys

from .cli import main

sys.exit(main())

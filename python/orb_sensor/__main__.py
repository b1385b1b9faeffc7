"""python3 -m orb_sensor: the orb-sensor tool."""

import sys

from ._cli.main import main

sys.exit(main())

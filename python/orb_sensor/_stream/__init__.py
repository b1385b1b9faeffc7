"""Numbering, grouping and loss counting of a stream's frames, apart from
any sensor (orb_sensor.Stream drives it). Private."""

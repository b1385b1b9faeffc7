"""The orb-sensor command line: arguments, commands, progress, plots,
doctor and --emulate. Private: run it as orb-sensor or python3 -m orb_sensor."""

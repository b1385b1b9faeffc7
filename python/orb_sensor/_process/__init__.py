"""The process machinery: the worker process that owns the library, its
supervisor, the socket between them and the sensors' USB device nodes.
Private: the public face is orb_sensor.Sensor."""

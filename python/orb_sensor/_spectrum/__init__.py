"""The spectrum library (liborb_spectrum) in the user's own process: the
calibration files, the reconstruction operator and the colorimetry. It needs
no sensor, so it is loaded here and not in the worker."""

"""Python access to the spectral sensor.

    from orb_sensor import Sensor
    print(Sensor.list())
    with Sensor(index=0) as s:
        s.exposure_ms = 20
        frame = s.read(averages=10)      # a Frame: values, saturated, settings
        for frame in s.stream(seconds=5):
            print(frame.seq, frame.values.max())
        s.dark()                         # covered, at the exposure of the spectra to come
        spectrum = s.spectrum(averages=16)   # with the unit's calibration
        print(spectrum.peaks(), spectrum.colour().cct_k)
        for spectrum in s.stream(spectra=True, seconds=5):
            print(spectrum.seq, spectrum.peaks()[0].wavelength_nm)

This module is the package's public face: Sensor, Stream (what
Sensor.stream() returns; SpectrumStream with spectra=True), Frame, Spectrum
(what Sensor.spectrum() returns),
Colour and colorimetry() (the colour of any spectrum), LedModule, the
exceptions and the sensor's facts (orb_sensor.facts). The library runs in a worker process that the
package supervises (the private orb_sensor._process): calls are bounded,
and a Sensor works again after its sensor is replugged. The command line
(_cli) and the recordings (_recording) are private too; orb_sensor.view
and orb_sensor.tango are front ends built on this face alone.
"""

__version__ = "1.0.0"

from .colour import Colour, colorimetry  # noqa: E402
from .errors import (ERROR_CODE_NAMES, CalibrationError, NoSensorError, OrbError, OrbTypeError,  # noqa: E402
                     OrbValueError, SensorLostError, SensorRefusedError, SensorStalledError,
                     SensorTimeoutError, SpectrumError)
from .facts import DEFAULT_MASTER_CLOCK_MHZ, MAX_VALUE, NUM_FILTERS  # noqa: E402
from .frame import Frame  # noqa: E402
from .led import LedModule, NoLedModuleError  # noqa: E402
from .sensor import Sensor  # noqa: E402
from .spectrum import CalibrationSource, Spectrum  # noqa: E402
from .spectrum_stream import SpectrumStream  # noqa: E402
from .stream import Stream  # noqa: E402

__all__ = ["Sensor", "Stream", "SpectrumStream", "Frame", "Spectrum", "CalibrationSource", "Colour", "colorimetry",
           "CalibrationError", "SpectrumError", "OrbError", "NoSensorError", "SensorLostError", "SensorTimeoutError",
           "SensorStalledError", "SensorRefusedError",
           "OrbValueError", "OrbTypeError", "ERROR_CODE_NAMES", "LedModule", "NoLedModuleError",
           "DEFAULT_MASTER_CLOCK_MHZ", "MAX_VALUE", "NUM_FILTERS", "__version__"]

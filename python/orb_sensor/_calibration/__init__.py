"""Making a sensor unit's calibration: a narrow line swept over the range,
as a lab sweeps a monochromator (`orb-sensor calibrate`). The light source
drivers (`sources`), the source's power per wavelength (`source_power`),
the exposure per step (`ladder`) and the sweep itself (`sweep`), which
hands its data to liborb_spectrum's writer."""

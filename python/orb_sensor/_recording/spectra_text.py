"""Spectra as text, a line each as they come (`orb-sensor stream
--spectrum`): a summary for a person at a terminal, or NDJSON for a
program (the grid in the first line, then each spectrum's metadata and
values)."""

import datetime

from ..errors import OrbError
from .text import _TextWriter, _to_json

PEAKS_PER_LINE = 3


class SummaryWriter(_TextWriter):
    """One line per spectrum: number, time, exposure, the highest peaks
    with their wavelengths, lost and saturated counts."""

    def __init__(self, path_or_stream, run_metadata):
        super().__init__(path_or_stream)
        self._line(f"# spectra of {run_metadata['sensor_id']}, calibration {run_metadata['calibration_sensor_id']} "
                   f"made {run_metadata['calibration_created']}; values in {run_metadata['spectrum_unit']}")

    def _format(self, spectrum):
        when = datetime.datetime.fromtimestamp(spectrum.timestamp, datetime.timezone.utc)
        try:
            peaks = spectrum.peaks()[:PEAKS_PER_LINE]
        except OrbError:
            peaks = []
        found = "  ".join(f"{p.wavelength_nm:.1f} nm ({p.height:.4g})" for p in peaks) or "none"
        return (f"seq {spectrum.seq}  {when.strftime('%H:%M:%S.%f')[:-3]}  {spectrum.exposure_ms:g} ms x"
                f"{spectrum.averages}  peaks {found}  max {spectrum.values.max():.4g}  lost {spectrum.lost}  missed {spectrum.missed}"
                f"  saturated {spectrum.saturated.size}")


class NdjsonSpectraWriter(_TextWriter):
    """{"run": {..., "wavelength_nm": [...]}} first, then per spectrum its
    metadata with "values"."""

    def __init__(self, path_or_stream, run_metadata, wavelengths):
        super().__init__(path_or_stream)
        self._line(_to_json({"run": dict(run_metadata, wavelength_nm=wavelengths.tolist())}))

    def _format(self, spectrum):
        meta = spectrum.metadata()
        for key in ("unit", "sensor_id") + tuple(k for k in meta if k.startswith("calibration_")):
            meta.pop(key, None)
        return _to_json(dict(meta, values=spectrum.values.tolist()))

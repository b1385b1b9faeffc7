"""The spectra of a recording, beside its filter data (hdf5.py), so that
the file stands on its own:

    entry/spectrum         NXdata, one row per frame of entry/data:
      spectrum             float64 (n, W), the signal, in `units`
      wavelength           float64 (W,), its axis, nm
      seq, timestamp       the frames' (links to entry/data's)
    entry/calibration      NXcollection: the calibration file the spectra
                           were made with, copied whole (its datasets,
                           groups and attributes), and its sha256, path,
                           sensor_id and created as attributes
    entry/colour           NXcollection, when the wavelengths cover 380 to
                           780 nm: per frame X, Y, Z, x, y, u_prime,
                           v_prime, cct_k, duv, ra, ra_meaningful and r
                           (n, 14: R1 to R14); NaN where a spectrum has no
                           colour (a dark one, or no CCT)

h5py alone reads it: f["entry/spectrum/wavelength"][:] and
f["entry/spectrum/spectrum"][i] are a spectrum by wavelength.
"""

import h5py
import numpy as np

from ..colour import colorimetry
from ..errors import OrbError

COLOUR_RANGE_NM = (380.0, 780.0)
COLOUR_COLUMNS = ("X", "Y", "Z", "x", "y", "u_prime", "v_prime", "cct_k", "duv", "ra")
SPECIAL_INDICES = 14


class SpectraLayout:
    """What a recording of spectra needs before the first one: their grid,
    unit and calibration (a CalibrationSource)."""

    def __init__(self, wavelengths, unit, calibration):
        self.wavelengths = np.asarray(wavelengths, dtype=np.float64)
        self.unit = unit
        self.calibration = calibration

    @property
    def has_colour(self):
        return bool(self.wavelengths[0] <= COLOUR_RANGE_NM[0] and self.wavelengths[-1] >= COLOUR_RANGE_NM[1])


class SpectraPart:
    """Rows of spectra (and colour) held in blocks as the writer holds its
    frames, stored by the writer's flush."""

    def __init__(self, entry, data, layout, block, growing):
        group = entry.create_group("spectrum")
        group.attrs.update(NX_class="NXdata", signal="spectrum", axes=[".", "wavelength"], wavelength_indices=1)
        group.create_dataset("wavelength", data=layout.wavelengths).attrs["units"] = "nm"
        width = layout.wavelengths.size
        self._grown = {"spectrum": growing(group, "spectrum", "f8", width, max(1, (512 << 10) // (8 * width)),
                                           layout.unit)}
        group["seq"] = data["seq"]
        group["timestamp"] = data["timestamp"]
        _embed_calibration(entry, layout.calibration)
        self._values = np.empty((block, width))
        self._colour = None
        if layout.has_colour:
            colour = entry.create_group("colour")
            colour.attrs.update(NX_class="NXcollection", description=(
                "CIE 1931 2 degree XYZ, x, y, u', v'; CCT (K) and Duv; CIE 13.3 Ra and R1 to R14 (r) of each "
                "spectrum; NaN where it has none"))
            for name in COLOUR_COLUMNS + ("ra_meaningful",):
                self._grown[name] = growing(colour, name, "u1" if name == "ra_meaningful" else "f8", None, 4096,
                                            "K" if name == "cct_k" else None)
            self._grown["r"] = growing(colour, "r", "f8", SPECIAL_INDICES, 512)
            self._colour = {name: np.empty(block) for name in COLOUR_COLUMNS}
            self._colour["ra_meaningful"] = np.zeros(block, dtype="u1")
            self._colour["r"] = np.empty((block, SPECIAL_INDICES))
        self._wavelengths = layout.wavelengths

    def add(self, i, spectrum):
        if spectrum.values.shape != self._wavelengths.shape:
            raise ValueError(f"a spectrum of {spectrum.values.size} values in a recording of "
                             f"{self._wavelengths.size} wavelengths")
        self._values[i] = spectrum.values
        if self._colour is None:
            return
        try:
            c = colorimetry(spectrum.wavelengths, spectrum.values)
            row = {name: getattr(c, name) for name in COLOUR_COLUMNS}
            row["ra_meaningful"], row["r"] = c.ra_meaningful, c.r
        except OrbError:  # darkness, or a spectrum with no colour: its row says so
            row = {name: np.nan for name in COLOUR_COLUMNS}
            row["ra_meaningful"], row["r"] = False, np.nan
        for name, column in self._colour.items():
            column[i] = row[name]

    def store(self, start, end, count):
        blocks = dict(self._colour or {}, spectrum=self._values)
        for name, dataset in self._grown.items():
            dataset.resize(end, axis=0)
            dataset[start:end] = blocks[name][:count]


def _embed_calibration(entry, source):
    group = entry.create_group("calibration")
    with h5py.File(source.path, "r") as calibration:
        for name in calibration:
            calibration.copy(calibration[name], group, name=name)
        for key, value in calibration.attrs.items():
            group.attrs[key] = value
    group.attrs.update(NX_class="NXcollection", sha256=source.sha256, source_path=source.path,
                       description="the calibration file the spectra were made with, copied whole; its "
                                   "root attributes are this group's")

"""The reconstruction operator of a calibration: built once per grid,
applied to every frame (liborb_spectrum does the numerics)."""

import ctypes
from dataclasses import dataclass
from typing import List, Optional, Tuple

import numpy as np

from . import library
from .calibration import Calibration
from .calls import checked, with_message


@dataclass(frozen=True)
class Line:
    """A line found by the refinement: position (nm) and power (the
    calibration source's unit)."""
    wavelength_nm: float
    power: float


@dataclass(frozen=True)
class Peak:
    """A peak of a spectrum: position between samples (nm), height, full
    width at half height (nm) and prominence."""
    wavelength_nm: float
    height: float
    fwhm_nm: float
    prominence: float


def _frame(values, name: str) -> np.ndarray:
    array = np.ascontiguousarray(values, dtype=np.float64)
    if array.shape != (library.FILTERS,):
        raise ValueError(f"{name} has {array.size} values, not {library.FILTERS}")
    return array


class Operator:
    """grid: library.GRID_CALIBRATION (the calibration's wavelengths),
    library.GRID_LIBRARY (340 to 1100 nm in 5 nm steps) or a step in nm
    (0.5 to 10). strength 0 lets generalised cross-validation choose it for
    spectra averaged from `averages` frames."""

    def __init__(self, calibration: Calibration, grid: float = library.GRID_CALIBRATION,
                 strength: float = 0.0, averages: int = 1) -> None:
        lib = library.load()
        self._lib = lib
        self._handle = ctypes.c_void_p()
        options = library.Options(strength=strength, averages=averages)
        with_message(lib.orb_spectrum_create, ctypes.byref(self._handle), calibration.handle,
                     float(grid), ctypes.byref(options))
        size = lib.orb_spectrum_size(self._handle)
        self.wavelengths = np.empty(size)
        checked(lib.orb_spectrum_wavelengths(self._handle, library.doubles(self.wavelengths)))
        self.wavelengths.setflags(write=False)
        used_strength = ctypes.c_double()
        used = ctypes.c_int()
        checked(lib.orb_spectrum_get_strength(self._handle, ctypes.byref(used_strength),
                                              ctypes.byref(used)))
        self.strength = used_strength.value
        self.filters_used = used.value

    def apply(self, filters, dark, exposure_ms: float) -> np.ndarray:
        """The spectrum of one frame (1024 counts) less a dark at the same
        exposure (1024 counts, or None when already subtracted)."""
        counts = _frame(filters, "filters")
        background = np.zeros(library.FILTERS) if dark is None else _frame(dark, "dark")
        value = np.empty(self.wavelengths.size)
        checked(self._lib.orb_spectrum_apply(self._handle, library.doubles(counts),
                                             library.doubles(background), float(exposure_ms),
                                             library.doubles(value)))
        return value

    def refine(self, filters, dark, exposure_ms: float,
               capacity: int = 32) -> Tuple[np.ndarray, List[Line]]:
        """The non-negative refinement for line spectra: the spectrum with
        its lines refitted, and the lines, strongest first."""
        counts = _frame(filters, "filters")
        background = np.zeros(library.FILTERS) if dark is None else _frame(dark, "dark")
        value = np.empty(self.wavelengths.size)
        lines = (library.Line * capacity)()
        count = ctypes.c_int()
        checked(self._lib.orb_spectrum_refine(self._handle, library.doubles(counts),
                                              library.doubles(background), float(exposure_ms),
                                              library.doubles(value), lines, capacity,
                                              ctypes.byref(count)))
        return value, [Line(l.wavelength_nm, l.power) for l in lines[:min(count.value, capacity)]]

    def line_peaks(self, value, min_prominence: float = 0.05) -> List[Peak]:
        """Peaks of a spectrum this operator made (apply), those as narrow
        as a line placed at the line that makes them (orb_spectrum_line_peaks)."""
        values = np.ascontiguousarray(value, dtype=np.float64)
        if values.shape != self.wavelengths.shape:
            raise ValueError("the spectrum is not on this operator's grid")
        return _peaks_found(lambda out, capacity, found: self._lib.orb_spectrum_line_peaks(
            self._handle, library.doubles(values), float(min_prominence), out, capacity, found), values.size)

    def close(self) -> None:
        if self._handle:
            self._lib.orb_spectrum_destroy(self._handle)
            self._handle = ctypes.c_void_p()

    def __del__(self) -> None:
        self.close()


def peaks(wavelength_nm, value, min_prominence: float = 0.05,
          capacity: Optional[int] = None) -> List[Peak]:
    """Peaks of any spectrum whose prominence is at least min_prominence
    times its highest value, highest first."""
    lib = library.load()
    nm = np.ascontiguousarray(wavelength_nm, dtype=np.float64)
    values = np.ascontiguousarray(value, dtype=np.float64)
    if nm.shape != values.shape or nm.ndim != 1:
        raise ValueError("wavelengths and values differ in shape")
    return _peaks_found(lambda out, size, found: lib.orb_spectrum_peaks(
        library.doubles(nm), library.doubles(values), nm.size, float(min_prominence), out, size, found),
        nm.size, capacity)


def _peaks_found(call, samples: int, capacity: Optional[int] = None) -> List[Peak]:
    capacity = capacity or max(1, samples // 2)
    found_peaks = (library.Peak * capacity)()
    found = ctypes.c_int()
    checked(call(found_peaks, capacity, ctypes.byref(found)))
    return [Peak(p.wavelength_nm, p.height, p.fwhm_nm, p.prominence)
            for p in found_peaks[:min(found.value, capacity)]]

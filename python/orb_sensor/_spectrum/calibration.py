"""A sensor unit's calibration file: found by the sensor's ID, loaded,
summarised and written (the layout is the library's; docs/spectra.md)."""

import ctypes
import os
from dataclasses import dataclass
from typing import Optional

import numpy as np

from . import library
from .calls import checked, with_message


@dataclass(frozen=True)
class CalibrationInfo:
    path: str
    sensor_id: str
    created: str
    software_version: str
    layout_version: int
    wavelength_count: int
    first_nm: float
    last_nm: float
    sweep_step_nm: float
    frames_averaged: int
    dark_frames: int
    unusable_filters: int


def find(sensor_id: str) -> str:
    """The path of the sensor's calibration in the search path; raises
    CalibrationError naming the places searched when there is none."""
    lib = library.load()
    path = ctypes.create_string_buffer(4096)
    with_message(lib.orb_calibration_find, sensor_id.encode(), path, len(path))
    return path.value.decode()


def file_name(sensor_id: str) -> str:
    """The file name the sensor's calibration has in the search path."""
    lib = library.load()
    name = ctypes.create_string_buffer(256)
    checked(lib.orb_calibration_file_name(sensor_id.encode(), name, len(name)))
    return name.value.decode()


class Calibration:
    """A loaded calibration; with `sensor_id`, another sensor's is refused."""

    def __init__(self, path: str, sensor_id: Optional[str] = None) -> None:
        lib = library.load()
        self._lib = lib
        self._handle = ctypes.c_void_p()
        with_message(lib.orb_calibration_load, ctypes.byref(self._handle), os.fsencode(path),
                     (sensor_id or "").encode())
        raw = library.CalibrationInfo()
        checked(lib.orb_calibration_get_info(self._handle, ctypes.byref(raw)))
        self.info = CalibrationInfo(
            path=os.path.abspath(path), sensor_id=raw.sensor_id.decode(), created=raw.created.decode(),
            software_version=raw.software_version.decode(), layout_version=raw.layout_version,
            wavelength_count=raw.wavelength_count, first_nm=raw.first_nm, last_nm=raw.last_nm,
            sweep_step_nm=raw.sweep_step_nm, frames_averaged=raw.frames_averaged,
            dark_frames=raw.dark_frames, unusable_filters=raw.unusable_filters)

    @property
    def handle(self) -> ctypes.c_void_p:
        return self._handle

    def unusable_filters(self) -> np.ndarray:
        """Indices (0-based) of the filters left out of every reconstruction."""
        flags = (ctypes.c_int * library.FILTERS)()
        checked(self._lib.orb_calibration_unusable_filters(self._handle, flags))
        return np.flatnonzero(np.frombuffer(flags, dtype=np.intc))

    def close(self) -> None:
        if self._handle:
            self._lib.orb_calibration_destroy(self._handle)
            self._handle = ctypes.c_void_p()

    def __del__(self) -> None:
        self.close()


def write(path: str, *, sensor_id: str, wavelength_nm, response, response_error, noise,
          step_exposure_ms, dark_exposure_ms, dark, adc=(0, 0, 0), onboard_average: int = 1,
          sweep=(0.0, 0.0, 0.0), frames_averaged: int, dark_frames: int, source: str,
          source_power: str = "", created: Optional[str] = None,
          software_version: Optional[str] = None) -> None:
    """Writes a calibration file (never half a file at path). Arrays as in
    the layout: response and response_error 1024 x N, dark E x 1024; adc is
    (gain, range, resolution), sweep (start, stop, step) in nm."""
    arrays = {name: np.ascontiguousarray(value, dtype=np.float64) for name, value in (
        ("wavelength_nm", wavelength_nm), ("response", response), ("response_error", response_error),
        ("noise", noise), ("step_exposure_ms", step_exposure_ms),
        ("dark_exposure_ms", dark_exposure_ms), ("dark", dark))}
    n = arrays["wavelength_nm"].size
    shapes = {"response": (library.FILTERS, n), "response_error": (library.FILTERS, n),
              "noise": (library.FILTERS,), "step_exposure_ms": (n,),
              "dark": (arrays["dark_exposure_ms"].size, library.FILTERS)}
    for name, shape in shapes.items():
        if arrays[name].shape != shape:
            raise ValueError(f"{name} has shape {arrays[name].shape}, not {shape}")
    data = library.CalibrationData(
        sensor_id=sensor_id.encode(), wavelength_count=n,
        wavelength_nm=library.doubles(arrays["wavelength_nm"]),
        response=library.doubles(arrays["response"]),
        response_error=library.doubles(arrays["response_error"]),
        noise=library.doubles(arrays["noise"]),
        step_exposure_ms=library.doubles(arrays["step_exposure_ms"]),
        dark_count=arrays["dark_exposure_ms"].size,
        dark_exposure_ms=library.doubles(arrays["dark_exposure_ms"]),
        dark=library.doubles(arrays["dark"]),
        adc_gain=adc[0], adc_range=adc[1], adc_resolution=adc[2], onboard_average=onboard_average,
        sweep_start_nm=sweep[0], sweep_stop_nm=sweep[1], sweep_step_nm=sweep[2],
        frames_averaged=frames_averaged, dark_frames=dark_frames, source=source.encode(),
        source_power=source_power.encode(), created=created.encode() if created else None,
        software_version=software_version.encode() if software_version else None)
    with_message(library.load().orb_calibration_write, os.fsencode(path), ctypes.byref(data))

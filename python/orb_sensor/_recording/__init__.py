"""Recording a run: frames written out as they arrive, to HDF5, CSV or NDJSON.
Private: Sensor.open_recording() is its public door.

    with open_writer("hdf5", "run.h5", run_metadata(sensor, averages)) as out:
        for frame in frames:
            out.write(frame)

`run_metadata` is a dict of strings, numbers and bools (sensor_id,
start_time, averages, ...); every key is written. Each writer has
write(frame), flush(), close() and `frames`, the count written so far:
it writes the frames it is given, as the stream numbered, averaged and
counted them.
"""

import datetime
import os
import socket

from .. import __version__
from .._process import supervisor

KINDS = ("hdf5", "csv", "ndjson")


def library_version():
    """The version in the file name of the library the worker loaded."""
    name = os.path.basename(supervisor.shared().library_path)
    _, _, version = name.partition(".so.")
    return version or "unknown"


def run_metadata(sensor, averages):
    """Facts of a run, written beside its frames."""
    settings = sensor.settings()
    return {"sensor_id": sensor.id, "sensor_index": sensor.index,
            "library_version": library_version(), "package_version": __version__,
            "start_time": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="milliseconds"),
            "host": socket.gethostname(), "averages": averages,
            "shutter_speed": settings["shutter_speed"], "exposure_ms": sensor.exposure_ms,
            "adc_gain": settings["adc_gain"], "adc_range": settings["adc_range"],
            "dark_correction": sensor.dark_correction}


def open_writer(kind, path_or_stream, run_metadata, spectra=None):
    """A writer of `kind` to a path, "-" (standard output) or an open text
    stream. HDF5 takes a path only, and with `spectra` (a
    hdf5_spectra.SpectraLayout) records a spectrum with each frame."""
    # Imported here: h5py takes a while to load for a run that does not use it.
    if kind == "hdf5":
        from .hdf5 import Hdf5Writer
        return Hdf5Writer(path_or_stream, run_metadata, spectra)
    if spectra is not None:
        raise ValueError(f"{kind} records filter data only")
    if kind in ("csv", "ndjson"):
        from .text import CsvWriter, NdjsonWriter
        return (CsvWriter if kind == "csv" else NdjsonWriter)(path_or_stream, run_metadata)
    raise ValueError(f"unknown output kind {kind!r}: one of {', '.join(KINDS)}")


def check_output_path(path):
    """Raises ValueError saying why `path` cannot be written, leaving
    nothing behind, so that a run is refused before the sensor starts.
    Where no file is yet, one is made and removed: a directory may look
    writable and still refuse files."""
    if path == "-":
        return
    path = os.fspath(path)
    if os.path.isdir(path):
        raise ValueError(f"cannot write {path}: it is a directory")
    if os.path.exists(path):
        if not os.access(path, os.W_OK):
            raise ValueError(f"cannot write {path}: no permission to write it")
        return
    parent = os.path.dirname(path) or "."
    if not os.path.exists(parent):
        raise ValueError(f"cannot write {path}: directory {parent} does not exist")
    if not os.path.isdir(parent):
        raise ValueError(f"cannot write {path}: {parent} is not a directory")
    if not os.access(parent, os.W_OK | os.X_OK):
        raise ValueError(f"cannot write {path}: no permission to create files in {parent}")
    try:
        os.close(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL))
        os.unlink(path)
    except OSError as e:
        raise ValueError(f"cannot write {path}: {e.strerror}") from None

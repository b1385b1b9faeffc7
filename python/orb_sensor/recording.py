"""Recording a run: frames written out as they arrive, to HDF5, CSV or NDJSON.

    with open_writer("hdf5", "run.h5", run_metadata) as out:
        for frame in frames:
            out.write(frame)

`run_metadata` is a dict of strings, numbers and bools (sensor_id,
start_time, averages, ...); every key is written. Each writer has
write(frame), flush(), close() and `frames`, the count written so far.
"""

import os

KINDS = ("hdf5", "csv", "ndjson")


class Writer:
    """What every writer shares: the count and closing on leaving a with."""

    frames = 0

    def __enter__(self):
        return self

    def __exit__(self, *exc_info):
        # Also on Ctrl-C or a failed acquisition: what came is still stored.
        self.close()


def open_writer(kind, path_or_stream, run_metadata):
    """A writer of `kind` to a path, "-" (standard output) or an open text
    stream. HDF5 takes a path only."""
    # Imported here: the writers build on Writer, and h5py takes a while to
    # load for a run that does not use it.
    if kind == "hdf5":
        from .hdf5_recording import Hdf5Writer
        return Hdf5Writer(path_or_stream, run_metadata)
    if kind in ("csv", "ndjson"):
        from .text_recording import CsvWriter, NdjsonWriter
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

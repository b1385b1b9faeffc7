"""HDF5 writer: a NeXus-style file that grows as frames arrive.

    entry                  NXentry; the run metadata as attributes, and
                           frames (the count stored) and end_time
    entry/data             NXdata, one row per frame:
      filter_data          float64 (n, 1024), the signal, in DN
      filter               uint16 (1024,), its axis: filter numbers 1..1024
      seq, timestamp, shutter_speed, exposure_ms, adc_gain, adc_range,
      averages, lost, missed, n_saturated
      saturated            uint8 (n, 128): filter f saturated is bit
                           (f - 1) of the row, most significant bit first
                           (np.packbits order, so np.unpackbits(row) is the
                           1024-filter mask)

Saturated filters are a packed mask: 128 bytes a frame beside 8 KiB of
values, fixed in size so it grows and flushes like the other datasets,
where a list per frame would need variable-length storage.

Frames wait in memory and go in as a block, at least every half second or
FLUSH_FRAMES frames, each block followed by a flush of the file. A process
killed between flushes leaves a file that opens and holds every flushed
frame. The `frames` attribute goes in only after the rows it counts are on
disk: rows past it can only come from a flush the kill interrupted, so a
reader of such a file takes the first `frames` rows.

A recording of spectra holds them beside the filter data, a row per frame,
with their calibration and colour (hdf5_spectra.py).
"""

import os
import time
from datetime import datetime, timezone

import h5py
import numpy as np

from ..facts import NUM_FILTERS
from .hdf5_spectra import SpectraPart
from .writer import Writer

FLUSH_FRAMES = 256
FLUSH_SECONDS = 0.5
# 512 KiB of values per chunk: whole chunks for most of a block, and few
# enough chunks over an hour at 600 frames/s (some 33000) to index cheaply.
CHUNK_FRAMES = 64

# name: (type, units); the names are those of Frame.metadata().
COLUMNS = {
    "seq": ("u8", None),
    "timestamp": ("f8", "s"),
    "shutter_speed": ("u4", None),
    "exposure_ms": ("f8", "ms"),
    "adc_gain": ("u2", None),
    "adc_range": ("u2", None),
    "averages": ("u4", None),
    "lost": ("u8", None),
    "missed": ("u8", None),
    "n_saturated": ("u2", None),
}


class Hdf5Writer(Writer):
    def __init__(self, path, run_metadata, spectra=None):
        if path == "-":
            raise ValueError("HDF5 cannot go to standard output: it needs a file")
        if not isinstance(path, (str, bytes, os.PathLike)):
            raise ValueError("HDF5 needs a file path, not an open stream")
        # The default (oldest) format on purpose: the newer one marks the file
        # as open for writing, and after a kill HDF5 1.10 refuses to open it
        # until h5clear has been run on it.
        self._file = h5py.File(path, "w")
        try:
            self._entry = self._start(run_metadata)
            self._spectra = None if spectra is None else SpectraPart(
                self._entry, self._entry["data"], spectra, FLUSH_FRAMES, _growing)
            self._file.flush()
        except BaseException:
            self._file.close()
            raise
        block = FLUSH_FRAMES
        self._values = np.empty((block, NUM_FILTERS))
        self._saturated = np.zeros((block, NUM_FILTERS), dtype=bool)
        self._columns = {name: np.empty(block, dtype) for name, (dtype, _) in COLUMNS.items()}
        self._pending = 0
        self._stored = 0
        self._last_flush = time.monotonic()

    def _start(self, run_metadata):
        self._file.attrs["default"] = "entry"
        entry = self._file.create_group("entry")
        for key, value in run_metadata.items():
            try:
                entry.attrs[key] = value
            except TypeError as e:
                raise TypeError(f"run metadata {key}={value!r} cannot be an HDF5 attribute") from e
        entry.attrs.update(NX_class="NXentry", default="data", frames=0)
        data = entry.create_group("data")
        data.attrs.update(NX_class="NXdata", signal="filter_data", axes=[".", "filter"],
                          filter_indices=1)
        data.create_dataset("filter", data=np.arange(1, NUM_FILTERS + 1, dtype="u2"))
        # Uncompressed, so a chunk is rewritten where it lies and a kill
        # during a flush cannot take earlier frames with it.
        self._grown = {"filter_data": _growing(data, "filter_data", "f8", NUM_FILTERS, CHUNK_FRAMES, "DN"),
                       "saturated": _growing(data, "saturated", "u1", NUM_FILTERS // 8, 512)}
        self._grown["saturated"].attrs["description"] = (
            "filter f saturated: bit f-1 of the row, most significant bit first (numpy.unpackbits)")
        for name, (dtype, units) in COLUMNS.items():
            self._grown[name] = _growing(data, name, dtype, None, 4096, units)
        return entry

    def write(self, frame, spectrum=None):
        """With spectra (a SpectraLayout given), `spectrum` is the frame's."""
        if (spectrum is None) != (self._spectra is None):
            raise ValueError("a recording of spectra takes a spectrum with each frame, and only it")
        i = self._pending
        if spectrum is not None:
            self._spectra.add(i, spectrum)
        self._values[i] = frame.values
        m = frame.metadata()
        m["n_saturated"] = len(m["saturated"])
        for name, column in self._columns.items():
            column[i] = m[name]
        self._saturated[i] = False
        self._saturated[i, np.asarray(m["saturated"], dtype=np.intp) - 1] = True
        self._pending += 1
        self.frames += 1
        if self._pending == FLUSH_FRAMES or time.monotonic() - self._last_flush >= FLUSH_SECONDS:
            self.flush()

    def flush(self):
        k = self._pending
        if k:
            start, end = self._stored, self._stored + k
            blocks = dict(self._columns, filter_data=self._values,
                          saturated=np.packbits(self._saturated[:k], axis=1))
            for name, dataset in self._grown.items():
                dataset.resize(end, axis=0)
                dataset[start:end] = blocks[name][:k]
            if self._spectra is not None:
                self._spectra.store(start, end, k)
            self._file.flush()
            self._entry.attrs.modify("frames", end)
            self._file.flush()
            self._pending = 0
            self._stored = end
        self._last_flush = time.monotonic()

    def close(self):
        if not self._file:
            return
        try:
            self.flush()
            self._entry.attrs["end_time"] = datetime.now(timezone.utc).isoformat(timespec="milliseconds")
        finally:
            self._file.close()


def _growing(group, name, dtype, width, chunk_rows, units=None):
    """A dataset of no rows yet that grows a row per frame."""
    row = () if width is None else (width,)
    dataset = group.create_dataset(name, shape=(0,) + row, maxshape=(None,) + row,
                                   chunks=(chunk_rows,) + row, dtype=dtype)
    if units:
        dataset.attrs["units"] = units
    return dataset

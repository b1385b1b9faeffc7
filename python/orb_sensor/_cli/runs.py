"""orb-sensor stream and record: runs of frames, or with --spectrum of
spectra, as the sensor makes them (record --every: a timed series)."""

import os
import sys
import time

from .. import _recording as recording
from .._recording.hdf5_spectra import SpectraLayout
from ..errors import OrbValueError
from ..spectrum import CALIBRATED_UNIT
from . import spectra
from .commands import _expose, _open_sensor, check_output, items_to
from .progress import StatusLine

# What record refuses to write HDF5 into: names a reader would take for text.
TEXT_SUFFIXES = (".csv", ".json", ".ndjson", ".txt")
# Options that only make sense for spectra.
SPECTRUM_ONLY = ("calibration", "step", "take_dark", "dark")


class _PerMs:
    """A writer given frames in DN per ms of exposure."""

    def __init__(self, writer):
        self._writer = writer

    def write(self, frame):
        self._writer.write(frame.per_ms())


def _check_spectrum_options(args):
    if args.spectrum:
        return
    given = [name for name in SPECTRUM_ONLY if getattr(args, name) not in (None, False)]
    if given:
        raise OrbValueError(f"--{given[0].replace('_', '-')} is for spectra: give --spectrum")


def _open_run(args, progress, sensor, dark_file):
    """The exposure set, the stream of the run opened (of spectra with
    --spectrum, their dark taken first) and the run's facts."""
    exposure = _expose(sensor, args, progress, auto_by_default=True)
    meta = recording.run_metadata(sensor, args.averages)
    meta.update(exposure)
    timed = getattr(args, "every", None) is not None
    limits = {} if timed else {"frames": args.frames, "seconds": args.seconds}
    if not args.spectrum:
        progress.done()
        return sensor.stream(averages=args.averages, timeout=args.timeout, **limits), meta
    dark = spectra.dark_at_exposure(args, progress, sensor, dark_file)
    progress.step("building the spectrum operator")
    stream = sensor.stream(averages=args.averages, timeout=args.timeout, spectra=True, dark=dark,
                           calibration=args.calibration, step=args.step, **limits)
    progress.done()
    source = stream.calibration
    spectra.say_calibration(source)
    meta.update(spectrum_unit=CALIBRATED_UNIT, calibration_sensor_id=source.sensor_id,
                calibration_created=source.created, calibration_sha256=source.sha256,
                dark_source=f"--dark {args.dark}" if args.dark else "--take-dark")
    return stream, meta


def stream(args, progress):
    _check_spectrum_options(args)
    if args.spectrum and (args.form == "csv" or args.per_ms):
        raise OrbValueError("stream --spectrum writes a summary line per spectrum, or with --ndjson each "
                            "spectrum: --csv and --per-ms are for filter data")
    check_output(args.output)
    dark_file = spectra.dark_option(args) if args.spectrum else None
    progress.step("connecting the sensors")
    with _open_sensor(args.sensor, args.timeout) as sensor:
        frames, meta = _open_run(args, progress, sensor, dark_file)
        target = sys.stdout if args.output == "-" else args.output
        if args.spectrum:
            from .._recording.spectra_text import NdjsonSpectraWriter, SummaryWriter
            writer = (NdjsonSpectraWriter(target, meta, frames.wavelengths) if args.form == "ndjson"
                      else SummaryWriter(target, meta))
        else:
            meta.update(units="DN/ms" if args.per_ms else "DN")
            writer = recording.open_writer(args.form or "csv", target, meta)
        with writer:
            items_to((_PerMs(writer) if args.per_ms else writer).write, frames, StatusLine())
    return 0


def record(args, progress):
    if args.output == "-":
        raise OrbValueError("record: -o must name a file: HDF5 cannot go to standard output")
    if os.path.splitext(args.output)[1].lower() in TEXT_SUFFIXES:
        raise OrbValueError(f"record: {args.output} names a text file, but record writes HDF5: name it .h5, "
                            "or write text with `orb-sensor stream -o FILE`")
    if os.path.exists(args.output) and not args.force:
        raise OrbValueError(f"record: {args.output} exists: give --force to overwrite it")
    _check_spectrum_options(args)
    check_output(args.output)
    dark_file = spectra.dark_option(args) if args.spectrum else None
    progress.step("connecting the sensors")
    with _open_sensor(args.sensor, args.timeout) as sensor:
        frames, meta = _open_run(args, progress, sensor, dark_file)
        layout = None
        if args.spectrum:
            layout = SpectraLayout(frames.wavelengths, CALIBRATED_UNIT, frames.calibration)
        if args.every is not None:
            meta.update(every_s=args.every)
        writer = recording.open_writer("hdf5", args.output, meta, layout)
        started = time.monotonic()
        try:
            if args.spectrum:
                def write(spectrum):
                    writer.write(frames.last_frame, spectrum)
            else:
                write = writer.write
            items_to(write, frames, StatusLine(), args.every, args.frames, args.seconds)
        finally:
            writer.close()
            sys.stderr.write(f"{args.output}: {writer.frames} {'spectra' if args.spectrum else 'frame(s)'} in "
                             f"{time.monotonic() - started:.1f} s\n")
    return 0

"""orb-sensor calibrate: sweeps a narrow line over the range and writes the
unit's calibration where the spectrum engine finds it by the sensor's ID."""

import math
import os
import sys

import numpy as np

from .. import __version__
from .._calibration import source_power, sources
from .._calibration.sweep import Plan, Sweep, SweepError
from .._emulator_control import control_path
from .._spectrum import calibration
from ..errors import OrbValueError
from ..exposure import format_ms
from ..facts import MAX_VALUE
from . import arguments
from .commands import _open_sensor, check_output

# The sensor's range as the spectrum engine names it, and a sweep's least
# wavelength count (the calibration layout's).
RANGE_NM = (340.0, 1100.0)
MIN_WAVELENGTHS = 8
# Frames averaged per step, and darks per exposure: a dark is shared by
# every step of its exposure, so its own noise enters all of them alike
# (docs/spectra.md, "Making a calibration", has the measurement).
DEFAULT_FRAMES = 16
DEFAULT_DARK_FRAMES = 1024


def add_parser(sub, sensor_options):
    c = sub.add_parser(
        "calibrate", help="sweep a narrow line over the range and write the sensor's calibration",
        description="Sweeps a narrow line (a monochromator) from --start to --stop and writes the unit's "
                    "calibration. The line is the emulator's under orb-emulate, a command's with "
                    "--set-wavelength, or else set by hand at each prompt.")
    sensor_options(c)
    c.add_argument("-o", "--output", metavar="FILE.h5",
                   help="where to write (default: the user's calibrations folder, under the name the "
                        "spectrum engine finds by the sensor's ID)")
    c.add_argument("--force", action="store_true", help="overwrite the file when it exists")
    c.add_argument("--start", type=arguments.wavelength, default=RANGE_NM[0], metavar="NM",
                   help=f"first wavelength (default {RANGE_NM[0]:g})")
    c.add_argument("--stop", type=arguments.wavelength, default=RANGE_NM[1], metavar="NM",
                   help=f"last wavelength (default {RANGE_NM[1]:g})")
    c.add_argument("--step", type=arguments.positive_nm, default=2.0, metavar="NM",
                   help="step between wavelengths (default 2)")
    c.add_argument("--frames", type=arguments.whole(2, 100000), default=DEFAULT_FRAMES, metavar="N",
                   help=f"frames averaged at each step (default {DEFAULT_FRAMES})")
    c.add_argument("--dark-frames", type=arguments.whole(2, 100000), default=DEFAULT_DARK_FRAMES, metavar="N",
                   help=f"dark frames averaged at each exposure used (default {DEFAULT_DARK_FRAMES})")
    c.add_argument("--set-wavelength", metavar="'CMD {nm}'",
                   help="a shell command that sets the monochromator; {nm} becomes the wavelength")
    c.add_argument("--set-dark", metavar="'CMD'",
                   help="a shell command that turns the light off for the darks (with --set-wavelength; "
                        "without it you are asked to)")
    c.add_argument("--source-power", metavar="FILE.csv",
                   help="the source's relative power per wavelength (rows wavelength_nm,relative_power): "
                        "the response is divided by it")
    c.add_argument("--brightness", type=arguments.brightness, metavar="B",
                   help=f"the emulator's line brightness (default {sources.DEFAULT_BRIGHTNESS:g}); "
                        "the response is per unit of it")
    c.add_argument("--fwhm", type=arguments.line_width, metavar="NM",
                   help=f"the emulator's line width (default {sources.DEFAULT_FWHM_NM:g} nm)")


def _wavelengths(args):
    if args.start >= args.stop:
        raise OrbValueError(f"calibrate: --start ({args.start:g} nm) must be below --stop ({args.stop:g} nm)")
    count = int(math.floor((args.stop - args.start) / args.step + 1e-9)) + 1
    if count < MIN_WAVELENGTHS:
        raise OrbValueError(f"calibrate: --step {args.step:g} gives {count} wavelength(s) from {args.start:g} to "
                            f"{args.stop:g} nm; a calibration needs at least {MIN_WAVELENGTHS}")
    return np.round(args.start + args.step * np.arange(count), 6)


def _check_source_options(args, control):
    if args.set_wavelength is not None and "{nm}" not in args.set_wavelength:
        raise OrbValueError("calibrate: --set-wavelength needs {nm} where the wavelength goes, "
                            "e.g. --set-wavelength 'mono goto {nm}'")
    if args.set_dark is not None and args.set_wavelength is None:
        raise OrbValueError("calibrate: --set-dark goes with --set-wavelength")
    emulator = args.set_wavelength is None and control is not None
    for name, value in (("--brightness", args.brightness), ("--fwhm", args.fwhm)):
        if value is not None and not emulator:
            raise OrbValueError(f"calibrate: {name} sets the emulator's line, and there is none here "
                                "(run under orb-emulate, without --set-wavelength)")


def default_path(sensor_id):
    """The user's calibrations folder, as the spectrum engine searches it."""
    data = os.environ.get("XDG_DATA_HOME") or os.path.join(os.path.expanduser("~"), ".local", "share")
    return os.path.join(data, "orb-sensor", "calibrations", calibration.file_name(sensor_id))


def _writable(path, force):
    """Refuses a path that cannot be written, or that holds a file unless
    --force, before the sweep starts."""
    if os.path.exists(path) and not force:
        raise OrbValueError(f"calibrate: {path} exists: give --force to replace it")
    check_output(path)
    return path


def _source(args, sensor, control, progress):
    ask = sources.prompter(progress.done)
    if args.set_wavelength is not None:
        return sources.CommandSource(args.set_wavelength, args.set_dark, ask)
    if control is not None:
        return sources.EmulatorLine(control, sensor.index,
                                    args.brightness if args.brightness is not None else sources.DEFAULT_BRIGHTNESS,
                                    args.fwhm if args.fwhm is not None else sources.DEFAULT_FWHM_NM)
    return sources.ManualSource(ask)


def run(args, progress):
    control = control_path()
    _check_source_options(args, control)
    wavelengths = _wavelengths(args)
    power = np.ones(wavelengths.size)
    if args.source_power is not None:
        power = source_power.at(source_power.read(args.source_power), wavelengths, args.source_power)
    if args.output is not None:
        _writable(args.output, args.force)
    progress.step("connecting the sensors")
    with _open_sensor(args.sensor, args.timeout) as sensor:
        path = args.output
        if path is None:
            path = default_path(sensor.id)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            _writable(path, args.force)
        settings = sensor.settings()
        source = _source(args, sensor, control, progress)
        try:
            plan = Plan(wavelengths, args.frames, args.dark_frames, power * source.power)
            try:
                measured = Sweep(sensor, source, plan, progress.step,
                                 pause_stream=isinstance(source, sources.ManualSource),
                                 frame_timeout=args.timeout).run()
            except (SweepError, sources.SourceError) as e:
                raise OrbValueError(f"calibrate: {e}") from None
        finally:
            source.close()
    progress.step("writing")
    calibration.write(
        path, sensor_id=sensor.id, wavelength_nm=wavelengths, response=measured.response,
        response_error=measured.response_error, noise=measured.noise,
        step_exposure_ms=measured.step_exposure_ms, dark_exposure_ms=measured.dark_exposure_ms,
        dark=measured.dark, adc=(settings["adc_gain"], settings["adc_range"], settings["adc_resolution"]),
        onboard_average=settings["onboard_average"], sweep=(args.start, args.stop, args.step),
        frames_averaged=args.frames, dark_frames=args.dark_frames, source=source.description,
        source_power=os.path.abspath(args.source_power) if args.source_power else "",
        software_version=f"orb-sensor {__version__}")
    progress.done()
    levels = 100 * np.array(measured.levels) / MAX_VALUE
    exposures = measured.dark_exposure_ms
    used = (f"1 exposure, {format_ms(exposures[0])} ms" if exposures.size == 1 else
            f"{exposures.size} exposures from {format_ms(exposures[0])} to {format_ms(exposures[-1])} ms")
    print(f"Wrote {path}: the calibration of {sensor.id}, {wavelengths.size} wavelengths from "
          f"{wavelengths[0]:g} to {wavelengths[-1]:g} nm in {measured.seconds:.1f} s; {used}, "
          f"brightest filter {levels.min():.0f} to {levels.max():.0f}% of full scale.")
    sys.stdout.flush()
    return 0

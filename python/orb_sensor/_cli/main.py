"""orb-sensor: the spectral sensor on the command line.

Exit status: 0 done, 1 no sensor (or no LED module), 2 bad use (a calibration
missing or refused among it), 3 a failure
of the library, 4 the sensor was lost, did not answer in time or refused a request.
"""

import argparse
import logging
import os
import sys

from .. import __version__
from ..checks import INT_MAX
from ..errors import (CalibrationError, NoSensorError, OrbError, OrbTypeError, OrbValueError, SensorLostError, SensorRefusedError,
                      SensorTimeoutError)
from ..facts import (ADC_GAIN_LIMITS, ADC_RANGE_LIMITS, DEFAULT_MASTER_CLOCK_MHZ, EXPOSURE_MS_LIMITS, MAX_VALUE,
                     SHUTTER_SPEED_LIMITS)
from ..led import MAX_CHANNELS, MAX_INTENSITY, NoLedModuleError
from . import arguments, calibrate, doctor, emulation, runs, spectra
from .commands import COMMANDS, NO_DEVICE_HELP, no_sensor_message
from .progress import Progress

PROG = "orb-sensor"
EXIT_OK, EXIT_NO_SENSOR, EXIT_USAGE, EXIT_LIBRARY, EXIT_LOST = 0, 1, 2, 3, 4
EXIT_INTERRUPTED = 130


def _sensor_options(p, timeout=True):
    p.add_argument("--sensor", type=arguments.sensor, default=0, help="index (0 upward) or ID text (default 0)")
    if timeout:
        p.add_argument("--timeout", type=arguments.seconds, metavar="S",
                       help="give up when the sensor does not answer within S seconds")


def _limits(p):
    group = p.add_mutually_exclusive_group()
    group.add_argument("--frames", type=arguments.whole(1, INT_MAX), metavar="N", help="stop after N frames")
    group.add_argument("--seconds", type=arguments.seconds, metavar="S", help="stop after S seconds")
    p.add_argument("-n", "--averages", type=arguments.whole(1, INT_MAX), default=1, metavar="N",
                   help="frames averaged into each one written (default 1)")


def _exposure_options(p):
    how = p.add_mutually_exclusive_group()
    how.add_argument("--shutter", type=arguments.whole(*SHUTTER_SPEED_LIMITS),
                     help="shutter speed, {} to {}".format(*SHUTTER_SPEED_LIMITS))
    how.add_argument("--exposure-ms", type=arguments.exposure_ms, metavar="MS",
                     help="exposure in ms (the nearest shutter speed), {:.6g} to {:.6g}".format(*EXPOSURE_MS_LIMITS))
    how.add_argument("--auto-exposure", action="store_true",
                     help="search the shutter speed that puts the brightest filter at the target first")
    p.add_argument("--target", type=arguments.whole(1, MAX_VALUE), metavar="DN",
                   help="brightest filter aimed at by --auto-exposure (default 3276, 80%% of full scale)")
    p.add_argument("--filters", type=arguments.filters, metavar="LIST",
                   help="filters --auto-exposure looks at, e.g. 1-100,200 (default: all)")
    p.add_argument("--gain", type=arguments.whole(*ADC_GAIN_LIMITS), help="ADC gain, 0 or 1")
    p.add_argument("--adc-range", type=arguments.whole(*ADC_RANGE_LIMITS),
                   help="ADC range index, {} to {}".format(*ADC_RANGE_LIMITS))


def _per_ms(p):
    p.add_argument("--per-ms", action="store_true",
                   help="values in DN per ms of exposure, so that frames of different exposures compare")


def _spectrum_options(p):
    _sensor_options(p)
    p.add_argument("-n", "--averages", type=arguments.whole(1, INT_MAX), default=1, metavar="N",
                   help="frames averaged into the spectrum (default 1)")
    _exposure_options(p)
    _calibration_and_dark(p)


def _spectra_of_a_run(p):
    p.add_argument("--spectrum", action="store_true",
                   help="spectra with the unit's calibration (record: beside the filter data); needs a dark: "
                        "--take-dark or --dark FILE")
    _calibration_and_dark(p)
    p.add_argument("--step", type=arguments.step_nm, metavar="NM",
                   help="with --spectrum, a grid every NM nm, 0.5 to 10 (default: the calibration's wavelengths)")


def _calibration_and_dark(p):
    p.add_argument("--calibration", metavar="FILE",
                   help="the sensor's calibration file (default: found by the sensor's ID)")
    dark = p.add_mutually_exclusive_group()
    dark.add_argument("--take-dark", action="store_true",
                      help="take a dark frame at the exposure first: asks you to cover the sensor, then to "
                           "uncover it (Enter on standard input); under orb-emulate the tool covers the "
                           "emulated sensor itself")
    dark.add_argument("--dark", metavar="FILE",
                      help="a dark frame from `orb-sensor acquire` (CSV or --json), taken covered at the "
                           "exposure; without exposure options the spectrum is taken at its exposure")


def parser():
    p = argparse.ArgumentParser(prog=PROG, description="Spectral sensor access.")
    p.add_argument("--version", action="version", version=f"{PROG} {__version__}")
    p.add_argument("--emulate", nargs="?", type=emulation.sensor_count, const=1, metavar="N",
                   help=f"run against N emulated sensors (default 1, at most {emulation.MAX_SENSORS}) "
                        "through orb-emulate")
    p.add_argument("--verbose", action="store_true", help="show the library's own lines on stderr")
    sub = p.add_subparsers(dest="command", required=True)

    sub.add_parser("list", help="index and ID of each attached sensor")

    a = sub.add_parser("acquire", help="read one averaged frame of 1024 filter values")
    _sensor_options(a)
    a.add_argument("-n", "--averages", type=arguments.whole(1, INT_MAX), default=1,
                   help="frames averaged (default 1)")
    _exposure_options(a)
    _per_ms(a)
    a.add_argument("--master-clock", type=arguments.whole(1, 1000), default=DEFAULT_MASTER_CLOCK_MHZ,
                   metavar="MHZ", help=f"master clock for the exposure time (default {DEFAULT_MASTER_CLOCK_MHZ})")
    a.add_argument("-o", "--output", metavar="FILE", help="write here instead of stdout (- is stdout)")
    a.add_argument("--json", action="store_true", help="JSON with the settings used, not CSV")
    a.add_argument("--plot", metavar="FILE.png", help="also draw the frame into a PNG")

    s = sub.add_parser("stream", help="every frame as the sensor makes it, to stdout or a file")
    _sensor_options(s)
    _limits(s)
    _exposure_options(s)
    _per_ms(s)
    form = s.add_mutually_exclusive_group()
    form.add_argument("--csv", action="store_const", dest="form", const="csv",
                      help="a row per frame, after a commented header (the default)")
    form.add_argument("--ndjson", action="store_const", dest="form", const="ndjson",
                      help="a JSON object per line")
    s.add_argument("-o", "--output", default="-", metavar="FILE", help="write here (default -: stdout)")
    _spectra_of_a_run(s)

    r = sub.add_parser("record", help="record frames into an HDF5 file as they come")
    _sensor_options(r)
    _limits(r)
    _exposure_options(r)
    r.add_argument("-o", "--output", required=True, metavar="FILE.h5", help="the HDF5 file to write")
    r.add_argument("--force", action="store_true", help="overwrite FILE.h5 when it exists")
    r.add_argument("--every", type=arguments.seconds, metavar="S",
                   help="a timed series: one (averaged) frame or spectrum every S seconds, the sensor stopped "
                        "between them")
    _spectra_of_a_run(r)

    sp = sub.add_parser("spectrum", help="a spectrum (power per nm) with the sensor unit's calibration",
                        description="A spectrum from the sensor's filter data, with the unit's calibration. "
                                    "With no exposure option, an auto-exposure first. Needs a dark frame at "
                                    "the exposure: --take-dark or --dark FILE.")
    _spectrum_options(sp)
    sp.add_argument("--step", type=arguments.step_nm, metavar="NM",
                    help="a grid every NM nm, 0.5 to 10 (default: the calibration's wavelengths)")
    sp.add_argument("--refine", action="store_true",
                    help="fit line spectra without negative values and find their lines (slower)")
    sp.add_argument("--peaks", action="store_true",
                    help="print the peaks (and with --refine the lines); the CSV then goes only to -o")
    sp.add_argument("-o", "--output", metavar="FILE",
                    help="write the CSV (wavelength_nm,value after a # header) here (default: stdout)")
    sp.add_argument("--json", action="store_true",
                    help="one JSON object (metadata, wavelength_nm, values, peaks) instead of the CSV")
    sp.add_argument("--jcamp", metavar="FILE", help="also write the spectrum as JCAMP-DX 4.24 into FILE")
    sp.add_argument("--plot", nargs="?", const="spectrum.png", metavar="FILE.png",
                    help="also draw it against wavelength, peaks labelled, into FILE.png (default spectrum.png)")

    col = sub.add_parser("colour", aliases=["color"],
                         help="CCT, Duv, chromaticity and colour rendering of the light the sensor sees, or of "
                              "a spectrum file",
                         description="The colorimetry of a spectrum: from the sensor (as `spectrum` takes it) "
                                     "or from a file with --from-file.")
    _spectrum_options(col)
    col.add_argument("--from-file", metavar="SPECTRUM.csv",
                     help="a wavelength_nm,value file (# comments and a header line allowed) instead of the "
                          "sensor")
    col.add_argument("--json", action="store_true", help="one JSON object with every quantity")

    led = sub.add_parser(
        "led", help="switch the LED module's channels and set their intensity",
        description="Sets the LED module's channels: those given with --on are switched on, "
                    "every other one off. The module is the first device with the sensor's "
                    "USB IDs, so with a sensor enumerated first the sensor receives it.")
    led.add_argument("--on", type=arguments.whole(0, MAX_CHANNELS - 1), nargs="+", default=[], metavar="CH",
                     help=f"channels to switch on, 0 to {MAX_CHANNELS - 1}")
    led.add_argument("--intensity", type=arguments.whole(0, MAX_INTENSITY), default=None, metavar="I",
                     help=f"intensity, 0 to {MAX_INTENSITY} (default 0)")
    led.add_argument("--off", action="store_true", help="switch every channel off")

    calibrate.add_parser(sub, _sensor_options)

    sub.add_parser("doctor", help="check what a sensor needs on this machine, and say what to fix")

    v = sub.add_parser("view", help="the live filter data in a browser, with the sensor's controls")
    _sensor_options(v, timeout=False)
    v.add_argument("--port", type=arguments.whole(0, 65535), default=0, metavar="N",
                   help="serve on port N (default 0: an unused one, printed)")
    v.add_argument("--host", default="127.0.0.1", metavar="ADDR",
                   help="listen on ADDR (default 127.0.0.1); any other needs the printed token")
    v.add_argument("--open", action="store_true", help="open the page in the desktop's browser")
    how = v.add_mutually_exclusive_group()
    how.add_argument("--shutter", type=arguments.whole(*SHUTTER_SPEED_LIMITS),
                     help="start at this shutter speed instead of an auto-exposure")
    how.add_argument("--exposure-ms", type=arguments.exposure_ms, metavar="MS",
                     help="start at this exposure instead of an auto-exposure")
    how.add_argument("--auto-exposure", action="store_true", help="start with an auto-exposure (the default)")
    v.add_argument("--target", type=arguments.whole(1, MAX_VALUE), metavar="DN",
                   help="brightest filter aimed at by the auto-exposures (default 3276)")
    return p


def _view(args, progress):
    # aiohttp is needed by this command only.
    from ..view.command import run
    return run(args, progress)


def _show_library_lines():
    handler = logging.StreamHandler(sys.stderr)
    handler.setFormatter(logging.Formatter("%(message)s"))
    log = logging.getLogger("orb_sensor")
    log.addHandler(handler)
    log.setLevel(logging.DEBUG)


def _fail(progress, text, status):
    progress.done()
    sys.stderr.write(f"{PROG}: {text}\n")
    return status


def _run(args, progress):
    try:
        return {**COMMANDS, "stream": runs.stream, "record": runs.record, "view": _view, "calibrate": calibrate.run,
                "spectrum": spectra.spectrum, "colour": spectra.colour, "color": spectra.colour}[args.command](args, progress)
    except NoSensorError as e:
        progress.done()
        sys.stderr.write(no_sensor_message(e))
        return EXIT_NO_SENSOR
    except NoLedModuleError as e:
        return _fail(progress, f"led: {e}\n" + NO_DEVICE_HELP.rstrip("\n"), EXIT_NO_SENSOR)
    except (SensorLostError, SensorTimeoutError, SensorRefusedError) as e:
        return _fail(progress, str(e), EXIT_LOST)
    except (OrbValueError, OrbTypeError, CalibrationError) as e:
        return _fail(progress, str(e), EXIT_USAGE)
    except OrbError as e:
        return _fail(progress, f"the sensor library failed: {e}", EXIT_LIBRARY)
    except KeyboardInterrupt:
        return _fail(progress, "interrupted", EXIT_INTERRUPTED)


COMMAND_NAMES = ("list", "acquire", "stream", "record", "calibrate", "spectrum", "colour", "color", "led", "doctor",
                 "view")


def main(argv=None):
    argv = sys.argv[1:] if argv is None else argv
    args = parser().parse_args(emulation.with_emulate_count(argv, COMMAND_NAMES))
    if args.emulate is not None and not os.environ.get(emulation.EMULATED_ENV):
        return emulation.reexec(args.emulate, led=args.command in ("led", "view"), argv=argv)
    if args.verbose:
        _show_library_lines()
    if args.command == "doctor":
        return doctor.run(sys.stdout, emulation.find_orb_emulate)
    progress = Progress()
    try:
        status = _run(args, progress)
        sys.stdout.flush()
        return status
    except BrokenPipeError:
        # The reader went away (| head): nothing more to say to it.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return EXIT_OK
    except OSError as e:
        return _fail(progress, f"{e.filename or 'output'}: {e.strerror or e}", EXIT_LIBRARY)
    except Exception as e:  # a fault of this tool: said in one line, never a traceback
        return _fail(progress, f"internal error: {type(e).__name__}: {e}", EXIT_LIBRARY)


if __name__ == "__main__":
    sys.exit(main())

"""orb-sensor spectrum and colour: a spectrum from the sensor with its
unit's calibration, and the colour of it or of a spectrum file."""

import json
import math
import sys

from .._emulator_control import Channel, ControlError, control_path
from ..errors import OrbValueError
from ..exposure import format_ms
from ..facts import exposure_ms
from ..spectrum import Spectrum
from .commands import _expose, _open_sensor, _read_timeout, check_output
from .dark_file import read_dark

NO_DARK = ("a spectrum needs a dark frame at its exposure, or it is off by the dark level: give --take-dark "
           "(you cover the sensor when asked), or --dark FILE (a frame from `orb-sensor acquire` taken with "
           "the sensor covered)")
DARK_AVERAGES = 16
# Options that only make sense with a sensor: refused beside --from-file.
SENSOR_OPTIONS = ("sensor", "timeout", "calibration", "step", "shutter", "exposure_ms", "auto_exposure",
                  "target", "filters", "gain", "adc_range", "dark", "take_dark")


def _ask(prompt):
    """Waits for Enter (a line on stdin) after saying what to do."""
    sys.stderr.write(prompt + ", then press Enter\n")
    sys.stderr.flush()
    if not sys.stdin.readline():
        raise OrbValueError("--take-dark: no answer on standard input")


def dark_option(args):
    """The dark file of --dark (None with --take-dark); neither is refused.
    A dark file with no exposure option fixes the exposure, since an
    auto-exposure would move away from it. Read before any sensor starts."""
    dark_file = read_dark(args.dark) if args.dark is not None else None
    if dark_file is None and not args.take_dark:
        raise OrbValueError(NO_DARK)
    if dark_file is not None and args.shutter is None and args.exposure_ms is None and not args.auto_exposure:
        args.shutter = dark_file.shutter_speed
        sys.stderr.write(f"exposure of the dark in {args.dark}: shutter speed {args.shutter} "
                         f"({format_ms(exposure_ms(args.shutter))} ms)\n")
    return dark_file


def dark_at_exposure(args, progress, sensor, dark_file):
    """The dark at the sensor's exposure, now set: the file's, refused at
    another exposure, or one taken with the sensor covered: by the user, or
    under the emulator by its control channel, so that the tool runs
    unattended there."""
    shutter = sensor.shutter_speed
    if dark_file is not None:
        if dark_file.shutter_speed != shutter:
            raise OrbValueError(
                f"--dark {args.dark} was taken at shutter speed {dark_file.shutter_speed}, the spectrum at "
                f"{shutter}: give --shutter {dark_file.shutter_speed}, or a dark taken at {shutter}")
        return dark_file.values
    averages = max(DARK_AVERAGES, args.averages)
    timeout = _read_timeout(args, shutter)
    control = control_path()
    if control is not None:
        progress.step(f"taking the dark frame with the emulated sensor {sensor.index} covered")
        return _covered_dark(control, sensor, averages, timeout)
    progress.done()
    _ask(f"cover the sensor for a dark frame at shutter speed {shutter} ({format_ms(exposure_ms(shutter))} ms)")
    progress.step("taking the dark frame")
    dark = sensor.dark(averages, timeout=timeout)
    progress.done()
    _ask("uncover the sensor")
    return dark


def _covered_dark(control, sensor, averages, timeout):
    """The dark under the emulator's cap, lifted again whatever happens."""
    try:
        with Channel(control) as channel:
            channel.command(f"cover {sensor.index} on")
            try:
                return sensor.dark(averages, timeout=timeout)
            finally:
                channel.command(f"cover {sensor.index} off")
    except ControlError as e:
        raise OrbValueError(f"--take-dark: {e}") from None


def say_calibration(source):
    sys.stderr.write(f"calibration of {source.sensor_id} made {source.created} ({source.path})\n")


def measure(args, progress):
    """The Spectrum the options ask for, from the sensor."""
    dark_file = dark_option(args)
    progress.step("connecting the sensors")
    with _open_sensor(args.sensor, args.timeout) as sensor:
        progress.step("loading the calibration")
        source = sensor.calibration(args.calibration)
        _expose(sensor, args, progress, auto_by_default=True)
        dark = dark_at_exposure(args, progress, sensor, dark_file)
        progress.step(f"acquiring {args.averages} frame(s) for the spectrum"
                      + (" and refining it" if getattr(args, "refine", False) else ""))
        spectrum = sensor.spectrum(averages=args.averages, refine=getattr(args, "refine", False), dark=dark,
                                   calibration=args.calibration, step=getattr(args, "step", None),
                                   timeout=_read_timeout(args, sensor.shutter_speed))
    progress.done()
    say_calibration(source)
    if spectrum.saturated.size:
        sys.stderr.write(f"warning: {spectrum.saturated.size} filter(s) saturated: the spectrum is wrong where "
                         "they see; use a shorter exposure\n")
    return spectrum


def _print_peaks(spectrum, out):
    for p in spectrum.peaks():
        out.write(f"peak {p.wavelength_nm:.2f} nm height {p.height:.6g} fwhm {p.fwhm_nm:.2f} nm "
                  f"prominence {p.prominence:.6g}\n")
    for line in spectrum.lines or ():
        out.write(f"line {line.wavelength_nm:.3f} nm power {line.power:.6g}\n")


def _json_text(spectrum):
    doc = dict(spectrum.metadata(), wavelength_nm=spectrum.wavelengths.tolist(), values=spectrum.values.tolist(),
               peaks=[{"wavelength_nm": p.wavelength_nm, "height": p.height, "fwhm_nm": p.fwhm_nm,
                       "prominence": p.prominence} for p in spectrum.peaks()])
    return json.dumps(doc, indent=1) + "\n"


def spectrum(args, progress):
    for path in (args.output, args.jcamp, args.plot):
        if path not in (None, "-"):
            check_output(path)
    result = measure(args, progress)
    data = _json_text(result) if args.json else result.to_csv()
    if args.output not in (None, "-"):
        with open(args.output, "w", encoding="utf-8") as out:
            out.write(data)
    elif not args.peaks:
        sys.stdout.write(data)
    if args.jcamp:
        result.to_jcamp(args.jcamp)
    if args.plot:
        from .plot import save_spectrum_plot
        save_spectrum_plot(args.plot, result, f"{result.sensor_id}: exposure {format_ms(result.exposure_ms)} ms, "
                           f"{result.averages} frame(s) averaged; calibration {result.calibration.created}",
                           result.peaks())
    if args.peaks:
        _print_peaks(result, sys.stdout)
    return 0


def _json_number(value):
    return None if isinstance(value, float) and math.isnan(value) else value


def _print_colour(c, out):
    out.write(f"X {c.X:.6g}\nY {c.Y:.6g}\nZ {c.Z:.6g}\n")
    out.write(f"x {c.x:.5f}\ny {c.y:.5f}\nu' {c.u_prime:.5f}\nv' {c.v_prime:.5f}\n")
    if math.isnan(c.cct_k):
        out.write("CCT none (outside 1000 to 100000 K)\n")
    else:
        out.write(f"CCT {c.cct_k:.0f} K\nDuv {c.duv:.5f}\n")
        note = "" if c.ra_meaningful else " (not meaningful: too far from the reference illuminant)"
        out.write(f"Ra {c.ra:.1f}{note}\n")
        out.write("R1-R14 " + " ".join(f"{r:.1f}" for r in c.r) + "\n")
    out.write(f"peak {c.peak_nm:.1f} nm\ncentroid {c.centroid_nm:.1f} nm\n")
    if math.isnan(c.dominant_nm):
        out.write("dominant none (the white point)\n")
    elif c.dominant_nm < 0:
        out.write(f"complementary {-c.dominant_nm:.1f} nm\n")
    else:
        out.write(f"dominant {c.dominant_nm:.1f} nm\n")
    out.write(f"purity {c.purity:.4f}\n")


def colour(args, progress):
    if args.from_file is not None:
        given = [name for name in SENSOR_OPTIONS if getattr(args, name, None) not in (None, False, 0)]
        if given or args.averages != 1:
            option = "--" + (given[0].replace("_", "-") if given else "averages")
            raise OrbValueError(f"--from-file computes the colour of a file and takes no sensor options "
                                f"(not {option})")
        source = Spectrum.from_csv(args.from_file, name=f"--from-file {args.from_file}")
        try:
            result = source.colour()
        except OrbValueError as e:
            raise OrbValueError(f"--from-file {args.from_file}: {e}") from None
    else:
        result = measure(args, progress).colour()
    if args.json:
        doc = {k: ([_json_number(r) for r in v] if k == "r" else _json_number(v))
               for k, v in result.as_dict().items()}
        json.dump(doc, sys.stdout, indent=1)
        sys.stdout.write("\n")
    else:
        _print_colour(result, sys.stdout)
    return 0

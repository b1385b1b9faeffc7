"""orb-sensor: list the attached spectral sensors, acquire filter data and
set the LED module.

Exit status: 0 done, 1 no sensor (or no LED module), 2 bad use, 3 a failure
reported by the library.
"""

import argparse
import csv
import json
import os
import shutil
import sys

from . import library
from .errors import NoSensorError, OrbError
from .led import CHANNEL_LABELS, MAX_CHANNELS, MAX_INTENSITY, LedModule, NoLedModuleError, state_word
from .progress import Progress
from .sensor import DEFAULT_MASTER_CLOCK_MHZ, Sensor

PROG = "orb-sensor"
EMULATED_ENV = "ORB_SENSOR_EMULATED"
EMULATE_ENV = "ORB_EMULATE"

NO_DEVICE_HELP = (
    "Check that it is plugged in and that you may open its USB device node. The udev rule\n"
    "udev/60-orb-sensor.rules (installed under lib/udev/rules.d) gives the user at the seat\n"
    "access; apply it and replug the device:\n"
    "  sudo cp udev/60-orb-sensor.rules /etc/udev/rules.d/ && sudo udevadm control --reload"
    " && sudo udevadm trigger\n")
NO_SENSOR_HELP = f"{PROG}: no sensor found.\n" + NO_DEVICE_HELP


def _refused_nodes():
    """Device nodes of attached 0483:5740 devices this user may not open."""
    refused = []
    root = "/sys/bus/usb/devices"
    try:
        entries = sorted(os.listdir(root))
    except OSError:
        return refused
    for entry in entries:
        try:
            with open(os.path.join(root, entry, "idVendor")) as f:
                vendor = f.read().strip()
            with open(os.path.join(root, entry, "idProduct")) as f:
                product = f.read().strip()
            with open(os.path.join(root, entry, "uevent")) as f:
                names = [line[8:].strip() for line in f if line.startswith("DEVNAME=")]
        except OSError:
            continue
        if (vendor, product) == ("0483", "5740") and names:
            node = os.path.join("/dev", names[0])
            if os.path.exists(node) and not os.access(node, os.R_OK | os.W_OK):
                refused.append(node)
    return sorted(refused)


def _no_sensor_message():
    refused = _refused_nodes()
    if not refused:
        return NO_SENSOR_HELP
    return (f"{PROG}: no sensor could be opened: this user may not open "
            + ", ".join(refused) + ".\n" + NO_DEVICE_HELP)


def _parser():
    p = argparse.ArgumentParser(prog=PROG, description="Spectral sensor access.")
    p.add_argument("--emulate", nargs="?", type=int, const=1, metavar="N",
                   help="run against N emulated sensors (default 1) through orb-emulate")
    p.add_argument("--verbose", action="store_true",
                   help="pass the library's own diagnostics through to stderr")
    sub = p.add_subparsers(dest="command", required=True)

    sub.add_parser("list", help="index and ID of each attached sensor")

    a = sub.add_parser("acquire", help="read one averaged frame of 1024 filter values")
    a.add_argument("--sensor", default="0", help="index (0 upward) or ID text (default 0)")
    a.add_argument("-n", "--averages", type=int, default=1, help="frames averaged (default 1)")
    a.add_argument("--shutter", type=int, help="shutter speed, 1 to 3000")
    a.add_argument("--gain", type=int, choices=(0, 1), help="ADC gain")
    a.add_argument("--adc-range", type=int, help="ADC range index, 0 to 255")
    a.add_argument("--auto-exposure", action="store_true",
                   help="search the shutter speed that puts the peak just below saturation")
    a.add_argument("--target", type=int, metavar="DN", help="peak aimed at by --auto-exposure")
    a.add_argument("--master-clock", type=int, default=DEFAULT_MASTER_CLOCK_MHZ, metavar="MHZ",
                   help=f"master clock for the exposure time (default {DEFAULT_MASTER_CLOCK_MHZ})")
    a.add_argument("-o", "--output", metavar="FILE", help="write here instead of stdout")
    a.add_argument("--json", action="store_true", help="JSON with the settings used, not CSV")
    a.add_argument("--plot", metavar="FILE.png", help="also draw the frame into a PNG")

    led = sub.add_parser(
        "led", help="switch the LED module's channels and set their intensity",
        description="Sets the LED module's channels: those given with --on are switched on, "
                    "every other one off. The module is the first device with the sensor's "
                    "USB IDs, so with a sensor enumerated first the sensor receives it.")
    led.add_argument("--on", type=int, nargs="+", default=[], metavar="CH",
                     help=f"channels to switch on, 0 to {MAX_CHANNELS - 1}")
    led.add_argument("--intensity", type=int, default=0, metavar="I",
                     help=f"intensity, 0 to {MAX_INTENSITY} (default 0)")
    led.add_argument("--off", action="store_true", help="switch every channel off")
    return p


def _find_orb_emulate():
    explicit = os.environ.get(EMULATE_ENV)
    if explicit:
        return explicit
    lib = os.environ.get(library.LIBRARY_ENV)
    if lib:
        # A build tree keeps the library in src/ and the launcher in sim/.
        lib_dir = os.path.dirname(os.path.abspath(lib))
        for candidate in (os.path.join(lib_dir, "..", "sim", "orb-emulate"),
                          os.path.join(lib_dir, "orb-emulate")):
            if os.access(candidate, os.X_OK):
                return os.path.normpath(candidate)
    # Installed: the package is in PREFIX/lib/python3/dist-packages, the
    # launcher in PREFIX/bin.
    package_root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    installed = os.path.join(package_root, "..", "..", "..", "bin", "orb-emulate")
    if os.access(installed, os.X_OK):
        return os.path.normpath(installed)
    return shutil.which("orb-emulate")


def _reexec_emulated(sensors, led):
    launcher = _find_orb_emulate()
    if launcher is None:
        sys.stderr.write(f"{PROG}: --emulate needs orb-emulate: put it on PATH or set {EMULATE_ENV}\n")
        return 2
    env = dict(os.environ)
    env[EMULATED_ENV] = "1"
    package_root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    env["PYTHONPATH"] = os.pathsep.join(filter(None, [package_root, env.get("PYTHONPATH")]))
    argv = [launcher, "--sensors", str(sensors), *(["--led"] if led else []), "--",
            sys.executable, "-m", "orb_sensor.cli", *sys.argv[1:]]
    sys.stdout.flush()
    sys.stderr.flush()
    os.execve(launcher, argv, env)


def _keep_library_off_stdout(verbose):
    """The library prints its diagnostics on standard output; send them to
    stderr or nowhere, and keep stdout for this tool's results."""
    sys.stdout.flush()
    results = os.dup(1)
    target = os.dup(2) if verbose else os.open(os.devnull, os.O_WRONLY)
    os.dup2(target, 1)
    os.close(target)
    sys.stdout = os.fdopen(results, "w", buffering=1)


def _open_sensor(which):
    if which.isdigit():
        return Sensor(index=int(which))
    try:
        return Sensor(id=which)
    except OrbError as e:
        if isinstance(e, NoSensorError):
            raise
        raise LookupError(f"no sensor with ID {which}") from None


def _list(_args, progress):
    progress.step("connecting the sensors")
    ids = Sensor.list()
    progress.done()
    if not ids:
        sys.stderr.write(_no_sensor_message())
        return 1
    for index, sensor_id in enumerate(ids):
        print(f"{index} {sensor_id}")
    return 0


def _write_result(args, data, settings):
    out = open(args.output, "w", newline="") if args.output else sys.stdout
    try:
        if args.json:
            json.dump({**settings, "filter_data": data.tolist()}, out, indent=1)
            out.write("\n")
        else:
            writer = csv.writer(out, lineterminator="\n")
            writer.writerow(("filter", "value"))
            writer.writerows((i, repr(float(v))) for i, v in enumerate(data, start=1))
    finally:
        if out is not sys.stdout:
            out.close()


def _acquire(args, progress):
    if args.averages < 1:
        sys.stderr.write(f"{PROG}: acquire: -n must be at least 1\n")
        return 2
    if args.target is not None and not args.auto_exposure:
        sys.stderr.write(f"{PROG}: acquire: --target needs --auto-exposure\n")
        return 2
    progress.step("connecting the sensors")
    with _open_sensor(args.sensor) as sensor:
        if args.gain is not None or args.adc_range is not None:
            progress.step("setting the ADC")
            sensor.set_adc(gain=args.gain, range=args.adc_range)
        if args.shutter is not None:
            progress.step("setting the shutter speed")
            sensor.shutter_speed = args.shutter
        if args.auto_exposure:
            progress.step("searching the shutter speed (auto-exposure)")
            sensor.optimal_shutter_speed(target=args.target)
        shutter = sensor.shutter_speed
        exposure = sensor.exposure_time_ms(shutter, master_clock=args.master_clock)
        if args.auto_exposure:
            progress.done()
            sys.stderr.write(f"auto-exposure: shutter speed {shutter}, exposure time {exposure:g} ms\n")
        progress.step(f"acquiring {args.averages} frame(s)")
        data = sensor.filter_data(args.averages)
        gain, adc_range = sensor.adc
        settings = {
            "sensor_id": sensor.id,
            "sensor_index": sensor.index,
            "averages": args.averages,
            "shutter_speed": shutter,
            "exposure_time_ms": exposure,
            "master_clock_mhz": args.master_clock,
            "adc_gain": gain,
            "adc_range": adc_range,
            "auto_exposure": args.auto_exposure,
            "auto_exposure_target": args.target,
        }
    progress.step("writing")
    _write_result(args, data, settings)
    if args.plot:
        progress.step("plotting")
        from .plot import save_frame_plot
        save_frame_plot(args.plot, data,
                        f"{settings['sensor_id']}: shutter speed {shutter} ({exposure:g} ms), "
                        f"ADC gain {gain}, range {adc_range}, {args.averages} frame(s) averaged")
    progress.done()
    return 0


def _led(args, progress):
    if args.off and (args.on or args.intensity):
        sys.stderr.write(f"{PROG}: led: --off takes no --on or --intensity\n")
        return 2
    try:
        word = state_word(args.on, args.intensity)
    except ValueError as e:
        sys.stderr.write(f"{PROG}: led: {e}\n")
        return 2
    progress.step("opening the LED module")
    try:
        with LedModule() as led:
            led.set(args.on, args.intensity)
    except NoLedModuleError as e:
        progress.done()
        sys.stderr.write(f"{PROG}: led: {e}\n" + NO_DEVICE_HELP)
        return 1
    progress.done()
    on = ", ".join(f"{ch} ({CHANNEL_LABELS[ch]})" for ch in sorted(set(args.on))) or "none"
    print(f"LED state word 0x{word:04x}: channels on: {on}; intensity {args.intensity}")
    return 0


def _with_emulate_count(argv):
    """argparse would take the subcommand after a bare --emulate for its count."""
    argv = list(argv)
    for i, arg in enumerate(argv):
        if arg == "--":
            break
        if arg == "--emulate" and not (i + 1 < len(argv) and argv[i + 1].isdigit()):
            argv[i] = "--emulate=1"
    return argv


def main(argv=None):
    parser = _parser()
    args = parser.parse_args(_with_emulate_count(sys.argv[1:] if argv is None else argv))
    if args.emulate is not None and not os.environ.get(EMULATED_ENV):
        return _reexec_emulated(args.emulate, led=args.command == "led")
    _keep_library_off_stdout(args.verbose)
    progress = Progress()
    try:
        return {"list": _list, "acquire": _acquire, "led": _led}[args.command](args, progress)
    except NoSensorError:
        progress.done()
        sys.stderr.write(_no_sensor_message())
        return 1
    except (LookupError, OSError) as e:
        progress.done()
        sys.stderr.write(f"{PROG}: {e}\n")
        return 2 if isinstance(e, LookupError) else 3
    except OrbError as e:
        progress.done()
        sys.stderr.write(f"{PROG}: the sensor library failed: {e}\n")
        return 3


if __name__ == "__main__":
    sys.exit(main())

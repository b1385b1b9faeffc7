"""What each orb-sensor command does; cli.py reads the arguments and turns
exceptions into exit statuses."""

import json
import sys
import time

from .. import _recording as recording
from .._process import usb_nodes
from ..errors import NoSensorError, OrbValueError
from ..facts import LED_MODULE_ID
from ..led import CHANNEL_LABELS, LedModule, NoLedModuleError
from ..exposure import format_ms
from ..facts import exposure_ms
from ..sensor import ACQUISITION_MARGIN_S, Sensor, acquisition_timeout_s

NO_DEVICE_HELP = (
    "Check that it is plugged in and that you may open its USB device node;\n"
    "`orb-sensor doctor` says what is missing and how to fix it.\n")


def no_sensor_message(error=None):
    refused = usb_nodes.refused_nodes()
    if refused:
        return ("orb-sensor: no sensor could be opened: this user may not open "
                + ", ".join(refused) + ".\n" + NO_DEVICE_HELP)
    detail = f" ({error})" if error is not None and str(error) != "no sensor found" else ""
    return f"orb-sensor: no sensor found{detail}.\n" + NO_DEVICE_HELP


def _open_sensor(which, timeout):
    kwargs = {"timeout": timeout} if timeout is not None else {}
    if isinstance(which, int):
        return Sensor(index=which, **kwargs)
    return Sensor(id=which, **kwargs)


def check_output(path):
    """Refuses an output path that cannot be written, before the sensor starts."""
    try:
        recording.check_output_path(path)
    except ValueError as e:
        raise OrbValueError(str(e)) from None


def list_sensors(_args, progress):
    progress.step("connecting the sensors")
    ids = Sensor.list()
    progress.done()
    if not ids:
        raise NoSensorError()
    for index, sensor_id in enumerate(ids):
        print(f"{index} {sensor_id}")
    return 0


def _expose(sensor, args, progress, auto_by_default):
    """Sets the ADC and the exposure the options ask for; with none asked,
    a stream or a recording auto-exposes once (a single acquisition keeps
    the sensor's shutter speed). Says the outcome of an auto-exposure on
    stderr, as a warning when it is off target. Returns the facts of it for
    the output's metadata."""
    if args.target is not None and not args.auto_exposure:
        raise OrbValueError("--target needs --auto-exposure")
    if args.filters is not None and not args.auto_exposure:
        raise OrbValueError("--filters needs --auto-exposure")
    if args.gain is not None or args.adc_range is not None:
        progress.step("setting the ADC")
        sensor.set_adc(gain=args.gain, range=args.adc_range)
    if args.shutter is not None:
        progress.step("setting the shutter speed")
        sensor.shutter_speed = args.shutter
        return {"exposure_set_by": "--shutter"}
    if args.exposure_ms is not None:
        progress.step("setting the exposure")
        sensor.exposure_ms = args.exposure_ms
        return {"exposure_set_by": "--exposure-ms"}
    if not args.auto_exposure and not auto_by_default:
        return {"exposure_set_by": "the sensor's current shutter speed"}
    if not args.auto_exposure:
        progress.done()
        sys.stderr.write("no --shutter, --exposure-ms or --auto-exposure given: auto-exposing once at the start\n")
    progress.step("searching the shutter speed (auto-exposure)")
    found = sensor.auto_expose(target=args.target, filters=args.filters)
    progress.done()
    sys.stderr.write(found.message() + "\n")
    return {"exposure_set_by": "--auto-exposure" if args.auto_exposure else "auto-exposure at the start (default)",
            "auto_exposure_outcome": found.outcome, "auto_exposure_level": found.level,
            "auto_exposure_target": found.target}


def _read_timeout(args, shutter):
    """--timeout bounds the wait for a silent sensor, beyond the time the
    frames themselves take."""
    if args.timeout is None:
        return None
    return acquisition_timeout_s(args.averages, shutter) - ACQUISITION_MARGIN_S + args.timeout


def acquire(args, progress):
    for path in (args.output, args.plot):
        if path is not None:
            check_output(path)
    progress.step("connecting the sensors")
    with _open_sensor(args.sensor, args.timeout) as sensor:
        exposure = _expose(sensor, args, progress, auto_by_default=False)
        shutter = sensor.shutter_speed
        progress.step(f"acquiring {args.averages} frame(s)")
        frame = sensor.read(args.averages, timeout=_read_timeout(args, shutter))
        meta = recording.run_metadata(sensor, args.averages)
    ms = exposure_ms(shutter, args.master_clock)
    meta.update(exposure, exposure_ms=ms, master_clock_mhz=args.master_clock,
                saturated_filters=[int(f) for f in frame.saturated], units="DN/ms" if args.per_ms else "DN")
    out_frame = frame.per_ms() if args.per_ms else frame
    progress.step("writing")
    out = sys.stdout if args.output in (None, "-") else open(args.output, "w", newline="")
    try:
        if args.json:
            json.dump({**meta, **out_frame.metadata(), "filter_data": out_frame.values.tolist()}, out, indent=1)
            out.write("\n")
        else:
            with recording.open_writer("csv", out, meta) as writer:
                writer.write(out_frame)
    finally:
        if out is not sys.stdout:
            out.close()
    if args.plot:
        progress.step("plotting")
        from .plot import save_frame_plot
        gain, adc_range = frame.adc
        save_frame_plot(args.plot, out_frame.values,
                        f"{sensor.id}: shutter speed {shutter} ({format_ms(ms)} ms), "
                        f"ADC gain {gain}, range {adc_range}, {args.averages} frame(s) averaged")
    progress.done()
    return 0


def _frames_to(writer, sensor, args, status):
    """Writes frames until the limit, the end of the sensor, or Ctrl-C
    (which ends a stream or a recording as a stop button does)."""
    stream = sensor.stream(averages=args.averages, frames=args.frames, seconds=args.seconds, timeout=args.timeout)
    return items_to(writer.write, stream, status)


def items_to(write, stream, status, every=None, count=None, seconds=None):
    """Hands each item of `stream` (Frames or Spectra) to `write` until the
    stream ends or Ctrl-C, which ends a run as a stop button does (returns
    True then). With `every` (seconds), a timed series instead: one item
    per interval, the stream stopped between them, `count` items or
    `seconds` seconds at most."""
    try:
        with stream:
            if every is None:
                for item in stream:
                    write(item)
                    status.update(stream, item)
            else:
                _timed(write, stream, status, every, count, seconds)
    except KeyboardInterrupt:
        return True
    finally:
        status.done()
    return False


def _timed(write, stream, status, every, count, seconds):
    start = time.monotonic()
    due, taken = start, 0
    while count is None or taken < count:
        item = next(stream)
        # The sensor rests until the next interval: a day-long series
        # neither heats it nor streams for nothing.
        stream.stop()
        write(item)
        taken += 1
        status.update(stream, item)
        due += every
        now = time.monotonic()
        if due < now:
            # An interval shorter than one acquisition: the next at once.
            due = now
        if seconds is not None and due - start >= seconds:
            break
        time.sleep(due - now)


def led(args, progress):
    if args.off and (args.on or args.intensity is not None):
        raise OrbValueError("led: --off takes no --on or --intensity")
    if not (args.off or args.on or args.intensity is not None):
        # The module cannot be read back: nothing to show, and nothing sent.
        raise OrbValueError("led: say what to set: --on CH... [--intensity I], or --off "
                            "(the module's state cannot be read back)")
    progress.step("looking for the LED module")
    if LED_MODULE_ID not in Sensor.bus_ids():
        # The library's LED driver would take the first sensor instead.
        raise NoLedModuleError("no LED module on the bus: the request would have gone to a sensor")
    progress.step("opening the LED module")
    with LedModule() as module:
        word = module.set(args.on, args.intensity or 0)
    progress.done()
    on = ", ".join(f"{ch} ({CHANNEL_LABELS[ch]})" for ch in sorted(set(args.on))) or "none"
    print(f"LED state word 0x{word:04x}: channels on: {on}; intensity {args.intensity or 0}")
    return 0


COMMANDS = {"list": list_sensors, "acquire": acquire, "led": led}

"""What each orb-sensor command does; cli.py reads the arguments and turns
exceptions into exit statuses."""

import csv
import datetime
import json
import sys
import time

from .. import _recording as recording
from .._process import usb_nodes
from ..errors import NoSensorError, OrbValueError
from ..led import CHANNEL_LABELS, LedModule
from ..sensor import Sensor
from .progress import StatusLine

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


def _write_frame(args, data, settings):
    out = sys.stdout if args.output in (None, "-") else open(args.output, "w", newline="")
    try:
        if args.json:
            json.dump({**settings, "filter_data": data.tolist()}, out, indent=1)
            out.write("\n")
        else:
            for key, value in settings.items():
                out.write(f"# {key}: {value}\n")
            writer = csv.writer(out, lineterminator="\n")
            writer.writerow(("filter", "value"))
            writer.writerows((i, repr(float(v))) for i, v in enumerate(data, start=1))
    finally:
        if out is not sys.stdout:
            out.close()


def acquire(args, progress):
    if args.target is not None and not args.auto_exposure:
        raise OrbValueError("--target needs --auto-exposure")
    if args.filters is not None and not args.auto_exposure:
        raise OrbValueError("--filters needs --auto-exposure")
    for path in (args.output, args.plot):
        if path is not None:
            check_output(path)
    progress.step("connecting the sensors")
    with _open_sensor(args.sensor, args.timeout) as sensor:
        if args.gain is not None or args.adc_range is not None:
            progress.step("setting the ADC")
            sensor.set_adc(gain=args.gain, range=args.adc_range)
        if args.shutter is not None:
            progress.step("setting the shutter speed")
            sensor.shutter_speed = args.shutter
        if args.auto_exposure:
            progress.step("searching the shutter speed (auto-exposure)")
            sensor.auto_expose(target=args.target, filters=args.filters)
        shutter = sensor.shutter_speed
        exposure = sensor.exposure_time_ms(shutter, master_clock=args.master_clock)
        if args.auto_exposure:
            progress.done()
            sys.stderr.write(f"auto-exposure: shutter speed {shutter}, exposure time {exposure:g} ms\n")
        progress.step(f"acquiring {args.averages} frame(s)")
        frame = sensor.read(args.averages, timeout=args.timeout)
        gain, adc_range = frame.adc
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
            "saturated_filters": [int(f) for f in frame.saturated],
            "library_version": recording.library_version(),
            "time": datetime.datetime.fromtimestamp(frame.timestamp, datetime.timezone.utc).isoformat(),
        }
    progress.step("writing")
    _write_frame(args, frame.values, settings)
    if args.plot:
        progress.step("plotting")
        from .plot import save_frame_plot
        save_frame_plot(args.plot, frame.values,
                        f"{settings['sensor_id']}: shutter speed {shutter} ({exposure:g} ms), "
                        f"ADC gain {gain}, range {adc_range}, {args.averages} frame(s) averaged")
    progress.done()
    return 0


def _frames_to(writer, sensor, args, status):
    """Writes frames until the limit, the end of the sensor, or Ctrl-C
    (which ends a stream or a recording as a stop button does)."""
    try:
        with sensor.stream(averages=args.averages, frames=args.frames, seconds=args.seconds,
                           timeout=args.timeout) as frames:
            for frame in frames:
                writer.write(frame)
                status.update(frames, frame)
    except KeyboardInterrupt:
        return True
    finally:
        status.done()
    return False


def stream(args, progress):
    check_output(args.output)
    progress.step("connecting the sensors")
    with _open_sensor(args.sensor, args.timeout) as sensor:
        meta = recording.run_metadata(sensor, args.averages)
        progress.done()
        target = sys.stdout if args.output == "-" else args.output
        with recording.open_writer(args.form or "csv", target, meta) as writer:
            _frames_to(writer, sensor, args, StatusLine())
    return 0


def record(args, progress):
    if args.output == "-":
        raise OrbValueError("record: -o must name a file: HDF5 cannot go to standard output")
    check_output(args.output)
    progress.step("connecting the sensors")
    with _open_sensor(args.sensor, args.timeout) as sensor:
        meta = recording.run_metadata(sensor, args.averages)
        progress.done()
        writer = recording.open_writer("hdf5", args.output, meta)
        started = time.monotonic()
        try:
            _frames_to(writer, sensor, args, StatusLine())
        finally:
            writer.close()
            sys.stderr.write(f"{args.output}: {writer.frames} frame(s) in "
                             f"{time.monotonic() - started:.1f} s\n")
    return 0


def led(args, progress):
    if args.off and (args.on or args.intensity):
        raise OrbValueError("led: --off takes no --on or --intensity")
    progress.step("opening the LED module")
    with LedModule() as module:
        word = module.set(args.on, args.intensity)
    progress.done()
    on = ", ".join(f"{ch} ({CHANNEL_LABELS[ch]})" for ch in sorted(set(args.on))) or "none"
    print(f"LED state word 0x{word:04x}: channels on: {on}; intensity {args.intensity}")
    return 0


COMMANDS = {"list": list_sensors, "acquire": acquire, "stream": stream, "record": record, "led": led}

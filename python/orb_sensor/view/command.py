"""orb-sensor view: serves the live view of a sensor until Ctrl-C."""

import asyncio
import os
import signal
import subprocess
import sys

from aiohttp import web

from ..errors import NoSensorError, OrbValueError
from ..sensor import Sensor
from . import assets, security, server
from ..facts import LED_MODULE_ID
from .lights import Lights
from .session import Session

# Pages still open when the view ends get this long to be told so.
SHUTDOWN_S = 1.0


def _url(host, port, token):
    shown = security.LOOPBACK if host in ("0.0.0.0", "::") else host
    shown = f"[{shown}]" if ":" in shown else shown
    return f"http://{shown}:{port}/" + (f"?token={token}" if token else "")


def _open_browser(url):
    """The desktop's browser, in a process of its own, without the
    emulated bus's preload (under orb-emulate it would reach the browser)."""
    env = dict(os.environ)
    if env.pop("UMOCKDEV_DIR", None) is not None:
        env.pop("LD_PRELOAD", None)
    subprocess.Popen([sys.executable, "-m", "webbrowser", "-t", url], env=env, stdin=subprocess.DEVNULL,
                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)


async def _serve(app, args, token, session):
    runner = web.AppRunner(app, handle_signals=False)
    await runner.setup()
    try:
        try:
            await web.TCPSite(runner, args.host, args.port, shutdown_timeout=SHUTDOWN_S).start()
        except OSError as e:
            why = os.strerror(e.errno) if e.errno else str(e)
            raise OrbValueError(f"cannot listen on {args.host} port {args.port}: {why}") from None
        # Every connect brings the sensor up at shutter speed 1 (0.1 ms), where
        # little but the dark level shows: without an exposure asked for, the
        # view begins with an auto-exposure.
        session.target = args.target
        if args.shutter is not None:
            session.submit(lambda sensor: session.set_shutter_speed(args.shutter), "setting the shutter speed")
        elif args.exposure_ms is not None:
            session.submit(lambda sensor: session.set_exposure_ms(args.exposure_ms), "setting the exposure")
        else:
            session.auto_expose(args.target).add_done_callback(lambda f: _report_exposure(f, session))
        session.start()
        url = _url(args.host, runner.addresses[0][1], token)
        print(f"orb-sensor view of sensor {session.sensor.id}: {url}", flush=True)
        if args.host in ("0.0.0.0", "::"):
            sys.stderr.write("listening on every address: from another machine, use this one's name "
                             f"instead of {security.LOOPBACK}\n")
        sys.stderr.write("Ctrl-C ends it.\n")
        if args.open:
            _open_browser(url)
        stop = asyncio.Event()
        for sig in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            asyncio.get_running_loop().add_signal_handler(sig, stop.set)
        await stop.wait()
    finally:
        await runner.cleanup()


def _report_exposure(future, session):
    if future.exception() is not None:
        sys.stderr.write(f"orb-sensor view: the first auto-exposure failed: {future.exception()}\n")
    else:
        sys.stderr.write(f"orb-sensor view: {session.exposure.message()}\n")


def run(args, progress):
    try:
        assets.uplot_dir()
    except assets.MissingAssetError as e:
        sys.stderr.write(f"orb-sensor: view: {e}\n")
        return 3
    progress.step("connecting the sensors")
    ids = Sensor.list()
    if not ids:
        raise NoSensorError()
    sensor = Sensor(index=args.sensor) if isinstance(args.sensor, int) else Sensor(id=args.sensor)
    session = Session(sensor, ids)
    progress.step("looking for an LED module")
    session.lights = Lights.find(Sensor.bus_ids())
    token = security.new_token(args.host)
    app = server.application(session, token)
    progress.done()
    try:
        asyncio.run(_serve(app, args, token, session))
    finally:
        session.stop()
    return 0

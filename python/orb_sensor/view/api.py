"""The page's requests: the status, the controls, and the frame on the page
as a file. Each control answers with the new status, or with
{"error": text} (400 for a value refused before it reached the sensor, 409
when the sensor is lost, not answering or stalled)."""

import asyncio

from aiohttp import web

from ..errors import OrbError, OrbTypeError, OrbValueError, SensorLostError, SensorTimeoutError
from . import chromaticity, controls, downloads


def _error(status, e):
    return web.json_response({"error": str(e)}, status=status)


def _control(handler):
    async def answer(request):
        session = request.app["session"]
        try:
            await handler(await _body(request), session)
        except (OrbValueError, OrbTypeError) as e:
            return _error(400, e)
        except (SensorLostError, SensorTimeoutError) as e:
            return _error(409, e)
        except (OrbError, OSError, ValueError) as e:  # ValueError: a recording's path
            return _error(500, e)
        return web.json_response(session.status())
    return answer


async def _body(request):
    try:
        body = await request.json()
    except ValueError:
        raise web.HTTPBadRequest(text="the body must be JSON\n") from None
    if not isinstance(body, dict):
        raise web.HTTPBadRequest(text="the body must be a JSON object\n")
    return body


def _blocking(call, *args):
    """call(*args) in a thread of the pool: the sensor's calls block."""
    return asyncio.get_running_loop().run_in_executor(None, call, *args)


async def status(request):
    return web.json_response(request.app["session"].status())


@_control
async def settings(body, session):
    await _blocking(controls.apply, session, controls.checked(body, session.sensor))


@_control
async def auto_exposure(body, session):
    await asyncio.wrap_future(session.auto_expose(controls.target(body.get("target"))))


@_control
async def dark(body, session):
    await asyncio.wrap_future(session.take_dark())


@_control
async def sensor(body, session):
    sensor_id = body.get("id")
    if sensor_id not in session.sensor_ids:
        raise OrbValueError(f"no sensor {sensor_id!r}: attached are " + ", ".join(session.sensor_ids))
    await asyncio.wrap_future(session.switch(sensor_id))


@_control
async def recording(body, session):
    on = body.get("on")
    if not isinstance(on, bool):
        raise OrbTypeError(f'recording takes {{"on": true}} or {{"on": false}}, not {on!r}')
    await _blocking(session.start_recording if on else session.stop_recording)


@_control
async def led(body, session):
    if session.lights is None:
        raise web.HTTPConflict(text="no LED module on the bus\n")
    await _blocking(session.set_lights, *controls.lights(body))


@_control
async def spectrum(body, session):
    session.spectra.set_mode(body.get("mode"))
    session.spectra_changed()


@_control
async def reference(body, session):
    if body.get("clear") is True:
        session.spectra.clear_reference()
    elif body.get("take") is True:
        await asyncio.wrap_future(session.take_reference())
    else:
        raise OrbValueError('a reference takes {"take": true} (the light, no sample) or {"clear": true}')
    session.spectra_changed()


@_control
async def overlay(body, session):
    if body.get("clear") is True:
        session.spectra.clear_overlay()
    else:
        await _blocking(session.spectra.set_overlay, body.get("name"), body.get("csv"))
    session.spectra_changed()


async def chromaticity_diagram(request):
    try:
        return web.json_response(await _blocking(chromaticity.diagram))
    except OrbError as e:
        return _error(503, e)


async def spectrum_file(request):
    session = request.app["session"]
    frame = session.current
    if frame is None:
        return _error(409, OrbError("no frame yet"))
    shown = await _blocking(session.spectra.shown, session.sensor, frame)
    if shown.curve is None:
        return _error(409, OrbError(shown.problem))
    text = downloads.spectrum_csv(shown, session.spectra.mode)
    name = downloads.spectrum_file_name(frame)
    return web.Response(text=text, content_type="text/csv",
                        headers={"Content-Disposition": f'attachment; filename="{name}"'})


def frame_file(extension, render, content_type):
    async def handler(request):
        shown = request.app["session"].shown
        if shown is None:
            return _error(409, OrbError("no frame yet"))
        frame, dark_corrected = shown
        name = downloads.file_name(frame, extension)
        return web.Response(text=render(frame, dark_corrected), content_type=content_type,
                            headers={"Content-Disposition": f'attachment; filename="{name}"'})
    return handler

"""The WebSocket of a page: frames as binary messages (wire.py), one after
each "painted" from the page, and the status as JSON text when it changes
and every STATUS_EVERY_S. The page chooses its axis with "axis nm" (the
spectrum of each frame) or "axis filter" (the filter data)."""

import asyncio
import json

from aiohttp import WSCloseCode, WSMsgType, web

from . import wire

# How often the pages get the status (frame rate, counts) without a change.
STATUS_EVERY_S = 0.5
PAINTED = "painted"
AXES = {"axis nm": True, "axis filter": False}


def _message(session, frame, spectra):
    if not spectra:
        return wire.frame_message(frame)
    shown = session.spectra.shown(session.sensor, frame)
    overlay = None
    if shown.curve is not None and session.spectra.overlay is not None:
        overlay = (session.spectra.overlay[0], session.spectra.overlay_on(shown.spectrum.wavelengths))
    return wire.spectrum_message(shown, session.spectra.mode, overlay)


async def frames(request):
    session = request.app["session"]
    ws = web.WebSocketResponse(compress=False)
    await ws.prepare(request)
    slot = session.fanout.join(asyncio.get_running_loop(), session.current)
    request.app["sockets"].add(ws)
    axis = {"nm": False}

    async def send():
        while True:
            kind, frame = await slot.next()
            if kind == "status":
                await ws.send_str(json.dumps(session.status()))
            else:
                await ws.send_bytes(_message(session, frame, axis["nm"]))

    sender = asyncio.create_task(send())
    try:
        async for message in ws:
            if message.type != WSMsgType.TEXT:
                continue
            if message.data == PAINTED:
                slot.painted()
            elif message.data in AXES:
                axis["nm"] = AXES[message.data]
                # The frame on the page again, on the new axis.
                slot.repaint(session.current)
    finally:
        sender.cancel()
        session.fanout.leave(slot)
        request.app["sockets"].discard(ws)
    return ws


async def _close_sockets(app):
    for ws in list(app["sockets"]):
        await ws.close(code=WSCloseCode.GOING_AWAY, message=b"the view has ended")


async def _status_ticker(app):
    async def tick():
        while True:
            await asyncio.sleep(STATUS_EVERY_S)
            app["session"].fanout.status()
    task = asyncio.create_task(tick())
    yield
    task.cancel()


def add_to(app):
    app["sockets"] = set()
    app.router.add_get("/ws", frames)
    app.cleanup_ctx.append(_status_ticker)
    app.on_shutdown.append(_close_sockets)

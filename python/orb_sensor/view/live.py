"""The WebSocket of a page: frames as binary messages (wire.py), one after
each "painted" from the page, and the status as JSON text when it changes
and every STATUS_EVERY_S."""

import asyncio
import json

from aiohttp import WSCloseCode, WSMsgType, web

from . import wire

# How often the pages get the status (frame rate, counts) without a change.
STATUS_EVERY_S = 0.5
PAINTED = "painted"


async def frames(request):
    session = request.app["session"]
    ws = web.WebSocketResponse(compress=False)
    await ws.prepare(request)
    slot = session.fanout.join(asyncio.get_running_loop(), session.current)
    request.app["sockets"].add(ws)

    async def send():
        while True:
            kind, frame = await slot.next()
            if kind == "status":
                await ws.send_str(json.dumps(session.status()))
            else:
                await ws.send_bytes(wire.frame_message(frame))

    sender = asyncio.create_task(send())
    try:
        async for message in ws:
            if message.type == WSMsgType.TEXT and message.data == PAINTED:
                slot.painted()
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

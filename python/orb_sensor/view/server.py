"""The view's aiohttp application: the page and its files, uPlot's, the
API (api.py) and the WebSocket (live.py), behind the guard of
security.py."""

import os

from aiohttp import web

from . import api, assets, downloads, live, security


def _file(path, **headers):
    async def handler(request):
        return web.FileResponse(path, headers=headers)
    return handler


def application(session, token):
    app = web.Application(middlewares=[security.guard(token)])
    app["session"] = session
    app.router.add_get("/", _file(os.path.join(assets.STATIC, "index.html"), **{"Cache-Control": "no-cache"}))
    app.router.add_static("/static/", assets.STATIC)
    uplot = assets.uplot_dir()
    for name in assets.UPLOT_FILES:
        app.router.add_get(f"/uplot/{name}", _file(os.path.join(uplot, name)))
    app.router.add_get("/api/status", api.status)
    app.router.add_post("/api/settings", api.settings)
    app.router.add_post("/api/auto-exposure", api.auto_exposure)
    app.router.add_post("/api/dark", api.dark)
    app.router.add_post("/api/sensor", api.sensor)
    app.router.add_post("/api/recording", api.recording)
    app.router.add_post("/api/led", api.led)
    app.router.add_post("/api/spectrum", api.spectrum)
    app.router.add_post("/api/reference", api.reference)
    app.router.add_post("/api/overlay", api.overlay)
    app.router.add_get("/api/chromaticity", api.chromaticity_diagram)
    app.router.add_get("/api/spectrum.csv", api.spectrum_file)
    app.router.add_get("/api/frame.csv", api.frame_file("csv", downloads.as_csv, "text/csv"))
    app.router.add_get("/api/frame.json", api.frame_file("json", downloads.as_json, "application/json"))
    live.add_to(app)
    return app

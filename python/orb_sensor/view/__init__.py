"""orb-sensor view: the live filter data of a sensor in a browser.

A thread streams the sensor and keeps the newest frame for each page
(session.py, fanout.py); aiohttp serves the page (static/), its controls
(api.py) and the frames over a WebSocket (live.py), behind the guard of
security.py (server.py puts them together); command.py starts it all.
Only this subpackage needs aiohttp: the tool imports it for `view` alone.
"""

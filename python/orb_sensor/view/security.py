"""Who may use the view.

A request whose Origin is not the page's own is refused: another site's
page in the same browser could otherwise drive the sensor (POSTs and
WebSockets carry no protection of their own). On 127.0.0.1 that suffices,
with the Host checked against DNS rebinding. Bound to any other address,
every request needs the token printed at start: once in the URL
(?token=...), which turns into a cookie, or in an "Authorization: token
..." header.
"""

import hmac
import secrets

from aiohttp import web

LOOPBACK = "127.0.0.1"
LOOPBACK_NAMES = {"127.0.0.1", "localhost"}


def new_token(host):
    """A token for `host`, None on 127.0.0.1."""
    return None if host == LOOPBACK else secrets.token_urlsafe(24)


def _cookie(request):
    # Cookies ignore the port: one name per port keeps two views apart.
    return f"orb_view_token_{request.url.port}"


def _refuse(why):
    return web.HTTPForbidden(text=f"refused: {why}\n")


def guard(token):
    @web.middleware
    async def middleware(request, handler):
        origin = request.headers.get("Origin")
        if origin is not None and origin != f"{request.scheme}://{request.host}":
            raise _refuse(f"the request comes from a page of {origin}, not of this view")
        if token is None:
            if request.host.rsplit(":", 1)[0] not in LOOPBACK_NAMES:
                raise _refuse(f"this view answers at {LOOPBACK} only, not {request.host}")
            return await handler(request)
        given = (request.query.get("token") or request.cookies.get(_cookie(request))
                 or request.headers.get("Authorization", "").removeprefix("token ").strip())
        if not given or not hmac.compare_digest(given, token):
            raise _refuse("the view needs the token that orb-sensor view printed: open the address it printed")
        if "token" in request.query and request.method == "GET" and request.path == "/":
            # The token leaves the address bar and stays in a cookie.
            query = {k: v for k, v in request.query.items() if k != "token"}
            response = web.HTTPFound(request.rel_url.with_query(query))
            response.set_cookie(_cookie(request), token, httponly=True, samesite="Strict")
            raise response
        return await handler(request)
    return middleware

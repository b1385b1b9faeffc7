"""orb-sensor view in headless Chromium against the emulated sensor: each test runs
its own `orb-emulate ... -- orb-sensor view --port 0`, reads the address
it prints, drives the page and the emulator's control socket, and leaves a
screenshot beside the view's log in its tmp directory."""

import http.client
import json
import os
import re
import select
import signal
import subprocess
import time
import urllib.error
import urllib.request

import h5py
import pytest

from conftest import EMULATE, PYTHON, REPO, _env

TOOL = os.path.join(REPO, "tools", "orb-sensor")
CHROMIUM, CHROMEDRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
START_S = 30


def _browser_parts():
    """The browser's parts, or a failure that says what to install: these
    tests never skip."""
    missing = [path for path in (CHROMIUM, CHROMEDRIVER) if not os.access(path, os.X_OK)]
    for module in ("selenium", "aiohttp"):
        try:
            __import__(module)
        except ImportError:
            missing.append(f"python3-{module}")
    if missing:
        pytest.fail("the live view's tests need " + ", ".join(missing) + ": run scripts/setup.sh")


def wait_for(condition, seconds, what):
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what}: not within {seconds} s")
        time.sleep(0.1)


class View:
    """An emulator with the view in it, and its control socket."""

    def __init__(self, tmp_path, name, emulator=(), view=()):
        self.socket = str(tmp_path / f"{name}.sock")
        self.log = open(tmp_path / f"{name}.log", "w")
        self.process = subprocess.Popen(
            [EMULATE, *emulator, "--control", self.socket, "--", PYTHON, TOOL, "view", "--port", "0", *view],
            env=_env(), cwd=tmp_path, stdout=subprocess.PIPE, stderr=self.log)
        line, deadline = b"", time.monotonic() + START_S
        while not line.endswith(b"\n"):
            ready, _, _ = select.select([self.process.stdout], [], [], max(deadline - time.monotonic(), 0))
            chunk = os.read(self.process.stdout.fileno(), 1) if ready else b""
            if not chunk:
                self.close()
                raise AssertionError(f"no address printed within {START_S} s: {line!r}")
            line += chunk
        self.url = re.search(r"http://\S+", line.decode()).group()
        self.base = self.url.split("?")[0]

    def ctl(self, *words):
        out = subprocess.run([EMULATE, "ctl", self.socket, *words], capture_output=True, text=True, timeout=10)
        assert out.stdout.strip().endswith("ok"), out.stdout + out.stderr
        return out.stdout

    def shutter(self, device=0):
        return int(re.search(rf"^{device} .* shutter=(\d+)", self.ctl("status"), re.M).group(1))

    def request(self, path, body=None, headers=()):
        """(HTTP status, body text) of a request to the view."""
        data = None if body is None else json.dumps(body).encode()
        req = urllib.request.Request(self.base + path, data=data, headers=dict(headers))
        try:
            with urllib.request.urlopen(req, timeout=10) as response:
                return response.status, response.read().decode()
        except urllib.error.HTTPError as e:
            return e.code, e.read().decode()

    def upgrade(self, origin):
        """The HTTP status of a WebSocket upgrade from a page of `origin`."""
        connection = http.client.HTTPConnection(self.base.split("/")[2], timeout=10)
        connection.request("GET", "/ws", headers={
            "Origin": origin, "Connection": "Upgrade", "Upgrade": "websocket",
            "Sec-WebSocket-Version": "13", "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ=="})
        status = connection.getresponse().status
        connection.close()
        return status

    def close(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(15)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.log.close()


@pytest.fixture
def view(tmp_path):
    _browser_parts()
    views = []

    def start(*emulator, view=()):
        views.append(View(tmp_path, f"view{len(views)}", emulator, view))
        return views[-1]
    yield start
    for v in views:
        v.close()


def chromium(size="1400,800"):
    """A headless Chromium driven by selenium (also docs/pictures/make_view_picture.py's)."""
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", f"--window-size={size}"):
        options.add_argument(argument)
    # The driver is named: selenium would otherwise look for one to download.
    driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
    driver.set_page_load_timeout(30)
    driver.set_script_timeout(30)
    return driver


@pytest.fixture
def page(tmp_path, request):
    """page(url): headless Chromium on the view's page."""
    driver = chromium()

    def load(url):
        driver.get(url)
        return driver
    yield load
    driver.save_screenshot(str(tmp_path / f"{request.node.name}.png"))
    driver.quit()


def with_axis(url, axis):
    return url + ("&" if "?" in url else "?") + f"axis={axis}"


def text(driver, element_id):
    return driver.find_element("id", element_id).text


def frame_number(driver):
    number = text(driver, "frame-number")
    return int(number) if number.isdigit() else None


def enter(driver, element_id, value):
    """Types a value into a control as a user does, and leaves it."""
    from selenium.webdriver.common.keys import Keys
    field = driver.find_element("id", element_id)
    field.click()
    field.send_keys(Keys.CONTROL, "a")
    field.send_keys(str(value))
    driver.find_element("tag name", "h1").click()


def test_the_page_shows_live_frames_and_the_status_answers(view, page):
    v = view("--sensors", "1")
    driver = page(v.url)
    first = wait_for(lambda: frame_number(driver), 15, "a first frame")
    wait_for(lambda: (frame_number(driver) or 0) > first + 20, 5, "the frame number advancing")
    assert "streaming" in text(driver, "state") and int(text(driver, "lost-count")) == 0
    wait_for(lambda: text(driver, "paint-rate") not in ("–", "0.0"), 5, "a paint rate")
    status, body = v.request("api/status")
    state = json.loads(body)
    assert status == 200 and state["state"] == "streaming" and state["sensor_id"] == "C1234-7-20-33-1"
    assert state["frames"] > 20 and state["lost"] == 0 and state["shutter_speed"] == v.shutter()
    assert state["adc"] == {"gain": 1, "range": 132} and state["averages"] == 1
    assert abs(state["exposure_ms"] - (state["shutter_speed"] * 912 + 160) / 10000) < 1e-9

    # At the sensor's fastest pace the page gets what it paints, the newest
    # frame each time, not a queue of them.
    assert v.request("api/settings", {"shutter_speed": 1})[0] == 200
    counts = "return [window.orbView.received, window.orbView.painted]"
    time.sleep(1)
    received, painted = driver.execute_script(counts)
    frames = json.loads(v.request("api/status")[1])["frames"]
    time.sleep(2)
    received, painted = (b - a for a, b in zip((received, painted), driver.execute_script(counts)))
    frames = json.loads(v.request("api/status")[1])["frames"] - frames
    assert painted > 30 and received <= painted + 1 and frames > 3 * painted, (received, painted, frames)


def test_settings_on_the_page_reach_the_sensor_and_bad_ones_reach_nothing(view, page):
    v = view("--sensors", "2", "--led")
    driver = page(v.url)
    wait_for(lambda: frame_number(driver), 15, "a first frame")
    enter(driver, "shutter_speed", 321)
    wait_for(lambda: v.shutter() == 321, 5, "shutter=321 in the emulator")
    enter(driver, "exposure_ms", 20)
    nearest = round((20 * 10000 - 160) / 912)          # (s x 912 + 160) ticks of 10 MHz
    wait_for(lambda: v.shutter() == nearest, 5, "the shutter speed nearest 20 ms")
    for field, value, message in (("shutter_speed", 5000, "shutter speed must be between 1 and 3000, not 5000"),
                                  ("adc_range", 300, "ADC range must be between 0 and 255, not 300"),
                                  ("averages", 0, "averages must be between 1 and")):
        enter(driver, field, value)
        wait_for(lambda: message in text(driver, "message"), 5, f"the message for {field} {value}")
    assert v.shutter() == nearest and json.loads(v.request("api/status")[1])["adc"]["range"] == 132

    # The selector lists the two sensors, not the LED module, which has
    # controls of its own.
    selector = driver.find_element("id", "sensor")
    assert [o.text for o in selector.find_elements("tag name", "option")] == ["C1234-7-20-33-1",
                                                                             "C1234-7-21-33-1"]
    driver.find_element("css selector", '#led-channels [data-channel="2"]').click()
    wait_for(lambda: json.loads(v.request("api/status")[1])["led"]["channels"] == [2], 5, "LED channel 2 on")
    # A recording of the first sensor; its label goes with it.
    driver.find_element("id", "record").click()
    wait_for(lambda: re.search(r"orb-C1234-7-20-33-1-.*\.h5: [1-9]\d* frames", text(driver, "recording")), 5,
             "the first sensor's recording")
    selector.find_elements("tag name", "option")[1].click()
    wait_for(lambda: json.loads(v.request("api/status")[1])["sensor_id"] == "C1234-7-21-33-1", 10,
             "the second sensor")
    wait_for(lambda: text(driver, "recording") == "", 5, "no recording label of the first sensor")
    wait_for(lambda: re.search(r"^1 .* streaming=yes", v.ctl("status"), re.M), 10, "the second streaming")
    # Switched to, it is auto-exposed for its own light (not left at shutter speed 1).
    status = wait_for(lambda: (lambda s: s["state"] == "streaming" and s["auto_exposure"] and s)(
        json.loads(v.request("api/status")[1])), 10, "the second sensor's auto-exposure")
    assert status["auto_exposure"]["outcome"] == "on target" and status["shutter_speed"] > 1, status
    # The page shows the first sensor's number until the second's first frame.
    number = wait_for(lambda: frame_number(driver), 10, "its frames")
    number = wait_for(lambda: frame_number(driver) != number and frame_number(driver), 10, "its own frames")
    wait_for(lambda: (frame_number(driver) or 0) > number, 5, "its frame number advancing")


def test_auto_exposure_and_dark_pause_the_stream_and_it_goes_on(view, page):
    v = view("--sensors", "1", "--scene", "halogen")
    driver = page(with_axis(v.url, "filter"))
    wait_for(lambda: frame_number(driver), 15, "a first frame")
    enter(driver, "shutter_speed", 3000)
    wait_for(lambda: text(driver, "peak") == "4095" and int(text(driver, "saturated-count")) > 0, 10,
             "a saturated halogen lamp")
    enter(driver, "target", 3000)
    driver.find_element("id", "auto-exposure").click()
    wait_for(lambda: v.shutter() < 3000 and "streaming" in text(driver, "state")
             and int(text(driver, "saturated-count")) == 0, 30, "auto-exposure done")
    peak = int(text(driver, "peak"))
    assert 2000 < peak < 4095, peak
    # "To the data": the axis spans the data with a little room, not from 0
    # to a round number (the frames drawn and fetched differ by their noise).
    low, high = driver.execute_script("return window.orbView.range()")
    values = json.loads(v.request("api/frame.json")[1])["filter_data"]
    span = max(values) - min(values)
    assert min(values) - 0.1 * span <= low < min(values), (low, min(values))
    assert max(values) < high <= max(values) + 0.1 * span, (high, max(values))

    # The lamp's dimmest filters read mostly the sensor's offset, which the
    # dark frame takes away.
    driver.find_element("id", "take-dark").click()
    wait_for(lambda: driver.find_element("id", "dark_correction").is_enabled(), 15, "a dark frame")
    before = json.loads(v.request("api/frame.json")[1])
    driver.find_element("id", "dark_correction").click()
    wait_for(lambda: json.loads(v.request("api/frame.json")[1])["dark_correction"], 5, "dark-corrected frames")
    after = json.loads(v.request("api/frame.json")[1])
    assert min(after["filter_data"]) < min(before["filter_data"]) - 20
    assert after["shutter_speed"] == before["shutter_speed"] == v.shutter()


def test_unplug_shows_lost_at_once_and_replug_brings_frames_back(view, page):
    v = view("--sensors", "1")
    driver = page(v.url)
    wait_for(lambda: frame_number(driver), 15, "a first frame")
    driver.execute_script("window.notReloaded = true")
    header = driver.find_element("tag name", "header").size["height"]
    stale = 'return document.getElementById("plots").classList.contains("stale")'
    assert driver.execute_script(stale) is False
    v.ctl("unplug", "0")
    wait_for(lambda: "lost" in text(driver, "state"), 2, "lost shown")
    kept = frame_number(driver)
    time.sleep(1)
    assert frame_number(driver) == kept and text(driver, "peak") != "–"
    # The last curve stays, greyed; the long message does not grow the header.
    assert driver.execute_script(stale) is True
    assert driver.find_element("tag name", "header").size["height"] == header
    v.ctl("replug", "0")
    wait_for(lambda: "streaming" in text(driver, "state"), 15, "streaming again")
    number = wait_for(lambda: frame_number(driver), 5, "a frame after the replug")
    wait_for(lambda: frame_number(driver) > number, 5, "the frame number advancing")
    assert driver.execute_script(stale) is False
    assert driver.execute_script("return window.notReloaded") is True

    # A sensor that hangs is on the bus: it does not answer, it is not lost.
    v.ctl("fault", "0", "hang")
    wait_for(lambda: "not answering" in text(driver, "state"), 15, "not answering shown")
    assert driver.execute_script(stale) is True


def test_a_silent_or_stalled_sensor_is_named_and_frames_come_back_once_cleared(view, page):
    v = view("--sensors", "1")
    driver = page(v.url)
    wait_for(lambda: frame_number(driver), 15, "a first frame")
    for fault, words in ((["trickle", "64"], "not answering"), (["stall-bulk"], "endpoint stalled")):
        t = time.monotonic()
        v.ctl("fault", "0", *fault)
        wait_for(lambda: words in text(driver, "state"), 5, words)
        assert "lost" not in text(driver, "state")
        shown = time.monotonic() - t
        t = time.monotonic()
        v.ctl("clear", "0")
        wait_for(lambda: "streaming" in text(driver, "state"), 3.5, f"streaming after {fault[0]}")
        number = wait_for(lambda: frame_number(driver), 3, "a frame")
        wait_for(lambda: frame_number(driver) > number, 3, "the frame number advancing")
        print(f"{fault[0]}: shown after {shown:.1f} s, frames again after {time.monotonic() - t:.1f} s")


def test_freeze_save_and_record(view, page, tmp_path):
    v = view("--sensors", "1")
    driver = page(v.url)
    wait_for(lambda: frame_number(driver), 15, "a first frame")
    driver.find_element("id", "freeze").click()
    wait_for(lambda: "frozen" in text(driver, "state"), 5, "frozen")
    held = frame_number(driver)
    time.sleep(0.5)
    assert frame_number(driver) == held
    saved = json.loads(v.request("api/frame.json")[1])
    assert saved["seq"] == held and len(saved["filter_data"]) == 1024 and saved["sensor_id"] == "C1234-7-20-33-1"
    csv = v.request("api/frame.csv")[1].splitlines()
    assert f"# seq: {held}" in csv and csv[csv.index("filter,value") + 1024].startswith("1024,")
    driver.find_element("id", "freeze").click()
    wait_for(lambda: (frame_number(driver) or 0) > held, 5, "frames again")

    driver.find_element("id", "record").click()
    wait_for(lambda: re.search(r"\.h5: [1-9]\d* frames", text(driver, "recording")), 5, "a recording")
    time.sleep(1)
    driver.find_element("id", "record").click()
    shown = wait_for(lambda: re.search(r"(\S+\.h5): (\d+) frames \(stopped\)", text(driver, "recording")), 5,
                     "the recording stopped")
    with h5py.File(tmp_path / shown.group(1)) as f:
        assert f["entry/data/filter_data"].shape == (int(shown.group(2)), 1024)
        assert f["entry"].attrs["sensor_id"] == "C1234-7-20-33-1"


def test_foreign_origins_and_requests_without_the_token_are_refused(view, page):
    v = view("--sensors", "1")
    foreign = {"Origin": "http://attacker.example"}
    assert v.request("api/status", headers=foreign)[0] == 403
    assert v.request("api/settings", {"shutter_speed": 7}, foreign)[0] == 403
    assert v.request("api/status", headers={"Host": "attacker.example"})[0] == 403
    assert v.upgrade(foreign["Origin"]) == 403 and v.upgrade(v.base.rstrip("/")) == 101
    assert v.request("api/status")[0] == 200 and v.shutter() != 7

    away = view("--sensors", "1", view=("--host", "127.0.0.2"))
    token = re.search(r"\?token=(\S+)", away.url).group(1)
    assert away.base.startswith("http://127.0.0.2:")
    for path in ("", "api/status", "uplot/uPlot.iife.min.js", "api/frame.json"):
        status, body = away.request(path)
        assert status == 403 and "token" in body, (path, status)
    assert away.request("api/settings", {"shutter_speed": 7})[0] == 403
    assert away.request("api/status", headers={"Authorization": "token " + token[:-1]})[0] == 403
    assert away.request("api/status", headers={"Authorization": "token " + token})[0] == 200

    # The token in the address once: the page, then its WebSocket, by cookie.
    driver = page(away.url)
    wait_for(lambda: frame_number(driver), 15, "frames over the token's cookie")
    assert "token" not in driver.current_url
    # That page, another site to the first view, tries to drive it.
    answer = driver.execute_async_script("""
        const [base, done] = arguments;
        fetch(base + "api/settings", {method: "POST", mode: "no-cors", body: '{"shutter_speed": 7}'})
          .finally(() => {
            const socket = new WebSocket(base.replace("http", "ws") + "ws");
            socket.onopen = () => done("opened");
            socket.onerror = () => done("refused");
          });""", v.base)
    assert answer == "refused" and v.shutter() != 7

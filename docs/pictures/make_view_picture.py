#!/usr/bin/python3
"""The README's picture of the live view in spectrum mode: orb-sensor view of
one emulated sensor under the fluorescent tube, with emulated unit 0's
calibration (made first when missing, as the tests' is), a dark frame taken
with the scene dark, 8 frames averaged, screenshot by headless Chromium (the
view tests' machinery, python/tests/test_view.py).

usage: docs/pictures/make_view_picture.py [--out docs/pictures/view_spectrum.png]
(the build tree's library and orb-emulate, as the tests use them; under a minute)
"""

import argparse
import json
import os
import pathlib
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "python", "tests"))

import calibrated  # noqa: E402
from test_view import View, chromium, wait_for  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", default=os.path.join(HERE, "view_spectrum.png"))
    args = parser.parse_args()
    calibrated.calibrations(1)
    with tempfile.TemporaryDirectory() as tmp:
        view = View(pathlib.Path(tmp), "view", ("--sensors", "1", "--scene", "fluorescent"))
        driver = chromium("1400,760")
        try:
            driver.get(view.url)
            status = lambda: json.loads(view.request("api/status")[1])  # noqa: E731
            wait_for(lambda: status()["state"] == "streaming", 30, "the first auto-exposure")
            view.ctl("scene", "0", "dark")
            assert view.request("api/dark", {})[0] == 200
            view.ctl("scene", "0", "fluorescent")
            assert view.request("api/settings", {"averages": 8})[0] == 200
            wait_for(lambda: driver.execute_script("const s = window.orbView.spectrum; return s && s.colour"),
                     15, "a spectrum with its colour")
            # The cursor's readout over the green mercury line.
            driver.execute_script("""
                const over = document.querySelector('#spectrum-plot .u-over');
                const box = over.getBoundingClientRect();
                over.dispatchEvent(new MouseEvent('mousemove', {clientX: box.left + box.width * 0.274,
                                                                clientY: box.top + box.height / 2, bubbles: true}));""")
            time.sleep(1.5)
            driver.save_screenshot(args.out)
        finally:
            driver.quit()
            view.close()
    print(args.out)


if __name__ == "__main__":
    main()

"""The live view's spectrum mode in headless Chromium, with the emulated
units' own calibrations (calibrated.py): the nm axis, the peaks, the colour,
the reference and its modes, an overlay, and a sensor without a
calibration, which the page tells how to make one."""

import json

from calibrated import calibrated_units  # noqa: F401 (a fixture)
from test_view import page, text, view, wait_for  # noqa: F401 (fixtures)

MERCURY_NM = (435.8, 546.1)


def spectrum(driver):
    return driver.execute_script("const s = window.orbView.spectrum; return s && {...s, range: s.range()}")


def lit(shown):
    """The shown spectrum when it has a colour and the tube's europium line."""
    if not shown or not shown.get("colour"):
        return None
    return shown if any(abs(nm - 611.6) < 3 for nm, _ in shown["peaks"]) else None


def status(v):
    return json.loads(v.request("api/status")[1])


def take_dark(v, driver, light):
    v.ctl("scene", "0", "dark")
    driver.find_element("id", "take-dark").click()
    wait_for(lambda: status(v)["dark"] and status(v)["state"] == "streaming", 20, "a dark frame")
    v.ctl("scene", "0", light)


def test_spectrum_mode_reads_nm_with_peaks_colour_reference_and_overlay(view, page, calibrated_units, tmp_path):
    v = view("--sensors", "3", "--scene", "fluorescent", view=("--sensor", "2"))
    driver = page(v.url)
    # Sensor 2 has no calibration: the filter axis, and how to make one.
    wait_for(lambda: text(driver, "frame-number").isdigit(), 20, "a first frame")
    assert "orb-sensor calibrate" in text(driver, "calibration")
    assert driver.find_element("id", "spectrum-plot").get_attribute("hidden") is not None
    driver.find_element("css selector", "#axis option[value=nm]").click()
    wait_for(lambda: "make one with `orb-sensor calibrate`" in text(driver, "spectrum-problem"), 10,
             "the missing calibration named on the nm axis")

    # Sensor 0 has one: its ID and date, and without a dark the page says
    # how to take one.
    sensor0 = "C1234-7-20-33-1"
    assert v.request("api/sensor", {"id": sensor0})[0] == 200
    wait_for(lambda: f"calibration of {sensor0}, made 20" in text(driver, "calibration"), 10, "the calibration")
    wait_for(lambda: "Take dark" in text(driver, "spectrum-problem"), 10, "the missing dark named")
    take_dark(v, driver, "fluorescent")
    # Frames the sensor took while covered are still on their way for a
    # moment: the tube's spectrum is the one with its strongest line, the
    # europium line at 611.6 nm.
    shown = wait_for(lambda: lit(spectrum(driver)), 15, "a spectrum of the tube")
    # uPlot draws the axes on its canvas: their labels as it was given them.
    assert shown["labels"] == ["wavelength, nm", "spectrum, calibration source power/nm"], shown["labels"]
    assert shown["first_nm"] < 400 and shown["last_nm"] > 1000
    peaks = [nm for nm, _ in shown["peaks"]]
    for line in MERCURY_NM:
        # The plain reconstruction's peaks, without the line fit: within 3 nm.
        assert min(abs(nm - line) for nm in peaks) < 3, (line, peaks)
    # The tube's colour: a warm white near the locus, a modest Ra.
    cct = float(text(driver, "cct"))
    assert 2500 < cct < 7000 and abs(float(text(driver, "duv"))) < 0.02, cct
    assert 0.3 < float(text(driver, "chroma-x")) < 0.5 and 40 < float(text(driver, "ra").split()[0]) < 100
    driver.save_screenshot(str(tmp_path / "spectrum-mode.png"))

    # Transmission of a lamp against itself as the reference: 100% where
    # drawn, within the noise of a spectrum of 4 frames.
    v.ctl("scene", "0", "halogen")
    assert v.request("api/settings", {"averages": 4})[0] == 200
    driver.find_element("id", "take-reference").click()
    wait_for(lambda: status(v)["reference"] and status(v)["state"] == "streaming", 20, "a reference")
    assert v.request("api/spectrum", {"mode": "transmission"})[0] == 200
    wait_for(lambda: (spectrum(driver) or {}).get("mode") == "transmission", 10, "transmission drawn")
    assert spectrum(driver)["labels"][1] == "transmission, %"
    low, high = spectrum(driver)["range"]
    assert 50 < low < 100 < high < 150, (low, high)
    assert v.request("api/spectrum", {"mode": "opacity"})[0] == 400
    # At another exposure the reference is refused, and the page says so.
    assert v.request("api/settings", {"shutter_speed": status(v)["shutter_speed"] + 7})[0] == 200
    wait_for(lambda: "take it again at this exposure" in text(driver, "spectrum-problem"), 10, "the refusal")

    # A saved spectrum comes back as an overlay; a spoilt file is refused by line.
    assert v.request("api/spectrum", {"mode": "spectrum"})[0] == 200
    assert v.request("api/settings", {"shutter_speed": status(v)["reference"]["shutter_speed"]})[0] == 200
    wait_for(lambda: not driver.find_element("id", "spectrum-problem").is_displayed(), 10, "spectra again")
    code, saved = v.request("api/spectrum.csv")
    assert code == 200 and "wavelength_nm,value" in saved
    assert v.request("api/overlay", {"name": "tube.csv", "csv": saved})[0] == 200
    wait_for(lambda: "tube.csv" in text(driver, "overlay"), 5, "the overlay named")
    code, body = v.request("api/overlay", {"name": "bad.csv", "csv": "400,1\n399,2\n"})
    assert code == 400 and "bad.csv:2" in json.loads(body)["error"]

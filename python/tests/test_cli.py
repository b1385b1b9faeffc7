import json
import re
import struct
import subprocess

import pytest

from orb_sensor._cli.emulation import MAX_SENSORS
from orb_sensor._recording.text import CSV_COLUMNS

from conftest import EMULATE


@pytest.mark.parametrize("sensors", [1, 3])
def test_list_names_each_sensor(orb_sensor, sensors):
    result = orb_sensor("--emulate", str(sensors), "list")
    assert result.returncode == 0, result.stderr
    assert result.stdout.splitlines() == [f"{i} C1234-7-{20 + i}-33-1" for i in range(sensors)]


def test_no_sensor_says_what_to_check(orb_sensor):
    for command in ("list", "acquire", "stream", "record -o x.h5"):
        result = orb_sensor("--emulate", "0", *command.split())
        assert result.returncode == 1, (command, result.stderr)
        assert result.stdout == ""
        assert result.stderr.startswith("orb-sensor: no sensor found")
        assert "`orb-sensor doctor`" in result.stderr


def test_acquire_writes_the_csv_layout_of_stream(orb_sensor):
    result = orb_sensor("--emulate", "acquire", "-n", "2", "--shutter", "1")
    assert result.returncode == 0, result.stderr
    lines = [line for line in result.stdout.splitlines() if not line.startswith("# ")]
    assert '# sensor_id: "C1234-7-20-33-1"' in result.stdout
    # Shutter speed 1 exposes 0.1072 ms: exact, never "0 ms".
    assert "# exposure_ms: 0.1072" in result.stdout.splitlines()
    assert lines[0] == ",".join(CSV_COLUMNS) and len(lines) == 2
    row = lines[1].split(",")
    assert row[2:4] == ["1", "0.1072"] and row[6] == "2"
    assert all(0.0 <= float(v) <= 4095.0 for v in row[9:]) and len(row) == len(CSV_COLUMNS)


def test_acquire_json_with_settings_and_plot(orb_sensor, tmp_path):
    result = orb_sensor("--emulate", "2", "acquire", "--sensor", "C1234-7-21-33-1", "-n", "2",
                        "--shutter", "400", "--gain", "0", "--adc-range", "100",
                        "--json", "-o", "frame.json", "--plot", "frame.png")
    assert result.returncode == 0, result.stderr
    assert result.stdout == ""
    doc = json.loads((tmp_path / "frame.json").read_text())
    assert len(doc.pop("filter_data")) == 1024
    assert doc.pop("library_version") == "1.0.0" and doc.pop("saturated_filters") == []
    assert doc.pop("start_time").startswith("20") and doc.pop("timestamp") > 0
    # The same keys as stream's run and frames.
    assert {k: doc[k] for k in ("sensor_id", "sensor_index", "averages", "shutter_speed", "exposure_ms",
                                "master_clock_mhz", "adc_gain", "adc_range", "exposure_set_by", "units")} == {
        "sensor_id": "C1234-7-21-33-1", "sensor_index": 1, "averages": 2, "shutter_speed": 400,
        "exposure_ms": 36.496, "master_clock_mhz": 10, "adc_gain": 0, "adc_range": 100,
        "exposure_set_by": "--shutter", "units": "DN"}
    png = (tmp_path / "frame.png").read_bytes()
    assert png[:8] == b"\x89PNG\r\n\x1a\n" and png[12:16] == b"IHDR"
    assert struct.unpack(">II", png[16:24]) == (1000, 400)


def test_auto_exposure_reports_the_shutter_speed_it_used(orb_sensor):
    result = orb_sensor("--emulate", "acquire", "--auto-exposure", "--target", "3000", "--json")
    assert result.returncode == 0, result.stderr
    doc = json.loads(result.stdout)
    assert doc["exposure_set_by"] == "--auto-exposure" and doc["auto_exposure_target"] == 3000
    assert doc["auto_exposure_outcome"] == "on target"
    assert 1 < doc["shutter_speed"] < 3000
    assert f"auto-exposure on target: shutter speed {doc['shutter_speed']} (" in result.stderr
    assert 2500 < max(doc["filter_data"]) <= 3500


@pytest.mark.parametrize("scene, warning", [("halogen 0.01", "too dim even at the longest exposure"),
                                            ("dark", "too dim even at the longest exposure"),
                                            ("sun 1000", "too bright even at the shortest exposure")])
def test_auto_exposure_off_target_is_a_warning_and_ends_within_its_bound(orb_sensor, scene, warning):
    result = orb_sensor("--emulate", "acquire", "--auto-exposure", "--json", emulate_scene=scene)
    assert result.returncode == 0, result.stderr
    assert "auto-exposure warning: " + warning in result.stderr
    assert json.loads(result.stdout)["shutter_speed"] == (1 if "sun" in scene else 3000)


def test_timeout_bounds_a_silence_not_a_long_healthy_acquisition(orb_sensor):
    result = orb_sensor("--emulate", "acquire", "-n", "1500", "--shutter", "1", "--timeout", "1")
    assert result.returncode == 0, result.stderr


def test_led_sets_the_state_word_and_refuses_what_it_cannot_carry(orb_sensor):
    result = orb_sensor("--emulate", "0", "led", "--on", "2", "0", "--intensity", "100")
    assert result.returncode == 0, result.stderr
    assert result.stdout == "LED state word 0x6405: channels on: 0 (468 nm), 2 (572 nm); intensity 100\n"
    # A ninth channel or an intensity above a byte would spill into the
    # neighbouring bits of the state word.
    for args in (["--on", "8"], ["--intensity", "256"], ["--off", "--on", "1"]):
        result = orb_sensor("--emulate", "0", "led", *args)
        assert result.returncode == 2 and result.stdout == "", args


def test_refused_sensor_names_its_node(run_python):
    result = run_python(1, "from orb_sensor._cli import commands\nfrom orb_sensor._process import usb_nodes\n"
                           "usb_nodes.may_open = lambda *a, **k: False\n"
                           "print(commands.no_sensor_message())\n")
    assert result.returncode == 0, result.stderr
    assert result.stdout.startswith(
        "orb-sensor: no sensor could be opened: this user may not open /dev/bus/usb/001/")


def test_progress_shows_on_a_terminal_only(orb_sensor, orb_sensor_on_terminal):
    result, shown = orb_sensor_on_terminal("--emulate", "acquire", "-n", "20", "--auto-exposure", "-o", "f.csv")
    assert result.returncode == 0
    assert re.search(rb"\[ +\d+\.\d s\] searching the shutter speed", shown)
    assert b"acquiring 20 frame(s)" in shown
    piped = orb_sensor("--emulate", "acquire", "-n", "20", "--auto-exposure", "-o", "f.csv")
    assert b"\r" not in piped.stderr.encode() and "[" not in piped.stderr


def test_the_led_module_is_no_sensor_and_led_says_when_there_is_none(orb_sensor):
    # The library lists the module among the sensors; the tool never does.
    with_led = ["--sensors", "1", "--led"]
    listed = orb_sensor("list", emulate=with_led)
    assert listed.returncode == 0 and listed.stdout == "0 C1234-7-20-33-1\n", listed
    chosen = orb_sensor("acquire", "--sensor", "1", "--shutter", "1", emulate=with_led)
    assert chosen.returncode == 2 and "index must be below 1: 1 sensor(s) attached" in chosen.stderr, chosen
    by_id = orb_sensor("acquire", "--sensor", "A0-0-0-0-0", emulate=with_led)
    assert by_id.returncode == 2 and "A0-0-0-0-0 is the LED module, not a sensor" in by_id.stderr, by_id

    # Without a module the request would reach the sensor: refused, nothing sent.
    result = orb_sensor("led", "--on", "1", emulate=["--sensors", "1"])
    assert result.returncode == 1 and result.stdout == "", result
    assert "no LED module on the bus" in result.stderr
    # No option: the module's state cannot be read back, and nothing is switched off.
    result = orb_sensor("--emulate", "0", "led")
    assert result.returncode == 2 and "say what to set" in result.stderr, result


def test_emulate_counts_have_one_limit_and_a_bad_one_says_what_a_count_is(orb_sensor):
    help_text = subprocess.run([EMULATE, "--help"], capture_output=True, text=True, timeout=10)
    assert f"at most {MAX_SENSORS}" in help_text.stdout + help_text.stderr
    for bad in ("x", "-1", str(MAX_SENSORS + 1), "2.5"):
        result = orb_sensor("--emulate", bad, "list")
        assert result.returncode == 2, (bad, result)
        assert f"the count of emulated sensors must be a whole number from 0 to {MAX_SENSORS}" in result.stderr


def test_record_refuses_to_overwrite_unless_forced_and_hdf5_named_as_text(orb_sensor, tmp_path):
    (tmp_path / "run.h5").write_bytes(b"kept")
    result = orb_sensor("--emulate", "record", "-o", "run.h5", "--frames", "3", "--shutter", "1")
    assert result.returncode == 2 and "run.h5 exists: give --force" in result.stderr
    assert (tmp_path / "run.h5").read_bytes() == b"kept"
    result = orb_sensor("--emulate", "record", "-o", "run.h5", "--frames", "3", "--shutter", "1", "--force")
    assert result.returncode == 0, result.stderr
    assert (tmp_path / "run.h5").read_bytes()[:8] == b"\x89HDF\r\n\x1a\n"
    result = orb_sensor("--emulate", "record", "-o", "run.csv", "--frames", "3")
    assert result.returncode == 2 and "record writes HDF5: name it .h5" in result.stderr
    assert not (tmp_path / "run.csv").exists()

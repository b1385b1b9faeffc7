"""The Python copies of orb_stream.h held against the header: a small C
program, built here with the system's compiler, prints what the compiler
makes of the header (sizes, offsets, values), and the package must agree."""

import os
import re
import shutil
import subprocess

import pytest

from orb_sensor._process import stream_abi
from orb_sensor._process.stream_abi import (ACTIVITY_DTYPE, EXPOSURE_RESULT_DTYPE, FRAME_DTYPE, SETTINGS_DTYPE,
                                            STATS_DTYPE, STREAM_FILTERS, STREAM_MAX_RING, STREAM_SATURATED,
                                            ExposureOutcome, StreamResult)

from conftest import REPO

HEADER = os.path.join(REPO, "include", "orb_stream.h")
STRUCTS = {"orb_stream_settings": SETTINGS_DTYPE, "orb_stream_frame": FRAME_DTYPE,
           "orb_stream_stats": STATS_DTYPE, "orb_frame_activity": ACTIVITY_DTYPE,
           "orb_exposure_result": EXPOSURE_RESULT_DTYPE}
EXPOSURE_CONSTANTS = ("DEFAULT_TARGET", "DEFAULT_TOLERANCE_PERCENT", "MAX_ROUNDS", "READ_BOUND_MS")


def _c_name(python_name):
    return "ORB_STREAM_" + python_name


@pytest.fixture(scope="module")
def header_facts(tmp_path_factory):
    """{name: value} as the compiler sees the header."""
    compiler = os.environ.get("CC") or shutil.which("cc") or shutil.which("gcc")
    assert compiler, "no C compiler: scripts/setup.sh installs build-essential"
    lines = []
    for struct, dtype in STRUCTS.items():
        lines.append(f'printf("sizeof {struct} %zu\\n", sizeof({struct}));')
        for field in dtype.names:
            lines.append(f'printf("offsetof {struct}.{field} %zu\\n", offsetof({struct}, {field}));')
            lines.append(f'printf("sizeof {struct}.{field} %zu\\n", sizeof((({struct}*)0)->{field}));')
    for result in StreamResult:
        lines.append(f'printf("value {_c_name(result.name)} %d\\n", (int){_c_name(result.name)});')
    for outcome in ExposureOutcome:
        lines.append(f'printf("value ORB_EXPOSURE_{outcome.name} %d\\n", (int)ORB_EXPOSURE_{outcome.name});')
    for name in EXPOSURE_CONSTANTS:
        lines.append(f'printf("value ORB_EXPOSURE_{name} %d\\n", (int)ORB_EXPOSURE_{name});')
    for name in ("FILTERS", "SATURATED", "MAX_RING"):
        lines.append(f'printf("value ORB_STREAM_{name} %d\\n", (int)ORB_STREAM_{name});')
    work = tmp_path_factory.mktemp("abi")
    source = work / "abi.c"
    source.write_text("#include <stddef.h>\n#include <stdio.h>\n#include \"orb_stream.h\"\n"
                      "int main(void) {\n" + "\n".join(lines) + "\nreturn 0;\n}\n")
    program = work / "abi"
    subprocess.run([compiler, "-std=c11", "-Wall", "-Werror", "-I", os.path.dirname(HEADER), str(source),
                    "-o", str(program)], check=True, timeout=60)
    out = subprocess.run([str(program)], check=True, capture_output=True, text=True, timeout=10).stdout
    return {key: int(value) for key, value in (line.rsplit(" ", 1) for line in out.splitlines())}


def test_records_have_the_header_size_and_every_field_its_offset_and_size(header_facts):
    for struct, dtype in STRUCTS.items():
        assert dtype.itemsize == header_facts[f"sizeof {struct}"], struct
        for field in dtype.names:
            at = dtype.fields[field][1]
            assert at == header_facts[f"offsetof {struct}.{field}"], f"{struct}.{field}"
            assert dtype[field].itemsize == header_facts[f"sizeof {struct}.{field}"], f"{struct}.{field}"


def test_the_missed_counts_took_the_tail_padding_and_left_the_sizes_as_they_were():
    # Hosts built before the counts were added pass records of these sizes.
    assert (FRAME_DTYPE.itemsize, STATS_DTYPE.itemsize) == (2104, 56)
    assert FRAME_DTYPE.fields["missed_before"][1] == FRAME_DTYPE.fields["values"][1] + 2 * STREAM_FILTERS
    assert STATS_DTYPE.fields["missed"][1] == STATS_DTYPE.fields["max_queued"][1] + 4


def test_result_codes_and_constants_have_the_header_values(header_facts):
    for result in StreamResult:
        assert int(result) == header_facts[f"value {_c_name(result.name)}"], result.name
    assert (STREAM_FILTERS, STREAM_SATURATED, STREAM_MAX_RING) == (
        header_facts["value ORB_STREAM_FILTERS"], header_facts["value ORB_STREAM_SATURATED"],
        header_facts["value ORB_STREAM_MAX_RING"])
    for outcome in ExposureOutcome:
        assert int(outcome) == header_facts[f"value ORB_EXPOSURE_{outcome.name}"], outcome.name
    for name in EXPOSURE_CONSTANTS:
        assert getattr(stream_abi, "EXPOSURE_" + name) == header_facts[f"value ORB_EXPOSURE_{name}"], name


def test_every_result_code_of_the_header_is_known():
    with open(HEADER) as f:
        enum = re.search(r"enum orb_stream_result \{(.*?)\};", f.read(), re.S).group(1)
    names = set(re.findall(r"\bORB_STREAM_(\w+)\s*=", enum))
    assert names == {r.name for r in StreamResult}
    with open(HEADER) as f:
        enum = re.search(r"enum orb_exposure_outcome \{(.*?)\};", f.read(), re.S).group(1)
    assert set(re.findall(r"\bORB_EXPOSURE_(\w+)\s*=", enum)) == {o.name for o in ExposureOutcome}
    # The fields of the records, in the header's order, are the package's.
    with open(HEADER) as f:
        text = f.read()
    for struct, dtype in STRUCTS.items():
        body = re.search(r"typedef struct " + struct + r" \{(.*?)\} " + struct + ";", text, re.S).group(1)
        body = re.sub(r"/\*.*?\*/", "", body, flags=re.S)
        fields = re.findall(r"(\w+)(?:\[\w+\])?;", body)
        assert tuple(fields) == dtype.names, struct

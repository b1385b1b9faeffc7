"""--emulate: the tool runs itself again under orb-emulate."""

import os
import shutil
import sys

from .._process import library

EMULATED_ENV = "ORB_SENSOR_EMULATED"
# orb-emulate's own limit (its --help says "at most 80"); tests/test_cli.py
# holds the two together.
MAX_SENSORS = 80
EMULATE_ENV = "ORB_EMULATE"


def _package_root():
    """The directory that holds the package orb_sensor (this is its _cli)."""
    return os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def find_orb_emulate():
    """The launcher: $ORB_EMULATE, beside the library of a build tree,
    beside the installed tool, or on PATH; None when there is none."""
    explicit = os.environ.get(EMULATE_ENV)
    if explicit:
        return explicit
    lib = os.environ.get(library.LIBRARY_ENV)
    if lib:
        # A build tree keeps the library in src/ and the launcher in sim/.
        lib_dir = os.path.dirname(os.path.abspath(lib))
        for candidate in (os.path.join(lib_dir, "..", "sim", "orb-emulate"),
                          os.path.join(lib_dir, "orb-emulate")):
            if os.access(candidate, os.X_OK):
                return os.path.normpath(candidate)
    # Installed: the package is in PREFIX/lib/python3/dist-packages, the
    # launcher in PREFIX/bin.
    package_root = _package_root()
    installed = os.path.join(package_root, "..", "..", "..", "bin", "orb-emulate")
    if os.access(installed, os.X_OK):
        return os.path.normpath(installed)
    return shutil.which("orb-emulate")


def reexec(sensors, led, argv):
    """Replaces this process with the same command under the launcher;
    returns 2 when there is no launcher."""
    launcher = find_orb_emulate()
    if launcher is None:
        sys.stderr.write(f"orb-sensor: --emulate needs orb-emulate: put it on PATH or set {EMULATE_ENV}\n")
        return 2
    env = dict(os.environ)
    env[EMULATED_ENV] = "1"
    package_root = _package_root()
    env["PYTHONPATH"] = os.pathsep.join(filter(None, [package_root, env.get("PYTHONPATH")]))
    # A halogen lamp to look at, as the demo has it.
    command = [launcher, "--sensors", str(sensors), "--scene", "halogen", *(["--led"] if led else []), "--",
               sys.executable, "-m", "orb_sensor", *argv]
    sys.stdout.flush()
    sys.stderr.flush()
    os.execve(launcher, command, env)


def sensor_count(text):
    """--emulate's count, said as what it must be when it is not."""
    import argparse
    if not (text.isascii() and text.isdigit() and int(text) <= MAX_SENSORS):
        raise argparse.ArgumentTypeError(f"the count of emulated sensors must be a whole number from 0 to "
                                         f"{MAX_SENSORS}, not {text!r}")
    return int(text)


def with_emulate_count(argv, commands):
    """argparse would take the subcommand after a bare --emulate for its
    count; any other word after it is a count, checked as one."""
    argv = list(argv)
    for i, arg in enumerate(argv):
        if arg == "--":
            break
        if arg == "--emulate" and (i + 1 >= len(argv) or argv[i + 1] in commands
                                   or argv[i + 1].startswith("--")):
            argv[i] = "--emulate=1"
    return argv

"""orb-sensor doctor: what to look at when nothing works, one line per check.

Each line starts with "OK  " or "FIX "; a FIX line says what to do. Nothing
here loads the sensor library or opens a sensor: a broken set-up must not
stop the report that explains it.
"""

import grp
import os
import pwd
import subprocess

from .._process import library, usb_nodes

OK, FIX = "OK  ", "FIX "
RULES_NAME = "60-orb-sensor.rules"
RULES_DIRS = ("/etc/udev/rules.d", "/lib/udev/rules.d", "/usr/lib/udev/rules.d",
              "/usr/local/lib/udev/rules.d")
# The package orb_sensor, of which this is _cli.
PACKAGE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def _loader_search(name):
    """Where the dynamic loader would find a bare library name, or None."""
    dirs = [d for d in os.environ.get("LD_LIBRARY_PATH", "").split(":") if d]
    for directory in dirs:
        if os.path.exists(os.path.join(directory, name)):
            return os.path.join(directory, name)
    try:
        cache = subprocess.run(["/sbin/ldconfig", "-p"], capture_output=True, text=True,
                               timeout=10).stdout
    except (OSError, subprocess.SubprocessError):
        cache = ""
    for line in cache.splitlines():
        soname, arrow, path = line.strip().partition(" => ")
        if arrow and soname.split(" (")[0] == name:
            return path
    for directory in ("/lib", "/usr/lib"):
        if os.path.exists(os.path.join(directory, name)):
            return os.path.join(directory, name)
    return None


def check_library():
    tried = []
    for candidate in library.candidates():
        path = candidate if os.sep in candidate else _loader_search(candidate)
        if path and os.path.exists(path):
            real = os.path.realpath(path)
            _, dot_so, version = os.path.basename(real).partition(".so.")
            version = version if dot_so else "unknown"
            return [(True, f"library: {real} (version {version})")]
        tried.append(candidate)
    if os.environ.get(library.LIBRARY_ENV):
        return [(False, f"library: {library.LIBRARY_ENV} names {tried[0]}, which is not there: "
                        "set it to the full path of liborb_device.so.1, or unset it")]
    return [(False, f"library: {library.SONAME} not found (tried {', '.join(tried)}): install "
                    f"the project (cmake --install build), or set {library.LIBRARY_ENV} to "
                    "the library's full path")]


def check_nodes(nodes, uid=None, gids=None):
    if not nodes:
        return [(False, f"no sensor attached (no USB device {usb_nodes.VENDOR_ID}:"
                        f"{usb_nodes.PRODUCT_ID}): plug it in, or try "
                        "`orb-sensor --emulate 1 list`")]
    lines = []
    for node in nodes:
        try:
            st = os.stat(node)
        except OSError:
            lines.append((False, f"{node}: a sensor is attached but its node is missing: "
                                 "replug it, and check that udev is running"))
            continue
        owner = f"{_name(pwd.getpwuid, st.st_uid)}:{_name(grp.getgrgid, st.st_gid)}"
        facts = f"{node}: mode {st.st_mode & 0o7777:04o}, owner {owner}"
        if usb_nodes.may_open(node, uid, gids):
            lines.append((True, f"{facts}, this user may read and write it"))
        else:
            lines.append((False, f"{facts}, this user may not read and write it: install the "
                                 "udev rule and replug the sensor (the rule gives access to "
                                 "the user logged in at the seat, not over ssh)"))
    return lines


def _name(lookup, number):
    """The user or group name, or the number when it has none here."""
    try:
        return lookup(number)[0]
    except KeyError:
        return str(number)


def check_rule(rules_dirs=RULES_DIRS, package_dir=PACKAGE_DIR):
    for directory in rules_dirs:
        path = os.path.join(directory, RULES_NAME)
        if os.path.exists(path):
            return [(True, f"udev rule: {path}")]
    # Installed, the package is PREFIX/lib/python3/dist-packages/orb_sensor
    # and the rule PREFIX/lib/udev/rules.d; in a source tree the package is
    # python/orb_sensor and the rule udev/.
    parent = os.path.dirname(os.path.abspath(package_dir))
    installed = os.path.normpath(os.path.join(parent, "..", "..", "..", "lib", "udev", "rules.d",
                                              RULES_NAME))
    source = os.path.normpath(os.path.join(parent, "..", "udev", RULES_NAME))
    shipped = next((p for p in (installed, source) if os.path.exists(p)), None)
    if shipped is None:
        return [(False, f"udev rule {RULES_NAME} not installed, and no copy of it beside this "
                        f"package: take udev/{RULES_NAME} from the project's source and copy it "
                        "into /etc/udev/rules.d/")]
    return [(False, f"udev rule {RULES_NAME} not installed: sudo cp {shipped} /etc/udev/rules.d/"
                    " && sudo udevadm control --reload && sudo udevadm trigger")]


def check_holders(nodes, proc_root=usb_nodes.PROC_ROOT):
    if not nodes:
        return [(True, "no other program holds a sensor (none attached)")]
    found, unseen = usb_nodes.holders(nodes, proc_root)
    lines = [(False, f"{node} is held by pid {pid} ({command}): end that program: a sensor "
                     "serves one program at a time") for pid, command, node in found]
    if not found:
        text = "no other program holds a sensor"
        if unseen:
            text += (f" (could not look into {unseen} processes of other users: run as root "
                     "to see all)")
        lines.append((True, text))
    return lines


def check_emulator(emulate_finder):
    path = emulate_finder()
    if path and os.access(path, os.X_OK):
        return [(True, f"emulator: {path}")]
    if path:
        return [(False, f"emulator: {path} is not an executable: build it (cmake --build build "
                        "makes build/sim/orb-emulate) or set ORB_EMULATE to it")]
    return [(False, "emulator: orb-emulate not found: build it (cmake --build build makes "
                    "build/sim/orb-emulate), put it on PATH, or set ORB_EMULATE to it")]


def run(out, emulate_finder, *, sys_root=usb_nodes.SYS_ROOT, dev_root=usb_nodes.DEV_ROOT,
        proc_root=usb_nodes.PROC_ROOT, rules_dirs=RULES_DIRS, package_dir=PACKAGE_DIR,
        uid=None, gids=None):
    """Writes the checks to out; 0 when all are OK, else 1. uid and gids name
    the user whose access to the nodes is judged, by default this process's."""
    nodes = usb_nodes.sensor_nodes(sys_root, dev_root)
    lines = (check_library() + check_nodes(nodes, uid, gids) + check_rule(rules_dirs, package_dir)
             + check_holders(nodes, proc_root) + check_emulator(emulate_finder))
    for ok, text in lines:
        out.write((OK if ok else FIX) + text + "\n")
    return 0 if all(ok for ok, _ in lines) else 1

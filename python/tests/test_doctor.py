"""orb-sensor doctor against fake /sys, /dev, /proc and udev trees."""

import io
import os
import struct

import pytest

from orb_sensor._cli import doctor
from orb_sensor._process import library, usb_nodes

NODE = "bus/usb/001/004"
USER = GROUP = 1000


def _write(path, text=""):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    return path


@pytest.fixture
def machine(tmp_path, monkeypatch):
    """One sensor (and a keyboard), the library, the rule and the emulator in
    place; run(**overrides) gives (status, output lines)."""
    usb = tmp_path / "sys" / "bus" / "usb" / "devices"
    for entry, ids, devname in (("1-1", "0483 5740", NODE), ("1-2", "046d c31c", "bus/usb/1/5")):
        for name, value in zip(("idVendor", "idProduct"), ids.split()):
            _write(usb / entry / name, value + "\n")
        _write(usb / entry / "uevent", f"MAJOR=189\nDEVNAME={devname}\n")
    (usb / "1-1:1.0").mkdir()
    node = _write(tmp_path / "dev" / NODE)
    os.chown(node, USER, GROUP)
    node.chmod(0o600)
    (tmp_path / library.SONAME).symlink_to(_write(tmp_path / "liborb_device.so.1.2.3").name)
    monkeypatch.setenv(library.LIBRARY_ENV, str(tmp_path / library.SONAME))
    _write(tmp_path / "etc" / doctor.RULES_NAME)
    emulator = _write(tmp_path / "orb-emulate")
    emulator.chmod(0o755)
    (tmp_path / "proc").mkdir()

    def run(finder=lambda: str(emulator), **overrides):
        out = io.StringIO()
        status = doctor.run(out, finder, **{
            "sys_root": str(tmp_path / "sys"), "dev_root": str(tmp_path / "dev"),
            "proc_root": str(tmp_path / "proc"), "rules_dirs": [str(tmp_path / "etc")],
            "uid": USER, "gids": [GROUP], **overrides})
        return status, out.getvalue().splitlines()
    return run


def test_a_sound_machine_is_all_ok_with_library_version_and_node(machine, tmp_path):
    status, lines = machine()
    assert status == 0 and all(line.startswith(doctor.OK) for line in lines)
    assert any("liborb_device.so.1.2.3 (version 1.2.3)" in line for line in lines)
    [node_line] = [line for line in lines if "/bus/usb/" in line]
    assert f"{tmp_path}/dev/{NODE}: mode 0600" in node_line and "may read and write" in node_line


def test_faults_each_give_a_fix_line_and_status_1(machine, tmp_path, monkeypatch):
    (tmp_path / "dev" / NODE).chmod(0o000)
    monkeypatch.setenv(library.LIBRARY_ENV, str(tmp_path / "nowhere.so"))
    status, lines = machine(finder=lambda: None, rules_dirs=[str(tmp_path / "empty")])
    fixes = [line for line in lines if line.startswith(doctor.FIX)]
    assert status == 1 and len(fixes) == 4
    assert "nowhere.so" in fixes[0] and "orb-emulate" in fixes[3]
    assert f"{NODE}: mode 0000" in fixes[1] and "may not read and write" in fixes[1]
    status, lines = machine(sys_root=str(tmp_path / "nosys"))
    assert status == 1 and any(line.startswith(doctor.FIX) and "--emulate 1 list" in line
                               for line in lines)


def test_library_found_by_bare_name_on_the_loader_path(tmp_path, monkeypatch):
    _write(tmp_path / library.SONAME)
    monkeypatch.setenv(library.LIBRARY_ENV, library.SONAME)
    monkeypatch.setenv("LD_LIBRARY_PATH", str(tmp_path))
    assert doctor.check_library() == [(True, f"library: {tmp_path}/{library.SONAME} (version 1)")]


@pytest.mark.parametrize("package, rule", [
    ("prefix/lib/python3/dist-packages/orb_sensor", "prefix/lib/udev/rules.d"),
    ("src/python/orb_sensor", "src/udev"),
])
def test_missing_rule_is_copied_from_the_tree_the_package_runs_from(tmp_path, package, rule):
    (tmp_path / package).mkdir(parents=True)
    shipped = _write(tmp_path / rule / doctor.RULES_NAME)
    [(ok, text)] = doctor.check_rule([str(tmp_path / "etc")], str(tmp_path / package))
    assert not ok and f"sudo cp {shipped} /etc/udev/rules.d/ && sudo udevadm control" in text


def _acl(mask):
    """udev's uaccess: root owns the node, a named entry grants USER."""
    entries = ((1, 6, 0), (2, 6, USER), (4, 4, 0), (0x10, mask, 0), (0x20, 4, 0))
    return struct.pack("<I", 2) + b"".join(struct.pack("<HHI", *entry) for entry in entries)


@pytest.mark.parametrize("mode, owner, acl, uid, gids, expected", [
    (0o600, (USER, 0), None, USER, [], True),
    (0o600, (0, 0), None, USER, [], False),
    (0o660, (0, GROUP), None, USER, [GROUP], True),
    (0o606, (0, GROUP), None, USER, [GROUP], False),  # the group class decides, not "other"
    (0o664, (0, 0), _acl(6), USER, [], True),
    (0o664, (0, 0), _acl(6), USER + 1, [], False),
    (0o644, (0, 0), _acl(4), USER, [], False),
    (0o000, (0, 0), None, 0, [0], True),
])
def test_may_open_follows_owner_mode_and_acl(tmp_path, mode, owner, acl, uid, gids, expected):
    node = _write(tmp_path / "node")
    os.chown(node, *owner)
    if acl:
        os.setxattr(node, "system.posix_acl_access", acl)
    node.chmod(mode)
    assert usb_nodes.may_open(str(node), uid, gids) is expected


def test_holder_named_by_pid_and_command_but_not_this_process(machine, tmp_path):
    for pid, command, target in ((4242, "acquirer", NODE), (os.getpid(), "pytest", NODE),
                                 (77, "bash", "null")):
        _write(tmp_path / "proc" / str(pid) / "comm", command + "\n")
        (tmp_path / "proc" / str(pid) / "fd").mkdir()
        (tmp_path / "proc" / str(pid) / "fd" / "3").symlink_to(tmp_path / "dev" / target)
    status, lines = machine()
    held = [line for line in lines if "held by" in line]
    assert status == 1 and len(held) == 1 and held[0].startswith(doctor.FIX)
    assert f"{tmp_path}/dev/{NODE} is held by pid 4242 (acquirer)" in held[0]


def test_on_this_machine_every_line_has_a_known_prefix():
    out = io.StringIO()
    assert doctor.run(out, lambda: None) in (0, 1)
    assert all(line.startswith((doctor.OK, doctor.FIX)) for line in out.getvalue().splitlines())

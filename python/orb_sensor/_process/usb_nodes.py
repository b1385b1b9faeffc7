"""The sensors' USB device nodes: where they are, whether this user may open
them, and which processes hold them open.

The roots are parameters so that a fake tree can stand in for the machine's.
"""

import os
import struct

VENDOR_ID = "0483"
PRODUCT_ID = "5740"
SYS_ROOT = "/sys"
DEV_ROOT = "/dev"
PROC_ROOT = "/proc"

# POSIX ACL entry tags, as the kernel stores them in system.posix_acl_access.
_ACL_USER_OBJ, _ACL_USER, _ACL_GROUP_OBJ, _ACL_GROUP, _ACL_MASK, _ACL_OTHER = 1, 2, 4, 8, 0x10, 0x20
_READ_WRITE = 6


def _read(path):
    with open(path) as f:
        return f.read()


def sensor_nodes(sys_root=SYS_ROOT, dev_root=DEV_ROOT):
    """Device node paths of the attached 0483:5740 devices, whether or not
    the node itself exists."""
    devices = os.path.join(sys_root, "bus", "usb", "devices")
    try:
        entries = os.listdir(devices)
    except OSError:
        return []
    nodes = []
    for entry in entries:
        # Interfaces (1-1:1.0) have no IDs of their own and are skipped here.
        try:
            ids = (_read(os.path.join(devices, entry, "idVendor")).strip(),
                   _read(os.path.join(devices, entry, "idProduct")).strip())
            uevent = _read(os.path.join(devices, entry, "uevent")).splitlines()
        except OSError:
            continue
        names = [line[len("DEVNAME="):] for line in uevent if line.startswith("DEVNAME=")]
        if ids == (VENDOR_ID, PRODUCT_ID) and names:
            nodes.append(os.path.join(dev_root, names[0].strip()))
    return sorted(nodes)


def sensor_addresses(sys_root=SYS_ROOT):
    """{node name} of the attached devices, bus/address: a replugged device
    comes back at a new address, so a change here means a replug."""
    return {os.path.relpath(node, "/dev") for node in sensor_nodes(sys_root, "/dev")}


def _acl(path):
    """The node's access ACL as (tag, perm, id) entries, or None without one.
    udev's uaccess tag grants the seat's user through such an entry, which
    the mode bits do not show."""
    try:
        raw = os.getxattr(path, "system.posix_acl_access")
    except OSError:
        return None
    return [struct.unpack_from("<HHI", raw, offset) for offset in range(4, len(raw), 8)]


def _rw(bits):
    return bits & _READ_WRITE == _READ_WRITE


def may_open(path, uid=None, gids=None):
    """Whether the user uid in groups gids may read and write the node; by
    default this process's effective user.

    Decided from the node's owner, mode and ACL rather than by os.access, so
    that it answers for any user, also when this process runs as root."""
    uid = os.geteuid() if uid is None else uid
    gids = set(os.getgroups()) | {os.getegid()} if gids is None else set(gids)
    if uid == 0:
        return True
    st = os.stat(path)
    acl = _acl(path)
    if acl is None:
        if uid == st.st_uid:
            return _rw(st.st_mode >> 6)
        return _rw(st.st_mode >> 3 if st.st_gid in gids else st.st_mode)
    perms = {tag: perm for tag, perm, _ in acl if tag in (_ACL_USER_OBJ, _ACL_MASK, _ACL_OTHER)}
    mask = perms.get(_ACL_MASK, 7)
    if uid == st.st_uid:
        return _rw(perms[_ACL_USER_OBJ])
    named = [perm for tag, perm, id_ in acl if tag == _ACL_USER and id_ == uid]
    if named:
        return _rw(named[0] & mask)
    # The group class decides once any group entry matches, even if "other"
    # would grant more.
    groups = [perm for tag, perm, id_ in acl if (tag == _ACL_GROUP_OBJ and st.st_gid in gids)
              or (tag == _ACL_GROUP and id_ in gids)]
    if groups:
        return any(_rw(perm & mask) for perm in groups)
    return _rw(perms[_ACL_OTHER])


def refused_nodes(sys_root=SYS_ROOT, dev_root=DEV_ROOT):
    """The attached sensors' nodes this process may not open."""
    return [node for node in sensor_nodes(sys_root, dev_root)
            if os.path.exists(node) and not may_open(node)]


def holders(nodes, proc_root=PROC_ROOT):
    """(pid, command, node) for each other process with one of the nodes
    open, and the number of processes whose descriptors could not be read
    (another user's, unless this process runs as root)."""
    wanted = set(nodes)
    found, unseen = [], 0
    try:
        pids = sorted((int(entry) for entry in os.listdir(proc_root) if entry.isdigit()))
    except OSError:
        return found, 0
    for pid in pids:
        if pid == os.getpid():
            continue
        fd_dir = os.path.join(proc_root, str(pid), "fd")
        try:
            fds = os.listdir(fd_dir)
        except PermissionError:
            unseen += 1
            continue
        except OSError:
            continue  # the process ended meanwhile
        held = set()
        for fd in fds:
            try:
                target = os.readlink(os.path.join(fd_dir, fd))
            except OSError:
                continue
            if target in wanted:
                held.add(target)
        if held:
            try:
                command = _read(os.path.join(proc_root, str(pid), "comm")).strip()
            except OSError:
                command = "?"
            found.extend((pid, command, node) for node in sorted(held))
    return found, unseen

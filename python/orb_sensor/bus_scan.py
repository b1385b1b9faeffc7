"""The sensors' USB devices as the kernel lists them (sysfs), read without
opening them."""

import os

VENDOR, PRODUCT = "0483", "5740"
SYSFS_DEVICES = "/sys/bus/usb/devices"


def _read(path):
    with open(path) as f:
        return f.read().strip()


def sensor_devices(root=SYSFS_DEVICES):
    """(bus, address, device node) of every attached 0483:5740 device."""
    found = []
    try:
        entries = sorted(os.listdir(root))
    except OSError:
        return found
    for entry in entries:
        path = os.path.join(root, entry)
        try:
            if (_read(os.path.join(path, "idVendor")), _read(os.path.join(path, "idProduct"))) != (VENDOR, PRODUCT):
                continue
            bus, address = int(_read(os.path.join(path, "busnum"))), int(_read(os.path.join(path, "devnum")))
        except (OSError, ValueError):
            continue
        found.append((bus, address, f"/dev/bus/usb/{bus:03d}/{address:03d}"))
    return found


def sensor_addresses(root=SYSFS_DEVICES):
    """{(bus, address)} of the attached devices: a replugged device comes
    back at a new address."""
    return {(bus, address) for bus, address, _ in sensor_devices(root)}

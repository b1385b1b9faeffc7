"""The light source's relative power per wavelength (`--source-power`):
CSV rows `wavelength_nm,relative_power`, as a lamp's maker or a power
meter gives them. The sweep divides each step's response by the power at
its wavelength, interpolated linearly."""

import math
from typing import List, Tuple

import numpy as np

from ..errors import OrbValueError


def read(path: str) -> Tuple[np.ndarray, np.ndarray]:
    """(wavelengths, powers) of the file; OrbValueError names the file, the
    line and what is wrong."""
    rows: List[Tuple[float, float]] = []
    try:
        with open(path, encoding="utf-8") as f:
            lines = f.read().splitlines()
    except (OSError, UnicodeDecodeError) as e:
        raise OrbValueError(f"--source-power: cannot read {path}: {getattr(e, 'strerror', None) or e}") from None
    first = True
    for number, line in enumerate(lines, 1):
        text = line.split("#", 1)[0].strip()
        if not text:
            continue
        header, first = first, False
        parts = [p.strip() for p in text.split(",")]
        where = f"--source-power: {path} line {number}"
        try:
            nm, power = float(parts[0]), float(parts[1])
        except (ValueError, IndexError):
            if header:
                continue
            raise OrbValueError(f"{where}: expected wavelength_nm,relative_power, not {line.strip()!r}") from None
        if len(parts) != 2 or not (math.isfinite(nm) and math.isfinite(power)):
            raise OrbValueError(f"{where}: expected two numbers, not {line.strip()!r}")
        if power <= 0:
            raise OrbValueError(f"{where}: the power must be above 0, not {parts[1]}")
        if rows and nm <= rows[-1][0]:
            raise OrbValueError(f"{where}: wavelength {parts[0]} nm is not above the one before ({rows[-1][0]:g} nm)")
        rows.append((nm, power))
    if len(rows) < 2:
        raise OrbValueError(f"--source-power: {path} needs at least two rows of wavelength_nm,relative_power")
    table = np.array(rows)
    return table[:, 0], table[:, 1]


def at(table: Tuple[np.ndarray, np.ndarray], wavelengths: np.ndarray, path: str) -> np.ndarray:
    """The power at each of the sweep's wavelengths; refused when the file
    does not cover them all (a lamp's power is not guessed beyond it)."""
    nm, power = table
    if wavelengths[0] < nm[0] - 1e-9 or wavelengths[-1] > nm[-1] + 1e-9:
        raise OrbValueError(f"--source-power: {path} covers {nm[0]:g} to {nm[-1]:g} nm, not the sweep's "
                            f"{wavelengths[0]:g} to {wavelengths[-1]:g} nm")
    return np.interp(wavelengths, nm, power)

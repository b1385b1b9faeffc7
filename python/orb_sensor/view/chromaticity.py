"""The CIE 1931 chromaticity diagram the page draws the colour on: the
spectrum locus and the Planckian locus, each point the colorimetry of a
spectrum made here (a single line; a black body), so that the CIE tables
come from colord-data through the package, as the readout's do."""

import functools

import numpy as np

from ..colour import colorimetry

# A grid covering the tables' 380 to 780 nm, where a line is one sample.
GRID_NM = np.arange(375.0, 786.0, 1.0)
# The locus every 5 nm where it bends, every 20 nm where it is nearly
# straight (and its long end barely moves).
LOCUS_NM = [*range(380, 400, 10), *range(400, 640, 5), *range(640, 781, 20)]
PLANCKIAN_K = [1000, 1250, 1500, 1750, 2000, 2500, 3000, 3500, 4000, 5000, 6000, 7000, 8000, 10000, 15000,
               25000, 100000]
# Second radiation constant, m K.
C2 = 1.4388e-2


def _xy(values):
    c = colorimetry(GRID_NM, values)
    return [round(c.x, 5), round(c.y, 5)]


def _line(nm):
    values = np.zeros_like(GRID_NM)
    values[np.searchsorted(GRID_NM, nm)] = 1.0
    return values


def _black_body(kelvin):
    # Planck's law up to a factor, which chromaticity does not see.
    metres = GRID_NM * 1e-9
    return 1.0 / (metres ** 5 * np.expm1(C2 / (metres * kelvin)))


@functools.lru_cache(maxsize=1)
def diagram():
    """{"locus": [[nm, x, y], ...], "planckian": [[K, x, y], ...]}; raises
    OrbError when the CIE tables cannot be read."""
    return {"locus": [[nm, *_xy(_line(nm))] for nm in LOCUS_NM],
            "planckian": [[k, *_xy(_black_body(k))] for k in PLANCKIAN_K]}

"""Colour of a spectrum: CIE XYZ, chromaticity, correlated colour
temperature and Duv, the CIE colour rendering index (docs/colour.md).

    from orb_sensor import colorimetry
    c = colorimetry(nm, values)        # any ascending grid covering 380 to 780 nm
    print(c.cct_k, c.duv, c.ra, c.r[8])
    c.as_dict()                        # every quantity, for JSON
"""

import math
from typing import Any, Dict, Tuple

from ._spectrum import colour as _colour
from .errors import OrbValueError, SpectrumError

# The quantities in the order they are printed and written.
FIELDS = ("X", "Y", "Z", "x", "y", "u_prime", "v_prime", "X10", "Y10", "Z10", "x10", "y10",
          "cct_k", "duv", "ra", "r", "delta_c", "ra_meaningful", "peak_nm", "centroid_nm",
          "dominant_nm", "purity")


class Colour:
    """The colorimetry of one spectrum.

    X, Y, Z         CIE 1931 2 degree tristimulus values, in the spectrum's
                    unit times nm; x, y its chromaticity; u_prime, v_prime
                    CIE 1976 UCS
    X10 .. y10      the same for the CIE 1964 10 degree observer
    cct_k, duv      correlated colour temperature (K) and the distance from
                    the Planckian locus (positive above it); NaN outside
                    1000 to 100000 K
    ra, r           CIE 13.3 general index Ra and the special indices R1 to
                    R14 (r[0] is R1); NaN without a CCT
    delta_c, ra_meaningful  the distance to the reference illuminant, and
                    whether it is within CIE 13.3's 0.0054
    peak_nm, centroid_nm, dominant_nm, purity  over 380 to 780 nm; a
                    negative dominant_nm is a purple's complementary
                    wavelength
    """

    X: float
    Y: float
    Z: float
    x: float
    y: float
    u_prime: float
    v_prime: float
    X10: float
    Y10: float
    Z10: float
    x10: float
    y10: float
    cct_k: float
    duv: float
    ra: float
    r: Tuple[float, ...]
    delta_c: float
    ra_meaningful: bool
    peak_nm: float
    centroid_nm: float
    dominant_nm: float
    purity: float

    def __init__(self, values: Dict[str, Any]) -> None:
        for name in FIELDS:
            value = values[name]
            setattr(self, name, tuple(value) if name == "r" else value)

    def as_dict(self) -> Dict[str, Any]:
        """Every quantity by its attribute's name (r as a list, R1 first);
        NaN stays NaN (None in JSON is the caller's choice)."""
        return {name: list(self.r) if name == "r" else getattr(self, name) for name in FIELDS}

    def __repr__(self) -> str:
        cct = "no CCT" if math.isnan(self.cct_k) else f"CCT {self.cct_k:.0f} K, Duv {self.duv:.4f}, Ra {self.ra:.1f}"
        return f"<Colour x {self.x:.4f} y {self.y:.4f}, {cct}>"


def colorimetry(wavelengths: Any, values: Any) -> Colour:
    """The colour of any spectrum: wavelengths in nm, strictly ascending
    and covering 380 to 780 nm, values in any relative unit. A spectrum
    finer than the CIE tables' 5 nm is integrated on its own samples.
    Raises OrbValueError for a spectrum it cannot take (the reason named),
    SpectrumError when the CIE tables (Debian's colord-data) are missing."""
    try:
        return Colour(_colour.colorimetry(wavelengths, values))
    except ValueError as e:
        raise OrbValueError(str(e)) from None
    except SpectrumError as e:
        # The spectrum's own faults are the caller's; a missing table is not.
        if e.code == -1:
            raise OrbValueError(f"cannot compute the colour of this spectrum: {e}") from None
        raise

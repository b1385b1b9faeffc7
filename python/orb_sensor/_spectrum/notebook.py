"""How a Spectrum shows in a notebook (an inline SVG plot and a summary)
and its pandas form. The SVG is drawn here: a few hundred points need no
plotting library, and the cell stays small and text."""

import html
import math
from typing import TYPE_CHECKING, Any, List

import numpy as np

from ..errors import OrbError

if TYPE_CHECKING:
    from ..spectrum import Spectrum

WIDTH, HEIGHT = 480, 180
LEFT, RIGHT, TOP, BOTTOM = 8, 8, 8, 22
PEAKS_SHOWN = 5


def _nm_ticks(low: float, high: float) -> List[float]:
    span = high - low
    step = next(s for s in (10, 20, 50, 100, 200, 500, 1000) if span / s <= 8)
    return [float(t) for t in np.arange(math.ceil(low / step) * step, high + 1e-9, step)]


def svg(spectrum: "Spectrum") -> str:
    nm, values = spectrum.wavelengths, spectrum.values
    low, high = float(nm[0]), float(nm[-1])
    bottom = min(0.0, float(values.min()))
    top = float(values.max())
    if top <= bottom:
        top = bottom + 1.0
    plot_w, plot_h = WIDTH - LEFT - RIGHT, HEIGHT - TOP - BOTTOM

    def px(w: float) -> float:
        return LEFT + (w - low) / (high - low) * plot_w

    def py(v: float) -> float:
        return TOP + (top - v) / (top - bottom) * plot_h

    points = " ".join(f"{px(w):.1f},{py(v):.1f}" for w, v in zip(nm.tolist(), values.tolist()))
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{HEIGHT}" '
             f'viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" font-size="10">',
             f'<line x1="{LEFT}" y1="{py(0):.1f}" x2="{WIDTH - RIGHT}" y2="{py(0):.1f}" stroke="#bbb"/>']
    for tick in _nm_ticks(low, high):
        x = px(tick)
        parts.append(f'<line x1="{x:.1f}" y1="{TOP + plot_h}" x2="{x:.1f}" y2="{TOP + plot_h + 3}" stroke="#666"/>'
                     f'<text x="{x:.1f}" y="{HEIGHT - 8}" text-anchor="middle">{tick:g}</text>')
    parts.append(f'<text x="{WIDTH - RIGHT}" y="{HEIGHT - 8}" text-anchor="end">nm</text>')
    parts.append(f'<polyline fill="none" stroke="#1f77b4" stroke-width="1" points="{points}"/>')
    for peak in _peaks(spectrum):
        x, y = px(peak.wavelength_nm), py(peak.height)
        parts.append(f'<text x="{x:.1f}" y="{max(y - 3, TOP + 8):.1f}" text-anchor="middle" fill="#d62728">'
                     f'{peak.wavelength_nm:.1f}</text>')
    parts.append("</svg>")
    return "".join(parts)


def _peaks(spectrum: "Spectrum") -> List[Any]:
    try:
        return spectrum.peaks()[:PEAKS_SHOWN]
    except OrbError:  # a spectrum with no peak to speak of still shows
        return []


def summary_rows(spectrum: "Spectrum") -> List[List[str]]:
    rows = [["samples", f"{spectrum.wavelengths.size}, {spectrum.wavelengths[0]:g} to "
                        f"{spectrum.wavelengths[-1]:g} nm"], ["unit", spectrum.unit]]
    if spectrum.sensor_id:
        rows.append(["sensor", spectrum.sensor_id])
    if spectrum.exposure_ms is not None:
        rows.append(["exposure", f"{spectrum.exposure_ms:g} ms (shutter speed {spectrum.shutter_speed}), "
                                 f"{spectrum.averages} averaged"])
        rows.append(["frame", f"seq {spectrum.seq}, {spectrum.lost} lost before, "
                              f"{spectrum.saturated.size} filter(s) saturated"])
    if spectrum.calibration is not None:
        rows.append(["calibration", f"{spectrum.calibration.sensor_id}, {spectrum.calibration.created}, "
                                    f"sha256 {spectrum.calibration.sha256[:12]}"])
    peaks = _peaks(spectrum)
    if peaks:
        rows.append(["peaks", ", ".join(f"{p.wavelength_nm:.1f} nm" for p in peaks)])
    return rows


def html_repr(spectrum: "Spectrum") -> str:
    table = "".join(f"<tr><th style='text-align:left'>{html.escape(k)}</th><td style='text-align:left'>"
                    f"{html.escape(v)}</td></tr>" for k, v in summary_rows(spectrum))
    return f"<div><b>Spectrum</b><br>{svg(spectrum)}<table>{table}</table></div>"


def dataframe(spectrum: "Spectrum") -> Any:
    try:
        import pandas as pd
    except ImportError:
        raise OrbError("to_pandas() needs pandas, which is not installed: on Debian, "
                       "apt install python3-pandas") from None
    frame = pd.DataFrame({"value": spectrum.values},
                         index=pd.Index(spectrum.wavelengths, name="wavelength_nm"))
    frame.attrs.update(spectrum.metadata())
    return frame

"""A frame of filter data as a PNG, drawn without a display."""

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402  (the backend must be chosen first)
import numpy as np  # noqa: E402

from ..facts import MAX_VALUE  # noqa: E402

SATURATION_DN = MAX_VALUE
# 1000 x 400 pixels.
FIGURE_SIZE_IN = (10, 4)
DPI = 100


def save_frame_plot(path, data, title):
    fig, ax = plt.subplots(figsize=FIGURE_SIZE_IN, dpi=DPI)
    try:
        ax.plot(np.arange(1, len(data) + 1), data, linewidth=0.8, label="filter data")
        ax.axhline(SATURATION_DN, color="tab:red", linestyle="--", linewidth=0.8,
                   label=f"saturation ({SATURATION_DN})")
        ax.set_xlim(1, len(data))
        ax.set_ylim(0, SATURATION_DN * 1.05)
        ax.set_xlabel("filter")
        ax.set_ylabel("value (DN)")
        ax.set_title(title, fontsize=9)
        ax.legend(loc="upper right", fontsize=8)
        fig.tight_layout()
        fig.savefig(path, dpi=DPI)
    finally:
        plt.close(fig)


def save_spectrum_plot(path, spectrum, title, peaks):
    """The spectrum against wavelength, each of `peaks` marked and labelled
    with its wavelength."""
    fig, ax = plt.subplots(figsize=FIGURE_SIZE_IN, dpi=DPI)
    try:
        ax.plot(spectrum.wavelengths, spectrum.values, linewidth=0.9)
        top = float(np.max(spectrum.values)) if spectrum.values.size else 1.0
        for p in peaks:
            ax.plot([p.wavelength_nm], [p.height], "v", color="tab:red", markersize=4)
            ax.annotate(f"{p.wavelength_nm:.1f}", (p.wavelength_nm, p.height), textcoords="offset points",
                        xytext=(0, 5), ha="center", fontsize=8, color="tab:red")
        ax.set_xlim(spectrum.wavelengths[0], spectrum.wavelengths[-1])
        if top > 0:
            ax.set_ylim(top=top * 1.12)
        ax.axhline(0, color="0.7", linewidth=0.6)
        ax.set_xlabel("wavelength (nm)")
        ax.set_ylabel(spectrum.unit)
        ax.set_title(title, fontsize=9)
        fig.tight_layout()
        fig.savefig(path, dpi=DPI)
    finally:
        plt.close(fig)

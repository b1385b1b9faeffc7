#!/usr/bin/env python3
"""Draws the emulated sensor's scenes, filter model and units into sim/pictures/.

Every number comes from orb-scene-dump, which runs the model itself:
  scenes.png   each scene's light, and the sensor's mean output and one
               noisy frame against the filters' centre wavelengths
  filters.png  a few filters' responses and the silicon under them
  units.png    how four sensors' filters differ from the nominal model, and
               what that does to one line
  sweep.png    a line swept across the range: the output, the exposure a
               sweep needs at each wavelength, and the flat photon flux

usage: plot_scenes.py [--dump build/sim/orb-scene-dump] [--out sim/pictures]
"""

import argparse
import csv
import io
import os
import subprocess

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)

# (title, scene words, shutter speed): shutter 700 puts each scene's brightest
# filter at about four fifths of full scale (every scene at brightness 1
# saturates at 900).
SCENES = [
    ("dark", ["dark"], 700),
    ("halogen (2856 K)", ["halogen"], 700),
    ("white LED", ["white-led"], 700),
    ("fluorescent tube", ["fluorescent"], 700),
    ("laser at 532 nm", ["laser", "--nm", "532"], 700),
    ("sun", ["sun"], 700),
]


def dump(tool, *args):
    out = subprocess.run([tool, *map(str, args)], check=True, capture_output=True, text=True).stdout
    return list(csv.DictReader(io.StringIO(out)))


def column(rows, name, kind=float):
    return np.array([kind(r[name]) for r in rows])


def exposure_ms(tool, shutter):
    out = subprocess.run([tool, "--exposure", str(shutter)], check=True, capture_output=True, text=True).stdout
    return float(out)


def draw_scene(ax, tool, title, words, shutter):
    frame = dump(tool, "--shutter", shutter, "--frames", 1, "--seed", 7, *words)
    nm = column(frame, "centre_nm")
    ax.plot(nm, column(frame, "frame1"), ".", ms=1.5, color="#7a9cc6", label="one frame")
    ax.plot(nm, column(frame, "mean"), color="#1f3f73", lw=1.2, label="mean output")
    ax.set_ylim(0, 4300)
    ax.set_xlim(340, 1100)
    ax.axhline(4095, color="#c33", lw=0.6, ls=":")
    ax.set_title(f"{title}, shutter {shutter} ({exposure_ms(tool, shutter):.1f} ms)", fontsize=9)

    light = dump(tool, "--spectrum", *words)
    cont = [r for r in light if r["kind"] == "continuum"]
    lines = [r for r in light if r["kind"] == "line"]
    lx, ly = column(cont, "nm"), column(cont, "power")
    twin = ax.twinx()
    top = max([ly.max()] + [float(r["power"]) for r in lines])
    if top > 0:
        twin.fill_between(lx, ly / top, color="#f2b134", alpha=0.35, lw=0, label="the light (right axis)")
        for r in lines:
            twin.vlines(float(r["nm"]), 0, float(r["power"]) / top, color="#d98a00", lw=1)
    twin.set_ylim(0, 1.08)
    twin.set_yticks([])
    ax.set_zorder(twin.get_zorder() + 1)
    ax.patch.set_visible(False)
    return twin


def scenes_figure(tool, out):
    fig, axes = plt.subplots(3, 2, figsize=(11, 9.5), sharex=True)
    for ax, (title, words, shutter) in zip(axes.flat, SCENES):
        twin = draw_scene(ax, tool, title, words, shutter)
    for ax in axes[:, 0]:
        ax.set_ylabel("DN")
    for ax in axes[-1]:
        ax.set_xlabel("filter centre wavelength (nm)")
    handles = axes.flat[1].get_legend_handles_labels()[0] + twin.get_legend_handles_labels()[0]
    fig.legend(handles, [h.get_label() for h in handles], loc="upper center", ncol=3, frameon=False,
               bbox_to_anchor=(0.5, 0.965))
    fig.suptitle("Emulated sensor: scenes through the filter model (a model, not a measured sensor)", y=0.995)
    fig.tight_layout(rect=(0, 0, 1, 0.935))
    fig.savefig(out, dpi=110)


def filters_figure(tool, out):
    picks = [0, 128, 256, 384, 512, 640, 768, 896, 1023]
    rows = dump(tool, "--curves", ",".join(map(str, picks)))
    nm = column(rows, "nm")
    fig, (lin, log) = plt.subplots(2, 1, figsize=(10, 7), sharex=True)
    colours = plt.cm.turbo(np.linspace(0.05, 0.95, len(picks)))
    for i, c in zip(picks, colours):
        y = column(rows, f"f{i}")
        lin.plot(nm, y, color=c, lw=1, label=f"filter {i}")
        log.semilogy(nm, y, color=c, lw=0.8)
    for ax in (lin, log):
        ax.plot(nm, column(rows, "qe"), "k--", lw=1, label="silicon QE" if ax is lin else None)
    lin.set_ylabel("response (electrons per photon)")
    lin.legend(fontsize=7, ncol=2)
    lin.set_title("Filter model: pass bands with side lobes at 4/5 and 4/3 of the centre, on silicon", fontsize=10)
    log.set_ylim(1e-5, 1.5)
    log.set_ylabel("response, log scale")
    log.set_xlabel("wavelength (nm)")
    log.set_xlim(340, 1100)
    fig.tight_layout()
    fig.savefig(out, dpi=110)


# The first four sensors orb-emulate makes (C1234-7-20-33-1 ...), by identity bytes.
UNITS = ["109a472885", "109a472a85", "109a472c85", "109a472e85"]


def units_figure(tool, out):
    fig, (shift_ax, gain_ax, line_ax) = plt.subplots(3, 1, figsize=(10, 10))
    colours = plt.cm.tab10(np.arange(len(UNITS)))
    nominal = dump(tool, "--unit", "nominal", "--filters")
    nominal_centre, nominal_width = column(nominal, "centre_nm"), column(nominal, "fwhm_nm")
    nominal_peak = column(nominal, "peak")
    index = column(nominal, "filter", int)
    for unit, c in zip(UNITS, colours):
        rows = dump(tool, "--unit", unit, "--filters")
        shift = column(rows, "centre_nm") - nominal_centre
        shift_ax.plot(index, shift, ".", ms=1.2, color=c)
        shift_ax.plot([], [], color=c, label=unit)
        gain_ax.plot(index, column(rows, "peak") / nominal_peak, lw=0.5, color=c)
        gain_ax.plot(index, column(rows, "fwhm_nm") / nominal_width, lw=0.5, color=c, alpha=0.5, ls="--")
        for r in rows:
            if r["defect"]:
                i = int(r["filter"])
                shift_ax.annotate(r["defect"], (i, shift[i]), xytext=(0, 12), textcoords="offset points", fontsize=7,
                                  color=c, ha="center", arrowprops=dict(arrowstyle="-", color=c, lw=0.5))
    shift_ax.set_ylabel("centre shift (nm)")
    shift_ax.set_title("Four units: centres shift smoothly across the array (within 2 nm) plus 0.1 nm of jitter;"
                       " two or three defective filters each", fontsize=9)
    shift_ax.legend(fontsize=7, ncol=4, title="unit (identity bytes)", title_fontsize=7)
    gain_ax.set_ylim(0.8, 1.2)
    gain_ax.set_ylabel("share of nominal")
    gain_ax.set_xlabel("filter index")
    gain_ax.set_title("Peak transmission (solid) and width (dashed) against the nominal filter", fontsize=9)

    words = ["line", "--nm", "532.4", "--fwhm", "1", "0.3"]
    for unit, c in zip(["nominal"] + UNITS, ["k"] + list(colours)):
        rows = dump(tool, "--unit", unit, "--shutter", 20, *words)
        i = column(rows, "filter", int)
        near = (i > 245) & (i < 280)
        line_ax.plot(i[near], column(rows, "mean")[near], "-o", ms=2.5, lw=1, color=c, label=unit)
    line_ax.set_xlabel("filter index")
    line_ax.set_ylabel("DN (mean)")
    line_ax.set_title(f"The same line ({' '.join(words)}) at shutter 20 ({exposure_ms(tool, 20):.2f} ms):"
                      " each unit puts it on its own filters", fontsize=9)
    line_ax.legend(fontsize=7)
    fig.tight_layout()
    fig.savefig(out, dpi=110)


def sweep_figure(tool, out):
    fig, (out_ax, pace_ax, flat_ax) = plt.subplots(3, 1, figsize=(10, 10.5))
    shutter = 8
    unit = UNITS[0]
    centres = np.arange(340, 1101, 20.0)
    colours = plt.cm.turbo(np.linspace(0.05, 0.95, len(centres)))
    for nm, c in zip(centres, colours):
        rows = dump(tool, "--unit", unit, "--shutter", shutter, "line", "--nm", nm, "--fwhm", "1", "1")
        out_ax.plot(column(rows, "centre_nm"), column(rows, "mean"), lw=0.8, color=c)
    out_ax.set_xlim(330, 1110)
    out_ax.set_ylabel("DN (mean)")
    out_ax.set_xlabel("nominal filter centre (nm)")
    out_ax.set_title(f"A line of 1 nm at brightness 1 swept in 20 nm steps, unit {unit},"
                     f" shutter {shutter} ({exposure_ms(tool, shutter):.2f} ms)", fontsize=9)

    # The exposure that puts the brightest filter at 3500 DN, on the nominal unit.
    dark = column(dump(tool, "--shutter", 1, "dark"), "mean")
    grid = np.arange(340, 1101, 2.0)
    rate = []
    for nm in grid:
        rows = dump(tool, "--shutter", 1, "line", "--nm", nm, "--fwhm", "1", "1")
        rate.append((column(rows, "mean") - dark).max() / exposure_ms(tool, 1))
    rate = np.array(rate)
    pace_ax.semilogy(grid, (3500 - dark.max()) / rate, color="#1f3f73")
    pace_ax.axhline(exposure_ms(tool, 3000), color="#c33", lw=0.6, ls=":")
    pace_ax.text(345, exposure_ms(tool, 3000) * 1.1, "shutter 3000", fontsize=7, color="#c33")
    pace_ax.set_ylabel("exposure to 3500 DN (ms)")
    pace_ax.set_xlabel("line centre (nm)")
    pace_ax.set_title("What a sweep's exposures take: the brightest filter reaches 3500 DN in about a ms over most"
                      " of the range; silicon gives out toward 1100 nm", fontsize=9)
    pace_ax.set_xlim(330, 1110)

    # Flat photon flux: the output summed over the filters, over what the
    # filters make of one photon at the line's centre.
    curves = dump(tool, "--curves", ",".join(str(i) for i in range(1024)))
    curve_nm = column(curves, "nm")
    summed = np.sum([column(curves, f"f{i}") for i in range(1024)], axis=0)
    ratios = []
    for nm in grid:
        rows = dump(tool, "--shutter", 1, "line", "--nm", nm, "--fwhm", "0.1", "1")
        ratios.append((column(rows, "mean") - dark).sum() / np.interp(nm, curve_nm, summed))
    ratios = np.array(ratios)
    flat_ax.plot(grid, ratios / ratios.mean(), color="#1f3f73")
    flat_ax.set_ylim(0.95, 1.05)
    flat_ax.set_xlim(330, 1110)
    flat_ax.set_xlabel("line centre (nm)")
    flat_ax.set_ylabel("relative photon flux")
    flat_ax.set_title("The line's photon flux, measured through the nominal unit (summed output over summed"
                      f" response): flat within {100 * (ratios.max() / ratios.min() - 1):.2f} %", fontsize=9)
    fig.tight_layout()
    fig.savefig(out, dpi=110)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--dump", default=os.path.join(TOP, "build", "sim", "orb-scene-dump"))
    parser.add_argument("--out", default=os.path.join(HERE, "pictures"))
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)
    scenes_figure(args.dump, os.path.join(args.out, "scenes.png"))
    filters_figure(args.dump, os.path.join(args.out, "filters.png"))
    units_figure(args.dump, os.path.join(args.out, "units.png"))
    sweep_figure(args.dump, os.path.join(args.out, "sweep.png"))


if __name__ == "__main__":
    main()

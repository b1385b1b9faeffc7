#!/usr/bin/env python3
"""Draws the emulated sensor's scenes and filter model into sim/pictures/.

Every number comes from orb-scene-dump, which runs the model itself:
  scenes.png   each scene's light, and the sensor's mean output and one
               noisy frame against the filters' centre wavelengths
  filters.png  a few filters' responses and the silicon under them

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


def draw_scene(ax, tool, title, words, shutter):
    frame = dump(tool, "--shutter", shutter, "--frames", 1, "--seed", 7, *words)
    nm = column(frame, "centre_nm")
    ax.plot(nm, column(frame, "frame1"), ".", ms=1.5, color="#7a9cc6", label="one frame")
    ax.plot(nm, column(frame, "mean"), color="#1f3f73", lw=1.2, label="mean output")
    ax.set_ylim(0, 4300)
    ax.set_xlim(340, 1100)
    ax.axhline(4095, color="#c33", lw=0.6, ls=":")
    ax.set_title(f"{title}, shutter {shutter} ({(shutter * 912 + 160) / 10000:.1f} ms)", fontsize=9)

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


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--dump", default=os.path.join(TOP, "build", "sim", "orb-scene-dump"))
    parser.add_argument("--out", default=os.path.join(HERE, "pictures"))
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)
    scenes_figure(args.dump, os.path.join(args.out, "scenes.png"))
    filters_figure(args.dump, os.path.join(args.out, "filters.png"))


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""The pictures of docs/spectra.md, from a unit's calibration file and frames
of the emulated sensor (fast timing) turned into spectra:

- spectra_response.png: the unit's response matrix, and a few filters' rows;
- spectra_scenes.png: spectra reconstructed against the scenes' true ones;
- spectra_resolution.png: two equal lines, the fast result and the refinement.

usage: docs/pictures/make_spectra_pictures.py --calibration UNIT0.h5 [--build build]
(Debian's python3 with numpy, h5py and matplotlib; about a minute.)
"""

import argparse
import os
import subprocess
import sys

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.join(HERE, "..", "..")
sys.path.insert(0, os.path.join(TOP, "bench"))
sys.path.insert(0, os.path.join(TOP, "python"))

SCENES = ["halogen", "white-led", "sun", "fluorescent"]
PAIRS = [(600.0, 3.5), (600.0, 6.0), (1000.0, 7.5)]


def response_picture(path, out):
    import h5py
    import matplotlib.pyplot as plt
    with h5py.File(path, "r") as f:
        nm = f["wavelength_nm"][()]
        response = f["response"][()]
        sensor = f.attrs["sensor_id"]
    fig, (top, bottom) = plt.subplots(2, 1, figsize=(9, 8), gridspec_kw={"height_ratios": [3, 2]})
    shown = np.log10(np.maximum(response / response.max(), 1e-4))
    image = top.imshow(shown, aspect="auto", origin="lower", cmap="viridis",
                       extent=(nm[0], nm[-1], 0.5, response.shape[0] + 0.5))
    fig.colorbar(image, ax=top, label="log10 of response / its highest")
    top.set(xlabel="wavelength (nm)", ylabel="filter", title=f"Response of unit {sensor} (its calibration)")
    for filter_index in np.linspace(20, response.shape[0] - 20, 8).astype(int):
        bottom.plot(nm, response[filter_index], lw=1, label=f"filter {filter_index + 1}")
    bottom.set(xlabel="wavelength (nm)", ylabel="counts per ms per unit power", yscale="log",
               ylim=(response.max() * 1e-4, response.max() * 1.5))
    bottom.legend(fontsize=7, ncol=4)
    fig.tight_layout()
    fig.savefig(out, dpi=90)


def emulated(args):
    """In the emulated process: the scene and resolution pictures."""
    import matplotlib.pyplot as plt
    import bench_spectra as b
    from orb_sensor._spectrum import engine
    engines = b.Engines(args.calibration)
    unit = b.Unit(0)

    fig, axes = plt.subplots(len(SCENES), 1, figsize=(9, 3 * len(SCENES)))
    for ax, words in zip(axes, SCENES):
        unit.scene(words)
        unit.expose()
        frame = unit.frame(b.FRAMES)
        value = engines.many.apply(*frame)
        nm, power, lines = b.truth(args.build, words)
        true = b.true_density(nm, power, engines.grid, engines.unit)
        keep = (engines.grid >= b.SCORED[0]) & (engines.grid <= b.SCORED[1])
        scale = value[keep].dot(true[keep]) / true[keep].dot(true[keep])
        shown = power * (nm if engines.unit == "photons" else 1) * scale
        ax.plot(nm, shown, color="0.6", lw=1, label=f"true ({engines.unit} per nm, scaled)")
        ax.plot(engines.grid, value, color="C0", lw=1, label="reconstructed, 16 frames")
        if lines:
            refined, _ = engines.many.refine(*frame)
            ax.plot(engines.grid, refined, color="C3", lw=0.8, label="refined")
            for at, _ in lines:
                ax.axvline(at, color="0.8", lw=0.5, zorder=0)
            ax.set_ylim(top=1.2 * max(value.max(), shown.max()))
        ax.set(title=words, xlabel="wavelength (nm)", ylabel="density")
        ax.legend(fontsize=7)
    fig.tight_layout()
    fig.savefig(os.path.join(HERE, "spectra_scenes.png"), dpi=90)

    fig, axes = plt.subplots(1, len(PAIRS), figsize=(11, 3.5))
    for ax, (centre, separation) in zip(axes, PAIRS):
        a, c = centre - separation / 2, centre + separation / 2
        unit.expose_line(f"line --nm {a:.3f} --fwhm 0.1 {{b}} + line --nm {c:.3f} --fwhm 0.1 {{b}}")
        frame = unit.frame(b.FRAMES)
        value = engines.many.apply(*frame)
        refined, lines = engines.many.refine(*frame)
        near = (engines.grid > centre - 25) & (engines.grid < centre + 25)
        ax.plot(engines.grid[near], value[near] / value[near].max(), label="fast result")
        for line in lines:
            if abs(line.wavelength_nm - centre) < 25:
                ax.axvline(line.wavelength_nm, color="C3", lw=1.2)
        for at in (a, c):
            ax.axvline(at, color="k", ls=":", lw=1)
        ax.plot([], [], color="C3", label="refined lines")
        ax.plot([], [], color="k", ls=":", label="true lines")
        ax.set(title=f"{separation:g} nm apart at {centre:g} nm", xlabel="wavelength (nm)")
        ax.legend(fontsize=7)
    fig.tight_layout()
    fig.savefig(os.path.join(HERE, "spectra_resolution.png"), dpi=90)


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--calibration", required=True)
    p.add_argument("--build", default=os.path.join(TOP, "build"))
    p.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    args = p.parse_args()
    args.build = os.path.abspath(args.build)
    import matplotlib
    matplotlib.use("Agg")
    if args.inside:
        return emulated(args)
    response_picture(args.calibration, os.path.join(HERE, "spectra_response.png"))
    os.environ.setdefault("ORB_DEVICE_LIBRARY", os.path.join(args.build, "src", "liborb_device.so.1"))
    command = [os.path.join(args.build, "sim", "orb-emulate"), "--sensors", "1", "--timing", "fast", "--",
               sys.executable, os.path.abspath(__file__), "--inside", *sys.argv[1:]]
    sys.exit(subprocess.run(command).returncode)


if __name__ == "__main__":
    main()

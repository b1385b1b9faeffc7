"""Where the page's files are: its own beside this module, uPlot's where
scripts/setup.sh put them (the source tree's build/npm) or where the
install put them (PREFIX/share/orb-sensor)."""

import os

HERE = os.path.dirname(os.path.abspath(__file__))
STATIC = os.path.join(HERE, "static")
UPLOT_FILES = ("uPlot.iife.min.js", "uPlot.min.css")
UPLOT_PLACES = (
    # python/orb_sensor/view -> the source tree
    os.path.join(HERE, "..", "..", "..", "build", "npm", "node_modules", "uplot", "dist"),
    # PREFIX/lib/python3/dist-packages/orb_sensor/view -> PREFIX
    os.path.join(HERE, "..", "..", "..", "..", "..", "share", "orb-sensor"),
)


class MissingAssetError(Exception):
    pass


def uplot_dir():
    """The directory with uPlot's two files."""
    for place in UPLOT_PLACES:
        if all(os.path.isfile(os.path.join(place, name)) for name in UPLOT_FILES):
            return os.path.normpath(place)
    raise MissingAssetError(
        "uPlot, which draws the plot, is not installed: scripts/setup.sh puts it into build/npm "
        "(and the install copies it to share/orb-sensor); looked in "
        + ", ".join(os.path.normpath(p) for p in UPLOT_PLACES))

"""The frame on the page as a file: CSV (its metadata as "# key: value"
lines, then filter,value for filters 1..1024) or JSON (the same keys and
filter_data); its spectrum as CSV."""

import datetime
import io
import json

import numpy as np

from .. import __version__
from ..spectrum import Spectrum


def metadata(frame, dark_correction):
    return {"sensor_id": frame.sensor_id, **frame.metadata(),
            "time": datetime.datetime.fromtimestamp(frame.timestamp, datetime.timezone.utc).isoformat(),
            "dark_correction": dark_correction, "package_version": __version__}


def file_name(frame, extension):
    stamp = datetime.datetime.fromtimestamp(frame.timestamp).strftime("%Y%m%d-%H%M%S")
    return f"orb-{frame.sensor_id}-{stamp}-{frame.seq}.{extension}"


def as_json(frame, dark_correction):
    return json.dumps({**metadata(frame, dark_correction), "filter_data": frame.values.tolist()}, indent=1) + "\n"


def as_csv(frame, dark_correction):
    out = io.StringIO()
    for key, value in metadata(frame, dark_correction).items():
        out.write(f"# {key}: {value}\n")
    out.write("filter,value\n")
    out.writelines(f"{i},{float(v)!r}\n" for i, v in enumerate(frame.values, start=1))
    return out.getvalue()


def spectrum_file_name(frame):
    return file_name(frame, "csv").replace("orb-", "orb-spectrum-", 1)


def spectrum_csv(shown, mode):
    """The curve on the page as Spectrum.to_csv() writes it (which
    Spectrum.from_csv and the view's overlay read): the spectrum, or in a
    ratio mode the ratio where it is drawn."""
    s = shown.spectrum
    if mode == "spectrum":
        return s.to_csv()
    drawn = np.isfinite(shown.curve)
    return Spectrum(s.wavelengths[drawn], shown.curve[drawn], f"{mode}, {shown.unit}", seq=s.seq,
                    timestamp=s.timestamp, shutter_speed=s.shutter_speed, exposure_ms=s.exposure_ms,
                    averages=s.averages, lost=s.lost, missed=s.missed, saturated=s.saturated,
                    sensor_id=s.sensor_id, calibration=s.calibration).to_csv()

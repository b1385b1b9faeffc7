"""The frame on the page as a file: CSV (its metadata as "# key: value"
lines, then filter,value for filters 1..1024) or JSON (the same keys and
filter_data)."""

import datetime
import io
import json

from .. import __version__


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

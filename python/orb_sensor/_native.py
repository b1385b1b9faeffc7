"""Opening one of the project's shared libraries with ctypes: the first
candidate path that loads wins, and a failure lists why each one did not."""

import ctypes
import os


def open_first(paths, what, env_name, before_open=None):
    """The first of `paths` that loads. `before_open(path)` runs before each
    try (to load what that library needs beside it)."""
    errors = []
    for path in paths:
        if os.sep in path and not os.path.exists(path):
            errors.append(f"{path}: no such file")
            continue
        try:
            if before_open is not None:
                before_open(path)
            return ctypes.CDLL(path)
        except OSError as e:
            errors.append(str(e))
    raise OSError(f"cannot load the {what} library (set {env_name} to its full path): "
                  + "; ".join(errors))


def declare(lib, prototypes):
    """Sets the result and argument types of each named call."""
    for name, (restype, argtypes) in prototypes.items():
        fn = getattr(lib, name)
        fn.restype = restype
        fn.argtypes = argtypes

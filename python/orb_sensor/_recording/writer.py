"""What every writer of a recording shares."""


class Writer:
    """The count of frames written, and closing on leaving a with."""

    frames = 0

    def __enter__(self):
        return self

    def __exit__(self, *exc_info):
        # Also on Ctrl-C or a failed acquisition: what came is still stored.
        self.close()

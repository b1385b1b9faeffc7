"""What bench_tango.py's client counts of one device's change events.

FilterData of counter frames carries its frame's identity: every filter of
the k-th frame of a stream reads k (mod 4096), so a gap in k is events
missing. A Spectrum carries no such number, but its event has the time
stamp of the frame it was made of, as that frame's FilterData event has:
a frame whose FilterData came and whose Spectrum did not is a spectrum
missing. Time stamps of one sensor's frames are at least 1.68 ms apart,
and Tango carries them to the microsecond, so no two frames share one.
"""

import threading
import time

COUNTER_MODULO = 4096
# Subscribing reads the attribute: the client's first value is the latest
# frame, while the events of the frames before it are still on their way
# (the device's outbox holds up to 1024). Those come after it, behind, and
# are counted apart. (A gap of over 3072 frames would read as events behind
# too: their count is in the table.)
BEHIND_AT_MOST = 1024


def _stamp(value):
    """A Tango time stamp as the key both events of a frame share."""
    return value.time.tv_sec, value.time.tv_usec


class Events:
    """Events of one attribute: how many, and how late they came after
    their frame (the event's time stamp is the frame's). `missing` and
    `behind` are what the events themselves show: FilterData's counters
    do; a Spectrum's missing are found by pairing (spectra_missing)."""

    def __init__(self):
        self.lock = threading.Lock()
        self.received = self.missing = self.behind = 0
        self.delay_sum = self.delay_max = 0.0

    def _value(self, event):
        value = None if event.err or event.attr_value is None else event.attr_value.value
        return None if value is None or len(value) == 0 else value

    def _count(self, event):
        delay = time.time() - event.attr_value.time.totime()
        self.received += 1
        self.delay_sum += delay
        self.delay_max = max(self.delay_max, delay)

    def snapshot(self):
        """(received, missing by the events' own evidence, sum of delays,
        behind)."""
        with self.lock:
            return self.received, self.missing, self.delay_sum, self.behind


class FilterDataEvents(Events):
    """Also how many went missing between two received, by their counter
    values, and how many came behind a frame already received (counted
    apart, neither received nor missing); with `stamps`, the time stamp of
    each event received, in order, for pairing with Spectrum's."""

    def __init__(self, stamps=False):
        super().__init__()
        self.last = None
        self.stamps = [] if stamps else None

    def __call__(self, event):
        value = self._value(event)
        if value is None:
            return
        k = int(value[0])
        with self.lock:
            if self.last is not None:
                step = (k - self.last) % COUNTER_MODULO
                if step == 0 or step > COUNTER_MODULO - BEHIND_AT_MOST:
                    self.behind += 1
                    return
                self.missing += step - 1
            self.last = k
            self._count(event)
            if self.stamps is not None:
                self.stamps.append(_stamp(event.attr_value))


class SpectrumEvents(Events):
    """The time stamps of the spectra received, and their length."""

    def __init__(self):
        super().__init__()
        self.stamps = set()
        self.wavelengths = 0

    def __call__(self, event):
        value = self._value(event)
        if value is None:
            return
        with self.lock:
            self._count(event)
            self.stamps.add(_stamp(event.attr_value))
            self.wavelengths = len(value)


def spectra_missing(filter_data, spectra, first, last):
    """Of the FilterData events received first..last-1 (counts as
    snapshot() gave them), the frames whose Spectrum never came. Called
    once the Spectrum of the last of them had time to arrive."""
    with filter_data.lock:
        stamps = filter_data.stamps[first:last]
    with spectra.lock:
        return sum(1 for stamp in stamps if stamp not in spectra.stamps)

"""bench_tango.py's counting of missing events, on events made here: gaps
in FilterData's counters (across their wrap), events behind the value read
on subscribing, and frames whose Spectrum never came, told apart by time
stamp within the window only."""

from types import SimpleNamespace

from tango_events import FilterDataEvents, SpectrumEvents, spectra_missing

T0 = 1_800_000_000


def event(value, at_us, err=False):
    """A change event of a frame received at T0 + at_us µs."""
    stamp = SimpleNamespace(tv_sec=T0 + at_us // 1_000_000, tv_usec=at_us % 1_000_000,
                            totime=lambda: T0 + at_us / 1e6)
    return SimpleNamespace(err=err, attr_value=None if err else SimpleNamespace(value=value, time=stamp))


def frame(k):
    return [k] * 1024


def test_counter_gaps_are_counted_across_the_wrap_and_failed_events_are_not_frames():
    events = FilterDataEvents()
    for i, k in enumerate((4093, 4094, 0, 1, 5)):  # 4095 and 2, 3, 4 never came
        events(event(frame(k), 1700 * i))
    events(event(None, 99_000, err=True))
    events(event([], 99_500))
    received, missing, _, behind = events.snapshot()
    assert (received, missing, behind) == (5, 4, 0)


def test_events_behind_the_value_read_on_subscribing_are_neither_frames_nor_gaps():
    events = FilterDataEvents(stamps=True)
    # The read gives frame 4095; the events of 4090 to 4095 were on their
    # way; then the stream goes on across the wrap, 1 never came.
    for i, k in enumerate((4095, 4090, 4091, 4092, 4093, 4094, 4095, 0, 2)):
        events(event(frame(k), 1700 * i))
    received, missing, _, behind = events.snapshot()
    assert (received, missing, behind) == (3, 1, 6)
    assert len(events.stamps) == received


def test_a_spectrum_missing_is_a_frame_of_the_window_without_one():
    filter_data, spectra = FilterDataEvents(stamps=True), SpectrumEvents()
    # Frames 1.7 ms apart, the last two either side of a second's end: the
    # last one's microseconds are frame 0's, whose spectrum came.
    times = [1700 * k for k in range(10)] + [999_999, 1_000_000]
    for k, at in enumerate(times):
        filter_data(event(frame(k), at))
    for k, at in enumerate(times):
        if k not in (1, 3, 7, 11):
            spectra(event([0.5] * 381, at))
    # A spectrum of a frame whose FilterData was not counted is no pair.
    spectra(event([0.5] * 381, 123_456))
    assert spectra.wavelengths == 381
    assert spectra_missing(filter_data, spectra, 0, len(times)) == 4
    # Frame 1 came before the window, frame 11 after it.
    assert spectra_missing(filter_data, spectra, 2, len(times) - 1) == 2
    assert spectra_missing(filter_data, spectra, 4, 7) == 0

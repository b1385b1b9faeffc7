"""The stream's one rule for numbering, averaging and loss, on its own:
records made here, no sensor, no process."""

import numpy as np

from orb_sensor._process.stream_abi import FRAME_DTYPE
from orb_sensor._stream.grouping import Grouper
from orb_sensor.facts import FASTEST_FRAME_S

T0 = 10**12


def record(seq, shutter=5, lost_before=0, stale_before=0, ns=None, saturate=(), missed_before=0):
    """Counter frames: frame `seq` of the library reads `seq` in every filter."""
    r = np.zeros(1, FRAME_DTYPE)[0]
    r["sequence"], r["lost_before"], r["stale_before"] = seq, lost_before, stale_before
    r["missed_before"] = missed_before
    r["timestamp_ns"] = T0 + seq * 1_000_000 if ns is None else ns
    r["settings"]["shutter_speed"], r["settings"]["adc_gain"], r["settings"]["adc_range"] = shutter, 1, 132
    r["values"][:] = seq
    for f in saturate:
        r["values"][f - 1] = 4095
    r["saturated"] = len(saturate)
    return r


def feed(grouper, records):
    out = []
    for r in records:
        frame = grouper.add(r) if not callable(r) else r()
        if frame is not None:
            out.append(frame)
    return out


def summary(frames):
    return [(f.seq, float(np.median(f.values)), f.averages, f.lost) for f in frames]


def holds_the_count(frames, stale=0):
    """seq - previous seq - averages = lost (+ frames passed over as stale)."""
    previous, gaps = -1, 0
    for f in frames:
        gaps += f.seq - previous - f.averages - f.lost
        previous = f.seq
    return gaps == stale


def test_groups_of_consecutive_frames_numbered_by_their_last():
    g = Grouper(3, "S1")
    out = feed(g, [record(k, saturate=[7] if k == 4 else ()) for k in range(9)])
    assert summary(out) == [(2, 1.0, 3, 0), (5, 4.0, 3, 0), (8, 7.0, 3, 0)]
    assert [list(f.saturated) for f in out] == [[], [7], []] and out[1].values[6] == (3 + 4095 + 5) / 3
    assert out[0].sensor_id == "S1" and out[0].shutter_speed == 5 and out[0].adc == (1, 132)
    assert (g.delivered, g.lost) == (3, 0) and holds_the_count(out)


def test_a_change_of_averaging_mid_group_drops_the_group_and_counts_it():
    g = Grouper(3)
    def change():
        g.averages = 2
    out = feed(g, [record(0), record(1), change, record(2), record(3), record(4), record(5)])
    # Frames 0 and 1 were a group of 3 under way: lost, carried by the first group of 2.
    assert summary(out) == [(3, 2.5, 2, 2), (5, 4.5, 2, 0)]
    assert holds_the_count(out) and (g.delivered, g.lost) == (2, 2)
    # The same count again changes nothing.
    g.averages = 2
    assert summary(feed(g, [record(6), record(7)])) == [(7, 6.5, 2, 0)]


def test_a_loss_mid_group_drops_the_group_and_counts_both():
    g = Grouper(3)
    # 2 and 3 never came (the library's ring was full); so did 8, dropped by the package's queue
    # with nothing said: the gap in the numbers counts it.
    out = feed(g, [record(0), record(1), record(4, lost_before=2), record(5), record(6), record(7),
                   record(9), record(10), record(11)])
    assert summary(out) == [(6, 5.0, 3, 4), (11, 10.0, 3, 2)]
    assert holds_the_count(out) and g.lost == 6


def test_a_change_of_settings_starts_a_group_and_stale_frames_are_not_lost():
    g = Grouper(2)
    out = feed(g, [record(0), record(1), record(2), record(4, shutter=9, stale_before=1), record(5, shutter=9)])
    assert summary(out) == [(1, 0.5, 2, 0), (5, 4.5, 2, 1)] and out[1].shutter_speed == 9
    assert holds_the_count(out, stale=1)
    # No group mixes exposures even when the count fits.
    g = Grouper(2)
    assert summary(feed(g, [record(0), record(1, shutter=9), record(2, shutter=9)])) == [(2, 1.5, 2, 1)]


def test_numbers_go_on_after_a_stop_and_estimate_a_restart_under_the_stream():
    g = Grouper(2)
    out = feed(g, [record(0), record(1), record(2), lambda: g.restart(stopped=True),
                   # The library counts from 0 again; the sensor made nothing for the stream meanwhile.
                   record(0, ns=T0 + 10**9), record(1, ns=T0 + 10**9 + 1)])
    assert summary(out) == [(1, 0.5, 2, 0), (4, 0.5, 2, 1)] and holds_the_count(out)

    g = Grouper(1)
    period_ns = FASTEST_FRAME_S * 1e9
    last = T0 + 5 * int(period_ns)
    out = feed(g, [record(0, shutter=1, ns=T0), record(5, shutter=1, ns=last, lost_before=4),
                   lambda: g.restart(stopped=False),
                   # A new worker's stream, 10 periods on: 9 frames made meanwhile, estimated lost.
                   record(0, shutter=1, ns=last + int(10 * period_ns))])
    assert [(f.seq, f.lost) for f in out] == [(0, 0), (5, 4), (15, 9)] and holds_the_count(out)


def test_the_dark_frame_of_the_frames_exposure_is_subtracted_from_the_average():
    darks = {5: np.full(1024, 0.5), 400: np.full(1024, 2.0)}
    g = Grouper(2, dark=lambda shutter: darks[shutter])
    [frame] = feed(g, [record(3), record(4)])
    assert frame.dark_corrected and (frame.values == 3.0).all()
    [frame] = feed(g, [record(5, shutter=400), record(6, shutter=400)])
    assert frame.dark_corrected and (frame.values == 3.5).all()
    g = Grouper(1, to_unix=lambda ns: 7.0)
    [frame] = feed(g, [record(3)])
    assert not frame.dark_corrected and frame.timestamp == 7.0 and (frame.values == 3.0).all()


def test_missed_frames_are_carried_to_the_next_frame_out_apart_from_lost_and_keep_the_group():
    g = Grouper(2, "S1")
    out = feed(g, [record(0, missed_before=3), record(1, missed_before=4), record(2),
                   record(3, missed_before=5), record(5, lost_before=1, missed_before=2), record(6)])
    # Missed frames have no number: the groups hold, and they are in no gap
    # of the count, which only the lost frame 4 makes.
    assert [(f.seq, f.averages, f.lost, f.missed) for f in out] == [(1, 2, 0, 7), (3, 2, 0, 5), (6, 2, 1, 2)]
    assert holds_the_count(out) and (g.delivered, g.lost, g.missed) == (3, 1, 14)

"""The exposures a sweep may use: a ladder of shutter speeds 1.25 times
apart, so that a line moving slowly across the range keeps its exposure for
many steps and the darks (one set per exposure used) are few and shared.
Each step keeps the exposure of the step before while the brightest filter
stays between 40 and 80% of full scale, and otherwise moves to the rung
that the linear response predicts puts it near 70%."""

from typing import List, Tuple

from ..facts import MAX_VALUE, SHUTTER_SPEED_LIMITS, exposure_ms, shutter_speed_for

RATIO = 1.25
LOW, AIM, HIGH = 0.40, 0.70, 0.80
# A frame whose brightest filter stands less than this above the frame's
# median (the dark level, where a narrow line leaves most filters dark)
# shows no line to scale from.
NO_SIGNAL_DN = 8
# Steps down from a saturated frame (1.25^4: 2.4 times shorter) and up from
# one with no signal (1.25^8: 6 times longer).
SATURATED_STEPS, DARK_STEPS = 4, 8


def rungs() -> List[int]:
    """Shutter speeds from the shortest to the longest, each at least 1.25
    times the exposure of the one before (or the next shutter speed)."""
    speeds = [SHUTTER_SPEED_LIMITS[0]]
    while speeds[-1] < SHUTTER_SPEED_LIMITS[1]:
        s = speeds[-1]
        speeds.append(max(s + 1, shutter_speed_for(exposure_ms(s) * RATIO)))
    speeds[-1] = min(speeds[-1], SHUTTER_SPEED_LIMITS[1])
    return speeds


class Ladder:
    def __init__(self) -> None:
        self.speeds = rungs()

    def nearest(self, ms: float) -> int:
        """The rung whose exposure is nearest to `ms`."""
        return min(range(len(self.speeds)), key=lambda i: abs(exposure_ms(self.speeds[i]) - ms))

    def judge(self, rung: int, peak: float, base: float) -> Tuple[int, bool]:
        """From a frame at `rung` with its brightest filter at `peak` and its
        median at `base` (DN): (the rung to use, whether this frame's rung is
        good). A rung at the end of the ladder is good when it is as near
        as the sensor gets, unless saturated."""
        top = len(self.speeds) - 1
        if peak >= MAX_VALUE:
            return max(rung - SATURATED_STEPS, 0), False
        if LOW * MAX_VALUE <= peak <= HIGH * MAX_VALUE:
            return rung, True
        signal = peak - base
        if signal < NO_SIGNAL_DN:
            return min(rung + DARK_STEPS, top), rung == top
        now = exposure_ms(self.speeds[rung])
        best = 0
        for i, speed in enumerate(self.speeds):
            if base + signal * exposure_ms(speed) / now <= AIM * MAX_VALUE:
                best = i
        return best, best == rung

"""What an auto-exposure found (Sensor.auto_expose()), and how exposure is
said everywhere: exact milliseconds."""

from typing import NamedTuple

from .facts import MAX_VALUE, exposure_ms

# The outcomes, as Sensor.auto_expose() reports them.
ON_TARGET, TOO_DIM, TOO_BRIGHT, LIGHT_CHANGED = "on target", "too dim", "too bright", "light changed"
OUTCOMES = (ON_TARGET, TOO_DIM, TOO_BRIGHT, LIGHT_CHANGED)


def format_ms(ms: float) -> str:
    """An exposure in milliseconds as the sensor makes it: 0.1072, 36.496,
    273.616 (never rounded to whole milliseconds)."""
    return f"{ms:.6g}"


class AutoExposure(NamedTuple):
    """The end of an auto-exposure: the shutter speed chosen (now set), the
    brightest chosen filter there (`level`, DN) and how it ended:
    `outcome` is one of "on target", "too dim" (below the target at the
    longest exposure), "too bright" (saturated at the shortest) and "light
    changed" (the light did not hold still while it searched)."""

    outcome: str
    shutter_speed: int
    level: int
    target: int
    tolerance: int
    rounds: int
    frames: int
    seconds: float

    @property
    def exposure_ms(self) -> float:
        return exposure_ms(self.shutter_speed)

    @property
    def ok(self) -> bool:
        """On target: nothing to warn of."""
        return self.outcome == ON_TARGET

    def message(self) -> str:
        """One line for a user: what was chosen and, when it is off target,
        the warning."""
        where = (f"shutter speed {self.shutter_speed} ({format_ms(self.exposure_ms)} ms), "
                 f"brightest filter {self.level} DN")
        if self.outcome == ON_TARGET:
            return f"auto-exposure on target: {where} (target {self.target})"
        warning = {
            TOO_DIM: f"too dim even at the longest exposure: {where}, "
                     f"{100 * self.level / MAX_VALUE:.0f}% of full scale (target {self.target}); "
                     "the data are under-exposed",
            TOO_BRIGHT: f"too bright even at the shortest exposure: {where}, saturated; "
                        "dim the light or the data are clipped",
            LIGHT_CHANGED: f"the light changed while it searched: {where} (target {self.target}); "
                           "run it again once the light is steady",
        }[self.outcome]
        return "auto-exposure warning: " + warning

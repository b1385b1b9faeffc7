"""The light sources a sweep drives: the emulator's monochromator through
its control channel, a command that sets a real one, or the user's hand.
Each sets a wavelength, turns the light off for the darks, and leaves the
light off when the sweep ends, however it ends."""

import shlex
import subprocess
import sys
from typing import Callable, Optional, TextIO

from .._emulator_control import Channel, ControlError
from ..errors import OrbError

# The emulator's line at this brightness saturates the nominal unit's
# brightest filter after 0.5 ms at 675 nm, and after about 70 ms at 1100 nm:
# short enough for a 1 nm sweep of the whole range within ten minutes at the
# sensor's own pace, long enough that the shortest exposure (0.107 ms) stays
# below saturation on a unit 50% more sensitive than the nominal.
DEFAULT_BRIGHTNESS = 2.0
# The emulator's narrowest band: the response is sampled, not smoothed. A
# 0.5 nm band put refined line positions 0.1 nm off near 750 and 1010 nm,
# where 0.1 nm put them within 0.01 nm.
DEFAULT_FWHM_NM = 0.1
# A command that sets a monochromator gets this long.
COMMAND_TIMEOUT_S = 60.0


class SourceError(OrbError):
    """The light source could not be set."""


def format_nm(nm: float) -> str:
    """A wavelength as a command or a prompt gets it: 532, 532.5, 532.25."""
    return f"{nm:.4f}".rstrip("0").rstrip(".")


class EmulatorLine:
    """The emulator's `line` scene on the sensor's device index, through the
    control socket named by $ORB_EMULATE_CONTROL (one connection for the
    whole sweep). `power` is the line's brightness: the response is given
    per unit of it."""

    def __init__(self, path: str, device: int, brightness: float = DEFAULT_BRIGHTNESS,
                 fwhm_nm: float = DEFAULT_FWHM_NM) -> None:
        self.description = "emulator"
        self.power = brightness
        self._device = device
        self._brightness = brightness
        self._fwhm = fwhm_nm
        try:
            self._channel = Channel(path)
        except ControlError as e:
            raise SourceError(str(e)) from None

    def _command(self, line: str) -> None:
        try:
            self._channel.command(line)
        except ControlError as e:
            raise SourceError(str(e)) from None

    def set_wavelength(self, nm: float) -> None:
        self._command(f"scene {self._device} line --nm {format_nm(nm)} --fwhm {self._fwhm:g} {self._brightness:g}")

    def dark(self) -> None:
        self._command(f"scene {self._device} dark")

    def close(self) -> None:
        """Leaves the line off."""
        try:
            self.dark()
        except SourceError:
            pass
        finally:
            self._channel.close()


class CommandSource:
    """A command that sets the monochromator, `{nm}` replaced by the
    wavelength, run by the shell; optionally one that turns the light off
    (else the user is asked to)."""

    def __init__(self, set_wavelength: str, set_dark: Optional[str], ask: Callable[[str], None]) -> None:
        self.description = f"command: {set_wavelength}"
        self.power = 1.0
        self._template = set_wavelength
        self._dark = set_dark
        self._ask = ask

    @staticmethod
    def _run(command: str) -> None:
        try:
            done = subprocess.run(command, shell=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                  timeout=COMMAND_TIMEOUT_S, text=True)
        except subprocess.TimeoutExpired:
            raise SourceError(f"the light source's command did not end within {COMMAND_TIMEOUT_S:.0f} s: "
                              f"{command}") from None
        if done.returncode != 0:
            said = done.stderr.strip().splitlines()
            raise SourceError(f"the light source's command failed (exit status {done.returncode}): {command}"
                              + (f": {said[-1]}" if said else ""))

    def set_wavelength(self, nm: float) -> None:
        self._run(self._template.replace("{nm}", shlex.quote(format_nm(nm))))

    def dark(self) -> None:
        if self._dark:
            self._run(self._dark)
        else:
            self._ask("Turn the light off (close the shutter) and press Enter: ")

    def close(self) -> None:
        if self._dark:
            try:
                self._run(self._dark)
            except SourceError:
                pass


class ManualSource:
    """The user sets the monochromator and presses Enter."""

    def __init__(self, ask: Callable[[str], None]) -> None:
        self.description = "manual"
        self.power = 1.0
        self._ask = ask

    def set_wavelength(self, nm: float) -> None:
        self._ask(f"Set the light to {format_nm(nm)} nm and press Enter: ")

    def dark(self) -> None:
        self._ask("Turn the light off (close the shutter) and press Enter: ")

    def close(self) -> None:
        pass


def prompter(before: Callable[[], None], answers: TextIO = sys.stdin, out: TextIO = sys.stderr) -> Callable[[str], None]:
    """A question on stderr, answered by a line on stdin; `before` clears
    the progress line first. The end of stdin is an error, not a yes."""
    def ask(question: str) -> None:
        before()
        out.write(question)
        out.flush()
        if not answers.readline():
            raise SourceError("the input ended while waiting for the light source to be set")
    return ask

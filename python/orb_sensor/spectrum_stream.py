"""A sensor's stream of spectra, as Sensor.stream(spectra=True) returns it."""

from typing import TYPE_CHECKING, Any, Callable, Iterator, Optional

import numpy as np

from ._spectrum.frame_spectra import FrameSpectra
from .frame import Frame
from .spectrum import CalibrationSource, Spectrum
from .stream import Stream

if TYPE_CHECKING:
    from .sensor import Sensor


class SpectrumStream(Stream):
    """A Stream whose Frames come out as Spectrum objects: the frames are
    numbered, averaged and counted lost by Stream's rule (`delivered`,
    `lost`, `averages`, stop(), interrupt() and close() are Stream's), and
    each Frame out is made into a spectrum with the operator of its
    `averages` (built once) and the dark of its exposure."""

    def __init__(self, sensor: "Sensor", open_stream: Callable[[], Any], spectra: FrameSpectra,
                 averages: int = 1, frames: Optional[int] = None, seconds: Optional[float] = None,
                 timeout: float = 10.0) -> None:
        super().__init__(sensor, open_stream, averages, frames, seconds, timeout)
        self._spectra = spectra
        self._last_frame: Optional[Frame] = None

    @property
    def calibration(self) -> CalibrationSource:
        """The calibration file the spectra are made with."""
        return self._spectra.source

    @property
    def wavelengths(self) -> np.ndarray:
        """The spectra's wavelengths (nm)."""
        return self._spectra.operator(self.averages).wavelengths

    @property
    def last_frame(self) -> Optional[Frame]:
        """The Frame (filter data) the last Spectrum out was made from: a
        recording keeps both."""
        return self._last_frame

    def __iter__(self) -> Iterator[Spectrum]:  # type: ignore[override]
        return self

    def __next__(self) -> Spectrum:  # type: ignore[override]
        # Stream's own __next__ stops the stream on any failure, a frame
        # refused for want of a dark included.
        return super().__next__()  # type: ignore[return-value]

    def _next_frame(self) -> Spectrum:  # type: ignore[override]
        frame = super()._next_frame()
        spectrum = self._spectra.spectrum(frame)
        self._last_frame = frame
        return spectrum

    def __enter__(self) -> "SpectrumStream":
        return self

    def __repr__(self) -> str:
        return "<Spectrum" + super().__repr__()[1:]

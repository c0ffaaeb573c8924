"""What watches a run: progress reports, and the end of the runs of a sweep."""

from __future__ import annotations

import threading
from typing import Any, Callable, NamedTuple, Optional, Union

from .errors import ArgumentTypeError
from .units import s

#: True for a bar of tqdm, or a callable that takes a Progress.
ProgressArgument = Union[bool, None, Callable[["Progress"], Any]]


class Progress(NamedTuple):
    """How far a run is."""

    position: int  #: ns; the end of the last window
    start: int  #: ns; where the run began
    end: int  #: ns; where the run will end
    spikes: int  #: so far, also those of earlier runs
    speed: float  #: model time per wall time since the last report

    @property
    def fraction(self) -> float:
        """The share of the run that is done, from 0 to 1."""
        if self.end <= self.start:
            return 1.0
        return min((self.position - self.start) / (self.end - self.start), 1.0)


class Cancelled(BaseException):
    """Ends a run of a sweep that has ended."""


class _Thread(threading.local):
    """What a sweep sets for the runs of its threads."""

    cancelled: Optional[threading.Event] = None


in_sweep = _Thread()


class Watch:
    """Calls the progress argument of a run, and ends the run if its sweep has ended."""

    def __init__(self, progress: ProgressArgument, start: int, end: int) -> None:
        self._start, self._end = start, end
        self._cancelled = in_sweep.cancelled
        self._bar: Any = None
        self._report: Optional[Callable[[Progress], Any]] = None
        if progress is True:
            from tqdm.auto import tqdm

            form = "{l_bar}{bar}| {n:.3f}/{total:.3f} s [{elapsed}<{remaining}{postfix}]"
            self._bar = tqdm(total=(end - start) / s, bar_format=form)
        elif callable(progress):
            self._report = progress
        elif progress:
            kind = type(progress).__name__
            raise ArgumentTypeError(f"progress must be True, False or a callable, not {kind}")

    @property
    def poll(self) -> Optional[Callable[[int, int, float], None]]:
        """What a run calls; None if there is nothing to do."""
        if self._bar is None and self._report is None and self._cancelled is None:
            return None
        return self._poll

    def _poll(self, position: int, spikes: int, speed: float) -> None:
        if self._cancelled is not None and self._cancelled.is_set():
            raise Cancelled
        if self._report is not None:
            self._report(Progress(position, self._start, self._end, spikes, speed))
        self._show(position, spikes)

    def _show(self, position: int, spikes: int) -> None:
        if self._bar is not None:
            self._bar.set_postfix_str(f"{spikes} spikes", refresh=False)
            self._bar.update((min(position, self._end) - self._start) / s - self._bar.n)

    def finish(self, position: int, spikes: int) -> None:
        """Reports the end of a run, so that its last report is complete."""
        if self._report is not None:
            self._report(Progress(position, self._start, self._end, spikes, 0.0))
        self._show(position, spikes)

    def close(self) -> None:
        if self._bar is not None:
            self._bar.close()

"""The spikes of a run as one array, and what is counted from them."""

from __future__ import annotations

import html
from bisect import bisect_left
from typing import Any, Iterable, Mapping, NamedTuple

import numpy as np

from . import _checks
from .errors import ArgumentError, ArgumentTypeError

#: One spike: `time` in ns (int64), `neuron` (uint64).
SPIKE = np.dtype([("time", "<i8"), ("neuron", "<u8")])

#: The colours of populations, in their order. Readers who are colour-blind can tell them apart
#: (M. Okabe, K. Ito, "Color Universal Design", 2008).
COLOURS = ("#0072b2", "#d55e00", "#009e73", "#cc79a7", "#e69f00", "#56b4e9", "#555555")

_HTML_SPIKES = 4000  # dots in the picture of a notebook
_MOST_BINS = 10**7


class PopulationRange(NamedTuple):
    """A population as a file names it: the neurons `first` to `first + size - 1`."""

    name: str
    first: int
    size: int


def ordered(array: np.ndarray) -> bool:
    """Whether spikes ascend by time, and by neuron at equal times."""
    time, neuron = array["time"], array["neuron"]
    later = time[1:] > time[:-1]
    if later.all():
        return True
    return bool((later | ((time[1:] == time[:-1]) & (neuron[1:] >= neuron[:-1]))).all())


def time_text(ns: int) -> str:
    """A time with the largest unit that keeps it a short number."""
    for unit, size in (("s", 10**9), ("ms", 10**6), ("us", 10**3)):
        if abs(ns) >= size or ns == 0:
            return f"{ns / size:.6g} {unit}"
    return f"{ns} ns"


def default_bin(spikes: Spikes) -> int:
    """A bin for rates in ns: 1, 2 or 5 times a power of 10, and 100 to 250 bins in all."""
    decade = 1
    while True:
        for bin in (decade, 2 * decade, 5 * decade):
            if spikes.end - spikes.start <= 250 * bin:
                return bin
        decade *= 10


class Spikes:
    """Spikes, ascending by time and then by neuron.

    A read-only view of a structured array with the fields `time` (int64, ns) and `neuron` (uint64).
    NumPy functions take it as that array. Two objects are equal if their arrays are.

    `populations` have the attributes `name`, `first` and `size`. `provenance` says which run the
    spikes are from: `kelm_version`, `fingerprint`, `seed`, `digest`, `position_ns`. `digest` is the
    digest of the whole log, so a part of it has none. The spikes are those with times from `start`
    up to, not including, `end` (ns); `end` is the position of the run if it is not given.

    Raises ArgumentError for another dtype or shape, for spikes out of order, for a time below 0 or
    before `start`, and for a neuron from 2^63 on.
    """

    __hash__ = None  # type: ignore[assignment]

    def __init__(self, array: Any, *, populations: Iterable[Any] = (),
                 provenance: Mapping[str, Any] = {}, digest: int | None = None,
                 start: int = 0, end: int | None = None) -> None:
        array = _checks.array(array, "array")
        if array.dtype != SPIKE or array.ndim != 1:
            raise ArgumentError(
                "array must have shape (n,) and the fields time (int64) and neuron (uint64), not "
                f"shape {array.shape} and dtype {array.dtype}")
        if not ordered(array):
            raise ArgumentError("array must ascend by time, and by neuron at equal times")
        if len(array) and array["neuron"].max() >= 2**63:
            raise ArgumentError(f"array has neuron {array['neuron'].max()}, must be below 2^63")
        if len(array) and array["time"][0] < max(start, 0):
            first = array["time"][0]
            raise ArgumentError(f"array has a spike at {first} ns, before {max(start, 0)} ns")
        self._array = array.view()
        self._array.flags.writeable = False
        self.populations = tuple(populations)
        self.provenance = dict(provenance)
        self.digest = self.provenance.get("digest") if digest is None else digest
        if end is None:
            end = self.provenance.get("position_ns") or 0
        self.start = int(start)
        self.end = max(int(end), self.start, int(array["time"][-1]) + 1 if len(array) else 0)

    @property
    def array(self) -> np.ndarray:
        """All spikes: read-only, shape (n,), fields `time` (int64, ns) and `neuron` (uint64)."""
        return self._array

    @property
    def time(self) -> np.ndarray:
        """Times in ns: int64, read-only, shape (n,)."""
        return self._array["time"]

    @property
    def neuron(self) -> np.ndarray:
        """The neuron of each spike: uint64, read-only, shape (n,)."""
        return self._array["neuron"]

    @property
    def neuron_count(self) -> int:
        """Neurons of the populations; without populations, the largest neuron plus 1."""
        if self.populations:
            return sum(population.size for population in self.populations)
        return int(self.neuron.max()) + 1 if len(self) else 0

    def __len__(self) -> int:
        return len(self._array)

    def __setstate__(self, state: dict[str, Any]) -> None:
        self.__dict__.update(state)
        self._array.flags.writeable = False  # a pickle does not keep it

    def __array__(self, dtype: Any = None, copy: bool | None = None) -> np.ndarray:
        return self._array.astype(dtype or SPIKE, copy=bool(copy))

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Spikes):
            return NotImplemented
        return bool(np.array_equal(self._array, other._array))

    def between(self, start: int, end: int) -> Spikes:
        """The spikes with start <= time < end, in ns. A view: nothing is copied."""
        start, end = _checks.whole_number(start, "start"), _checks.whole_number(end, "end")
        if start > end:
            raise ArgumentError(f"start must not be after end, not {start} ns and {end} ns")
        time: Any = self.time  # searchsorted would copy it, because its steps are not 8 bytes
        first, last = bisect_left(time, start), bisect_left(time, end)
        start, end = (min(max(bound, self.start), self.end) for bound in (start, end))
        return self._part(self._array[first:last], self.populations, start, end)

    def of(self, population: Any) -> Spikes:
        """The spikes of a population, which is one of `populations`, or its name. A copy.

        Neurons keep their numbers. Raises ArgumentError for a name that there is not.
        """
        population = self._population(population)
        index = self.neuron - np.uint64(population.first)  # wraps for neurons below the population
        array = self._array[index < np.uint64(population.size)]
        return self._part(array, (population,), self.start, self.end)

    def of_neurons(self, first: int, last: int) -> Spikes:
        """The spikes of the neurons `first` to `last - 1`. A copy if there are others."""
        if not len(self) or (self.neuron.min() >= first and self.neuron.max() < last):
            return self
        return self.of(PopulationRange("neurons", first, last - first))

    def counts(self, population: Any = None) -> np.ndarray:
        """The number of spikes of each neuron: int64, shape (neurons,).

        Of a population, or of all neurons from number 0 on.
        """
        if population is not None:
            part = self.of(population)
            index = part.neuron - np.uint64(part.populations[0].first)
            return np.bincount(index.astype(np.int64), minlength=part.neuron_count)
        size = max((p.first + p.size for p in self.populations), default=0)
        return np.bincount(self.neuron.astype(np.int64), minlength=size)

    def rates(self, bin: int, population: Any = None) -> tuple[np.ndarray, np.ndarray]:
        """The mean rate of a neuron over time, in bins of `bin` ns.

        Returns the starts of the bins in ns (int64, shape (bins,)) and the rates in spikes/s
        (float64, shape (bins,)), of a population or of all neurons. The last bin ends at `end`, and
        its rate is that of its own length. Raises ArgumentError for a bin that is not positive, and
        for one that makes more than 10 million bins.
        """
        bin = _checks.time(bin, "bin", least=1)
        number = -(-(self.end - self.start) // bin)
        if number > _MOST_BINS:
            raise ArgumentError(f"bin is {bin} ns, which makes {number} bins from "
                                f"{time_text(self.start)} to {time_text(self.end)}; at most "
                                f"{_MOST_BINS} are counted")
        part = self if population is None else self.of(population)
        starts = self.start + bin * np.arange(number, dtype=np.int64)
        counts = np.bincount((part.time - self.start) // bin, minlength=len(starts))
        seconds = np.minimum(self.end - starts, bin) / 1e9
        return starts, counts / (seconds * max(part.neuron_count, 1))

    def intervals(self, population: Any = None) -> np.ndarray:
        """The intervals between successive spikes of the same neuron: ns, int64, shape (m,).

        They are in the order of neuron, then time.
        """
        part = self if population is None else self.of(population)
        order = np.argsort(part.neuron, kind="stable")
        time, neuron = part.time[order], part.neuron[order]
        return np.diff(time)[neuron[1:] == neuron[:-1]]

    def save(self, path: Any) -> None:
        """Writes the spikes to a file; its suffix is the format: .h5 (SONATA), .npy or .csv.

        The file appears whole or not at all. It carries the populations and the provenance. Raises
        FileError for another suffix and, with .h5, ArgumentError for populations that overlap and
        for a spike of no population.
        """
        from . import _files

        _files.save_spikes(self, path)

    @staticmethod
    def load(path: Any, *, populations: Iterable[Any] | None = None,
             fingerprint: int | None = None) -> Spikes:
        """Reads a file of spikes: .h5 (SONATA), .npy or .csv, from kelm or another program.

        `populations` say where each population of the file begins. Without them, the file says so,
        or the populations follow one another in the order of their names, each up to its largest
        neuron that fired. A `fingerprint` refuses the file of another network.

        Raises FileError for a file of another kind, one that is cut short and one of another
        network.
        """
        from . import _files

        return _files.load_spikes(path, populations=populations, fingerprint=fingerprint)

    def to_neo(self) -> Any:
        """The spikes as a neo.Block with one segment and one SpikeTrain for each neuron.

        A train carries the annotations `neuron` and `population`. Needs the package neo.
        """
        try:
            import neo
        except ImportError as error:
            raise ImportError("to_neo needs the package neo") from error
        block = neo.Block(name="kelm")
        block.annotate(**self.provenance)
        segment = neo.Segment()
        order = np.argsort(self.neuron, kind="stable")
        seconds = self.time[order] / 1e9
        groups = self.populations or (PopulationRange("", 0, self.neuron_count),)
        for population in groups:
            neurons = np.arange(population.first, population.first + population.size + 1)
            bounds = np.searchsorted(self.neuron[order], neurons.astype(np.uint64))
            for neuron, first, last in zip(neurons, bounds[:-1], bounds[1:]):
                segment.spiketrains.append(neo.SpikeTrain(
                    seconds[first:last], units="s", t_start=self.start / 1e9,
                    t_stop=self.end / 1e9, neuron=int(neuron), population=population.name))
        block.segments.append(segment)
        return block

    def __repr__(self) -> str:
        return (f"<kelm.Spikes: {len(self)} spikes of {self.neuron_count} neurons from "
                f"{time_text(self.start)} to {time_text(self.end)}>")

    def _repr_html_(self) -> str:
        width, height = 480, 120
        step = -(-len(self) // _HTML_SPIKES) or 1
        groups = self.populations or (PopulationRange("neurons", 0, self.neuron_count),)
        low = min(population.first for population in groups)
        span = max(max(population.first + population.size for population in groups) - low, 1)
        shown = self._part(self._array[::step], groups, self.start, self.end)
        paths, names = [], []
        for index, population in enumerate(groups):
            part, colour = shown.of(population), COLOURS[index % len(COLOURS)]
            x = (part.time - self.start) * (width / max(self.end - self.start, 1))
            y = height - (part.neuron - np.uint64(low) + 0.5) * (height / span)
            dots = "".join(f"M{a:.1f} {b:.1f}h1.5" for a, b in zip(x, y))
            paths.append(f'<path stroke="{colour}" stroke-width="1.5" d="{dots}"/>')
            names.append(f'<span style="color:{colour}">{html.escape(population.name)}</span>')
        note = f", of which 1 in {step} is shown" if step > 1 else ""
        return (
            f'<div><svg width="{width}" height="{height}" role="img" '
            f'style="background:#fff;border:1px solid #bbb"><title>raster of spikes</title>'
            f'{"".join(paths)}</svg><br>{len(self)} spikes of {self.neuron_count} neurons from '
            f'{time_text(self.start)} to {time_text(self.end)}{note}; {", ".join(names)}</div>')

    def _population(self, population: Any) -> Any:
        if not isinstance(population, str):
            if not (hasattr(population, "first") and hasattr(population, "size")):
                kind = type(population).__name__
                raise ArgumentTypeError(f"population must be a population or its name, not {kind}")
            return population
        for candidate in self.populations:
            if candidate.name == population:
                return candidate
        names = ", ".join(repr(candidate.name) for candidate in self.populations) or "none"
        raise ArgumentError(f"no population {population!r}; there are {names}")

    def _part(self, array: np.ndarray, populations: Iterable[Any], start: int, end: int) -> Spikes:
        """A part of these spikes. It is in order, so the checks are left out."""
        part = object.__new__(Spikes)
        part._array = array.view()
        part._array.flags.writeable = False
        part.populations = tuple(populations)
        part.provenance = {k: v for k, v in self.provenance.items() if k != "digest"}
        part.digest = None
        part.start, part.end = start, end
        return part

"""Ranges of neurons, and what may name neurons."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Iterator, Union

import numpy as np

from . import _checks
from .errors import ArgumentError, ArgumentTypeError, RangeError


@dataclass(frozen=True)
class Neurons:
    """The neurons `first`, `first + 1`, ..., `first + size - 1`.

    A slice is a range of neurons, too: ``E[:10]``. An index gives the number of one neuron in the
    network: ``E[3]``, ``E[-1]``. As an array, it is the numbers of its neurons, uint64.
    """

    name: str  #: for messages and for the names of connections
    first: int  #: number of the first neuron in the network
    size: int  #: neurons

    def __post_init__(self) -> None:
        _checks.count(self.first, "first")
        _checks.count(self.size, "size")

    @property
    def end(self) -> int:
        """One past the number of the last neuron."""
        return self.first + self.size

    @property
    def ids(self) -> np.ndarray:
        """The numbers of the neurons: shape (size), uint64."""
        return np.arange(self.first, self.end, dtype=np.uint64)

    def __len__(self) -> int:
        return self.size

    def __iter__(self) -> Iterator[int]:
        return iter(range(self.first, self.end))

    def __contains__(self, neuron: object) -> bool:
        return isinstance(neuron, (int, np.integer)) and self.first <= int(neuron) < self.end

    def __array__(self, dtype: Any = None, copy: Any = None) -> np.ndarray:
        return self.ids if dtype is None else self.ids.astype(dtype)

    def __getitem__(self, key: Any) -> Any:
        if isinstance(key, slice):
            start, stop, step = key.indices(self.size)
            if step != 1:
                raise ArgumentError(f"{self.name}: the step of a slice is {step}, must be 1")
            size = max(stop - start, 0)
            return Neurons(f"{self.name}[{start}:{start + size}]", self.first + start, size)
        index = _checks.whole_number(key, f"an index of {self.name}")
        if not -self.size <= index < self.size:
            raise RangeError(f"{self.name} has {self.size} neurons, so none has index {index}")
        return self.first + index % self.size

    def __repr__(self) -> str:
        return f"<{type(self).__name__} {self.name!r}: neurons {self.first} to {self.end - 1}>"


@dataclass(frozen=True, repr=False)
class Population(Neurons):
    """A range of neurons with the same parameters. :meth:`Network.population` makes one."""

    kind: str = "neurons"  #: "neurons", "poisson" or "spikes"


#: What names neurons: a range, an index, or an array of numbers of neurons.
Targets = Union[Neurons, int, Any]


def ids(targets: Targets, name: str, neurons: int) -> np.ndarray:
    """The numbers of neurons of a network of `neurons`: uint64, one dimension."""
    if isinstance(targets, Neurons):
        targets = targets.ids
    elif isinstance(targets, (int, np.integer)):
        targets = [targets]
    elif targets is None or isinstance(targets, (str, bytes)):
        raise ArgumentTypeError(
            f"{name} must be a population, a range or numbers of neurons, "
            f"not {type(targets).__name__}"
        )
    return _checks.column(
        targets, name, np.uint64, low=0, below=neurons, rule=f"the network has {neurons} neurons"
    )

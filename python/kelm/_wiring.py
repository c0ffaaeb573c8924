"""Connection rules, and the values of synapses."""

from __future__ import annotations

from dataclasses import dataclass, replace
from typing import Any, Optional

import numpy as np

from . import _checks
from .errors import ArgumentError


@dataclass(frozen=True)
class Rule:
    """Which pairs of a source and a target a connection joins. The functions of this module and
    the constants `one_to_one` and `all_to_all` make one."""

    kind: str
    count: int = 0  #: degree or number of synapses
    probability: float = 0.0  #: of bernoulli


#: Source i to target i. Both ranges must have the same size.
one_to_one = Rule("one_to_one")
#: Every source to every target, once.
all_to_all = Rule("all_to_all")


def fixed_indegree(degree: int) -> Rule:
    """`degree` synapses to every target, their sources drawn uniformly."""
    return Rule("fixed_indegree", _checks.count(degree, "degree"))


def fixed_outdegree(degree: int) -> Rule:
    """`degree` synapses from every source, their targets drawn uniformly."""
    return Rule("fixed_outdegree", _checks.count(degree, "degree"))


def fixed_total(number: int) -> Rule:
    """`number` synapses in all, their pairs drawn uniformly."""
    return Rule("fixed_total", _checks.count(number, "number"))


def bernoulli(probability: float) -> Rule:
    """Each pair with this probability, once, independently of the other pairs."""
    return Rule("bernoulli", 0, _checks.real(probability, "probability"))


def least_synapses(rule: Rule, sources: int, targets: int) -> int:
    """A lower bound of the synapses that a rule makes. For bernoulli, half of the mean: fewer have
    a probability of at most exp(-mean / 8)."""
    pairs = sources * targets
    if rule.kind == "bernoulli":
        return int(min(max(rule.probability, 0.0), 1.0) * pairs / 2)
    return {
        "one_to_one": targets,
        "all_to_all": pairs - min(sources, targets),  # a neuron need not connect to itself
        "fixed_indegree": rule.count * targets,
        "fixed_outdegree": rule.count * sources,
        "fixed_total": rule.count,
    }[rule.kind]


@dataclass(frozen=True)
class Distribution:
    """Values that are drawn, one for each synapse. A minus sign makes weights inhibitory:
    ``-kelm.exponential(0.2)``."""

    kind: str
    first: float
    second: float = 0.0
    low: float = -np.inf
    high: float = np.inf
    negative: bool = False

    def within(self, low: float, high: float) -> Distribution:
        """Only values in [low, high]: a draw outside is repeated. This cuts the tails off and
        puts no weight on the bounds."""
        return replace(self, low=_checks.real(low, "low"), high=_checks.real(high, "high"))

    def __neg__(self) -> Distribution:
        return replace(self, negative=not self.negative)

    def _description(self) -> tuple[Any, ...]:
        return (self.kind, self.first, self.second, self.low, self.high)


def uniform(low: float, high: float) -> Distribution:
    """Uniform in [low, high). Delays are in ns."""
    return Distribution("uniform", _checks.real(low, "low"), _checks.real(high, "high"))


def normal(mean: float, standard_deviation: float) -> Distribution:
    """Normal. Weights and delays have a least value, so cut it by :meth:`Distribution.within`."""
    return Distribution(
        "normal",
        _checks.real(mean, "mean"),
        _checks.real(standard_deviation, "standard_deviation"),
    )


def lognormal(mu: float, sigma: float) -> Distribution:
    """The exponential of a normal draw with mean `mu` and standard deviation `sigma`."""
    return Distribution("lognormal", _checks.real(mu, "mu"), _checks.real(sigma, "sigma"))


def exponential(mean: float) -> Distribution:
    """Exponential."""
    return Distribution("exponential", _checks.real(mean, "mean"))


#: The values of one field of a connection, as C++ takes them.
Description = tuple[Any, ...]


def weights(value: Any, inhibitory: Optional[bool]) -> tuple[Description, bool]:
    """The magnitudes of the weights of a rule, and whether they are inhibitory."""
    if isinstance(value, Distribution):
        sign = value.negative
        description = value._description()
    elif callable(value):
        sign, description = False, ("function", value)
    elif _checks.array(value, "weight").ndim == 0:
        number = _checks.real(value, "weight")
        sign = number < 0
        description = ("constant", abs(number), 0.0, -np.inf, np.inf)
    else:
        array = _checks.column(value, "weight", np.float64)
        sign = bool(np.any(array < 0))
        if sign and np.any(array > 0):
            raise ArgumentError(
                "weight has values of both signs; the weights of one rule must have one sign "
                "(connect_arrays takes both)"
            )
        description = ("array", np.abs(array))
    if inhibitory is None:
        return description, sign
    if sign and not inhibitory:
        raise ArgumentError("weight is negative, and inhibitory is False")
    return description, bool(inhibitory)


def delays(value: Any, window: Optional[int]) -> Description:
    """The delays of a rule in ns."""
    if isinstance(value, Distribution):
        if value.negative:
            raise ArgumentError("delay is a negated distribution, must be positive")
        if value.kind == "uniform":
            _checks.duration(int(np.floor(max(value.first, value.low))), "delay", window)
        return value._description()
    if callable(value):
        return ("function", value)
    if _checks.array(value, "delay").ndim == 0:
        return ("constant", float(_checks.duration(value, "delay", window)), 0.0, -np.inf, np.inf)
    array = _checks.times(value, "delay", low=window or 1)
    return ("array", array.astype(np.float64))


def plain_columns(
    source: Any, target: Any, weight: Any, delay: Any, inhibitory: Any
) -> Optional[tuple[Any, ...]]:
    """Arrays of synapses as C++ reads them, copied only for an uncommon type.

    No value is checked. A whole number outside its range becomes one that the graph refuses.
    Returns None where a type or shape needs the checks first.
    """
    flags = False if inhibitory is None else inhibitory
    given = (source, target, weight, delay, flags)
    if not all(isinstance(value, (np.ndarray, int, float)) and not np.ma.is_masked(value)
               for value in given):
        return None
    arrays = [np.asarray(value) for value in given]
    if type(weight) is int and abs(weight) <= 2**53:
        arrays[2] = np.asarray(float(weight))
    shape = arrays[0].shape
    if len(shape) != 1 or any(array.shape not in (shape, ()) for array in arrays):
        return None
    if (arrays[2].dtype not in (np.float32, np.float64) or
            arrays[4].dtype not in (np.bool_, np.uint8)):
        return None
    for place in (0, 1, 3):
        array = arrays[place]
        if array.dtype.kind not in "iu":
            return None
        if array.dtype == np.uint64:
            arrays[place] = array.view(np.int64)
        elif array.dtype not in (np.int32, np.int64):
            arrays[place] = array.astype(np.int64)
    arrays[4] = arrays[4].view(np.uint8)
    columns = [np.broadcast_to(array, shape) for array in arrays]
    return (*columns[:4], None if inhibitory is None else columns[4])

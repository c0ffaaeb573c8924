"""The description of a network."""

from __future__ import annotations

import contextlib
import html
import os
import threading
from dataclasses import dataclass, replace
from typing import Any, Iterator, Mapping, NamedTuple, Optional, Union

import numpy as np

from . import _checks, _kelm, _settings, _wiring
from ._neurons import Neurons, Population
from ._settings import Firing, Neuron
from ._wiring import Rule
from .errors import (
    ArgumentError,
    ArgumentTypeError,
    BusyError,
    InvalidSynapse,
    NetworkTooLarge,
)

# What a simulation stores at least. Measured: 82 bytes a neuron, without the synapses.
_NEURON_BYTES = 80
_SYNAPSE_BYTES = 20


class Synapses(NamedTuple):
    """All synapses of a network in columns, shape (synapses) each, by their numbers."""

    source: np.ndarray  #: uint64
    target: np.ndarray  #: uint64
    weight: np.ndarray  #: float32; magnitude
    delay: np.ndarray  #: int64; ns
    inhibitory: np.ndarray  #: bool


def _synapses(graph: _kelm.Graph) -> Synapses:
    return Synapses(
        graph.sources(),
        graph.targets(),
        graph.weights(),
        graph.delays(),
        graph.inhibitory().view(np.bool_),
    )


def _machine_bytes() -> Optional[int]:
    """The physical memory of this machine; None if it is not known."""
    try:
        pages = os.sysconf("SC_PHYS_PAGES")
        return pages * os.sysconf("SC_PAGE_SIZE") if pages > 0 else None
    except (AttributeError, OSError, ValueError):
        return None


@dataclass(frozen=True)
class Connection:
    """Synapses that a rule makes. :meth:`Network.connect` returns it."""

    name: str  #: names the random streams of the connection
    source: Neurons
    target: Neurons
    rule: Rule
    weight: Any
    delay: Any
    inhibitory: bool
    allow_self: bool
    allow_multiple: bool

    def __repr__(self) -> str:
        return f"<Connection {self.name!r}: {self.rule}>"


@dataclass(frozen=True)
class _Member:
    """A population with its parameters."""

    range: Population
    neuron: Neuron
    firing: Firing
    rate: float = 0.0  #: of Poisson processes
    times: Optional[np.ndarray] = None  #: of given spikes, ns
    neurons: Optional[np.ndarray] = None  #: of given spikes, numbers in the network


class Network:
    """The description of a network: populations, connections and sources.

    The same description and seed give the same synapses on every machine. The synapses are built
    when a simulation first needs them. A network can be changed, copied and pickled. A simulation
    keeps its own copy of the description.

    Parameters
    ----------
    seed
        of all random draws of the wiring
    window
        the smallest delay in ns, which is the length of a window; None for the smallest delay of
        all synapses
    neuron, firing
        parameters of every neuron that has no others: a :class:`Neuron` and a :class:`Firing`, or
        dicts of their fields

    Example
    -------
    >>> net = kelm.Network(seed=7, window=1*ms, firing={"base_rate": 6.0})
    >>> E, I = net.population("E", 1600), net.population("I", 400)
    >>> net.connect(E, net.all, kelm.fixed_indegree(80), weight=0.1, delay=kelm.uniform(1*ms, 3*ms))
    """

    def __init__(
        self,
        seed: int = 0,
        window: Optional[int] = None,
        neuron: Union[Neuron, Mapping[str, Any], None] = None,
        firing: Union[Firing, Mapping[str, Any], None] = None,
    ) -> None:
        self._seed = _checks.count(seed, "seed")
        self._window = None if window is None else _checks.time(window, "window", 1)
        self._neuron = _checks.record(Neuron, neuron, "neuron")
        self._firing = _checks.record(Firing, firing, "firing")
        _settings.native_neuron(self._neuron, "neuron")
        _settings.native_firing(self._firing, "firing")
        self._members: list[_Member] = []
        self._connections: list[Connection] = []
        self._arrays: list[_kelm.Graph] = []
        self._graph: Optional[_kelm.Graph] = None
        self._make_lock()

    # Populations

    def population(
        self,
        name: str,
        size: int,
        neuron: Union[Neuron, Mapping[str, Any], None] = None,
        firing: Union[Firing, Mapping[str, Any], None] = None,
    ) -> Population:
        """Adds `size` neurons with the same parameters, after those of earlier populations.

        `neuron`, `firing`: a record, or a dict of the fields that differ from the network's. None
        for the network's. Raises ArgumentError for a name in use, and for an unknown field.
        """
        return self._add(
            name,
            size,
            neuron=self._overridden(self._neuron, neuron, "neuron"),
            firing=self._overridden(self._firing, firing, "firing"),
        )

    def poisson(self, name: str, size: int, rate: float) -> Population:
        """Adds `size` independent Poisson processes of `rate` > 0 spikes/s each.

        A window must hold far fewer than 8 spikes of one process. No input changes them.
        """
        rate = _checks.real(rate, "rate")
        if rate <= 0:
            raise ArgumentError(f"rate is {rate} spikes/s, must be positive")
        return self._add(name, size, kind="poisson", rate=rate)

    def spike_source(
        self, name: str, size: int, times: Any, neurons: Any = None
    ) -> Population:
        """Adds `size` neurons that fire at given times only.

        `times`: ns, shape (spikes), in any order. `neurons`: the index in this population of the
        neuron of each spike, below `size`; None where `size` is 1. Raises ArgumentError for
        another shape, for a time or an index outside its range, and for a spike given twice.
        """
        size = _checks.count(size, "size", 1)
        times = _checks.times(times, "times")
        if neurons is None:
            if size != 1:
                raise ArgumentError(f"neurons is missing, and {name} has {size} neurons")
            neurons = np.zeros(len(times), np.uint64)
        rule = f"{name} has {size} neurons"
        neurons = _checks.column(
            neurons, "neurons", np.uint64, size=len(times), low=0, below=size, rule=rule
        )
        order = np.lexsort((neurons, times))
        times, neurons = times[order], neurons[order]
        twice = np.flatnonzero((times[1:] == times[:-1]) & (neurons[1:] == neurons[:-1]))
        if twice.size:
            k = int(twice[0])
            raise ArgumentError(
                f"times: neuron {neurons[k]} has two spikes at {times[k]} ns, may have one"
            )
        neurons = neurons + np.uint64(self.size)
        return self._add(name, size, kind="spikes", times=times, neurons=neurons)

    def _overridden(self, own: Any, value: Any, name: str) -> Any:
        cls = type(own)
        if isinstance(value, Mapping):
            value = {**own.__dict__, **value}
        record = own if value is None else _checks.record(cls, value, name)
        if cls is Neuron:
            _settings.native_neuron(record, name)
        else:
            _settings.native_firing(record, name)
        return record

    def _add(self, name: str, size: int, kind: str = "neurons", **fields: Any) -> Population:
        name = _checks.text(name, "name")
        size = _checks.count(size, "size", 1, 2**32 - 1)
        if any(member.range.name == name for member in self._members) or name == "all":
            raise ArgumentError(f"name is {name!r}, which another population has")
        population = Population(name, self.size, size, kind)
        fields = {"neuron": self._neuron, "firing": self._firing, **fields}
        with self._locked():
            self._members.append(_Member(population, **fields))
            self._graph = None
        return population

    # Connections

    def connect(
        self,
        source: Neurons,
        target: Neurons,
        rule: Rule,
        *,
        weight: Any,
        delay: Any,
        allow_self: bool = True,
        allow_multiple: bool = True,
        inhibitory: Optional[bool] = None,
        name: Optional[str] = None,
    ) -> Connection:
        """Connects two ranges of neurons by a rule.

        Parameters
        ----------
        weight
            A number, a distribution, an array of shape (synapses), or a function
            ``(source, target, index)``. Negative weights are those of inhibitory synapses.
            Rounded to single precision.
        delay
            ns: as `weight`. Not below the window.
        allow_self, allow_multiple
            whether a neuron may connect to itself, and whether a source may have several synapses
            to one target
        inhibitory
            the sign of all weights; None to take it from `weight`
        name
            names the random streams. "E->I" without one, "E->I 2" for the second such connection.
            So no connection changes the draws of another one.

        Arrays hold a value for each synapse by target, then in the order of the draws. Raises
        ArgumentError for a value outside its range. A rule that cannot be raises when the network
        is built.
        """
        self._require_range(source, "source")
        self._require_range(target, "target")
        if not isinstance(rule, Rule):
            raise ArgumentTypeError(
                f"rule must be a kelm.Rule such as kelm.fixed_indegree(80), "
                f"not {type(rule).__name__}"
            )
        weights, sign = _wiring.weights(weight, inhibitory)
        delays = _wiring.delays(delay, self._window)
        connection = Connection(
            self._connection_name(name, source, target),
            source,
            target,
            rule,
            weights,
            delays,
            sign,
            bool(allow_self),
            bool(allow_multiple),
        )
        with self._locked():
            self._connections.append(connection)
            self._graph = None
        return connection

    def connect_arrays(
        self, source: Any, target: Any, weight: Any, delay: Any, inhibitory: Any = None
    ) -> None:
        """Adds synapses from arrays of shape (synapses). One number stands for all synapses.

        `source`, `target`: numbers of neurons in the network. `weight`: negative for inhibitory
        synapses where `inhibitory` is None; else magnitudes. `delay`: ns, not below the window.
        `inhibitory`: flags.

        If a network has only one set of arrays and no rule, synapse k is row k. Otherwise synapses
        ascend by source; those of one source come in the order of the rules, then of the arrays.
        Arrays that are sorted by source run fastest. The arrays are copied.
        """
        graph = None
        plain = _wiring.plain_columns(source, target, weight, delay, inhibitory)
        if plain is not None:
            try:
                graph = _kelm.graph_of_arrays(self.size, self._window, *plain)
            except InvalidSynapse:
                pass  # the checks below name the argument
        if graph is None:
            checked = self._checked_columns(source, target, weight, delay, inhibitory)
            graph = _kelm.graph_of_arrays(self.size, self._window, *checked)
        with self._locked():
            self._arrays.append(graph)
            self._graph = None

    def _checked_columns(
        self, source: Any, target: Any, weight: Any, delay: Any, inhibitory: Any
    ) -> tuple[Any, ...]:
        column, rule = _checks.column, f"the network has {self.size} neurons"
        source = column(source, "source", np.int64, None, 0, self.size, rule)
        size = len(source)
        target = column(target, "target", np.int64, size, 0, self.size, rule)
        delay = _checks.times(delay, "delay", size, self._window or 1)
        if inhibitory is None:
            return source, target, column(weight, "weight", np.float32, size), delay, None
        flags = column(inhibitory, "inhibitory", np.uint8, size, 0, 2)
        meaning = "inhibitory gives the sign"
        weight = column(weight, "weight", np.float32, size, 0, rule=meaning)
        return source, target, weight, delay, flags

    def _require_range(self, value: Any, name: str) -> None:
        if not isinstance(value, Neurons):
            raise ArgumentTypeError(
                f"{name} must be a population or a range of neurons, not {type(value).__name__}"
            )
        if value.end > self.size:
            raise ArgumentError(
                f"{name} is {value!r}, and the network has {self.size} neurons"
            )

    def _connection_name(self, name: Optional[str], source: Neurons, target: Neurons) -> str:
        used = {connection.name for connection in self._connections}
        if name is not None:
            if _checks.text(name, "name") in used:
                raise ArgumentError(f"name is {name!r}, which another connection has")
            return name
        plain = f"{source.name}->{target.name}"
        name, k = plain, 1
        while name in used:
            k += 1
            name = f"{plain} {k}"
        return name

    # What it is

    @property
    def seed(self) -> int:
        """The seed of the wiring."""
        return self._seed

    @property
    def size(self) -> int:
        """The number of neurons."""
        return sum(member.range.size for member in self._members)

    @property
    def all(self) -> Neurons:
        """All neurons that the network has now."""
        return Neurons("all", 0, self.size)

    @property
    def populations(self) -> tuple[Population, ...]:
        """All populations, in the order of their neurons."""
        return tuple(member.range for member in self._members)

    @property
    def connections(self) -> tuple[Connection, ...]:
        """The connections by rules, in the order of the calls."""
        return tuple(self._connections)

    def __getitem__(self, name: str) -> Population:
        """The population of this name."""
        return self._member(name).range

    def parameters(self, population: Union[str, Population]) -> tuple[Neuron, Firing]:
        """The parameters of a population's neurons."""
        member = self._member(population)
        return member.neuron, member.firing

    def set_parameters(
        self,
        population: Union[str, Population],
        *,
        neuron: Union[Neuron, Mapping[str, Any], None] = None,
        firing: Union[Firing, Mapping[str, Any], None] = None,
    ) -> None:
        """Changes the parameters of a population: a record, or a dict of the fields that change.

        Raises ArgumentError for sources, whose parameters are their own, and for an unknown field.
        """
        member = self._member(population)
        if member.range.kind != "neurons":
            name = member.range.name
            raise ArgumentError(f"population {name!r} is a source and keeps its parameters")
        changed = replace(
            member,
            neuron=self._overridden(member.neuron, neuron, "neuron"),
            firing=self._overridden(member.firing, firing, "firing"),
        )
        place = next(k for k, other in enumerate(self._members) if other is member)
        self._members[place] = changed

    def to_sonata(
        self, folder: Any, *, until: Optional[int] = None, simulation: Mapping[str, Any] = {}
    ) -> str:
        """Writes the network in the SONATA format: see :func:`kelm.to_sonata`."""
        from .sonata import to_sonata

        return to_sonata(self, folder, until=until, simulation=simulation)

    def _member(self, population: Union[str, Population]) -> _Member:
        name = population.name if isinstance(population, Neurons) else population
        names = [member.range.name for member in self._members]
        return self._members[names.index(_checks.choice(name, "a population", names))]

    @property
    def window(self) -> int:
        """The length of a window in ns. Builds the network if it was not given."""
        if self._window is not None:
            return self._window
        window = self._built().window
        if window is None:
            raise ArgumentError("window is None, and the network has no synapse to take it from")
        return window

    @property
    def synapse_count(self) -> int:
        """The number of synapses. Builds the network."""
        return self._built().count

    @property
    def synapses(self) -> Synapses:
        """A copy of all synapses in columns, by their numbers. Builds the network."""
        return _synapses(self._built())

    def build(self) -> Network:
        """Builds the synapses now.

        Raises ArgumentError for a rule that cannot be, and errors.NetworkTooLarge for a network
        that a simulation on this machine has no memory for.
        """
        self._built()
        return self

    def _built(self) -> _kelm.Graph:
        with self._locked():
            if self._graph is None:
                plan = self._plan()
                self._require_memory(plan)
                self._building = True
                try:
                    self._graph = plan.build()
                finally:
                    self._building = False
            return self._graph

    def _make_lock(self) -> None:
        """Makes the lock of a new object."""
        self._lock = threading.RLock()
        self._building = False

    @contextlib.contextmanager
    def _locked(self) -> Iterator[None]:
        """Waits for a build in another thread. Raises BusyError below a build in this thread."""
        with self._lock:
            if self._building:
                raise BusyError(
                    "the network is being built: a function of weights or delays may neither "
                    "change nor build it"
                )
            yield

    def _require_memory(self, plan: _kelm.Plan) -> None:
        """Refuses a network that cannot fit: a build would run for minutes, or the operating system
        would end the process."""
        available = _machine_bytes()
        synapses = sum(graph.count for graph in self._arrays) + sum(
            _wiring.least_synapses(c.rule, c.source.size, c.target.size)
            for c in self._connections
        )
        needed = self.size * _NEURON_BYTES + synapses * _SYNAPSE_BYTES
        if available is None or needed <= available:
            return
        plan.check()  # a rule that cannot be is refused alike on every machine
        raise NetworkTooLarge(
            f"the network has {self.size} neurons and at least {synapses} synapses and needs at "
            f"least {needed} bytes of memory; this machine has {available} bytes"
        )

    def _plan(self) -> _kelm.Plan:
        plan = _kelm.Plan(self.size, self._window, self._seed)
        for c in self._connections:
            plan.add_projection(
                c.name,
                (c.source.first, c.source.size),
                (c.target.first, c.target.size),
                getattr(_kelm.RuleKind, c.rule.kind),
                c.rule.count,
                c.rule.probability,
                c.allow_self,
                c.allow_multiple,
                c.weight,
                c.delay,
                c.inhibitory,
            )
        for graph in self._arrays:
            plan.add_graph(graph)
        return plan

    def _native_populations(self) -> list[_kelm.Population]:
        natives = []
        for member in self._members:
            name, size = member.range.name, member.range.size
            if member.range.kind == "poisson":
                native = _kelm.poisson_sources(name, size, member.rate)
            elif member.range.kind == "spikes":
                native = _kelm.spike_sources(name, size)
            else:
                native = _kelm.Population()
                native.name, native.size = name, size
                native.neuron = _settings.native_neuron(member.neuron, f"{name}.neuron")
                native.firing = _settings.native_firing(member.firing, f"{name}.firing")
            natives.append(native)
        return natives

    def _given_spikes(self) -> Optional[tuple[np.ndarray, np.ndarray]]:
        """Times and neurons of all given spikes, by time, then neuron."""
        given = [member for member in self._members if member.times is not None]
        if not given:
            return None
        times = np.concatenate([member.times for member in given])
        neurons = np.concatenate([member.neurons for member in given])
        order = np.lexsort((neurons, times))
        return times[order], neurons[order]

    # Copies

    def copy(self) -> Network:
        """An independent copy of the description."""
        other: Network = object.__new__(type(self))
        other.__dict__.update(self.__dict__)
        other._members = list(self._members)
        other._connections = list(self._connections)
        other._arrays = list(self._arrays)
        other._make_lock()
        return other

    __copy__ = copy

    def __getstate__(self) -> dict[str, Any]:
        state = dict(self.__dict__)
        del state["_graph"], state["_lock"], state["_building"]
        state["_arrays"] = [_synapses(graph) for graph in self._arrays]
        return state

    def __setstate__(self, state: dict[str, Any]) -> None:
        self.__dict__.update(state)
        self._make_lock()
        self._arrays = []
        for synapses in state["_arrays"]:
            self.connect_arrays(*synapses)
        self._graph = None

    def __repr__(self) -> str:
        names = ", ".join(f"{p.name} ({p.size})" for p in self.populations)
        graph = self._graph
        synapses = "not built" if graph is None else f"{graph.count} synapses"
        return f"<kelm.Network of {self.size} neurons: {names or 'empty'}; {synapses}>"

    def _repr_html_(self) -> str:
        rows = "".join(
            f"<tr><td>{html.escape(p.name)}</td><td>{p.kind}</td><td>{p.first}</td>"
            f"<td>{p.size}</td></tr>"
            for p in self.populations
        )
        return (
            f"<p>{html.escape(repr(self))}</p><table><tr><th>population</th><th>kind</th>"
            f"<th>first</th><th>size</th></tr>{rows}</table>"
        )

"""Networks in the SONATA format, the shared format of the field (K. Dai et al., "The SONATA data
format for efficient description of large-scale network models", 2020).

Times are in ms in these files. A neuron of kelm has the model template ``kelm:escape_rate``; its
``dynamics_params`` are the fields of :class:`kelm.Neuron` and :class:`kelm.Firing`. Given spikes
are ``virtual`` nodes with an input file. What SONATA lacks is in the section "kelm" of the
simulation's configuration: ``window`` in ms, ``seed``, ``populations`` of neurons with the same
parameters, and ``simulation``, arguments of :class:`kelm.Simulation`.
"""

from __future__ import annotations

import csv
import json
import os
from dataclasses import dataclass, field, fields
from typing import TYPE_CHECKING, Any, Callable, Mapping, Optional, Union

import numpy as np

from . import _checks
from ._files import (check_fingerprint, check_names, load_spikes, reading_h5, replacing, write_head,
                     writing_h5)
from ._kelm import engine_version
from ._network import Network
from ._neurons import Neurons
from ._settings import Firing, Neuron
from ._spikes import PopulationRange, Spikes
from .errors import ArgumentError, ArgumentTypeError, FileError
from .units import ms

if TYPE_CHECKING:
    import h5py

TEMPLATE = "kelm:escape_rate"
_TIMES = ("tau_membrane", "tau_adaptation", "refractory_period")
_FLAGS = ("hard_refractory", "non_leaky")
_NEURON = [f.name for f in fields(Neuron)]
_FIRING = [f.name for f in fields(Firing)]
_DEFAULTS: dict[str, Any] = {**Neuron().__dict__, **Firing().__dict__}

#: What a foreign template is in kelm: the fields of Neuron and Firing, or a function that gives
#: them for the node type's `dynamics_params`, a dict. Times in ns.
Template = Union[Mapping[str, Any], Callable[[dict[str, Any]], Mapping[str, Any]]]


@dataclass(frozen=True)
class Report:
    """Samples that a configuration wants written to a file."""

    name: str
    variable: str  #: "membrane" or "adaptation"
    neurons: Mapping[str, np.ndarray]  #: numbers in the network of a SONATA population's neurons
    interval: int  #: ns
    path: str


@dataclass(frozen=True)
class Config:
    """What a configuration describes."""

    network: Network
    nodes: Mapping[str, Neurons]  #: the neurons of each SONATA population
    until: Optional[int] = None  #: ns; end of the run
    simulation: Mapping[str, Any] = field(default_factory=dict)  #: arguments of kelm.Simulation
    output_dir: str = "."
    spikes_file: Optional[str] = None  #: path
    reports: tuple[Report, ...] = ()


def from_sonata(
    config: Any,
    *,
    templates: Mapping[str, Template] = {},
    delay: Optional[int] = None,
    window: Optional[int] = None,
    weight_scale: float = 1.0,
) -> Network:
    """The network of a SONATA configuration. Use :func:`read` for the settings of its run, too.

    Parameters
    ----------
    config
        path of a file .json: the configuration of a simulation, of a circuit, or of both
    templates
        what the model templates of other simulators are in kelm: a dict of fields of
        :class:`Neuron` and :class:`Firing`, or a function from `dynamics_params` to such a dict
    delay
        ns; of edges whose files have none
    window
        ns; None for that of the configuration, or else the smallest delay
    weight_scale
        factor of all weights

    Raises FileError, which names the file, for a file of another format and for a template that is
    not in `templates`.
    """
    return read(
        config, templates=templates, delay=delay, window=window, weight_scale=weight_scale
    ).network


def read(
    config: Any,
    *,
    templates: Mapping[str, Template] = {},
    delay: Optional[int] = None,
    window: Optional[int] = None,
    weight_scale: float = 1.0,
) -> Config:
    """The network and the settings of a SONATA configuration. See :func:`from_sonata`."""
    path = circuit_path = os.path.abspath(os.fspath(config))
    simulation = _load_config(path)
    if "simulation" in simulation and "run" not in simulation:
        network = simulation.get("network")
        path = circuit_path = _part(f"'{path}'", simulation, "simulation", str)
        simulation = _load_config(path)
        simulation.setdefault("network", network)
    circuit = simulation
    if "networks" not in circuit:
        if not isinstance(circuit.get("network"), str):
            raise FileError(f"'{path}' names no network: it has neither 'networks' nor 'network'")
        circuit_path = circuit["network"]
        circuit = _load_config(circuit_path)
    reader = _Reader(path, simulation, circuit_path, circuit, templates)
    network, nodes = reader.network(delay, window, weight_scale)
    return reader.settings(network, nodes)


# --- Configurations -----------------------------------------------------------------------------


def _load_json(path: str) -> Any:
    try:
        with open(path, encoding="utf-8") as file:
            return json.load(file)
    except (RecursionError, ValueError) as failure:
        raise FileError(f"'{path}' is no JSON file: {failure}") from None


_KINDS = {dict: "an object", list: "a list", str: "a text"}


def _part(where: str, owner: Mapping[str, Any], key: str, kind: Any, default: Any = None) -> Any:
    """A value of a JSON object, which must be a dict, a list or a str."""
    value = owner.get(key, default)
    if not isinstance(value, kind):
        raise FileError(f"{where}: {key} is {value!r}, must be {_KINDS[kind]}")
    return value


def _objects(where: str, owner: Mapping[str, Any],
             key: str) -> list[tuple[str, str, dict[str, Any]]]:
    """The objects of a list or of an object, which may be missing: name, text for messages, object.
    Those with "enabled": false are left out."""
    value = owner.get(key, {})
    if isinstance(value, list):
        owner = {key: {str(number): item for number, item in enumerate(value)}}
    named = _part(where, owner, key, dict, {})
    items = [(name, f"{where}, {key}.{name}", _part(f"{where}, {key}", named, name, dict))
             for name in named]
    return [item for item in items if item[2].get("enabled", True)]


def _load_config(path: str) -> dict[str, Any]:
    """A configuration with the variables of its manifest filled in, and paths made absolute."""
    config = _load_json(path)
    if not isinstance(config, dict):
        raise FileError(f"'{path}' is no configuration: it is no JSON object")
    folder = os.path.dirname(path)
    manifest = {key.strip("${}"): value
                for key, value in _part(f"'{path}'", config, "manifest", dict, {}).items()}

    def filled(text: str) -> str:
        for _ in range(len(manifest) + 1):
            if "$" not in text:
                break
            for name in sorted(manifest, key=len, reverse=True):
                for variable in ("${" + name + "}", "$" + name):
                    text = text.replace(variable, str(manifest[name]))
        return text

    def walk(value: Any, key: str = "") -> Any:
        if isinstance(value, dict):
            return {k: walk(v, k) for k, v in value.items()}
        if isinstance(value, list):
            return [walk(v, key) for v in value]
        if not isinstance(value, str):
            return value
        text = filled(value)
        is_path = key.endswith(("_file", "_dir")) or key in ("network", "simulation")
        # Files of the output are relative to its folder.
        if is_path and key not in ("spikes_file", "log_file"):
            return os.path.normpath(os.path.join(folder, text))
        return text

    return walk(config)


def _table(path: str) -> dict[int, dict[str, str]]:
    """The rows of a table of types by their ids, without the values NULL."""
    try:
        with open(path, newline="", encoding="utf-8") as file:
            rows = list(csv.reader(file, delimiter=" ", skipinitialspace=True))
    except (csv.Error, ValueError) as failure:
        raise FileError(f"'{path}' is no table of types: {failure}") from None
    head = rows[0] if rows else []
    ids = [name for name in head if name in ("node_type_id", "edge_type_id")]
    if not ids:
        raise FileError(f"'{path}' is no table of types: it has no column node_type_id or "
                        "edge_type_id")
    types = {}
    for number, row in enumerate(rows[1:], 2):
        if not row:
            continue
        values = dict(zip(head, row))
        try:
            types[int(values[ids[0]])] = {k: v for k, v in values.items() if v != "NULL"}
        except (KeyError, ValueError):
            raise FileError(f"'{path}', line {number}: {ids[0]} must be a number") from None
    return types


def _ns(value: Any, where: str) -> np.ndarray:
    """Times in ms as whole ns, rounded."""
    try:
        ns = np.rint(np.asarray(value, np.float64) * ms)
    except (OverflowError, TypeError, ValueError):
        raise FileError(f"{where}: {value!r} is no time in ms") from None
    if not (np.abs(ns) < 2.0**63).all():
        raise FileError(f"{where}: times must be finite and below 2^63 ns")
    return ns.astype(np.int64)


def _one_ns(value: Any, where: str) -> int:
    if not isinstance(value, (int, float)):
        raise FileError(f"{where}: {value!r} is no time in ms")
    return int(_ns(value, where))


# --- Reading ------------------------------------------------------------------------------------


class _Reader:
    """Reads the files of one configuration."""

    def __init__(self, path: str, simulation: dict[str, Any], circuit_path: str,
                 circuit: dict[str, Any], templates: Mapping[str, Template]) -> None:
        self.where, self.where_circuit = f"'{path}'", f"'{circuit_path}'"
        self.folder = os.path.dirname(path)
        self.simulation = simulation
        self.circuit = circuit
        self.templates = templates
        self.kelm = _part(self.where, simulation, "kelm", dict, {})
        self.node_sets: dict[str, Any] = {}
        if "node_sets_file" in simulation:
            path = _part(self.where, simulation, "node_sets_file", str)
            self.node_sets = _part(f"'{path}'", {"the content": _load_json(path)}, "the content",
                                   dict)

    def network(self, delay: Optional[int], window: Optional[int],
                weight_scale: float) -> tuple[Network, dict[str, Neurons]]:
        if window is None and "window" in self.kelm:
            window = _one_ns(self.kelm["window"], f"{self.where}, kelm.window")
        try:
            net = Network(seed=self.kelm.get("wiring_seed", 0), window=window)
        except (ArgumentError, ArgumentTypeError) as failure:
            raise FileError(f"{self.where}, kelm: {failure}") from None
        networks = _part(self.where_circuit, self.circuit, "networks", dict)
        nodes: dict[str, Neurons] = {}
        for _, where, entry in _objects(self.where_circuit, networks, "nodes"):
            types = _types_of(where, entry, "node_types_file")
            path = _part(where, entry, "nodes_file", str)
            with reading_h5(path) as file:
                for name, group in _populations_in(file, path, "nodes"):
                    if name in nodes:
                        raise FileError(f"'{path}' has population {name!r}, which another file has")
                    nodes[name] = self._add_nodes(net, path, name, group, types)
        self._check_inputs(net)
        columns = []
        for _, where, entry in _objects(self.where_circuit, networks, "edges"):
            types = _types_of(where, entry, "edge_types_file")
            path = _part(where, entry, "edges_file", str)
            with reading_h5(path) as file:
                for name, group in _populations_in(file, path, "edges"):
                    columns.append(_edges(f"'{path}', population {name!r}", group, types, nodes,
                                          delay))
        try:
            self._connect(net, columns, weight_scale)
        except ArgumentError as failure:
            raise FileError(f"{self.where_circuit}, the edges: {failure}") from None
        return net, nodes

    def _check_inputs(self, net: Network) -> None:
        """Refuses an input that reaches no virtual nodes."""
        virtual = {population.name for population in net.populations if population.kind == "spikes"}
        for _, where, entry in _objects(self.where, self.simulation, "inputs"):
            names = self._population_names(where, entry.get("node_set", ""))
            if "node_set" in entry and not virtual.intersection(names):
                raise FileError(f"{where}: node_set {entry['node_set']!r} has no virtual nodes")

    def _add_nodes(self, net: Network, path: str, name: str, group: h5py.Group,
                   types: dict[int, dict[str, str]]) -> Neurons:
        where = f"'{path}', population {name!r}"
        rows = _Rows(where, group, "node", types)
        ids = rows.column("node_id", np.arange(rows.size, dtype=np.float64)).astype(np.int64)
        if not np.array_equal(np.sort(ids), np.arange(rows.size)):
            raise FileError(f"{where}: node_id must be 0 to {rows.size - 1}, each once")
        first = net.size
        if rows.size == 0:
            return Neurons(name, first, 0)
        if all(t.get("model_type") == "virtual" for t in rows.types_in_use()):
            times, neurons = self._given_spikes(name, rows.size)
            net.spike_source(name, rows.size, times, neurons)
            return Neurons(name, first, rows.size)
        parameters = self._parameters(where, rows)
        order = np.argsort(ids)
        keys = np.unique(parameters[order], axis=0, return_inverse=True)[1].reshape(-1)
        starts = np.flatnonzero(np.diff(keys, prepend=-1))
        for part, (start, end) in enumerate(zip(starts, [*starts[1:], rows.size])):
            neuron, firing = _records(parameters[order[start]])
            names = self.kelm.get("populations", {}).get(name, {})
            own = name if len(starts) == 1 else f"{name}.{part}"
            net.population(names.get(str(start), own), int(end - start), neuron, firing)
        return Neurons(name, first, rows.size)

    def _parameters(self, where: str, rows: _Rows) -> np.ndarray:
        """The fields of Neuron and Firing of each node, times in ns: shape (nodes, fields)."""
        names = [*_NEURON, *_FIRING]
        table = np.empty((rows.size, len(names)))
        for type_id, selected in rows.by_type():
            node_type = rows.types.get(type_id, {})
            own = self._fields(where, type_id, node_type)
            table[selected] = [float(own.get(name, _DEFAULTS[name])) for name in names]
        for k, name in enumerate(names):
            listed = rows.own(f"dynamics_params/{name}")
            if listed is not None:
                has, values = listed
                table[has, k] = _ns(values, where) if name in _TIMES else values
        return table

    def _fields(self, where: str, type_id: int, node_type: dict[str, str]) -> Mapping[str, Any]:
        template = node_type.get("model_template", "none")
        if template != TEMPLATE and template not in self.templates:
            known = ", ".join([TEMPLATE, *self.templates])
            raise FileError(f"{where}: node type {type_id} has the model template {template!r}, "
                            f"not one of {known}; pass what it is in kelm as templates=")
        mapped = self.templates.get(template)
        if mapped is not None and not callable(mapped):
            return _known(where, mapped)
        params: dict[str, Any] = {}
        if "dynamics_params" in node_type:
            components = _part(self.where_circuit, self.circuit, "components", dict, {})
            folder = _part(self.where_circuit, components, "point_neuron_models_dir", str,
                           self.folder)
            path = os.path.join(folder, node_type["dynamics_params"])
            params = _load_json(path)
            where = f"'{path}'"
        if callable(mapped):
            try:
                own = mapped(params)
            except Exception as failure:
                raise FileError(f"{where}: the function of the template {template!r} raises "
                                f"{failure!r}") from failure
            return _known(where, own)
        values = dict(_known(where, params))
        for name in _TIMES:
            if name in values:
                values[name] = _one_ns(values[name], f"{where}: {name}")
        return values

    def _given_spikes(self, name: str, size: int) -> tuple[np.ndarray, np.ndarray]:
        """All spikes that inputs give to a population: times in ns and indices."""
        times, neurons = [np.zeros(0, np.int64)], [np.zeros(0, np.uint64)]
        for _, where, entry in _objects(self.where, self.simulation, "inputs"):
            if entry.get("input_type", "spikes") != "spikes":
                raise FileError(f"{where}: input_type is {entry['input_type']!r}, must be 'spikes'")
            if name not in self._population_names(where, entry.get("node_set", name)):
                continue
            spikes = load_spikes(_part(where, entry, "input_file", str),
                                 populations=[PopulationRange(name, 0, size)])
            times.append(spikes.time)
            neurons.append(spikes.neuron)
        return np.concatenate(times), np.concatenate(neurons)

    def _node_set(self, where: str, value: Any) -> dict[str, Any]:
        """A set of nodes: a name in the file of sets, the name of a population, or the set."""
        if isinstance(value, str):
            value = self.node_sets.get(value, {"population": value})
        if not isinstance(value, dict):
            raise FileError(f"{where}: a set of nodes must be a name or an object, not {value!r}")
        for key in value:
            if key not in ("population", "node_id"):
                raise FileError(f"{where}: a set of nodes has the key {key!r}, must have "
                                "'population' and 'node_id'")
        return value

    def _population_names(self, where: str, value: Any) -> list[str]:
        names = self._node_set(where, value).get("population", [])
        names = [names] if isinstance(names, str) else names
        if not isinstance(names, list) or not all(isinstance(name, str) for name in names):
            raise FileError(f"{where}: population is {names!r}, must be a name or a list of names")
        return names

    def _connect(self, net: Network, columns: list[dict[str, np.ndarray]],
                 weight_scale: float) -> None:
        if not columns:
            return
        whole = {k: np.concatenate([part[k] for part in columns]) for k in columns[0]}
        numbers = whole.pop("kelm_synapse")
        if len(numbers) and numbers.min() >= 0 and len(np.unique(numbers)) == len(numbers):
            order = np.argsort(numbers)
        else:
            order = np.argsort(whole["source"], kind="stable")
        source, target, weight, delay = (
            whole[k][order] for k in ("source", "target", "weight", "delay"))
        weight = weight * weight_scale
        net.connect_arrays(source, target, np.abs(weight), delay,
                           inhibitory=np.signbit(weight))

    def settings(self, net: Network, nodes: dict[str, Neurons]) -> Config:
        run = _part(self.where, self.simulation, "run", dict, {})
        output = _part(self.where, self.simulation, "output", dict, {})
        folder = _part(self.where, output, "output_dir", str, os.path.join(self.folder, "output"))
        simulation = dict(_part(f"{self.where}, kelm", self.kelm, "simulation", dict, {}))
        if "seed" in self.kelm:
            simulation.setdefault("seed", self.kelm["seed"])
        spikes_file = _part(self.where, output, "spikes_file", str, "spikes.h5")
        files = {os.path.basename(spikes_file)}
        reports = []
        for name, where, entry in _objects(self.where, self.simulation, "reports"):
            variable = entry.get("variable_name")
            if variable not in ("membrane", "adaptation"):
                raise FileError(f"{where}: variable_name is {variable!r}, must be 'membrane' or "
                                "'adaptation'")
            cells = entry.get("cells", {})
            neurons = {}
            for population in self._population_names(where, cells) or nodes:
                if population not in nodes:
                    raise FileError(f"{where}: the network has no population {population!r}")
                first, size = nodes[population].first, nodes[population].size
                ids = self._node_set(where, cells).get("node_id", range(size))
                try:
                    ids = _checks.column(ids, "node_id", np.uint64, low=0, below=size)
                except (ArgumentError, ArgumentTypeError) as failure:
                    raise FileError(f"{where}: {failure}") from None
                neurons[population] = ids + np.uint64(first)
            interval = _one_ns(entry.get("dt", run.get("dt", 0.1)), f"{where}: dt")
            file_name = _part(where, entry, "file_name", str, name)
            if not file_name.endswith(".h5"):
                file_name += ".h5"
            if os.path.basename(file_name) in files:
                raise FileError(f"{where}: its file {file_name!r} is that of another output")
            files.add(os.path.basename(file_name))
            reports.append(Report(name, variable, neurons, interval,
                                  os.path.join(folder, file_name)))
        until = _one_ns(run["tstop"], f"{self.where}, run.tstop") if "tstop" in run else None
        return Config(net, nodes, until, simulation, folder, os.path.join(folder, spikes_file),
                      tuple(reports))


def _known(where: str, values: Any) -> Mapping[str, Any]:
    if not isinstance(values, Mapping):
        raise FileError(f"{where}: the parameters of a node type must be an object")
    for name in values:
        if name not in _NEURON and name not in _FIRING:
            raise FileError(f"{where}: {name!r} is no parameter of {TEMPLATE}; it has "
                            f"{', '.join([*_NEURON, *_FIRING])}")
        if not isinstance(values[name], (int, float)):
            raise FileError(f"{where}: {name} is {values[name]!r}, must be a number")
    return values


def _records(row: np.ndarray) -> tuple[Neuron, Firing]:
    values: dict[str, Any] = dict(zip([*_NEURON, *_FIRING], row.tolist()))
    for name in _TIMES:
        values[name] = int(values[name])
    for name in _FLAGS:
        values[name] = bool(values[name])
    return (Neuron(**{name: values[name] for name in _NEURON}),
            Firing(**{name: values[name] for name in _FIRING}))


def _types_of(where: str, entry: Mapping[str, Any], key: str) -> dict[int, dict[str, str]]:
    return {} if entry.get(key) is None else _table(_part(where, entry, key, str))


def _populations_in(file: h5py.File, path: str, kind: str) -> list[tuple[str, h5py.Group]]:
    import h5py

    root = file.get(kind)
    if not isinstance(root, h5py.Group):
        raise FileError(f"'{path}' has no {kind}: there is no group /{kind}")
    for name in root:
        if not isinstance(root[name], h5py.Group):
            raise FileError(f"'{path}': /{kind}/{name} is no group of a population")
    # HDF5 lists names in alphabetical order.
    return sorted(root.items(), key=lambda item: int(item[1].attrs.get("first_neuron", 0)))


def _whole(where: str, group: h5py.Group, name: str, size: Optional[int]) -> np.ndarray:
    """A column of whole numbers from 0 on: int64, shape (size)."""
    try:
        return _checks.column(group[name][()], name, np.int64, size, low=0)
    except (ArgumentError, ArgumentTypeError) as failure:
        raise FileError(f"{where}: {failure}") from None


class _Rows:
    """The nodes or edges of one population, with the columns of their types and groups."""

    def __init__(self, where: str, group: h5py.Group, kind: str,
                 types: dict[int, dict[str, str]]) -> None:
        self.where = where
        self.types = types
        self._group = group
        if f"{kind}_type_id" not in group:
            raise FileError(f"{where} has no {kind}_type_id")
        self._type = _whole(where, group, f"{kind}_type_id", None)
        self.size = len(self._type)
        # Without groups there is one, with a row for each element.
        self._group_id = np.zeros(self.size, np.int64)
        self._index = np.arange(self.size)
        if f"{kind}_group_id" in group:
            self._group_id = _whole(where, group, f"{kind}_group_id", self.size)
        if f"{kind}_group_index" in group:
            self._index = _whole(where, group, f"{kind}_group_index", self.size)
        for type_id in np.unique(self._type).tolist():
            if types and type_id not in types:
                raise FileError(f"{where}: {kind} type {type_id} is in no table of types")

    def by_type(self) -> list[tuple[int, np.ndarray]]:
        """Each type id with a mask of its elements."""
        return [(int(t), self._type == t) for t in np.unique(self._type)]

    def types_in_use(self) -> list[dict[str, str]]:
        return [self.types.get(type_id, {}) for type_id, _ in self.by_type()]

    def own(self, name: str) -> Optional[tuple[np.ndarray, np.ndarray]]:
        """The values that groups have for their elements: a mask, and the values where it holds."""
        has = np.zeros(self.size, bool)
        values = np.zeros(self.size)
        for group_id in np.unique(self._group_id).tolist():
            dataset = self._group.get(f"{group_id}/{name}")
            if dataset is None:
                continue
            selected = self._group_id == group_id
            rows = self._index[selected]
            if len(rows) and rows.max() >= len(dataset):
                raise FileError(f"{self.where}: group {group_id} has {len(dataset)} rows of "
                                f"{name}, and an element names row {rows.max()}")
            values[selected] = dataset[:][rows]
            has |= selected
        return (has, values[has]) if has.any() else None

    def column(self, name: str, default: Optional[np.ndarray] = None) -> np.ndarray:
        """A value for each element: of its group, else of the population, its type or default."""
        if name in self._group:
            values = np.asarray(self._group[name][()], np.float64)
            if values.shape != (self.size,):
                raise FileError(f"{self.where}: {name} has shape {values.shape}, must have shape "
                                f"({self.size},)")
            return values
        values = np.full(self.size, np.nan) if default is None else np.array(default, np.float64)
        for type_id, selected in self.by_type():
            text = self.types.get(type_id, {}).get(name)
            if text is not None:
                try:
                    values[selected] = float(text)
                except ValueError:
                    raise FileError(f"{self.where}: {name} of type {type_id} is {text!r}, "
                                    "must be a number") from None
        own = self.own(name)
        if own is not None:
            values[own[0]] = own[1]
        if np.isnan(values).any():
            raise FileError(f"{self.where}: element {int(np.isnan(values).argmax())} has no {name}")
        return values


def _edges(where: str, group: h5py.Group, types: dict[int, dict[str, str]],
           nodes: dict[str, Neurons], delay: Optional[int]) -> dict[str, np.ndarray]:
    """The edges of one population as columns, with numbers of neurons in the network."""
    rows = _Rows(where, group, "edge", types)
    columns = {}
    for end in ("source", "target"):
        if f"{end}_node_id" not in group:
            raise FileError(f"{where} has no {end}_node_id")
        name = group[f"{end}_node_id"].attrs.get("node_population")
        name = name.decode() if isinstance(name, bytes) else name
        if name not in nodes:
            raise FileError(f"{where}: its {end} is population {name!r}, of which there is no file")
        ids = _whole(where, group, f"{end}_node_id", rows.size)
        if rows.size and int(ids.max()) >= nodes[name].size:
            raise FileError(f"{where}: {end}_node_id must be below {nodes[name].size}, one an edge")
        columns[end] = ids.astype(np.uint64) + np.uint64(nodes[name].first)
    columns["weight"] = rows.column("syn_weight")
    default = None if delay is None else np.full(rows.size, delay / ms)
    try:
        columns["delay"] = _ns(rows.column("delay", default), where)
    except FileError as failure:
        hint = "; pass one as delay=" if "has no delay" in str(failure) else ""
        raise FileError(f"{failure}{hint}") from None
    repeats = rows.column("nsyns", np.ones(rows.size))
    if len(repeats) and not (repeats >= 0).all():
        raise FileError(f"{where}: nsyns is {repeats.min():g}, must not be negative")
    repeats = repeats.astype(np.int64)
    # An element's number in the network that was written; unknown in other programs' files.
    unknown = np.full(rows.size, -1.0)
    columns["kelm_synapse"] = rows.column("kelm_synapse", unknown).astype(np.int64)
    return {key: np.repeat(column, repeats) for key, column in columns.items()}


# --- Writing ------------------------------------------------------------------------------------


def to_sonata(net: Network, folder: Any, *, until: Optional[int] = None,
              simulation: Mapping[str, Any] = {}) -> str:
    """Writes a network in the SONATA format to a folder, which is made if it is missing.

    `until`: ns; end of the run. `simulation`: arguments of :class:`kelm.Simulation`, as JSON has
    them. Returns the path of the configuration. Raises ArgumentError and OSError.

    Each population becomes one of nodes, and each pair of populations with synapses one of edges.
    :func:`from_sonata` makes the same network of the files: the same synapses in the same order,
    the same fingerprint.
    """
    import h5py

    check_names(net.populations)
    until = None if until is None else _checks.time(until, "until")
    try:
        json.dumps(dict(simulation))
    except (TypeError, ValueError) as failure:
        raise ArgumentTypeError(f"simulation must have what JSON has: {failure}") from None
    folder = os.path.abspath(os.fspath(folder))
    for part in ("network", "components", "inputs"):
        os.makedirs(os.path.join(folder, part), exist_ok=True)
    inputs = {}
    rows = []
    with _h5_file(h5py, os.path.join(folder, "network", "nodes.h5")) as file:
        file.create_group("nodes")
        for type_id, (member, native) in enumerate(zip(net._members, net._native_populations())):
            population = member.range
            group = file.create_group(f"nodes/{population.name}")
            group.attrs["first_neuron"] = np.uint64(population.first)
            group["node_id"] = np.arange(population.size, dtype=np.uint64)
            group["node_type_id"] = np.full(population.size, type_id, np.uint64)
            group["node_group_id"] = np.zeros(population.size, np.uint32)
            group["node_group_index"] = np.arange(population.size, dtype=np.uint64)
            group.create_group("0")
            if population.kind == "spikes":
                rows.append([type_id, population.name, "virtual", "NULL", "NULL"])
                inputs[population.name] = _write_input(folder, member)
            else:
                params = f"{type_id}.json"
                _write_json(os.path.join(folder, "components", params),
                            _dynamics(native))
                rows.append([type_id, population.name, "point_neuron", TEMPLATE, params])
    _write_table(os.path.join(folder, "network", "node_types.csv"),
                 ["node_type_id", "pop_name", "model_type", "model_template", "dynamics_params"],
                 rows)
    _write_edges(h5py, net, os.path.join(folder, "network"))
    _write_json(os.path.join(folder, "circuit_config.json"), {
        "manifest": {"$NETWORK_DIR": "./network", "$COMPONENTS_DIR": "./components"},
        "components": {"point_neuron_models_dir": "$COMPONENTS_DIR"},
        "networks": {
            "nodes": [{"nodes_file": "$NETWORK_DIR/nodes.h5",
                       "node_types_file": "$NETWORK_DIR/node_types.csv"}],
            "edges": [{"edges_file": "$NETWORK_DIR/edges.h5",
                       "edge_types_file": "$NETWORK_DIR/edge_types.csv"}]},
    })
    path = os.path.join(folder, "simulation_config.json")
    _write_json(path, {
        "manifest": {"$BASE_DIR": ".", "$OUTPUT_DIR": "$BASE_DIR/output"},
        "network": "$BASE_DIR/circuit_config.json",
        "target_simulator": "kelm",
        **({} if until is None else {"run": {"tstop": until / ms}}),
        "inputs": inputs,
        "output": {"output_dir": "$OUTPUT_DIR", "spikes_file": "spikes.h5"},
        "kelm": {"version": engine_version, "window": net.window / ms, "wiring_seed": net.seed,
                 "simulation": dict(simulation)},
    })
    return path


def _dynamics(native: Any) -> dict[str, Any]:
    values = {name: getattr(native.neuron, name) for name in _NEURON}
    values.update({name: getattr(native.firing, name) for name in _FIRING})
    return {**values, **{name: values[name] / ms for name in _TIMES}}


def _write_input(folder: str, member: Any) -> dict[str, str]:
    population = member.range
    array = np.empty(len(member.times), [("time", "<i8"), ("neuron", "<u8")])
    array["time"] = member.times
    array["neuron"] = member.neurons - np.uint64(population.first)
    path = os.path.join(folder, "inputs", f"{population.name}.h5")
    Spikes(array, populations=[PopulationRange(population.name, 0, population.size)]).save(path)
    return {"input_type": "spikes", "module": "sonata", "node_set": population.name,
            "input_file": f"$BASE_DIR/inputs/{population.name}.h5"}


def _write_edges(h5py: Any, net: Network, folder: str) -> None:
    synapses = net.synapses
    members = net.populations
    starts = np.array([population.first for population in members], np.uint64)
    weight = np.where(synapses.inhibitory, -synapses.weight, synapses.weight).astype(np.float64)
    source = np.searchsorted(starts, synapses.source, side="right") - 1
    target = np.searchsorted(starts, synapses.target, side="right") - 1
    pair = source * len(members) + target
    # By target within a pair, as readers expect; the numbers keep the order of the network.
    order = np.lexsort((synapses.target, pair))
    bounds = np.searchsorted(pair[order], np.arange(len(members) ** 2 + 1))
    with _h5_file(h5py, os.path.join(folder, "edges.h5")) as file:
        file.create_group("edges")
        for number in range(len(members) ** 2):
            edges = order[bounds[number]:bounds[number + 1]]
            if not len(edges):
                continue
            ends = members[number // len(members)], members[number % len(members)]
            name = f"edges/{ends[0].name}_to_{ends[1].name}"
            while name in file:  # of other populations with "_to_" in their names
                name += "_"
            group = file.create_group(name)
            for name, numbers, population in (("source", synapses.source, ends[0]),
                                              ("target", synapses.target, ends[1])):
                ids = numbers[edges] - np.uint64(population.first)
                group[f"{name}_node_id"] = ids
                group[f"{name}_node_id"].attrs["node_population"] = population.name
                _write_index(group, name, ids, population.size)
            group["edge_type_id"] = np.zeros(len(edges), np.uint32)
            group["edge_group_id"] = np.zeros(len(edges), np.uint16)
            group["edge_group_index"] = np.arange(len(edges), dtype=np.uint64)
            group["0/syn_weight"] = weight[edges]
            group["0/delay"] = synapses.delay[edges] / ms
            group["0/delay"].attrs["units"] = "ms"
            group["0/kelm_synapse"] = edges.astype(np.uint64)
    _write_table(os.path.join(folder, "edge_types.csv"),
                 ["edge_type_id", "model_template", "dynamics_params"],
                 [[0, "kelm:synapse", "NULL"]])


def _write_index(group: Any, end: str, ids: np.ndarray, size: int) -> None:
    """The ranges of edges of each node, as the guide describes them."""
    name = "source_to_target" if end == "source" else "target_to_source"
    if len(ids) == 0:
        return
    starts = np.flatnonzero(np.diff(ids.astype(np.int64), prepend=-1))
    ranges = np.column_stack([starts, np.append(starts[1:], len(ids))])
    owner = ids[starts].astype(np.int64)
    order = np.argsort(owner, kind="stable")
    bounds = np.searchsorted(owner[order], np.arange(size + 1))
    index = group.create_group(f"indices/{name}")
    index["range_to_edge_id"] = ranges[order].astype(np.uint64)
    index["node_id_to_range"] = np.column_stack([bounds[:-1], bounds[1:]]).astype(np.uint64)


def _h5_file(h5py: Any, path: str) -> Any:
    file = h5py.File(path, "w")
    write_head(file, {"kelm_version": engine_version})
    return file


def _write_json(path: str, value: Any) -> None:
    with replacing(path) as new, open(new, "x", encoding="utf-8") as file:
        json.dump(value, file, indent=2)
        file.write("\n")


def _write_table(path: str, head: list[str], rows: list[list[Any]]) -> None:
    with replacing(path) as new, open(new, "x", newline="", encoding="utf-8") as file:
        writer = csv.writer(file, delimiter=" ", lineterminator="\n")
        writer.writerow(head)
        writer.writerows(rows)


class ReportWriter:
    """A SONATA report that grows while a run goes on: samples of neurons, shape (times, nodes) for
    each population. A reader sees the samples of the last :meth:`append`.

    `begin`: ns; the run goes on from here. `resumed`: keep the samples before `begin` of the file
    at `path`, which an earlier run has written; raises FileError if it is none. Else an existing
    file is replaced. `provenance`: that of :class:`kelm.Spikes`.
    """

    def __init__(self, path: Any, report: Report, nodes: Mapping[str, Neurons], begin: int = 0,
                 resumed: bool = False, provenance: Mapping[str, Any] = {}) -> None:
        self._path = os.fspath(path)
        self._interval = report.interval
        self._datasets: dict[str, tuple[h5py.Dataset, h5py.Dataset]] = {}
        self._sizes = {name: len(neurons) for name, neurons in report.neurons.items()}
        ids = {name: neurons - np.uint64(nodes[name].first)
               for name, neurons in report.neurons.items()}
        fingerprint = provenance.get("fingerprint")
        kept, first = self._kept(path, begin, ids, fingerprint) if resumed else ({}, 0)
        self._start: Optional[int] = None
        # The samples are in the new file before it replaces the old one.
        with replacing(path) as new:
            self._open(new, ids, provenance)
            if kept and len(next(iter(kept.values()))):
                self._write(first, kept)

    def _kept(self, path: Any, begin: int, ids: Mapping[str, np.ndarray],
              fingerprint: Optional[int]) -> tuple[dict[str, np.ndarray], int]:
        """The samples before `begin`, and the time of the first one."""
        import h5py

        with reading_h5(path) as file:
            kept, first = {}, 0
            if fingerprint is not None:
                check_fingerprint(path, file.attrs.get("fingerprint"), fingerprint)
            for name, numbers in ids.items():
                group = file.get(f"report/{name}")
                if not isinstance(group, h5py.Group) or not np.array_equal(
                        group["mapping/node_ids"][()], numbers):
                    raise FileError(f"'{path}' is no report of these {len(numbers)} neurons of "
                                    f"{name!r}")
                first, end, interval = _ns(group["mapping/time"][:], f"'{path}'").tolist()
                if interval != self._interval:
                    raise FileError(f"'{path}' has samples every {interval} ns, not every "
                                    f"{self._interval} ns")
                rows = max(0, -(-(begin - first) // interval))
                kept[name] = group["data"][:min(rows, (end - first) // interval)]
                if 0 < len(kept[name]) < rows:
                    raise FileError(f"'{path}' ends at {end} ns, before {begin} ns")
        return kept, first

    def _open(self, path: str, ids: Mapping[str, np.ndarray],
              provenance: Mapping[str, Any]) -> None:
        import h5py

        # Version 1.10 of the format has what a reader beside a writer needs.
        self._file = h5py.File(path, "w", libver=("v110", "v110"))
        write_head(self._file, {**provenance, "digest": 0})
        for name, numbers in ids.items():
            group = self._file.create_group(f"report/{name}")
            size = len(numbers)
            group.create_dataset("data", shape=(0, size), maxshape=(None, size), dtype=np.float64,
                                 chunks=(max(1, 8192 // max(size, 1)), max(size, 1)))
            group["data"].attrs["units"] = "1"
            group["mapping/node_ids"] = numbers
            group["mapping/index_pointers"] = np.arange(size + 1, dtype=np.uint64)
            group["mapping/element_ids"] = np.zeros(size, np.uint32)
            group["mapping/element_pos"] = np.zeros(size, np.float32)
            group["mapping/time"] = np.array([0.0, 0.0, self._interval / ms])
            group["mapping/time"].attrs["units"] = "ms"
            self._datasets[name] = group["data"], group["mapping/time"]
        self._file.flush()
        self._file.swmr_mode = True

    def append(self, times: np.ndarray, samples: np.ndarray) -> None:
        """Writes samples behind the last ones. `times`: ns, shape (times). `samples`: shape
        (times, neurons of all populations in their order)."""
        if len(times):
            ends = np.cumsum(list(self._sizes.values()))[:-1]
            self._write(int(times[0]), dict(zip(self._sizes, np.split(samples, ends, axis=1))))

    def _write(self, first: int, samples: Mapping[str, np.ndarray]) -> None:
        if self._start is None:
            self._start = first
        # A restored run may take the last samples again.
        begin = (first - self._start) // self._interval
        with writing_h5(self._path):
            for name, rows in samples.items():
                data, time = self._datasets[name]
                data.resize(begin + len(rows), axis=0)
                data[begin:] = rows
                self._file.flush()
                end = self._start + len(data) * self._interval
                time[:] = np.array([self._start, end, self._interval]) / ms
            self._file.flush()

    def close(self, digest: Optional[int] = None) -> None:
        """Closes the file. `digest`: that of all spikes of the run."""
        with writing_h5(self._path):
            self._file.attrs.modify("digest", np.uint64(digest or 0))
            self._file.close()

"""Files of spikes, and files that appear whole or not at all.

HDF5 follows the layout of spikes of the SONATA developer guide:

    /                      attributes magic and version (of SONATA), start_ns, end_ns, provenance
    /spikes/POPULATION     attributes sorting (by_time), first_neuron, size
        timestamps         float64, ms
        timestamps_ns      int64, ns
        node_ids           uint64, from 0 within the population

A file that grows also has /kelm/flushed, int64: the end of the last flush in ns, then the number of
spikes that it made visible in each population, in the order of their neurons.

A file .npy is an array of spikes as NumPy and the C++ class SpikeFile write it. Behind the data is
a line of JSON with the populations and the provenance, which other readers do not see. A file .csv
has them in comments before its header.
"""

from __future__ import annotations

import contextlib
import json
import os
import re
import secrets
import warnings
from typing import TYPE_CHECKING, Any, Iterable, Iterator, Mapping

import numpy as np

from . import _checks
from ._spikes import SPIKE, PopulationRange, Spikes, ordered
from .errors import ArgumentError, FileError

if TYPE_CHECKING:
    import h5py

_SORTING = {"none": 0, "by_id": 1, "by_time": 2}
_SONATA_ATTRIBUTES = ("magic", "version")
_NS_IN = {"ns": 1, "us": 10**3, "ms": 10**6, "s": 10**9}
_TRAILER = b"\n# kelm "  # as the time of a spike: 73 years
_CSV_HEADER = "time_ns,neuron"
_ROWS = 1 << 14  # of a chunk in a file that grows
_ANY = 2**63 - 1  # the size of a population of all neurons, however many


@contextlib.contextmanager
def replacing(path: Any) -> Iterator[str]:
    """Gives the name of a new file in the folder of `path`, and renames it to `path` at the end.

    Data and name reach the disk before the end. After an exception the new file is removed, and
    the file at `path` is as it was.
    """
    path = os.path.realpath(path)
    folder, name = os.path.split(path)
    new = os.path.join(folder, f".{name}.{secrets.token_hex(4)}.partial")
    try:
        yield new
        _sync(new, os.O_RDWR)
        os.replace(new, path)
    except BaseException:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(new)
        raise
    _sync(folder, os.O_RDONLY)


def _sync(path: str, flags: int) -> None:
    handle = os.open(path, flags)
    try:
        os.fsync(handle)
    finally:
        os.close(handle)


def write_atomically(path: Any, data: Any) -> None:
    """Writes bytes to a file. A reader sees the old content or all of the new, also after a crash.

    Raises OSError; the file at `path` is then as it was.
    """
    with replacing(path) as new, open(new, "xb") as file:
        file.write(data)


def save_spikes(spikes: Spikes, path: Any) -> None:
    """See Spikes.save."""
    write = _format_of(path)[0]
    with replacing(path) as new:
        write(spikes, new)


def load_spikes(path: Any, *, populations: Iterable[Any] | None = None,
                fingerprint: int | None = None) -> Spikes:
    """See Spikes.load."""
    path = os.fspath(path)
    read = _format_of(path)[1]
    wanted = None if populations is None else tuple(populations)
    spikes = read(path, wanted)
    if fingerprint is not None:
        check_fingerprint(path, spikes.provenance.get("fingerprint"), fingerprint)
    return spikes


def check_fingerprint(path: str, found: Any, expected: Any) -> None:
    if found is None:
        raise FileError(f"'{path}' does not say of which network it is")
    if found != expected:
        found, expected = (f"{v:016x}" if isinstance(v, int) else v for v in (found, expected))
        raise FileError(f"'{path}' is of another network: its fingerprint is {found}, not "
                        f"{expected}")


def _format_of(path: Any) -> tuple[Any, Any]:
    suffix = os.path.splitext(os.fspath(path))[1].lower()
    if suffix not in _FORMATS:
        raise FileError(f"'{os.fspath(path)}' must end in .h5, .hdf5, .npy or .csv")
    return _FORMATS[suffix]


def _spikes_from(path: str, array: np.ndarray, *, start: Any, end: Any, populations: Any,
                 **options: Any) -> Spikes:
    """Spikes of a file in any order."""
    last = 0
    for population in populations:
        if population.first < 0 or population.size < 0:
            raise FileError(f"'{path}' is damaged: population {population.name!r} has a negative "
                            "number")
        last = max(last, population.first + population.size)
    if last and len(array) and array["neuron"].max() >= last:
        raise FileError(f"'{path}' has a spike of neuron {array['neuron'].max()}, and its "
                        f"populations end before neuron {last}")
    if last > _ANY:
        raise FileError(f"'{path}' is damaged: its populations have more than 2^63 neurons")
    if len(array) and array["time"].min() < 0:
        raise FileError(f"'{path}' has a spike at {array['time'].min()} ns, before 0 ns")
    if not ordered(array):
        array = array[np.lexsort((array["neuron"], array["time"]))]
    try:
        start = _checks.time(start, "start_ns")
        end = None if end is None else _checks.time(end, "end_ns")
        return Spikes(array, start=start, end=end, populations=populations, **options)
    except (TypeError, ValueError) as error:
        raise FileError(f"'{path}' is damaged: {error}") from error


def _plain(value: Any) -> Any:
    """A value of NumPy or of an HDF5 attribute as one of Python. Others stay."""
    return value.item() if isinstance(value, np.generic) else value


# --- HDF5 ---------------------------------------------------------------------------------------


def check_names(populations: Iterable[Any]) -> None:
    """Refuses names that a file .h5 cannot have."""
    for population in populations:
        name = population.name
        if not name or name in (".", "..") or "/" in name or "\0" in name:
            raise ArgumentError(f"population {name!r}: no such name in a file .h5")


class _Owners:
    """Populations in the order of their neurons, and the population of each spike."""

    def __init__(self, populations: Iterable[Any]) -> None:
        self.ranges = sorted(populations, key=lambda p: (p.first, p.size, p.name))
        for before, after in zip(self.ranges, self.ranges[1:]):
            if before.first + before.size > after.first:
                raise ArgumentError(f"populations {before.name!r} and {after.name!r} overlap")
        check_names(self.ranges)
        if len({population.name for population in self.ranges}) < len(self.ranges):
            raise ArgumentError("two populations have the same name")
        self._first = np.array([population.first for population in self.ranges], np.uint64)
        self._size = np.array([population.size for population in self.ranges], np.uint64)

    def split(self, array: np.ndarray) -> list[tuple[np.ndarray, np.ndarray]]:
        """Times and node ids of each population. Refuses a spike of none."""
        owner = np.searchsorted(self._first, array["neuron"], side="right") - 1
        index = array["neuron"] - self._first[owner]
        outside = (owner < 0) | (index >= self._size[owner])
        if outside.any():
            neuron = array["neuron"][outside.argmax()]
            raise ArgumentError(f"neuron {neuron} fires, but belongs to no population")
        order = np.argsort(owner, kind="stable")
        bounds = np.searchsorted(owner[order], np.arange(len(self.ranges) + 1))
        rows = [order[first:last] for first, last in zip(bounds, bounds[1:])]
        return [(array["time"][row], index[row]) for row in rows]


def _owners_of(populations: tuple[Any, ...], neurons: int) -> _Owners:
    return _Owners(populations or (PopulationRange("neurons", 0, neurons),))


def write_head(file: h5py.File, provenance: Mapping[str, Any]) -> None:
    """Writes what each file of SONATA begins with, and the provenance."""
    file.attrs["magic"] = np.uint32(0x0A7A)
    file.attrs["version"] = np.array([0, 1], np.uint32)
    for key, value in provenance.items():
        if value is None or key in _SONATA_ATTRIBUTES:
            continue
        if isinstance(value, int) and value >= 0:
            value = np.uint64(value)
        elif not isinstance(value, (int, float, str, np.generic)):
            value = json.dumps(value, default=_plain)
        file.attrs[key] = value


def _write_groups(file: h5py.File, owners: _Owners, parts: Any,
                  **options: Any) -> list[list[h5py.Dataset]]:
    """Returns the datasets of each population: timestamps, timestamps_ns, node_ids."""
    import h5py

    groups = []
    for population, (time, node) in zip(owners.ranges, parts):
        group = file.create_group(f"spikes/{population.name}")
        group.attrs.create("sorting", _SORTING["by_time"], dtype=h5py.enum_dtype(_SORTING, "u1"))
        group.attrs["first_neuron"] = np.uint64(population.first)
        if population.size < _ANY:
            group.attrs["size"] = np.uint64(population.size)
        columns = []
        for name, data, units in (("timestamps", time / 1e6, "ms"), ("timestamps_ns", time, "ns"),
                                  ("node_ids", node, None)):
            dataset = group.create_dataset(name, data=data, **options)
            if units:
                dataset.attrs["units"] = units
            columns.append(dataset)
        groups.append(columns)
    return groups


@contextlib.contextmanager
def writing_h5(path: str) -> Iterator[None]:
    """Raises OSError with a short reason if HDF5 cannot write the file."""
    try:
        yield
    except (OSError, RuntimeError) as failure:
        if getattr(failure, "errno", None):
            raise
        reason = re.search("error message = '([^']*)'", str(failure))
        raise OSError(f"cannot write '{path}': {reason[1] if reason else failure}") from failure


def _write_h5(spikes: Spikes, path: str) -> None:
    import h5py

    owners = _owners_of(spikes.populations, spikes.neuron_count)
    parts = owners.split(spikes.array)
    with writing_h5(path), h5py.File(path, "x") as file:
        provenance = {**spikes.provenance, "digest": spikes.digest}
        write_head(file, provenance)
        file.attrs["start_ns"] = np.int64(spikes.start)
        file.attrs["end_ns"] = np.int64(spikes.end)
        _write_groups(file, owners, parts)


def open_h5(path: str) -> h5py.File:
    """Opens a file to read, also one whose writer still writes or was killed.

    Raises what a missing file raises, and FileError for a file that is no HDF5 or cut short.
    """
    import h5py

    with open(path, "rb"):
        pass  # raises what a missing file raises
    if not h5py.is_hdf5(path):
        raise FileError(f"'{path}' is no HDF5 file")
    try:
        return h5py.File(path, "r")
    except OSError as error:
        if "truncated" in str(error):
            raise FileError(f"'{path}' is cut short") from error
        return h5py.File(path, "r", swmr=True)  # its writer still writes, or was killed


@contextlib.contextmanager
def reading_h5(path: str) -> Iterator[h5py.File]:
    """A file to read, as open_h5 opens it. Damaged content raises FileError."""
    try:
        with open_h5(path) as file:
            yield file
    except (FileNotFoundError, PermissionError, IsADirectoryError, FileError):
        raise
    except (AttributeError, KeyError, MemoryError, OSError, RuntimeError, TypeError,
            ValueError) as error:
        raise FileError(f"'{path}' is damaged: {error}") from error


def _read_h5(path: str, wanted: tuple[Any, ...] | None) -> Spikes:
    with reading_h5(path) as file:
        return _spikes_of_h5(path, file, wanted)


def _spikes_of_h5(path: str, file: h5py.File, wanted: tuple[Any, ...] | None) -> Spikes:
    import h5py

    root = file.get("spikes")
    if not isinstance(root, h5py.Group):
        raise FileError(f"'{path}' has no spikes: there is no group /spikes")
    provenance = {key: _plain(value) for key, value in file.attrs.items()
                  if key not in _SONATA_ATTRIBUTES and np.ndim(value) == 0}
    start, end = provenance.pop("start_ns", 0), provenance.pop("end_ns", None)
    if isinstance(root.get("timestamps"), h5py.Dataset):
        return _spikes_from(path, _read_rows(path, root, None), populations=wanted or (),
                            provenance=provenance, start=start, end=end)
    for name in root:
        if not isinstance(root[name], h5py.Group):
            raise FileError(f"'{path}' is of no layout of spikes: /spikes/{name} is no group")
    names = sorted(root, key=lambda name: (root[name].attrs.get("first_neuron", 0),
                                           root[name].attrs.get("size", 0), name))
    rows: list[int | None] = [None] * len(names)
    if "kelm/flushed" in file:
        end, *rows = file["kelm/flushed"][:].tolist()
        if len(rows) != len(names):
            raise FileError(f"'{path}' is damaged: /kelm/flushed is of other populations")
        provenance["position_ns"] = end
        if not provenance.get("digest"):  # 0 until the file is closed with a digest
            provenance.pop("digest", None)
    arrays, populations = [np.zeros(0, SPIKE)], []  # type: list[np.ndarray], list[Any]
    for name, count in zip(names, rows):
        spikes = _read_rows(path, root[name], count)
        neurons = int(spikes["neuron"].max()) + 1 if len(spikes) else 0
        behind = populations[-1].first + populations[-1].size if populations else 0
        population = _population_in(path, root[name].attrs, name, neurons, behind, wanted)
        spikes["neuron"] += np.uint64(population.first)
        populations.append(population)
        arrays.append(spikes)
    return _spikes_from(path, np.concatenate(arrays), start=start, end=end, provenance=provenance,
                        populations=populations if wanted is None else wanted)


def _population_in(path: str, attributes: Any, name: str, neurons: int, behind: int,
                   wanted: tuple[Any, ...] | None) -> Any:
    """The population of a group with node ids below `neurons`. `behind`: the end of the last."""
    if wanted is None:
        first, size = attributes.get("first_neuron", behind), attributes.get("size", neurons)
        population = PopulationRange(name, int(first), int(size))
    else:
        named = [population for population in wanted if population.name == name]
        if not named:
            raise FileError(f"'{path}' has the population {name!r}, which is none of populations")
        population = named[0]
    if neurons > population.size:
        raise FileError(f"'{path}' has a spike of neuron {neurons - 1} of {name!r}, which has "
                        f"{population.size} neurons")
    return population


def _read_rows(path: str, group: h5py.Group, rows: int | None) -> np.ndarray:
    """The first `rows` spikes of a group, or all of them, with node ids in place of neurons."""
    where = f"'{path}', {group.name}"
    nodes = group.get("node_ids", group.get("gids"))
    times = group.get("timestamps_ns", group.get("timestamps"))
    if nodes is None or times is None:
        raise FileError(f"{where}: a group of spikes has timestamps and node_ids")
    if nodes.ndim != 1 or times.ndim != 1 or (rows is None and len(nodes) != len(times)):
        raise FileError(f"{where}: timestamps and node_ids must have one shape (n,), not "
                        f"{times.shape} and {nodes.shape}")
    if rows is None:
        rows = len(times)
    elif min(len(nodes), len(times)) < rows:
        raise FileError(f"{where}: has fewer spikes than the {rows} that were flushed")
    array = np.empty(rows, SPIKE)
    nodes, values = nodes[:rows], times[:rows]
    if nodes.dtype.kind not in "iu" or (len(nodes) and nodes.min() < 0):
        raise FileError(f"{where}: node_ids must be integers from 0 on")
    array["neuron"] = nodes
    if values.dtype.kind in "iu" and times.name.endswith("timestamps_ns"):
        array["time"] = values
        return array
    units = times.attrs.get("units", "ms")
    units = units.decode() if isinstance(units, bytes) else str(units)
    if units not in _NS_IN:
        raise FileError(f"{where}: the units of timestamps are {units!r}, not one of "
                        f"{', '.join(_NS_IN)}")
    ns = np.rint(values.astype(np.float64) * _NS_IN[units])
    if not (np.abs(ns) < 2.0**63).all():
        raise FileError(f"{where}: timestamps must be finite and below 2^63 ns")
    array["time"] = ns
    return array


class SpikeWriter:
    """A file .h5 of spikes that grows while a run goes on::

        with SpikeWriter("spikes.h5", populations=net.populations) as file:
            file.append(spikes)
            file.flush()

    Spikes.load reads it at any time, up to the last flush, also after its program was killed. So do
    programs that open HDF5 for SWMR reading. Once it is closed, every program does. This is not
    promised if the machine fails.

    `populations` and `provenance` are those of Spikes. Without populations all neurons are in the
    one population "neurons". An existing file is replaced. Used by one thread at a time.
    """

    def __init__(self, path: Any, *, populations: Iterable[Any] = (),
                 provenance: Mapping[str, Any] = {}, start: int = 0) -> None:
        if os.path.splitext(os.fspath(path))[1].lower() not in (".h5", ".hdf5"):
            raise FileError(f"'{os.fspath(path)}' must end in .h5 or .hdf5")
        self._open(os.fspath(path), tuple(populations), provenance, start)

    def _open(self, path: str, populations: tuple[Any, ...], provenance: Mapping[str, Any],
              start: int) -> None:
        import h5py

        self._path = path
        self._owners = _owners_of(populations, _ANY)
        self._position = start
        self._last: tuple[int, int] | None = None
        none = (np.zeros(0, np.int64), np.zeros(0, np.uint64))
        # Version 1.10 of the format has what a reader beside a writer needs.
        self._file = h5py.File(path, "w", libver=("v110", "v110"))
        # In SWMR mode attributes are written, but none are added.
        write_head(self._file, {**provenance, "digest": 0, "position_ns": start})
        self._file.attrs["start_ns"] = self._file.attrs["end_ns"] = np.int64(start)
        self._groups = _write_groups(self._file, self._owners, [none] * len(self._owners.ranges),
                                     maxshape=(None,), chunks=(_ROWS,))
        self._rows = [0] * len(self._groups)
        self._flushed = self._file.create_dataset(
            "kelm/flushed", data=np.array([start, *self._rows], np.int64))
        self._file.swmr_mode = True

    @classmethod
    def resume(cls, path: Any, end: int, *, provenance: Mapping[str, Any] = {}) -> SpikeWriter:
        """Goes on with a file after its spikes with times before `end` ns; later ones are removed.

        Pass the position of the checkpoint that the run goes on from. The content is copied to a
        new file, which then replaces the old one. `provenance` replaces that of the file.

        Raises FileError for a file of another kind, one of another fingerprint than `provenance`
        has, and one whose last flush was before `end`; the file is then as it was.
        """
        path = os.fspath(path)
        kept = load_spikes(path, fingerprint=provenance.get("fingerprint"))
        if kept.end < end:
            raise FileError(f"'{path}' ends at {kept.end} ns, before {end} ns")
        kept = kept.between(kept.start, end)
        with reading_h5(path) as file:
            sizes = {name: "size" in group.attrs for name, group in file["spikes"].items()}
        # As it was opened without populations, any neuron may still come.
        populations = () if sizes == {"neurons": False} else kept.populations
        with replacing(path) as new:
            writer = cls.__new__(cls)
            writer._open(new, populations, {**kept.provenance, **provenance}, kept.start)
            writer.append(kept)
            writer.flush(end)
        return writer

    def append(self, spikes: Any) -> None:
        """Writes spikes after the last ones: an array or Spikes, as Spikes takes it.

        Raises ArgumentError for spikes before the last ones and for a spike of no population, and
        OSError if they cannot be written. The spikes are then not in the file, and the call may be
        repeated.
        """
        array = Spikes(np.asarray(spikes)).array
        if not len(array):
            return
        first = (int(array["time"][0]), int(array["neuron"][0]))
        if first[0] < self._position or (self._last and first < self._last):
            reached = max(self._position, (self._last or first)[0])
            raise ArgumentError(f"a spike at {first[0]} ns of neuron {first[1]} comes after the "
                                f"file has reached {reached} ns")
        parts = self._owners.split(array)
        with writing_h5(self._path):
            for columns, rows, (time, node) in zip(self._groups, self._rows, parts):
                for dataset, values in zip(columns, (time / 1e6, time, node)):
                    dataset.resize((rows + len(values),))
                    dataset[rows:] = values
        self._rows = [rows + len(time) for rows, (time, _) in zip(self._rows, parts)]
        self._last = (int(array["time"][-1]), int(array["neuron"][-1]))

    def flush(self, position: int | None = None) -> None:
        """Makes the spikes so far visible to readers. `position`: how far the run is, in ns."""
        self._position = max(self._position, position or 0)
        end = max(self._position, self._last[0] + 1 if self._last else 0)
        with writing_h5(self._path):
            self._file.flush()
            # The numbers come after the data, so that they never promise too much.
            self._flushed[:] = [end, *self._rows]
            self._file.flush()

    def close(self, position: int | None = None, digest: int | None = None) -> None:
        """Flushes and closes the file; again, it does nothing. `digest`: that of the whole log."""
        if not self._file:
            return
        self.flush(position)
        with writing_h5(self._path):
            for name in ("end_ns", "position_ns"):
                self._file.attrs.modify(name, self._flushed[0].astype(self._file.attrs[name].dtype))
            self._file.attrs.modify("digest", np.uint64(digest or 0))
            self._file.close()

    def __enter__(self) -> SpikeWriter:
        return self

    def __exit__(self, *error: Any) -> None:
        self.close()


# --- .npy and .csv ------------------------------------------------------------------------------


def _about(spikes: Spikes) -> dict[str, Any]:
    return {**spikes.provenance, "digest": spikes.digest, "start_ns": spikes.start,
            "end_ns": spikes.end, "units": {"time": "ns"},
            "populations": [[p.name, int(p.first), int(p.size)] for p in spikes.populations]}


def _options_of(path: str, about: dict[str, Any], wanted: tuple[Any, ...] | None) -> dict[str, Any]:
    """The arguments of Spikes in what _about returned. Takes them out of `about`."""
    about.pop("units", None)
    try:
        named = tuple(PopulationRange(_checks.text(name, "a name"), _checks.count(first, "first"),
                                      _checks.count(size, "size"))
                      for name, first, size in about.pop("populations", ()))
    except (TypeError, ValueError) as error:
        raise FileError(f"'{path}' is damaged: its populations cannot be read: {error}") from error
    return {"start": about.pop("start_ns", 0), "end": about.pop("end_ns", None),
            "populations": named if wanted is None else wanted,
            "provenance": {key: value for key, value in about.items() if value is not None}}


def _write_npy(spikes: Spikes, path: str) -> None:
    # 20 columns for the number, as SpikeFile has them, so that it can append to the file.
    header = ("{'descr': [('time', '<i8'), ('neuron', '<u8')], 'fortran_order': False, 'shape': ("
              f"{len(spikes):20d},), }}").ljust(117) + "\n"
    with open(path, "xb") as file:
        file.write(b"\x93NUMPY\x01\x00" + len(header).to_bytes(2, "little") + header.encode())
        np.ascontiguousarray(spikes.array).tofile(file)
        file.write(_TRAILER + json.dumps(_about(spikes), default=_plain).encode() + b"\n")


def _read_npy(path: str, wanted: tuple[Any, ...] | None) -> Spikes:
    with open(path, "rb") as file:
        try:
            major, _ = np.lib.format.read_magic(file)
            read = (np.lib.format.read_array_header_1_0 if major == 1
                    else np.lib.format.read_array_header_2_0)
            shape, _, dtype = read(file)
        except Exception as error:  # NumPy parses the header as Python
            raise FileError(f"'{path}' is no file of spikes: {error}") from error
        if dtype != SPIKE or len(shape) != 1 or shape[0] < 0:
            raise FileError(f"'{path}' is no file of spikes: its shape is {shape} and its dtype "
                            f"{dtype}")
        held = (os.path.getsize(path) - file.tell()) // SPIKE.itemsize
        if held < shape[0]:
            raise FileError(f"'{path}' is cut short: it has {held} of {shape[0]} spikes")
        array = np.fromfile(file, SPIKE, shape[0])
        rest = file.read(len(_TRAILER))
        about = _json(path, file.read()) if rest == _TRAILER else {}
    if not isinstance(about, dict):
        raise FileError(f"'{path}' is damaged: its last line is no JSON object")
    return _spikes_from(path, array, **_options_of(path, about, wanted))


def _json(path: str, text: bytes | str) -> Any:
    try:
        return json.loads(text)
    except (RecursionError, ValueError) as error:
        raise FileError(f"'{path}' is cut short or damaged: {error}") from error


def _write_csv(spikes: Spikes, path: str) -> None:
    with open(path, "x", encoding="utf-8", newline="\n") as file:
        for key, value in {**_about(spikes), "spikes": len(spikes)}.items():
            file.write(f"# {key}: {json.dumps(value, default=_plain)}\n")
        file.write(_CSV_HEADER + "\n")
        for first in range(0, len(spikes), 1 << 16):
            file.writelines(map("%d,%d\n".__mod__, spikes.array[first:first + (1 << 16)].tolist()))


def _read_csv(path: str, wanted: tuple[Any, ...] | None) -> Spikes:
    about: dict[str, Any] = {}
    with open(path, encoding="utf-8-sig") as file:
        try:
            line = file.readline()
            while line.startswith("#"):
                key, colon, value = line[1:].partition(":")
                if colon:
                    about[key.strip()] = _json(path, value)
                line = file.readline()
            if line.strip() != _CSV_HEADER:
                raise FileError(f"'{path}' is no file of spikes: its header is not {_CSV_HEADER!r}")
            text = file.read()
            with warnings.catch_warnings():
                warnings.simplefilter("error")  # NumPy takes 0.5 for 0 with only a warning
                array = (np.loadtxt(text.splitlines(), SPIKE, delimiter=",", ndmin=1)
                         if text.strip() else np.zeros(0, SPIKE))
        except FileError:
            raise
        except (ValueError, Warning) as error:  # also of text that is no UTF-8
            raise FileError(f"'{path}' is no file of spikes: {error}") from error
    number = about.pop("spikes", len(array))
    if number != len(array) or (text and not text.endswith("\n")):
        raise FileError(f"'{path}' is cut short: it has {len(array)} of {number} spikes")
    return _spikes_from(path, array, **_options_of(path, about, wanted))


_FORMATS = {".h5": (_write_h5, _read_h5), ".hdf5": (_write_h5, _read_h5),
            ".npy": (_write_npy, _read_npy), ".csv": (_write_csv, _read_csv)}

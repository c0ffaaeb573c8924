"""A network that runs."""

from __future__ import annotations

import atexit
import copy
import html
import os
import threading
import weakref
from time import monotonic, sleep
from typing import Any, Callable, Mapping, NamedTuple, Optional, Sequence, Union

import numpy as np

from . import _checks, _kelm, _neurons, _parts, _settings
from ._network import Network
from ._neurons import Targets
from ._progress import ProgressArgument, Watch, in_sweep
from ._spikes import Spikes
from .errors import (
    ArgumentError,
    ArgumentTypeError,
    Error,
    FileError,
    IncompatibleCheckpoint,
    RefusedCall,
    RefusedCheckpoint,
)
from .units import s

_PROBE_FIELDS = ("membrane", "adaptation", "refractory_left", "hazard")


class Probe:
    """Samples of chosen neurons at an interval. :meth:`Simulation.probe` makes one.

    The samples do not disturb the run and do not depend on how it is cut into calls. A restore
    drops them and begins anew.
    """

    def __init__(self, native: _kelm.Probe, neurons: np.ndarray, fields: Sequence[str]) -> None:
        self._native = native
        self.neurons = neurons  #: numbers of the neurons, in the order of the columns
        self.fields = tuple(fields)  #: names of the sampled fields

    @property
    def times(self) -> np.ndarray:
        """The moments of the samples in ns: shape (times), int64."""
        return self._native.times()

    def __getitem__(self, field: str) -> np.ndarray:
        """The samples of a field: shape (times, neurons), float64.

        "membrane" and "adaptation" have no unit, "refractory_left" is in ns, "hazard" in spikes/s.
        """
        field = _checks.choice(field, "a field of the probe", self.fields)
        return self._native.values(getattr(_kelm.ProbeField, field))

    def take(self) -> dict[str, np.ndarray]:
        """Moves all samples out: "times" and one table for each field. Copies nothing."""
        times, tables = self._native.take()
        return {"times": times, **dict(zip(self.fields, tables))}

    def __repr__(self) -> str:
        return f"<kelm.Probe of {', '.join(self.fields)} of {len(self.neurons)} neurons>"


class Digest(int):
    """A 64-bit number that prints as 16 hexadecimal digits."""

    def __repr__(self) -> str:
        return f"{int(self):016x}"

    __str__ = __repr__


class ModelWarning(NamedTuple):
    """Something in a model that is rarely meant."""

    field: str
    text: str


class Simulation:
    """A run of a network.

    The same network, settings and seed give the same spikes to the last bit: on every machine and
    backend, with any number of threads, however the run is cut into calls, and after a restore.

    Parameters
    ----------
    net
        the network. The simulation keeps a copy of the description.
    seed
        of all random streams of the run
    backend
        "auto", "cpu", "lanes", "threads" or "cuda"; :func:`available_backends` has those that exist
        here
    threads
        the most threads of "auto" and "threads"; 0 for one a processor. None is 0, and 1 inside a
        sweep.
    horizon
        ns; no run goes past it. None for no end.
    plasticity
        a :class:`Plasticity` or a dict of its fields; None for fixed weights
    phase
        a :class:`Phase`: oscillators, bindings and couplings
    recorder
        a :class:`RecorderSettings`
    input_channels
        a list of :class:`InputChannel`
    prediction
        a list of :class:`ErrorChannel`
    journal
        whether to keep every weight change that learning makes
    label
        a name in checkpoints

    Raises InvalidModel for a model that cannot mean anything, and UnknownBackend.

    One call at a time: while a run is on, a call from another thread or from a callback raises
    BusyError. :meth:`request_stop` may always be called. After an error out of a run the
    simulation may only be read.
    """

    def __init__(
        self,
        net: Network,
        seed: int = 0,
        *,
        backend: str = "auto",
        threads: Optional[int] = None,
        horizon: Optional[int] = None,
        plasticity: Union[_settings.Plasticity, Mapping[str, Any], None] = None,
        phase: Union[_settings.Phase, Mapping[str, Any], None] = None,
        recorder: Union[_settings.RecorderSettings, Mapping[str, Any], None] = None,
        input_channels: Sequence[Union[_settings.InputChannel, Mapping[str, Any]]] = (),
        prediction: Sequence[Union[_settings.ErrorChannel, Mapping[str, Any]]] = (),
        journal: bool = False,
        label: str = "unknown",
    ) -> None:
        if not isinstance(net, Network):
            raise ArgumentTypeError(
                f"net must be a kelm.Network, not {type(net).__name__}"
            )
        graph = net._built()
        self._net = net.copy()
        input_channels = _checks.items(input_channels, "input_channels")
        prediction = _checks.items(prediction, "prediction")
        # Copied, because a pickle needs them as they are now.
        self._settings: dict[str, Any] = copy.deepcopy({
            "backend": backend,
            "threads": threads,
            "horizon": horizon,
            "plasticity": plasticity,
            "phase": phase,
            "recorder": recorder,
            "input_channels": input_channels,
            "prediction": prediction,
            "journal": journal,
            "label": label,
        })
        if threads is None:
            threads = 0 if in_sweep.cancelled is None else 1
        options = _kelm.RuntimeOptions()
        options.seed = _checks.count(seed, "seed")
        options.backend = _checks.text(backend, "backend")
        options.threads = _checks.count(threads, "threads")
        if horizon is not None:
            options.horizon = _checks.duration(horizon, "horizon", graph.window)
        options.populations = net._native_populations()
        given = net._given_spikes()
        if given is not None:
            options.give_spikes(*given)
        options.plasticity = _settings.native_plasticity(plasticity)
        options.learning_journal = _checks.flag(journal, "journal")
        options.phase = _settings.native_phase(phase, net.size)
        options.recorder = _settings.native_recorder(recorder)
        _settings.add_input_channels(options, input_channels, net.size)
        _settings.add_error_channels(options, prediction, net.size)
        options.label = _checks.text(label, "label")
        self._first_spike = 0  # ns; where the spikes that are not taken begin
        self._native = _kelm.Runtime(graph, options)

    # Runs

    def run(
        self, duration: Optional[int] = None, progress: ProgressArgument = None
    ) -> Simulation:
        """Runs for `duration` ns: ``sim.run(2*s)``. Returns the simulation.

        A window is not cut, so the last one may end later. Ctrl-C ends the run after a window,
        within about 0.1 s, and raises KeyboardInterrupt; a later run goes on to the same bits.

        `duration`: None to run to the horizon. `progress`: True for a bar of tqdm, or a callable
        that takes a :class:`Progress`, called about every 50 ms and at the end. An exception out of
        it ends the run as Ctrl-C does.

        Raises ArgumentError for a duration below the window, RefusedCall past the horizon, and
        what the engine raises. After such an error of the engine only reading is left.
        """
        if duration is None:
            if self.horizon is None:
                raise ArgumentError("duration is None, and the simulation has no horizon")
            return self.run_until(self.horizon, progress)
        duration = _checks.duration(duration, "duration", self._net.window)
        return self.run_until(self.position + duration, progress)

    def run_until(self, time: int, progress: ProgressArgument = None) -> Simulation:
        """Runs every window that starts before `time` ns; otherwise as :meth:`run`."""
        time = _checks.time(time, "time")
        if _exiting.is_set() and threading.current_thread().daemon:
            raise RefusedCall("a daemon thread cannot run a simulation while the interpreter exits")
        watch = Watch(progress, self._native.position, time)
        _running.add(self)
        try:
            stopped = self._native.run(time, watch.poll)
            if not stopped:
                watch.finish(self._native.position, self._native.spike_count)
        except RefusedCall:
            raise
        except Error as failure:
            if not self._native.failed:  # raised by the progress callable
                raise
            raise type(failure)(f"{failure}; {_kelm.after_failure}") from failure
        finally:
            _running.discard(self)
            watch.close()
        return self

    def request_stop(self) -> None:
        """Ends the current run after its window, or the next one before its first window. A later
        run goes on to the same bits. May be called from any thread and from callbacks."""
        self._native.request_stop()

    @property
    def stopped(self) -> bool:
        """Whether :meth:`request_stop` has ended the last run."""
        return self._native.stopped

    @property
    def failed(self) -> bool:
        """Whether a run has failed, so that only reading is left."""
        return self._native.failed

    # What it is

    @property
    def network(self) -> Network:
        """A copy of the network's description."""
        return self._net.copy()

    @property
    def position(self) -> int:
        """ns; the end of the last run."""
        return self._native.position

    @property
    def seed(self) -> int:
        """The seed of the random streams."""
        return self._native.seed

    @property
    def horizon(self) -> Optional[int]:
        """ns; None for no end."""
        horizon = self._native.horizon
        return None if horizon == _kelm.open_horizon else horizon

    @property
    def label(self) -> str:
        """The name in checkpoints."""
        return self._native.label

    @property
    def fingerprint(self) -> Digest:
        """Names network and settings without the seed. A checkpoint of another fingerprint is
        refused."""
        return Digest(self._native.fingerprint)

    @property
    def digest(self) -> Digest:
        """Names all spikes so far, whether taken or not."""
        return Digest(self._native.digest)

    @property
    def warnings(self) -> tuple[ModelWarning, ...]:
        """What is rarely meant in the model, such as a time constant of 10 ns."""
        return tuple(ModelWarning(*finding) for finding in self._native.warnings)

    @property
    def profile(self) -> dict[str, int]:
        """Counts of the work so far: windows, deliveries, updates, candidates, accepted."""
        return self._native.profile()

    # Spikes

    @property
    def spikes(self) -> Spikes:
        """A copy of all spikes so far that were not taken, by time, then neuron."""
        digest = self.digest if self._native.taken_spikes == 0 else None
        return self._spikes(self._native.spikes(), digest)

    def take_spikes(self) -> Spikes:
        """Moves the spikes out without a copy; :attr:`spikes` is then empty. The pieces follow one
        another in time, so a run of any length needs bounded memory."""
        digest = self.digest if self._native.taken_spikes == 0 else None
        spikes = self._spikes(self._native.take_spikes(), digest)
        self._first_spike = self.earliest_input
        return spikes

    @property
    def spike_count(self) -> int:
        """How many spikes there were so far, also those that were taken."""
        return self._native.spike_count

    def _spikes(self, array: np.ndarray, digest: Optional[Digest]) -> Spikes:
        provenance = {
            "kelm_version": _kelm.engine_version,
            "fingerprint": self.fingerprint,
            "seed": self.seed,
            "position_ns": self.position,
        }
        if digest is not None:
            provenance["digest"] = digest
        return Spikes(
            array,
            populations=self._net.populations,
            provenance=provenance,
            digest=digest,
            start=self._first_spike,
            end=self.earliest_input,
        )

    # States

    def states(self, at: Optional[int] = None, neurons: Optional[Targets] = None) -> np.ndarray:
        """The exact states of neurons before the events of a time: a structured array.

        Shape (neurons). Fields: "membrane" and "adaptation", float64; "refractory_left", int64,
        ns; "hazard", float64, spikes/s without oscillators and prediction errors.

        `at`: ns; None for :attr:`earliest_input`. `neurons`: None for all. Raises InvalidMoment,
        which names the known times, for any other time.
        """
        time = None if at is None else _checks.time(at, "at")
        ids = None if neurons is None else _neurons.ids(neurons, "neurons", self._net.size)
        return self._native.states(time, ids)

    def last_states(self) -> np.ndarray:
        """The stored states of all neurons, each as of its last update: a structured array with
        "membrane", "adaptation", "last_update" (ns), "refractory_until" (ns), "hazard_bound"."""
        return self._native.last_states()

    def probe(
        self, neurons: Targets, fields: Union[str, Sequence[str]] = "membrane", *, interval: int
    ) -> Probe:
        """Adds a probe that samples from here on, at multiples of `interval` ns.

        `fields`: of "membrane", "adaptation", "refractory_left", "hazard". Raises ArgumentError.
        """
        ids = _neurons.ids(neurons, "neurons", self._net.size)
        names = [fields] if isinstance(fields, str) else _checks.items(fields, "fields")
        kinds = [
            getattr(_kelm.ProbeField, _checks.choice(name, "fields", _PROBE_FIELDS))
            for name in names
        ]
        interval = _checks.time(interval, "interval", 1)
        return Probe(self._native.add_probe(ids, kinds, interval), ids, names)

    # Synapses

    def weights(self, synapses: Any = None) -> np.ndarray:
        """A copy of the magnitudes of the weights: float32, by number of the synapse.

        `synapses`: numbers or a mask; None for all. :attr:`Network.synapses` has the ends.
        """
        weights = self._native.weights()
        return weights if synapses is None else weights[_checks.array(synapses, "synapses")]

    def set_weights(self, weights: Any, synapses: Any = None) -> None:
        """Sets magnitudes of weights. `synapses`: numbers or a mask; None for all, in order.

        One number stands for all. Raises ArgumentError, with nothing set, for a value that is
        negative or not finite, and for another length.
        """
        ids = self._synapse_ids(synapses)
        values = _checks.column(weights, "weights", np.float32, len(ids), low=0)
        if synapses is None:
            self._native.set_weights(0, values)
        else:
            self._native.set_weights_of(ids, values)

    def enabled(self) -> np.ndarray:
        """Whether each synapse transmits: bool, by number of the synapse."""
        return self._native.enabled()

    def set_enabled(self, enabled: bool, synapses: Any = None) -> None:
        """Switches synapses on or off. `synapses`: numbers or a mask; None for all."""
        self._native.set_enabled(self._synapse_ids(synapses), bool(enabled))

    def transmission(self, inhibitory: bool) -> bool:
        """Whether a class of synapses transmits."""
        return self._native.transmission(bool(inhibitory))

    def set_transmission(self, inhibitory: bool, enabled: bool) -> None:
        """Switches all excitatory or all inhibitory synapses on or off."""
        self._native.set_transmission(bool(inhibitory), bool(enabled))

    def _synapse_ids(self, synapses: Any) -> np.ndarray:
        count = self._net.synapse_count
        if synapses is None:
            return np.arange(count, dtype=np.uint64)
        array = _checks.array(synapses, "synapses")
        if array.dtype == np.bool_:
            if array.shape != (count,):
                raise ArgumentError(
                    f"synapses is a mask of shape {array.shape}, must have shape ({count},)"
                )
            array = np.flatnonzero(array)
        rule = f"the network has {count} synapses"
        return _checks.column(array, "synapses", np.uint64, low=0, below=count, rule=rule)

    # Inputs

    @property
    def earliest_input(self) -> int:
        """ns; the first time at which an input may arrive. The run is complete up to it."""
        return self._native.earliest_input

    def inject(self, name: str, time: Any, value: Any) -> np.ndarray:
        """Injects values on an input channel. Returns the numbers of the events, uint64.

        `time`: ns, and `value`: numbers, or arrays of one shape with ascending times. Raises
        ArgumentError, with nothing posted, for a value outside its range, InvalidModality for an
        unknown channel and for a time before the channel's last one, and RefusedCall for an
        arrival before :attr:`earliest_input`.
        """
        times = _checks.times(np.atleast_1d(_checks.array(time, "time")), "time")
        values = _checks.column(value, "value", np.float64, len(times))
        _checks.ascending(times, "time")
        channel = self.input_channels[name]
        if len(times) > 1:
            self._require_arrival(times, "time", channel.delay)
        ids = [self._native.inject(name, int(t), float(v)) for t, v in zip(times, values)]
        return np.concatenate(ids) if ids else np.empty(0, np.uint64)

    def perturb(
        self, time: int, targets: Targets, strength: float, *, inhibition: bool = False,
        cause: int = 0,
    ) -> np.ndarray:
        """Adds `strength` to the membrane of neurons at `time` ns; `inhibition` reverses it.

        Returns the numbers of the events, uint64. `cause`: the caller's number, copied into the
        events. Raises ArgumentError, with nothing posted, and RefusedCall for a time before
        :attr:`earliest_input`.
        """
        return self._native.perturb(
            _checks.time(time, "time"),
            bool(inhibition),
            _checks.real(strength, "strength"),
            _neurons.ids(targets, "targets", self._net.size),
            _checks.count(cause, "cause"),
        )

    def post(self, times: Any, neurons: Any, values: Any) -> np.ndarray:
        """Adds values to the membranes of neurons at times: shape (inputs) each.

        `times`: ns, in any order; at equal times the order of the inputs counts. `neurons`:
        numbers in the network. `values`: one number stands for all. Returns the numbers of the
        events, uint64. Everything is checked before anything is posted.
        """
        times = _checks.times(times, "times")
        rule = f"the network has {self._net.size} neurons"
        neurons = _checks.column(
            neurons, "neurons", np.uint64, len(times), 0, self._net.size, rule
        )
        values = _checks.column(values, "values", np.float64, len(times))
        self._require_arrival(times, "times", 0)
        return self._native.post(times, neurons, values)

    def _require_arrival(self, times: np.ndarray, name: str, delay: int) -> None:
        earliest = self.earliest_input
        if len(times) and int(times.max()) + delay >= 2**63:
            raise ArgumentError(f"{name} has {times.max()} ns, which arrives after 2^63 ns")
        _checks.column(
            times, name, np.int64, low=earliest - delay,
            rule=f"the earliest input may arrive at {earliest} ns",
        )

    def trace_injections(self) -> None:
        """Keeps the arguments of each :meth:`inject` from now on."""
        self._native.trace_injections()

    @property
    def injections(self) -> list[tuple[str, int, float]]:
        """The injections so far since :meth:`trace_injections`: name, time in ns, value."""
        return self._native.injections()

    # Checkpoints

    def checkpoint(self) -> bytes:
        """The whole state of the run. It holds no probes and callbacks."""
        return self._native.checkpoint()

    def save(self, path: Union[str, os.PathLike[str]]) -> None:
        """Writes a checkpoint to a file and replaces an existing one as a whole. If the program is
        killed or the write fails, the file still holds the checkpoint from before.

        Raises CheckpointFileError, which names the file and the reason.
        """
        name = os.fsencode(path)
        if b"\0" in name:
            raise ArgumentError(f"path is {path!r}, must have no null character")
        self._native.save(name)

    def restore(self, checkpoint: Any) -> Simulation:
        """Continues from the bytes of a checkpoint. Returns the simulation.

        The checkpoint must be of the same network, settings, seed and label. Raises
        RefusedCheckpoint, which says what differs, with nothing changed, and
        IncompatibleCheckpoint for one of another version.
        """
        self._native.restore(_bytes(checkpoint))
        return self

    @classmethod
    def load(cls, net: Network, path: Union[str, os.PathLike[str]], **settings: Any) -> Simulation:
        """Makes a simulation from a file that :meth:`save` has written.

        `settings`: those of the simulation that has written it; its seed and label are in the
        file. Raises FileError for a file that is no checkpoint, cut short, or of another network
        or other settings.
        """
        with open(os.fspath(path), "rb") as file:
            checkpoint = file.read()
        summary = _kelm.examine_checkpoint(checkpoint)
        if summary["fault"]:
            raise FileError(f"{os.fspath(path)!r}: {summary['fault']}")
        settings = {"seed": summary["seed"], "label": summary["label"], **settings}
        try:
            return cls(net, **settings).restore(checkpoint)
        except (IncompatibleCheckpoint, RefusedCheckpoint) as failure:
            raise FileError(f"{os.fspath(path)!r}: {failure}") from failure

    def fork(self) -> Simulation:
        """A simulation in the same state. Both continue to the same bits if they get the same
        calls. Callbacks of learning are shared; probes and the commit callback are not copied."""
        other: Simulation = object.__new__(type(self))
        other._net = self._net.copy()
        other._settings = dict(self._settings)
        other._first_spike = self._first_spike
        other._native = self._native.fork()
        return other

    def reseed(self, seed: int) -> Simulation:
        """Continues under another seed from :attr:`earliest_input` on. Returns the simulation."""
        self._native.reseed(_checks.count(seed, "seed"))
        return self

    def __reduce__(self) -> tuple[Any, ...]:
        state = (self._net, self.seed, self._settings, self._first_spike, self.checkpoint())
        return _unpickled, state

    # Parts

    def on_commit(self, function: Optional[Callable[[int, int, np.ndarray], Any]]) -> None:
        """Sets what is called after each window with its start and end in ns and its spikes, by
        neuron, then time. None for nothing. The run leaves out windows in which nothing happens. An
        exception out of it is an error out of the run."""
        if function is not None and not callable(function):
            raise ArgumentTypeError("function must be a callable or None")
        self._on_commit = function
        # The garbage collector sees this object's references and not those of C++.
        here: Callable[[], Any] = weakref.ref(self)
        self._native.on_commit(
            None if function is None else lambda *window: here()._on_commit(*window))

    @property
    def learning(self) -> _parts.Learning:
        """Learning control. Raises PartMissing without plasticity."""
        return _parts.Learning(self._native, self._net)

    @property
    def oscillators(self) -> _parts.Oscillators:
        """The oscillators. Raises PartMissing without a phase setting."""
        return _parts.Oscillators(self._native, self._net, self._settings["phase"])

    @property
    def recorder(self) -> _parts.Recorder:
        """What was recorded. Raises PartMissing without a recorder setting."""
        return _parts.Recorder(self._native)

    @property
    def input_channels(self) -> _parts.InputChannels:
        """The input channels by name."""
        return _parts.InputChannels(self._native, self._settings["input_channels"])

    @property
    def prediction(self) -> _parts.Prediction:
        """The error channels by name."""
        return _parts.Prediction(self._native, self._net)

    @property
    def interventions(self) -> _parts.Interventions:
        """Gains and switches of the mechanisms."""
        return _parts.Interventions(self._native)

    @property
    def streams(self) -> _parts.Streams:
        """The random streams, for recording and replaying one."""
        return _parts.Streams(self._native)

    def __repr__(self) -> str:
        if self._native.busy:
            return "<kelm.Simulation, running>"
        return (
            f"<kelm.Simulation of {self._net.size} neurons, seed {self.seed}, "
            f"at {self.position / s:g} s: {self.spike_count} spikes, digest {self.digest}>"
        )

    def _repr_html_(self) -> str:
        if self._native.busy:
            return "<p>kelm.Simulation, running</p>"
        rows = {
            "seed": self.seed,
            "position": f"{self.position / s:g} s",
            "spikes": self.spike_count,
            "digest": self.digest,
            "fingerprint": self.fingerprint,
        }
        table = "".join(f"<tr><th>{k}</th><td>{v}</td></tr>" for k, v in rows.items())
        warnings = "".join(f"<li>{html.escape(w.text)}</li>" for w in self.warnings)
        return f"<table>{table}</table>{self._net._repr_html_()}<ul>{warnings}</ul>"


_running: set[Simulation] = set()
_exiting = threading.Event()


os.register_at_fork(after_in_child=_running.clear)


@atexit.register
def _end_runs() -> None:
    """Ends the runs of daemon threads. The interpreter aborts if one returns to it later."""
    _exiting.set()
    deadline = monotonic() + 10
    while _running and monotonic() < deadline:
        for simulation in list(_running):
            simulation.request_stop()
        sleep(0.01)


def _bytes(checkpoint: Any) -> memoryview:
    try:
        return memoryview(checkpoint).cast("B")
    except TypeError:
        kind = type(checkpoint).__name__
        raise ArgumentTypeError(f"checkpoint must be bytes, not {kind}") from None


def _unpickled(
    net: Network, seed: int, settings: Mapping[str, Any], first_spike: int, checkpoint: bytes
) -> Simulation:
    simulation = Simulation(net, seed, **settings).restore(checkpoint)
    simulation._first_spike = first_spike
    return simulation

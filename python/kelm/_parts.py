"""The parts of a simulation, by which a caller reads and sets them between runs.

Each object here is a view: it holds nothing and is valid as long as its simulation.
"""

from __future__ import annotations

from typing import Any, Callable, Iterator, Mapping, Optional, Sequence

import numpy as np

from . import _checks, _kelm, _neurons, _settings
from ._network import Network
from ._neurons import Targets
from .errors import ArgumentTypeError, PartMissing

_JOURNAL_MODES = ("off", "every", "sampled")
_MECHANISMS = {"oscillators": 1, "plasticity": 3, "prediction": 4}


def _callable(function: Any, name: str) -> Any:
    if function is not None and not callable(function):
        raise ArgumentTypeError(f"{name} must be a callable or None, not {type(function).__name__}")
    return function


class Learning:
    """Learning control: what may learn, and what learning has done."""

    def __init__(self, native: _kelm.Runtime, net: Network) -> None:
        self._native, self._net = native, net
        if not native.has_learning():
            raise PartMissing("the simulation has no learning: make it with plasticity=")

    @property
    def enabled(self) -> bool:
        """The master switch of all groups."""
        return self._native.learning_settings()["enabled"]

    @enabled.setter
    def enabled(self, value: bool) -> None:
        self._native.learning_set_enabled(bool(value))

    def set_group(self, neurons: Targets, group: int) -> None:
        """Puts neurons into a group; every neuron starts in group 0. The synapses that enter the
        neurons of a group learn if the group may. `group`: below 1048576."""
        ids = _neurons.ids(neurons, "neurons", self._net.size)
        self._native.learning_set_group(ids, _checks.count(group, "group", most=2**32 - 1))

    def group_of(self, neuron: int) -> int:
        """The group of a neuron."""
        return self._native.learning_group_of(_checks.count(neuron, "neuron"))

    def set_group_enabled(self, group: int, enabled: bool) -> None:
        """Switches the learning of a group."""
        group = _checks.count(group, "group", most=2**32 - 1)
        self._native.learning_set_group_enabled(group, bool(enabled))

    @property
    def allowed_groups(self) -> Optional[list[int]]:
        """The groups that learning is restricted to; None for no restriction."""
        return self._native.learning_settings()["allowed_groups"]

    @allowed_groups.setter
    def allowed_groups(self, groups: Optional[Sequence[int]]) -> None:
        allowed = None if groups is None else _checks.column(groups, "groups", np.uint32).tolist()
        self._native.learning_allow_groups(allowed)

    @property
    def frozen(self) -> tuple[bool, bool, bool]:
        """The freezes: 0 stops changes, 1 stops changes and fading, 2 has no effect here."""
        first, second, third = self._native.learning_settings()["frozen"]
        return first, second, third

    def freeze(self, index: int = 0, frozen: bool = True) -> None:
        """Sets a freeze."""
        index = _checks.count(index, "index", most=2**32 - 1)
        self._native.learning_set_frozen(index, bool(frozen))

    def set_gate(self, gate: Optional[Callable[[int], bool]]) -> None:
        """Sets a function of the end of a window in ns that decides, window by window, whether
        changes take effect. None for none. It must not call the simulation."""
        self._native.learning_set_gate(_callable(gate, "gate"))

    @property
    def gate_history(self) -> np.ndarray:
        """The results of the gate that differ from the one before: a structured array with "time"
        (ns) and "open"."""
        return self._native.learning_gate_history()

    def set_change_hook(self, hook: Optional[Callable[[dict[str, Any]], float]]) -> None:
        """Sets a function whose result multiplies each change: a third factor of the rule.

        It gets a dict with "synapse", "source", "target", "time" (ns), "source_last_spike" and
        "target_last_spike" (ns), "weight", "factor", "source_phase" and "target_phase" (radians),
        "inhibitory", "rule" and "target_fired". None for none. It must not call the simulation.
        """
        self._native.learning_set_change_hook(_callable(hook, "hook"))

    @property
    def fast_weights(self) -> dict[str, Any]:
        """Whether learning changes the fading part of weights, and how that fades: "enabled",
        "tau" (ns), "consolidation_rate" (share a window)."""
        settings = self._native.learning_settings()
        return {
            "enabled": settings["fast_weights"],
            "tau": settings["fast_tau"],
            "consolidation_rate": settings["consolidation_rate"],
        }

    def set_fast_weights(
        self, enabled: bool, tau: int = 500_000_000, consolidation_rate: float = 0.0
    ) -> None:
        """Sets :attr:`fast_weights`. `tau`: ns. `consolidation_rate`: in [0, 1]."""
        tau = _checks.time(tau, "tau", 1)
        rate = _checks.real(consolidation_rate, "consolidation_rate")
        self._native.learning_set_fast_weights(bool(enabled), tau, rate)

    @property
    def weight_cap(self) -> float:
        """Bounds the weights from a synapse's next change on."""
        return self._native.learning_settings()["weight_cap"]

    @weight_cap.setter
    def weight_cap(self, cap: float) -> None:
        self._native.learning_set_weight_cap(_checks.real(cap, "weight_cap"))

    @property
    def journal_mode(self) -> str:
        """"off", "every" or "sampled"."""
        return _JOURNAL_MODES[self._native.learning_settings()["journal_mode"]]

    def set_journal(self, mode: str, rate: float = 1.0) -> None:
        """Sets which changes the journal keeps. `rate`: the share of "sampled", in (0, 1]."""
        number = _JOURNAL_MODES.index(_checks.choice(mode, "mode", _JOURNAL_MODES))
        self._native.learning_set_journal(number, _checks.real(rate, "rate"))

    @property
    def journal(self) -> np.ndarray:
        """A copy of the noted changes: a structured array, shape (changes).

        Fields: "edge" is the number of the synapse; "time", "pre_last_spike" and "post_last_spike"
        are in ns; "weight_before" to "slow_after" and "delta" are weights; "rule_kind" is 0 none,
        1 pair, 2 coincidence; "kind" is 0 change, 1 fading, 2 consolidation, 3 external.
        """
        return self._native.learning_journal()

    @property
    def states(self) -> np.ndarray:
        """The lasting and the fading part of each weight: a structured array, shape (synapses),
        with "slow", "fast", "last_weight", "initialized", "pending"."""
        return self._native.learning_states()

    @property
    def pending(self) -> np.ndarray:
        """The synapses that ever had a fading part: numbers, uint64."""
        return self._native.learning_pending()

    @property
    def traces(self) -> np.ndarray:
        """The spike traces of all neurons: a structured array, shape (neurons), with "pre",
        "post", "coincidence", "updated" (ns), "last_spike" (ns)."""
        return self._native.learning_traces()


class Oscillators:
    """The oscillators of a simulation."""

    def __init__(self, native: _kelm.Runtime, net: Network, phase: Any) -> None:
        self._native, self._net = native, net
        if not native.has_oscillators():
            raise PartMissing("the simulation has no oscillators: make it with phase=")
        oscillators = _checks.record(_settings.Phase, phase, "phase").oscillators
        self._ids = [_checks.record(_settings.Oscillator, o, "oscillator").id for o in oscillators]

    @property
    def ids(self) -> tuple[int, ...]:
        """The ids, in the order of all arrays here."""
        return tuple(self._ids)

    def phases(self, time: int) -> np.ndarray:
        """The phases at a time in ns: radians, shape (oscillators)."""
        return self._native.oscillator_phases(_checks.time(time, "time"))

    @property
    def offsets(self) -> np.ndarray:
        """How far coupling has moved the phases: radians, shape (oscillators)."""
        return self._native.oscillator_offsets()

    def report(self, neurons: Targets, oscillators: Optional[Sequence[int]] = None) -> None:
        """Sets which neurons are reported with the phases of which oscillators in :attr:`log`.
        Replaces an earlier call. `oscillators`: ids; None for all."""
        ids = self._ids
        if oscillators is not None:
            ids = _checks.column(oscillators, "oscillators", np.uint32).tolist()
        table: list[list[int]] = [[] for _ in range(self._net.size)]
        for neuron in _neurons.ids(neurons, "neurons", self._net.size):
            table[int(neuron)] = ids
        self._native.oscillator_set_memberships(table)

    def set_coupling(self, couplings: Sequence[Any], period: int) -> None:
        """Replaces the couplings, a list of :class:`Coupling`. `period`: ns, of a step."""
        period = _checks.time(period, "period")
        self._native.oscillator_configure_coupling(_settings.couplings(couplings), period)

    @property
    def coupling_enabled(self) -> bool:
        """Whether coupling moves phases. Off at the start."""
        return self._native.oscillator_coupling_enabled()

    @coupling_enabled.setter
    def coupling_enabled(self, enabled: bool) -> None:
        self._native.oscillator_set_coupling_enabled(bool(enabled))

    @property
    def coupling_steps(self) -> int:
        """How many steps coupling has taken."""
        return self._native.oscillator_coupling_steps()

    @property
    def log(self) -> np.ndarray:
        """The phases at the spikes of reported neurons, in the order of commit: a structured array
        with a row for each spike and oscillator. Fields: "time" (ns), "neuron", "oscillator" (id),
        "phase" (radians)."""
        times, neurons, oscillators, phases = self._native.phase_log()
        kinds = [("time", "<i8"), ("neuron", "<u8"), ("oscillator", "<u4"), ("phase", "<f8")]
        log = np.empty(len(times), kinds)
        log["time"], log["neuron"] = times, neurons
        log["oscillator"], log["phase"] = oscillators, phases
        return log


class Recorder:
    """What a simulation has recorded."""

    def __init__(self, native: _kelm.Runtime) -> None:
        self._native = native
        if not native.has_recorder():
            raise PartMissing("the simulation has no recorder: make it with recorder=")

    @property
    def spikes(self) -> np.ndarray:
        """The recorded spikes in the order of commit: a structured array with "time" (ns) and
        "neuron". :attr:`Oscillators.log` has their phases."""
        times, neurons, _ = self._native.recorded_spikes()
        spikes = np.empty(len(times), [("time", "<i8"), ("neuron", "<u8")])
        spikes["time"], spikes["neuron"] = times, neurons
        return spikes

    @property
    def samples(self) -> dict[str, np.ndarray]:
        """The samples: "time" in ns, shape (samples), and a table for each kind that is sampled.

        "membrane", "adaptation", "refractory_left" (ns), "next_candidate" (ns; -1 for none) and
        "spike_counts" (since the last sample) have shape (samples, neurons); "oscillator_phases"
        (radians) (samples, oscillators); "active_synapses" (samples).
        """
        return self._native.recorded_samples()

    @property
    def causes(self) -> dict[int, Optional[int]]:
        """The cause of each event by its number, if causes are recorded; None for no cause."""
        return dict(self._native.recorded_causes())


class InputChannelView:
    """One input channel."""

    def __init__(self, native: _kelm.Runtime, name: str, delay: int) -> None:
        self._native = native
        self.name = name
        self.delay = delay  #: ns from injection to arrival

    @property
    def gain(self) -> float:
        """The factor of later injections."""
        return self._native.channel_state(self.name)["gain"]

    @gain.setter
    def gain(self, gain: float) -> None:
        self._native.channel_set_gain(self.name, _checks.real(gain, "gain"))

    @property
    def connected(self) -> bool:
        """Whether injections arrive. A disconnected channel counts and drops them."""
        return self._native.channel_state(self.name)["connected"]

    @connected.setter
    def connected(self, connected: bool) -> None:
        self._native.channel_set_connected(self.name, bool(connected))

    @property
    def stats(self) -> dict[str, int]:
        """Counts: "injections", "events", "dropped"; "last_time" in ns, -1 for none."""
        state = self._native.channel_state(self.name)
        return {key: state[key] for key in ("injections", "events", "dropped", "last_time")}


class InputChannels(Mapping[str, InputChannelView]):
    """The input channels of a simulation by name, in the order of the setting."""

    def __init__(self, native: _kelm.Runtime, settings: Sequence[Any]) -> None:
        self._native = native
        self._delays = {}
        for item in settings:
            channel = _checks.record(_settings.InputChannel, item, "input channel")
            self._delays[channel.name] = _checks.time(channel.delay, "delay")

    def __getitem__(self, name: str) -> InputChannelView:
        name = _checks.choice(name, "an input channel", self._delays)
        return InputChannelView(self._native, name, self._delays[name])

    def __iter__(self) -> Iterator[str]:
        return iter(self._native.channel_names())

    def __len__(self) -> int:
        return len(self._native.channel_names())


class Prediction:
    """The error channels of a simulation."""

    def __init__(self, native: _kelm.Runtime, net: Network) -> None:
        self._native, self._net = native, net
        self._names = native.error_channel_names()
        if not self._names:
            raise PartMissing("the simulation has no error channels: make it with prediction=")

    @property
    def names(self) -> tuple[str, ...]:
        """The names of the channels; a channel's index is its place."""
        return tuple(self._names)

    def observe(
        self, channel: str, observed: float, predicted: float, time: int = 0
    ) -> None:
        """Reports a pair of values on a channel, which acts from the next window on.
        `time`: ns; stored only."""
        self._native.error_observe(
            self._index(channel),
            _checks.real(observed, "observed"),
            _checks.real(predicted, "predicted"),
            _checks.time(time, "time"),
        )

    def precision(self, channel: str) -> float:
        """The weight of the errors of later reports."""
        return self._native.error_precision(self._index(channel))

    def set_precision(self, channel: str, precision: float) -> None:
        """Sets the weight of the errors of later reports."""
        index = self._index(channel)
        self._native.error_set_precision(index, _checks.real(precision, "precision"))

    def set_predictor(self, channel: str, predictor: Any) -> None:
        """Replaces the predictor of a channel, a :class:`Predictor`."""
        native = _settings.native_predictor(predictor, "predictor", self._net.size)
        if native is None:
            raise ArgumentTypeError("predictor must be a kelm.Predictor, not None")
        self._native.error_set_predictor(self._index(channel), native)

    def drive(self, neuron: int) -> float:
        """What the last reports add to the drive of a neuron."""
        return self._native.error_drive(_checks.count(neuron, "neuron"))

    @property
    def observations(self) -> np.ndarray:
        """All reports: a structured array with "channel" (index), "observed", "predicted", "error",
        "weighted_error", "time" (ns)."""
        return self._native.error_observations()

    def _index(self, channel: str) -> int:
        return self._names.index(_checks.choice(channel, "channel", self._names))


class Interventions:
    """Gains and switches of the mechanisms "oscillators", "plasticity" and "prediction". A change
    acts from the next window on."""

    def __init__(self, native: _kelm.Runtime) -> None:
        self._native = native

    def gain(self, mechanism: str) -> float:
        """The gain of a mechanism, 1 at the start."""
        return self._native.intervention_gains()[self._index(mechanism)]

    def set_gain(self, mechanism: str, gain: float) -> None:
        """Sets the gain of a mechanism. Only that of plasticity may be negative."""
        self._native.intervention_set_gain(self._index(mechanism), _checks.real(gain, "gain"))

    def is_off(self, mechanism: str) -> bool:
        """Whether a mechanism is switched off."""
        return self._native.intervention_switches()[self._index(mechanism)]

    def set_off(self, mechanism: str, off: bool = True) -> None:
        """Switches a mechanism. Only plasticity has a switch that acts."""
        self._native.intervention_set_off(self._index(mechanism), bool(off))

    def note(self, intervention: int) -> None:
        """Appends the caller's number of an intervention to the log."""
        self._native.intervention_note(_checks.count(intervention, "intervention"))

    @property
    def log(self) -> list[int]:
        """The numbers that were noted."""
        return self._native.intervention_log()

    @staticmethod
    def _index(mechanism: str) -> int:
        return _MECHANISMS[_checks.choice(mechanism, "mechanism", _MECHANISMS)]


class Streams:
    """The random streams of a simulation, by name and index. The streams of neurons are those of
    the name "spontaneous"."""

    def __init__(self, native: _kelm.Runtime) -> None:
        self._native = native

    def state(self, name: str, index: int = 0) -> int:
        """The raw state of a stream."""
        return self._native.stream_state(*self._address(name, index))

    def record(self, name: str, index: int = 0) -> None:
        """Records each value of a stream on a new tape from now on."""
        self._native.stream_record(*self._address(name, index))

    def replay(self, name: str, index: int, tape: Any) -> None:
        """Compares each value of a stream with a tape from now on: uint64, shape (values). A run
        raises EngineError at a value that differs, and ReplayExhausted past the end."""
        tape = _checks.column(tape, "tape", np.uint64)
        self._native.stream_replay(*self._address(name, index), tape)

    def tape(self, name: str, index: int = 0) -> np.ndarray:
        """A copy of the tape of a stream: uint64, shape (values)."""
        return self._native.stream_tape(*self._address(name, index))

    def stop(self, name: str, index: int = 0) -> None:
        """Drops the tape of a stream."""
        self._native.stream_stop(*self._address(name, index))

    @staticmethod
    def _address(name: str, index: int) -> tuple[str, int]:
        return _checks.text(name, "name"), _checks.count(index, "index")

"""What a network and a simulation are made of: records with the library's defaults."""

from __future__ import annotations

from dataclasses import dataclass, fields
from typing import Any, Mapping, Optional, Sequence, Union

import numpy as np

from . import _checks, _kelm, _neurons
from ._neurons import Targets
from .units import ms


@dataclass(frozen=True)
class Neuron:
    """The dynamics of a neuron's two traces."""

    tau_membrane: int = 10 * ms  #: ns; time constant of the membrane trace
    tau_adaptation: int = 100 * ms  #: ns; time constant of the adaptation trace
    refractory_period: int = 2 * ms  #: ns; time after a spike
    adaptation_increment: float = 1.0  #: step of the adaptation trace at a spike
    input_coupling: float = 0.0  #: share of an input that scales with the membrane trace
    reset_value: float = 0.0  #: membrane trace after a spike
    trace_epsilon: float = 1e-15  #: a trace that decays below it becomes exactly 0
    hard_refractory: bool = True  #: no spike inside the refractory period
    non_leaky: bool = False  #: the membrane trace does not decay


@dataclass(frozen=True)
class Firing:
    """The hazard of a neuron, in spikes/s:
    ``min(max_rate, base_rate * rate_scale * exp(gain * (m - adaptation_weight * a - threshold)))``.
    """

    base_rate: float = 0.5  #: spikes/s; hazard at zero net drive
    gain: float = 4.0  #: steepness of the exponential
    threshold: float = 0.0  #: subtracted from the net drive
    adaptation_weight: float = 1.0  #: weight of the adaptation trace in the net drive
    rate_scale: float = 1.0  #: second factor of the base rate
    max_rate: float = 1_000_000.0  #: spikes/s; ceiling of the hazard


@dataclass(frozen=True)
class PlasticityRule:
    """How a spike changes the weights of one class of synapses. Amplitudes are not negative."""

    kind: str = "none"  #: "none", "pair" or "coincidence"
    potentiation: float = 0.0  #: pair rule, the target fired
    depression: float = 0.0  #: pair rule, the source fired
    coincidence: float = 0.0  #: coincidence rule
    scale: float = 1.0  #: factor of every change


@dataclass(frozen=True)
class Plasticity:
    """How weights learn. A rule may be given as a dict of its fields."""

    excitatory: Union[PlasticityRule, Mapping[str, Any]] = PlasticityRule()
    inhibitory: Union[PlasticityRule, Mapping[str, Any]] = PlasticityRule()
    tau_pre: int = 20 * ms  #: ns
    tau_post: int = 20 * ms  #: ns
    tau_coincidence: int = 20 * ms  #: ns
    epsilon: float = 1e-15  #: a decayed trace below it becomes 0
    homeostasis_cap: Optional[float] = None  #: of the mean incoming weight; None for none
    enabled: bool = True


@dataclass(frozen=True)
class Oscillator:
    """A global clock. Its phase at time t is ``phase + 2 pi * frequency * t``."""

    id: int  #: unique
    frequency: float  #: cycles/s
    phase: float = 0.0  #: radians at time 0
    amplitude: float = 1.0  #: factor of every binding


@dataclass(frozen=True)
class Binding:
    """Binds neurons to an oscillator."""

    neurons: Targets
    oscillator: int  #: id
    strength: Any  #: one number, or shape (neurons)
    phase_offset: Any = 0.0  #: radians added to the phase; one number, or shape (neurons)
    inhibitory: bool = False  #: reverses the sign


@dataclass(frozen=True)
class Coupling:
    """Pulls the target's phase towards the source's phase."""

    source: int  #: id of an oscillator
    target: int  #: id of an oscillator
    strength: float  #: radians/s at a difference of a quarter cycle


@dataclass(frozen=True)
class Phase:
    """The oscillators of a simulation."""

    oscillators: Sequence[Union[Oscillator, Mapping[str, Any]]]
    bindings: Sequence[Union[Binding, Mapping[str, Any]]] = ()
    couplings: Sequence[Union[Coupling, Mapping[str, Any]]] = ()
    coupling_period: int = 0  #: ns; positive if there are couplings


@dataclass(frozen=True)
class RecorderSettings:
    """What a simulation records besides its spike log."""

    spikes: bool = True  #: keep each spike with the phases of its oscillators
    causal: bool = False  #: keep the cause of each event
    sample_interval: int = 0  #: ns; 0 for no samples
    #: of "membrane", "adaptation", "refractory_left", "next_candidate", "spike_counts",
    #: "oscillator_phases", "active_synapses"
    samples: Sequence[str] = ()


@dataclass(frozen=True)
class InputChannel:
    """A named input line to a fixed set of neurons."""

    name: str
    targets: Targets  #: no neuron twice
    delay: int = 0  #: ns from injection to arrival
    gain: float = 1.0  #: factor of an injected value
    modality: int = 0  #: 0 to 255; stored only


@dataclass(frozen=True)
class Predictor:
    """A readout from a population. It is stored; the caller gives the predictions."""

    sources: Targets
    weights: Any  #: shape (sources)
    bias: float = 0.0


@dataclass(frozen=True)
class ErrorChannel:
    """A named local error over a set of neurons."""

    name: str
    targets: Targets
    precision: float = 1.0  #: weight of the error
    strength: float = -0.5  #: factor from the weighted error to the drive
    clamp: float = 1.0  #: bound of the weighted error's magnitude
    predictor: Optional[Predictor] = None


_TIMES = {"tau_membrane", "tau_adaptation", "refractory_period"}


def _fill(native: Any, record: Any, name: str) -> Any:
    """Copies the fields of a record of numbers and flags."""
    for field in fields(record):
        value = getattr(record, field.name)
        where = f"{name}.{field.name}"
        if field.name in _TIMES:
            value = _checks.whole_number(value, where, "times are ns: write 2*ms")
            if not -(2**63) <= value < 2**63:
                _checks.time(value, where)
        elif field.type == "bool":
            value = _checks.flag(value, where)
        elif field.type == "float":
            value = float(_checks.real(value, where))
        setattr(native, field.name, value)
    return native


def native_neuron(neuron: Neuron, name: str) -> _kelm.Neuron:
    return _fill(_kelm.Neuron(), neuron, name)


def native_firing(firing: Firing, name: str) -> _kelm.Firing:
    return _fill(_kelm.Firing(), firing, name)


def _native_rule(value: Any, name: str) -> _kelm.PlasticityRule:
    rule = _checks.record(PlasticityRule, value, name)
    native = _kelm.PlasticityRule()
    kind = _checks.choice(rule.kind, f"{name}.kind", ("none", "pair", "coincidence"))
    native.kind = getattr(_kelm.PlasticityRuleKind, kind)
    for field in ("potentiation", "depression", "coincidence", "scale"):
        setattr(native, field, _checks.real(getattr(rule, field), f"{name}.{field}"))
    return native


def native_plasticity(value: Any) -> _kelm.PlasticityConfig:
    native = _kelm.PlasticityConfig()
    if value is None:
        return native
    plasticity = _checks.record(Plasticity, value, "plasticity")
    native.enabled = _checks.flag(plasticity.enabled, "plasticity.enabled")
    native.excitatory = _native_rule(plasticity.excitatory, "plasticity.excitatory")
    native.inhibitory = _native_rule(plasticity.inhibitory, "plasticity.inhibitory")
    native.set_trace(
        _checks.time(plasticity.tau_pre, "plasticity.tau_pre", 1),
        _checks.time(plasticity.tau_post, "plasticity.tau_post", 1),
        _checks.time(plasticity.tau_coincidence, "plasticity.tau_coincidence", 1),
        _checks.real(plasticity.epsilon, "plasticity.epsilon"),
    )
    if plasticity.homeostasis_cap is not None:
        native.set_homeostasis(
            _checks.real(plasticity.homeostasis_cap, "plasticity.homeostasis_cap")
        )
    return native


def native_phase(value: Any, neurons: int) -> Optional[_kelm.PhaseConfig]:
    if value is None:
        return None
    phase = _checks.record(Phase, value, "phase")
    native = _kelm.PhaseConfig()
    for k, item in enumerate(_checks.items(phase.oscillators, "phase.oscillators")):
        oscillator = _checks.record(Oscillator, item, f"phase.oscillators[{k}]")
        native.add_oscillator(
            _checks.count(oscillator.id, f"phase.oscillators[{k}].id", most=2**32 - 1),
            _checks.real(oscillator.frequency, f"phase.oscillators[{k}].frequency"),
            _checks.real(oscillator.phase, f"phase.oscillators[{k}].phase"),
            _checks.real(oscillator.amplitude, f"phase.oscillators[{k}].amplitude"),
        )
    native.set_neurons(neurons)
    for k, bound in enumerate(_checks.items(phase.bindings, "phase.bindings")):
        name = f"phase.bindings[{k}]"
        binding = _checks.record(Binding, bound, name)
        ids = _neurons.ids(binding.neurons, f"{name}.neurons", neurons)
        native.bind(
            ids,
            _checks.count(binding.oscillator, f"{name}.oscillator", most=2**32 - 1),
            _checks.flag(binding.inhibitory, f"{name}.inhibitory"),
            _checks.column(binding.strength, f"{name}.strength", np.float64, len(ids)),
            _checks.column(binding.phase_offset, f"{name}.phase_offset", np.float64, len(ids)),
        )
    for source, target, strength in couplings(phase.couplings):
        native.add_coupling(source, target, strength)
    native.coupling_period = _checks.time(phase.coupling_period, "phase.coupling_period")
    return native


def couplings(items: Sequence[Any]) -> list[tuple[int, int, float]]:
    """(source, target, strength) of each coupling."""
    result = []
    for k, item in enumerate(_checks.items(items, "couplings")):
        coupling = _checks.record(Coupling, item, f"couplings[{k}]")
        result.append(
            (
                _checks.count(coupling.source, f"couplings[{k}].source", most=2**32 - 1),
                _checks.count(coupling.target, f"couplings[{k}].target", most=2**32 - 1),
                _checks.real(coupling.strength, f"couplings[{k}].strength"),
            )
        )
    return result


SAMPLE_KINDS = (
    "membrane",
    "adaptation",
    "refractory_left",
    "next_candidate",
    "spike_counts",
    "oscillator_phases",
    "active_synapses",
)


def native_recorder(value: Any) -> Optional[_kelm.RecorderConfig]:
    if value is None:
        return None
    recorder = _checks.record(RecorderSettings, value, "recorder")
    native = _kelm.RecorderConfig()
    native.record_spikes = _checks.flag(recorder.spikes, "recorder.spikes")
    native.causal = _checks.flag(recorder.causal, "recorder.causal")
    native.sample_interval = _checks.time(recorder.sample_interval, "recorder.sample_interval")
    kinds = recorder.samples
    kinds = [kinds] if isinstance(kinds, str) else _checks.items(kinds, "recorder.samples")
    native.sample_kinds = [
        getattr(_kelm.SampleKind, _checks.choice(kind, "recorder.samples", SAMPLE_KINDS))
        for kind in kinds
    ]
    return native


def add_input_channels(options: _kelm.RuntimeOptions, items: Sequence[Any], neurons: int) -> None:
    for k, item in enumerate(items):
        name = f"input_channels[{k}]"
        channel = _checks.record(InputChannel, item, name)
        options.add_input_channel(
            _checks.text(channel.name, f"{name}.name"),
            _checks.count(channel.modality, f"{name}.modality", most=255),
            _neurons.ids(channel.targets, f"{name}.targets", neurons),
            _checks.time(channel.delay, f"{name}.delay"),
            _checks.real(channel.gain, f"{name}.gain"),
        )


def native_predictor(value: Any, name: str, neurons: int) -> Optional[_kelm.Predictor]:
    if value is None:
        return None
    predictor = _checks.record(Predictor, value, name)
    native = _kelm.Predictor()
    sources = _neurons.ids(predictor.sources, f"{name}.sources", neurons)
    weights = _checks.column(predictor.weights, f"{name}.weights", np.float64, len(sources))
    native.sources = sources.tolist()
    native.weights = weights.tolist()
    native.bias = _checks.real(predictor.bias, f"{name}.bias")
    return native


def add_error_channels(options: _kelm.RuntimeOptions, items: Sequence[Any], neurons: int) -> None:
    for k, item in enumerate(items):
        name = f"prediction[{k}]"
        channel = _checks.record(ErrorChannel, item, name)
        options.add_error_channel(
            _checks.text(channel.name, f"{name}.name"),
            _neurons.ids(channel.targets, f"{name}.targets", neurons),
            _checks.real(channel.precision, f"{name}.precision"),
            _checks.real(channel.strength, f"{name}.strength"),
            _checks.real(channel.clamp, f"{name}.clamp"),
            native_predictor(channel.predictor, f"{name}.predictor", neurons),
        )

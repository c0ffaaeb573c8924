"""All errors of kelm. Each one derives from :class:`Error` and from the built-in error that fits.

An error of the C++ library has the name of its class there. Its text names the argument, the value
and the rule.
"""


class Error(Exception):
    """The base of all errors of kelm."""


class ArgumentError(Error, ValueError):
    """An argument has a value, a shape or an order that is refused."""


class ArgumentTypeError(Error, TypeError):
    """An argument is of a type that is refused."""


class RangeError(Error, IndexError):
    """An index lies outside its list."""


class BusyError(Error, RuntimeError):
    """A call on a simulation while a run is on, from another thread or from a callback; or a use of
    a network from a function that its build calls."""


class NetworkTooLarge(ArgumentError, MemoryError):
    """A network that needs more memory than the machine has. Nothing was built."""


class PartMissing(Error, AttributeError):
    """A part that the simulation was made without."""


class FileError(Error, ValueError):
    """A file of another kind, cut short, or of another network."""


class EngineError(Error, RuntimeError):
    """The environment or a state of the engine is refused."""


class TimeOverflow(Error, OverflowError):
    """A sum of a time and a duration beyond 64 bits."""


class WindowEngineError(EngineError):
    """An engine that cannot be built, or a broken invariant of a run."""


class InvalidSynapse(ArgumentError):
    """A synapse that a network cannot hold."""


class SynapseRoutingViolation(RangeError):
    """A neuron or synapse outside the network."""


class InvalidLookahead(ArgumentError):
    """A calendar of events that cannot be built."""


class LookaheadViolation(EngineError):
    """An event for a window that is over."""


class InvalidShardLayout(ArgumentError):
    """A layout of device shards that cannot be."""


class InvalidThreadCount(ArgumentError):
    """More threads than a backend takes."""


class InvalidLearningControl(ArgumentError):
    """A setting that learning control refuses."""


class InvalidRecorder(ArgumentError):
    """A sample interval that a recorder refuses."""


class InvalidModel(ArgumentError):
    """A model or settings that cannot mean anything."""


class UnknownBackend(ArgumentError):
    """A backend that this machine or package does not have."""


class InvalidSpikeTrain(ArgumentError):
    """Spikes that cannot be given to a run."""


class RefusedCall(EngineError):
    """A call at the wrong time. Nothing has changed."""


class BrokenCausalTrace(EngineError):
    """An event whose declared cause was not recorded."""


class InvalidPrediction(ArgumentError):
    """An error channel, a predictor or a reported value that is refused."""


class InvalidIntervention(ArgumentError):
    """A perturbation or an intervention that cannot be applied."""


class InvalidModality(ArgumentError):
    """An input channel, or an injection on one, that is refused."""


class InvalidPhaseModulation(ArgumentError):
    """A phase binding or gain that is refused."""


class IncompatibleCheckpoint(EngineError):
    """A checkpoint of another version of the engine."""


class RefusedCheckpoint(EngineError):
    """A checkpoint that a simulation refuses. The text says why."""


class CheckpointFileError(EngineError):
    """A checkpoint file that cannot be written."""


class SpikeFileError(EngineError):
    """A spike file that cannot be written or continued."""


class InvalidMoment(ArgumentError):
    """A moment at which states are not known. The text names the known times."""


class InvalidProbe(ArgumentError):
    """A probe that is refused."""


class InvalidOscillator(ArgumentError):
    """An oscillator or a coupling that is refused."""


class InvalidPlasticity(ArgumentError):
    """A rule, trace or cap that plasticity refuses."""


class ReplayExhausted(EngineError):
    """A replay of a random stream past the end of its tape."""

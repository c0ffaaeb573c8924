#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "kelm/core/FailureDetail.h"

// All failure classes of the engine, with their fixed texts. The base class gives the kind of
// failure: std::invalid_argument for a refused value, std::logic_error for a broken invariant of a
// run, std::runtime_error for the environment and for arithmetic on time, std::out_of_range for an
// index outside a table. A class derived from DetailedFailure also holds a detail.

namespace Lumenar::Core::Kelm {

/// A sum of a time and a duration beyond the range of ModelTime.
class TimeOverflow : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    static constexpr const char* out_of_range = "KELM model time overflow";
};

/// An engine that cannot be built, or a broken invariant of a run.
class WindowEngineError : public std::logic_error, public DetailedFailure {
public:
    using std::logic_error::logic_error;
    static constexpr const char* horizon_not_positive =
        "the window engine needs a positive horizon";
    static constexpr const char* parameter_count =
        "per-neuron parameter count does not match graph";
    static constexpr const char* negative_hazard =
        "a neuron with a negative rate and a negative ceiling has a negative hazard";
    static constexpr const char* no_d_min = "the graph has no d_min, so no window can be formed";
    static constexpr const char* modulation_bounds =
        "initial modulation bounds do not match neurons";
    static constexpr const char* late_reseed = "initial candidates can only be reseeded before run";
    static constexpr const char* late_observation =
        "observer events must be declared before the run";
    static constexpr const char* late_take = "spikes can only be taken between runs";
    static constexpr const char* late_states = "states can only be read between runs";
    static constexpr const char* late_sampler = "samplers can only be added between runs";
    static constexpr const char* take_order =
        "a spike lies before the spikes that were taken: the store hands out windows out of order";
    static constexpr const char* bound_violation = "KELM hazard upper bound underestimated lambda";
    static constexpr const char* spike_overflow =
        "more spikes in one window than the model allows; check d_min against the refractory "
        "period";
    static constexpr const char* shadow_violation = "observer shadow run violated neuron bounds";
    static constexpr const char* past_candidate =
        "a candidate lies before the window that takes up its neuron";
    static constexpr const char* window_too_large =
        "a window holds more events than 32-bit indices can address";
    static constexpr const char* no_device =
        "no usable CUDA device; the CPU/GPU parity gate cannot be evaluated on this machine";
    static constexpr const char* resident_dimensions =
        "invalid resident CUDA preparation dimensions";
    static constexpr const char* recurrence_dimensions = "invalid resident recurrence dimensions";
    static constexpr const char* recurrence_fanout = "resident recurrence requires fixed fan-out";
    static constexpr const char* recurrence_edges =
        "resident recurrence requires enabled d_min edges";
    static constexpr const char* shard_dimensions = "invalid CUDA shard queue benchmark dimensions";
    static constexpr const char* shard_overflow = "CUDA shard queue benchmark size overflow";
    static constexpr const char* shard_fanout = "CUDA shard benchmark requires fixed fan-out";
    static constexpr const char* shard_lost = "CUDA shard count lost fan-out events";
    static constexpr const char* shard_order = "CUDA shard queue is not canonical";
    static constexpr const char* shard_physics = "CUDA shard neuron physics differs from CPU";
    static constexpr const char* shard_routing = "CUDA shard queue routing mismatch";
    /// A failed call of the device runtime. `what`: the call. `reason`: the runtime's text.
    static std::string device(const std::string& what, const std::string& reason) {
        return "CUDA " + what + ": " + reason;
    }
};

/// A synapse, or a declared smallest delay, that a network cannot hold.
class InvalidSynapse : public std::invalid_argument, public DetailedFailure {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* min_delay_not_positive = "network min_delay must be positive";
    static constexpr const char* endpoint = "synapse endpoint is outside the network";
    static constexpr const char* weight = "synapse weight magnitude must be finite and >= 0";
    static constexpr const char* delay = "synapse delay must be >= network min_delay and > 0";
    static constexpr const char* sign = "synapse sign must be 0 or 1";
    /// A column that does not have one value for each source.
    static std::string length(const std::string& column, std::size_t values, std::size_t sources) {
        return "synapse column " + column + " has " + std::to_string(values) + " values for " +
               std::to_string(sources) + " sources";
    }
};

/// A neuron or synapse index outside the network.
class SynapseRoutingViolation : public std::out_of_range {
public:
    using std::out_of_range::out_of_range;
    static constexpr const char* source = "KELM source NodeId is out of range";
    static constexpr const char* destination = "KELM destination NodeId is out of range";
    static constexpr const char* edge = "KELM synapse EdgeId is out of range";
};

/// A calendar that cannot be built.
class InvalidLookahead : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* d_min = "the event store needs a positive d_min";
    static constexpr const char* bucket_count = "the calendar ring needs at least four buckets";
};

/// An event for a window that was taken before, or for a negative time.
class LookaheadViolation : public std::logic_error {
public:
    using std::logic_error::logic_error;
    static constexpr const char* processed =
        "KELM event inserted into an already processed window; d_min does not bound this edge";
};

/// A shard count or a neuron that no shard layout has.
class InvalidShardLayout : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* shard_count = "CUDA shard count must be in [1, node count]";
    static constexpr const char* node = "CUDA shard node is outside the network";
};

/// A number of threads that a backend refuses.
class InvalidThreadCount : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
    static std::string tooMany(std::uint64_t threads, std::uint64_t most) {
        return "a backend takes at most " + std::to_string(most) + " threads, not " +
               std::to_string(threads);
    }
};

/// A setting or query that learning control refuses.
class InvalidLearningControl : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* group_query = "group query outside the network";
    static constexpr const char* group_neuron =
        "learning group set for a neuron outside the network";
    static constexpr const char* group = "learning group id must be below 1048576";
    static constexpr const char* fast_tau = "fast weight time constant must be positive";
    static constexpr const char* consolidation_rate = "consolidation rate must be in [0, 1]";
    static constexpr const char* journal_mode = "unknown journal mode";
    static constexpr const char* journal_rate = "journal rate must be in (0, 1]";
    static constexpr const char* weight_cap = "weight cap must be finite and >= 0";
    static constexpr const char* freeze = "learning freeze index must be below 3";
    static constexpr const char* gate_order = "learning gate moved back in time";
};

/// A sample interval that a recorder or its runtime refuses.
class InvalidRecorder : public std::invalid_argument, public DetailedFailure {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* negative_interval =
        "recorder sample interval must not be negative";
    static constexpr const char* short_interval =
        "recorder sample interval is too short for the horizon";
};

/// A model or options that makeRuntime refuses.
class InvalidModel : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* no_backend = "a runtime needs a backend";
    static constexpr const char* two_parameters =
        "the options give populations and also a neuron or firing of their own";
    static constexpr const char* share_and_ranks =
        "several ranks need the share of a network, and a share needs its ranks";
    static constexpr const char* share_of_another_rank =
        "the share of the network is not that of this rank";
    static constexpr const char* learning_on_ranks =
        "weights cannot learn in a network on several ranks: a trace of a source changes with the "
        "spikes of its targets, which lie on other ranks";
    /// `thing`: what rank `rank` has in another form than rank 0.
    static std::string otherOnRank(const std::string& thing, std::uint32_t rank) {
        return "rank " + std::to_string(rank) + " has another " + thing + " than rank 0";
    }
    static std::string populationSizes(const std::string& sum, std::uint64_t neurons) {
        return "the populations have " + sum + " neurons, and the network has " +
               std::to_string(neurons);
    }
    /// `list`: the texts of `count` findings.
    static std::string findings(std::size_t count, const std::string& list) {
        return "the model has " + std::to_string(count) + (count == 1 ? " error: " : " errors: ") +
               list;
    }
};

/// A name of a backend that this program or machine does not have.
class UnknownBackend : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
    static std::string named(const std::string& name, const std::string& available) {
        return "there is no backend '" + name + "' here; there are " + available;
    }
};

/// Spikes that cannot be given to a run.
class InvalidSpikeTrain : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* late = "spikes can be given once, before the first run";
    static constexpr const char* store = "spikes cannot be given to an engine with a store";
    static std::string unknown(std::size_t index, std::uint64_t neuron, std::uint64_t neurons) {
        return named(index) + "is of neuron " + std::to_string(neuron) + ", and the network has " +
               std::to_string(neurons);
    }
    static std::string order(std::size_t index, std::int64_t time, std::uint64_t neuron) {
        return named(index) + "(" + std::to_string(time) + " ns, neuron " + std::to_string(neuron) +
               ") must lie behind the one before, and not before 0";
    }
    static std::string fires(std::size_t index, std::uint64_t neuron) {
        return named(index) + "is of neuron " + std::to_string(neuron) +
               ", which fires by itself: its base rate must be 0";
    }

private:
    static std::string named(std::size_t index) {
        return "given spike " + std::to_string(index) + " ";
    }
};

/// A call at the wrong time on a runtime of makeRuntime. Nothing has changed.
class RefusedCall : public std::logic_error {
public:
    using std::logic_error::logic_error;
    static constexpr const char* after_failure =
        "a call of this runtime has failed, so it may only be read or destroyed";
    static constexpr const char* inside_run =
        "a callback of a run may not run, restore or reseed its runtime, nor set its callback";
    static constexpr const char* inside_window =
        "a window is being committed, so the runtime may only be read and get inputs";
    static constexpr const char* open_end = "the horizon is open, so a run must be given its end";
    static constexpr const char* fork_on_ranks = "a network on several ranks cannot be forked";
    static constexpr const char* fork_backend =
        "this runtime was given its backend, so its fork must be given one, too";
    static std::string backwards(std::int64_t until, std::int64_t position) {
        return "a run to " + std::to_string(until) + " ns goes backwards: the runtime is at " +
               std::to_string(position) + " ns";
    }
    static std::string pastHorizon(std::int64_t until, std::int64_t horizon) {
        return "a run to " + std::to_string(until) + " ns goes past the horizon, which is " +
               std::to_string(horizon) + " ns";
    }
    static std::string tooEarly(std::int64_t arrival, std::int64_t earliest) {
        return "an input that arrives at " + std::to_string(arrival) +
               " ns comes too early: the earliest time is " + std::to_string(earliest) + " ns";
    }
};

/// An event whose declared cause was not recorded.
class BrokenCausalTrace : public std::logic_error {
public:
    using std::logic_error::logic_error;
    static constexpr const char* unknown_cause = "recorder cause was never recorded";
};

/// An error channel, readout or reported value that prediction refuses.
class InvalidPrediction : public std::invalid_argument, public DetailedFailure {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* unnamed = "error channel needs a name";
    static constexpr const char* global =
        "a global error scalar is forbidden; declare local channels instead";
    static constexpr const char* no_targets = "error channel acts on no local circuit";
    static constexpr const char* precision = "precision must be finite and >= 0";
    static constexpr const char* strength = "error strength must be finite";
    static constexpr const char* clamp = "error clamp must be finite and > 0";
    static constexpr const char* unknown_channel = "unknown error channel";
    static constexpr const char* readout_shape = "predictor readout shape mismatch";
    static constexpr const char* no_sources = "an explicit predictor needs a source population";
    static constexpr const char* readout_weights = "predictor weights must be finite";
    static constexpr const char* readout_bias = "predictor bias must be finite";
    static constexpr const char* observed_values = "observed values must be finite";
    static constexpr const char* predictor_count =
        "runtime prediction channel and predictor counts differ";
    static constexpr const char* target = "runtime prediction target is outside the graph";
    static std::string duplicate(const std::string& name) {
        return "duplicate error channel '" + name + "'";
    }
};

/// A perturbation or an intervention that cannot be applied.
class InvalidIntervention : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* strength = "perturbation strength must be finite";
    static constexpr const char* no_targets = "perturbation names no neuron";
    static constexpr const char* target = "perturbation target is outside the graph";
    static constexpr const char* mechanism = "intervention names no mechanism";
    static constexpr const char* gain = "intervention gain must be finite";
    static constexpr const char* negative_gain =
        "intervention gain of oscillators and prediction must not be negative";
    static constexpr const char* kind =
        "this KELM runtime step supports activation and inhibition perturbations; phase, synaptic "
        "and forced-spike events need their typed commit handlers";
};

/// An input channel, or an injection on one, that is refused.
class InvalidModality : public std::invalid_argument, public DetailedFailure {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* unnamed = "an input channel must be named";
    static constexpr const char* value = "an injected value must be finite";
    static constexpr const char* target = "runtime input channel target is outside the graph";
    static constexpr const char* no_channels = "the runtime has no input channels";
    static std::string duplicate(const std::string& name) {
        return "duplicate input channel " + name;
    }
    static std::string noTargets(const std::string& name) {
        return "input channel " + name +
               " reaches no neuron; a channel without targets could not be disconnected in any "
               "measurable way";
    }
    static std::string negativeDelay(const std::string& name) {
        return "input channel " + name + " has a negative delay";
    }
    static std::string gain(const std::string& name) {
        return "input channel " + name + " has a non-finite gain";
    }
    static std::string repeatedTarget(const std::string& name) {
        return "input channel " + name + " repeats a target";
    }
    static std::string unknown(const std::string& name) { return "unknown input channel " + name; }
    static std::string backInTime(const std::string& name) {
        return "input channel " + name + " moved back in time";
    }
};

/// A phase binding, gain or interval that phase modulation refuses.
class InvalidPhaseModulation : public std::invalid_argument, public DetailedFailure {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* not_finite = "phase modulation must be finite";
    static constexpr const char* backwards = "phase bound interval runs backwards";
    static constexpr const char* capacity = "a neuron exceeds the kernel phase-binding capacity";
    static constexpr const char* gain = "oscillator gain must be finite and >= 0";
    static constexpr const char* binding_count =
        "runtime phase bindings do not match the neuron count";
};

/// A checkpoint that another version of the engine wrote.
class IncompatibleCheckpoint : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    static std::string version(const std::string& found, const std::string& expected) {
        return "checkpoint engine_version '" + found + "' is incompatible with '" + expected + "'";
    }
};

/// A checkpoint that a runtime refuses, with the reason.
class RefusedCheckpoint : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    static constexpr const char* no_checkpoint =
        "this is no checkpoint: it begins with other bytes than a checkpoint";
    static std::string cutShort(std::uint64_t byte, const std::string& part) {
        return "the checkpoint is cut short at byte " + std::to_string(byte) + ", in part '" +
               part + "'";
    }
    static std::string damaged(std::uint64_t byte, const std::string& part) {
        return "the checkpoint is damaged at byte " + std::to_string(byte) + ", in part '" + part +
               "'";
    }
    /// `found`: whether the checkpoint has the part. The runtime differs.
    static std::string part(const std::string& part, bool found) {
        return found ? "the checkpoint has " + part + ", and this runtime has none"
                     : "the checkpoint has no " + part + ", and this runtime has some";
    }
    static std::string count(const std::string& things, std::uint64_t found,
                             std::uint64_t expected) {
        return "the checkpoint has " + std::to_string(found) + " " + things +
               ", and this runtime has " + std::to_string(expected);
    }
    static std::string configId(std::uint64_t found, std::uint64_t expected) {
        return "the checkpoint is of another network or of other settings: it has config id " +
               std::to_string(found) + ", and this runtime has " + std::to_string(expected);
    }
    static std::string seed(std::uint64_t found, std::uint64_t expected) {
        return "the checkpoint has seed " + std::to_string(found) + ", and this runtime has " +
               std::to_string(expected);
    }
    static std::string label(const std::string& found, const std::string& expected) {
        return "the checkpoint has label " + found + ", and this runtime has " + expected;
    }
    static std::string state(const std::string& part) {
        return "the checkpoint's state of " + part + " does not fit this runtime";
    }
};

/// A checkpoint file that cannot be written or read.
class CheckpointFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    /// `reason`: the system's text.
    static std::string failed(const std::string& action, const std::string& path,
                              const std::string& reason) {
        return "cannot " + action + " checkpoint file '" + path + "': " + reason;
    }
};

/// A spike file that cannot be written or continued.
class SpikeFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    /// `reason`: the system's text.
    static std::string failed(const std::string& action, const std::string& path,
                              const std::string& reason) {
        return "cannot " + action + " spike file '" + path + "': " + reason;
    }
    static std::string otherKind(const std::string& path) {
        return "'" + path + "' is no spike file";
    }
    static std::string shorter(const std::string& path, std::uint64_t found,
                               std::uint64_t expected) {
        return "spike file '" + path + "' holds " + std::to_string(found) + " spikes, fewer than " +
               std::to_string(expected);
    }
};

/// A moment at which the states of a run are not known.
class InvalidMoment : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
    static std::string outside(std::int64_t time, std::int64_t first, std::int64_t last) {
        return "states are known from " + std::to_string(first) + " ns to " + std::to_string(last) +
               " ns, not at " + std::to_string(time) + " ns";
    }
};

/// A probe that a runtime refuses.
class InvalidProbe : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* interval = "a probe's interval must be at least 1 ns";
    static constexpr const char* no_neurons = "a probe names no neuron";
    static constexpr const char* no_fields = "a probe names no field";
    static constexpr const char* field = "a probe names an unknown field";
    static std::string neuron(std::uint64_t neuron, std::uint64_t neuron_count) {
        return "a probe names neuron " + std::to_string(neuron) + " of a network of " +
               std::to_string(neuron_count);
    }
};

/// An oscillator or a coupling that an oscillator bank refuses.
class InvalidOscillator : public std::invalid_argument, public DetailedFailure {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* parameters = "invalid KELM oscillator parameters";
    static constexpr const char* duplicate = "duplicate KELM oscillator id";
    static constexpr const char* unknown = "unknown KELM oscillator id";
    static constexpr const char* period = "oscillator coupling period must be positive";
    static constexpr const char* strength = "oscillator coupling strength must be finite";
    static constexpr const char* into_the_past = "oscillator coupling advanced into the past";
};

/// A rule, trace or cap that plasticity refuses.
class InvalidPlasticity : public std::invalid_argument, public DetailedFailure {
public:
    using std::invalid_argument::invalid_argument;
    static constexpr const char* windows = "plasticity trace windows must be positive";
    static constexpr const char* epsilon = "plasticity trace epsilon must be finite and >= 0";
    static constexpr const char* amplitudes_not_finite = "plasticity amplitudes must be finite";
    static constexpr const char* amplitudes_negative = "plasticity amplitudes must be non-negative";
    static constexpr const char* into_the_past = "plasticity trace advanced into the past";
    static constexpr const char* cap = "homeostasis cap must be finite and > 0";
};

}  // namespace Lumenar::Core::Kelm

namespace Lumenar::Core::Runtime {

/// A replay of a random stream past the end of its tape.
class ReplayExhausted : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    static std::string stream(const std::string& name) {
        return "RandomContext replay exhausted: " + name;
    }
};

}  // namespace Lumenar::Core::Runtime

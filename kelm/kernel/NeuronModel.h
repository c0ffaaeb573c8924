#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelm/core/Gap.h"
#include "kelm/core/ModelTime.h"
#include "kelm/core/PortableMath.h"

// A neuron is a point process. A membrane and an adaptation trace decay exponentially between
// events; their difference and an external drive set the hazard of an inhomogeneous Poisson
// process, the escape-rate form of the spike response model (W. Gerstner, W. M. Kistler, R. Naud,
// L. Paninski, "Neuronal Dynamics", 2014, chapter 9). Nothing is integrated on a grid: each trace
// is known in closed form at any instant from its last value.
//
// The order of operations in every formula is part of the result (see PortableMath.h).

namespace Lumenar::Core::Kelm::Kernel {

/// The state of one neuron. Copied to a device and into blobs byte for byte.
struct State {
    double membrane = 0.0;           ///< membrane trace, as of last_update
    double adaptation = 0.0;         ///< adaptation trace, as of last_update
    ModelTime last_update = 0;       ///< ns; the time at which the traces have these values
    ModelTime refractory_until = 0;  ///< ns; end of the refractory time of the last spike
    double hazard_bound = 0.0;       ///< spikes/s; the bound at the end of the last window
};
static_assert(std::is_trivially_copyable_v<State> && std::is_standard_layout_v<State>);
static_assert(sizeof(State) == 40);
static_assert(offsetof(State, adaptation) == 8);
static_assert(offsetof(State, last_update) == 16);
static_assert(offsetof(State, refractory_until) == 24);
static_assert(offsetof(State, hazard_bound) == 32);

/// Parameters of one neuron's dynamics. They are not validated: the effect of a bad value follows
/// from the arithmetic. Equality is numeric, so a record with a NaN does not equal itself.
struct Neuron {
    ModelTime tau_membrane = 10'000'000;      ///< ns; time constant of the membrane trace
    ModelTime tau_adaptation = 100'000'000;   ///< ns; time constant of the adaptation trace
    ModelTime refractory_period = 2'000'000;  ///< ns; refractory time after a spike
    double adaptation_increment = 1.0;        ///< added to the adaptation trace at each spike
    double input_coupling = 0.0;   ///< multiplicative share of an input in the membrane update
    double reset_value = 0.0;      ///< membrane trace after a spike
    double trace_epsilon = 1e-15;  ///< a decayed trace of smaller magnitude becomes exactly 0
    bool hard_refractory = true;   ///< no spike can occur before refractory_until
    bool non_leaky = false;        ///< the membrane trace does not decay
    Gap<6> gap = {};               ///< always zero: equal records have equal bytes

    friend bool operator==(const Neuron&, const Neuron&) = default;
};
static_assert(std::is_trivially_copyable_v<Neuron> && std::is_standard_layout_v<Neuron>);
static_assert(sizeof(Neuron) == 64);
static_assert(offsetof(Neuron, tau_adaptation) == 8);
static_assert(offsetof(Neuron, refractory_period) == 16);
static_assert(offsetof(Neuron, adaptation_increment) == 24);
static_assert(offsetof(Neuron, input_coupling) == 32);
static_assert(offsetof(Neuron, reset_value) == 40);
static_assert(offsetof(Neuron, trace_epsilon) == 48);
static_assert(offsetof(Neuron, hard_refractory) == 56);
static_assert(offsetof(Neuron, non_leaky) == 57);
static_assert(offsetof(Neuron, gap) == 58);

/// Parameters of the hazard. Equality is numeric, as for Neuron.
struct Firing {
    double base_rate = 0.5;          ///< spikes/s; hazard at zero net drive
    double gain = 4.0;               ///< slope of the exponent per unit of net drive
    double threshold = 0.0;          ///< subtracted from the net drive
    double adaptation_weight = 1.0;  ///< weight of the adaptation trace in the net drive
    double rate_scale = 1.0;         ///< second factor of the base rate
    double max_rate = 1'000'000.0;   ///< spikes/s; ceiling of the hazard
    bool spare_flag = false;         ///< copied and compared, read by no formula
    Gap<7> gap = {};                 ///< always zero: equal records have equal bytes

    friend bool operator==(const Firing&, const Firing&) = default;
};
static_assert(std::is_trivially_copyable_v<Firing> && std::is_standard_layout_v<Firing>);
static_assert(sizeof(Firing) == 56);
static_assert(offsetof(Firing, gain) == 8);
static_assert(offsetof(Firing, threshold) == 16);
static_assert(offsetof(Firing, adaptation_weight) == 24);
static_assert(offsetof(Firing, rate_scale) == 32);
static_assert(offsetof(Firing, max_rate) == 40);
static_assert(offsetof(Firing, spare_flag) == 48);
static_assert(offsetof(Firing, gap) == 49);

/// The terms that follow from a neuron's parameters alone.
struct NeuronTerms {
    bool silent;              ///< no hazard, whatever the drive
    bool membrane_falls;      ///< a positive membrane trace decays
    double rate;              ///< spikes/s; hazard at zero net drive less threshold
    double cap;               ///< largest exponent of the hazard
    double margin;            ///< added to a drive's bound, for traces clipped later
    double membrane_decay;    ///< 1/ns; 1 / tau_membrane
    double adaptation_decay;  ///< 1/ns; 1 / tau_adaptation
    /// The smallest adaptation trace for which a minimum of the net drive needs no sample (see
    /// netDriveBound); infinity if the parameters do not allow that.
    double minimum_adaptation;

    // Terms of hazardEstimate.
    /// The estimate is valid while the magnitudes of traces and drive sum to less; 0: never.
    double reach;
    double slack;  ///< added to the drive, for clipped traces
    bool adaptation_outlasts_membrane;
};

/// The parameters of a neuron and the terms that follow from them. One model serves all walks of
/// neurons with these parameters.
struct NeuronModel : NeuronTerms {
    KELM_HD NeuronModel(const Neuron& dynamics, const Firing& hazard);
    /// The model whose parts these are. Kernels of a device take the parts as separate arguments.
    KELM_HD NeuronModel(const Neuron& dynamics, const Firing& hazard, const NeuronTerms& terms)
        : NeuronTerms(terms), neuron(dynamics), firing(hazard) {}

    Neuron neuron;
    Firing firing;
};

/// NeuronTerms::minimum_adaptation.
KELM_HD inline double minimumAdaptation(const Neuron& neuron, const Firing& firing) {
    const ModelTime membrane = neuron.tau_membrane;
    const ModelTime adaptation = neuron.tau_adaptation;
    if (membrane < (1 << 17) || membrane > (1 << 30)) return infinity();
    if (adaptation < membrane + membrane / 16 || adaptation > membrane * 1024) return infinity();
    // All products stay far inside the normal numbers.
    if (!(firing.adaptation_weight >= 0x1p-60 && firing.adaptation_weight <= 0x1p60)) {
        return infinity();
    }
    if (!(neuron.trace_epsilon <= 1.0)) return infinity();
    const double clipped = neuron.trace_epsilon * 0x1p27;
    return clipped > 0x1p-900 ? clipped : 0x1p-900;
}

KELM_HD inline NeuronModel::NeuronModel(const Neuron& dynamics, const Firing& hazard)
    : neuron(dynamics), firing(hazard) {
    silent = firing.base_rate == 0 || firing.rate_scale == 0;
    membrane_falls = !neuron.non_leaky && neuron.tau_membrane > 0;
    rate = firing.base_rate * firing.rate_scale;
    cap = silent ? 0.0 : kernelLog(firing.max_rate / rate);
    // Each trace may be clipped by up to epsilon after the bound was computed.
    const double twice = (firing.adaptation_weight + 1.0) + (firing.adaptation_weight + 1.0);
    margin = twice * neuron.trace_epsilon;
    membrane_decay = 1.0 / static_cast<double>(neuron.tau_membrane);
    adaptation_decay = 1.0 / static_cast<double>(neuron.tau_adaptation);
    minimum_adaptation = minimumAdaptation(neuron, firing);

    slack = magnitude(margin) + 0x1p-1000;
    // A negative weight is left out because the margin is then smaller than the clipping.
    adaptation_outlasts_membrane =
        !neuron.non_leaky && neuron.tau_adaptation >= neuron.tau_membrane &&
        firing.adaptation_weight >= 0 && firing.adaptation_weight <= 0x1p60;
    // Exponents of at most 600 in magnitude keep a bound from becoming 0. A larger rate only makes
    // the estimate infinite. The least gain keeps every sum far inside the range of numbers. A NaN
    // among the parameters gives no reach.
    const double span = 600.0 / firing.gain - 4.0 * (slack + magnitude(firing.threshold));
    const bool regular = neuron.tau_membrane > 0 && neuron.tau_adaptation > 0 &&
                         firing.gain >= 0x1p-900 && rate >= 0x1p-100 && cap >= -600.0;
    reach = regular && span > 0 ? span : 0.0;
}

/// The interval of a decay in ns. Both ends are rounded before the subtraction: past 2^53 ns the
/// exact difference would round differently.
KELM_HD inline double decayInterval(ModelTime from, ModelTime to) {
    return static_cast<double>(to) - static_cast<double>(from);
}

/// `value` after an exponential decay over `interval` ns with time constant `tau` ns. Exactly 0.0
/// if its magnitude is below `epsilon`; a trace of 0 costs no exponential.
KELM_HD inline double decayTrace(double value, double interval, ModelTime tau, double epsilon) {
    if (value == 0 || interval == 0) return value;
    const double decayed = kernelExp(-interval / static_cast<double>(tau)) * value;
    return epsilon > magnitude(decayed) ? 0.0 : decayed;
}

/// The two traces at one time.
struct Traces {
    double membrane;
    double adaptation;
};

/// The traces `interval` ns after state.last_update. The state does not change.
KELM_HD inline Traces tracesAfter(const State& state, const Neuron& neuron, double interval) {
    return {neuron.non_leaky
                ? state.membrane
                : decayTrace(state.membrane, interval, neuron.tau_membrane, neuron.trace_epsilon),
            decayTrace(state.adaptation, interval, neuron.tau_adaptation, neuron.trace_epsilon)};
}

/// Sets the traces of the state to their values at `time` ns.
KELM_HD inline void setTraces(State& state, const Traces& traces, ModelTime time) {
    state.membrane = traces.membrane;
    state.adaptation = traces.adaptation;
    state.last_update = time;
}

/// Moves both traces, and last_update, to `time` in ns.
KELM_HD inline void advanceTraces(State& state, const Neuron& neuron, ModelTime time) {
    setTraces(state, tracesAfter(state, neuron, decayInterval(state.last_update, time)), time);
}

/// The traces' part of the net drive at `time` ns. The state does not change.
KELM_HD inline double netDriveAt(const State& state, const Neuron& neuron, const Firing& firing,
                                 ModelTime time) {
    const Traces traces = tracesAfter(state, neuron, decayInterval(state.last_update, time));
    // The sum with 0.0 turns a -0.0 into +0.0.
    return 0.0 + (traces.membrane - traces.adaptation * firing.adaptation_weight);
}

/// The hazard in spikes/s, an exponential escape rate. `x`: the net drive less the threshold. The
/// ceiling limits the exponent, so at the ceiling the hazard can differ from max_rate in the last
/// places.
KELM_HD inline double hazardOf(const NeuronModel& model, double x) {
    if (model.silent) return 0.0;
    const double exponent = x * model.firing.gain;
    // A comparison, not a library minimum: a NaN operand gives the cap.
    return kernelExp(exponent < model.cap ? exponent : model.cap) * model.rate;
}
KELM_HD inline double hazardOf(const Firing& firing, double x) {
    return hazardOf(NeuronModel(Neuron(), firing), x);
}

/// The hazard in spikes/s at `time` ns under an external drive. `traces`: their values at `time`.
KELM_HD inline double hazardAt(const State& state, const Traces& traces, const NeuronModel& model,
                               ModelTime time, double drive) {
    if (model.neuron.hard_refractory && time < state.refractory_until) return 0.0;
    const double weighted = traces.adaptation * model.firing.adaptation_weight;
    return hazardOf(model, ((traces.membrane - weighted) + drive) - model.firing.threshold);
}

/// The larger of two drives. A NaN operand gives `b`.
KELM_HD inline double largerDrive(double a, double b) { return a > b ? a : b; }

/// The largest value of the traces' part of the net drive on [start, to], in ns.
///
/// That part is a difference of two exponentials, so its maximum lies at an end or at the one
/// interior extremum. The extremum is sampled at the integer times on both sides, because
/// candidates have integer times.
///
/// If both terms are positive (which follows from a positive weight, adaptation and ratio) and the
/// membrane decays faster, the interior extremum is a minimum, and a sample there cannot exceed the
/// drive at the start. This is true for the rounded values too under the conditions of
/// minimumAdaptation, for times below 2^51 and for x := ratio - 1 of at least 1/64. Let W be the
/// weighted adaptation, S the sum of both terms at the start, k1 and k2 the rates. Up to half the
/// way to the minimum the slope is at least W * k2 * exp(-k2 * t) * (sqrt(ratio) - 1). So the drive
/// falls by more than 0.09 * min(1, k2 / (k1 - k2)) * x^2 * W for x up to 1: with k2 at least
/// k1 / 1024 by more than 2e-8 * W, which is at least 7e-9 * S. For x above 1: if the membrane is
/// at least 2 * W, the drive falls by at least S / 3, because it becomes negative; else by more
/// than 1e-4 * W. The errors are smaller: the rounding of the samples below 1e-14 * S, their
/// distance from the minimum of up to 1.5 ns below 1e-10 * S, and the clipping of the adaptation
/// below its weight times trace_epsilon.
KELM_HD inline double netDriveBound(const State& state, const NeuronModel& model, ModelTime start,
                                    ModelTime to) {
    const Neuron& neuron = model.neuron;
    const Firing& firing = model.firing;
    const Traces traces = tracesAfter(state, neuron, decayInterval(state.last_update, start));
    const double weighted = traces.adaptation * firing.adaptation_weight;
    double bound = (traces.membrane - weighted) + 0.0;
    // A positive membrane trace alone only falls: kernelExp of a number not above 0 is at most 1,
    // so a later value is not above this one. (An infinite one can become a NaN.)
    if (model.membrane_falls && start == state.last_update && traces.membrane > 0 &&
        traces.membrane < infinity() && traces.adaptation == 0 && weighted == 0) {
        return bound;
    }
    bound = largerDrive(bound, netDriveAt(state, neuron, firing, to));

    if (neuron.non_leaky || traces.membrane == 0 || weighted == 0) return bound;
    const double k1 = model.membrane_decay;
    const double k2 = model.adaptation_decay;
    if (k1 == k2) return bound;
    const double ratio = (traces.membrane * k1) / (weighted * k2);
    if (!(ratio > 0)) return bound;
    // The extremum lies before the start if the logarithm and the difference differ in sign, which
    // the ratio shows without the logarithm.
    const double difference = k1 - k2;
    if (difference > 0 ? ratio <= 1 : ratio >= 1) return bound;
    if (ratio >= 1.0 + 0x1p-6 && traces.adaptation >= model.minimum_adaptation &&
        start == state.last_update && start < ModelTime{1} << 51) {
        return bound;
    }
    const double shift = kernelLog(ratio) / difference;
    if (isNotFinite(shift) || !(shift > 0)) return bound;
    const double first = static_cast<double>(start);
    const double extremum = first + shift;
    if (!(extremum > first && extremum < static_cast<double>(to))) return bound;
    const auto before = static_cast<ModelTime>(extremum);
    bound = largerDrive(bound, netDriveAt(state, neuron, firing, before));
    if (before < to) {
        bound = largerDrive(bound, netDriveAt(state, neuron, firing, before + 1));
    }
    return bound;
}

/// The earliest time from `from` on at which a spike is possible, in ns: the end of the refractory
/// time if that is later.
KELM_HD inline ModelTime firstSpikeTime(const State& state, const Neuron& neuron, ModelTime from) {
    return neuron.hard_refractory && state.refractory_until > from ? state.refractory_until : from;
}

/// An upper bound in spikes/s of the hazard on [from, to], in ns, for an external drive of at most
/// `drive_bound`. 0.0 if no spike is possible.
KELM_HD inline double hazardUpperBound(const State& state, const NeuronModel& model, ModelTime from,
                                       ModelTime to, double drive_bound) {
    const ModelTime start = firstSpikeTime(state, model.neuron, from);
    if (start > to) return 0.0;
    const double drive = netDriveBound(state, model, start, to);
    return hazardOf(model, ((model.margin + drive) + drive_bound) - model.firing.threshold);
}
KELM_HD inline double hazardUpperBound(const State& state, const Neuron& neuron,
                                       const Firing& firing, ModelTime from, ModelTime to,
                                       double drive_bound) {
    return hazardUpperBound(state, NeuronModel(neuron, firing), from, to, drive_bound);
}

/// An upper estimate, in spikes/s, of the bound of any draw from the state's time on. NaN if there
/// is none. If it is a number, the bound is neither 0 nor NaN. Costs a dozen operations; a bound
/// costs up to nine exponentials.
///
/// Later traces are not larger in magnitude and keep their signs. So the traces' part of the net
/// drive is at most the positive part of the membrane less the negative part of the weighted
/// adaptation. If that adaptation is positive and lasts as long as the membrane, the drive at time
/// t is at most exp(-t / tau_adaptation) times the difference of both, and so at most the positive
/// part of the difference. This argument alone is not exact in rounded numbers: its errors are
/// below 2^-50 of the two traces, or come from a trace that is clipped. The rest of the bound's
/// formula follows in its own order, in which rounded operations are monotonic.
KELM_HD inline double hazardEstimate(const State& state, const NeuronModel& model,
                                     double drive_bound) {
    const double weighted = state.adaptation * model.firing.adaptation_weight;
    const double spread = magnitude(state.membrane) + magnitude(weighted);
    if (!(spread + magnitude(drive_bound) < model.reach)) return quietNan();
    const double membrane = state.membrane > 0 ? state.membrane : 0.0;
    const double inhibition = model.adaptation_outlasts_membrane || weighted < 0 ? weighted : 0.0;
    const double difference = membrane - inhibition;
    const double drive = (difference > 0 ? difference : 0.0) + (spread * 0x1p-46 + model.slack);
    const double exponent =
        (((model.margin + drive) + drive_bound) - model.firing.threshold) * model.firing.gain;
    constexpr double log2_e = PortableMathConstants::inv_ln2;
    return powerOfTwoBound((exponent < model.cap ? exponent : model.cap) * log2_e) * model.rate;
}

/// Applies an input of `value` at the time of the state.
KELM_HD inline void applyInput(State& state, const Neuron& neuron, double value) {
    state.membrane = ((state.membrane * neuron.input_coupling) * value + value) + state.membrane;
}

/// The sum of a time and a refractory period, limited to the range of ModelTime: a neuron with an
/// endless period fires once, instead of having a refractory time that wraps into the past.
KELM_HD inline ModelTime refractoryEnd(ModelTime period, ModelTime time) {
    constexpr ModelTime last = 0x7fffffffffffffff;
    if (period > 0 && time > last - period) return last;
    if (period < 0 && time < -last - 1 - period) return -last - 1;
    return period + time;
}

/// Applies a spike at `time` ns, the time of the state.
KELM_HD inline void applySpike(State& state, const Neuron& neuron, ModelTime time) {
    state.membrane = neuron.reset_value;
    state.adaptation = neuron.adaptation_increment + state.adaptation;
    state.refractory_until = refractoryEnd(neuron.refractory_period, time);
}

}  // namespace Lumenar::Core::Kelm::Kernel

#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelm/core/Gap.h"
#include "kelm/core/ModelTime.h"
#include "kelm/core/PortableMath.h"
#include "kelm/core/SplitMix64.h"
#include "kelm/kernel/NeuronModel.h"

// The walk of one neuron through one window: inputs in order, and between them spikes by thinning.
// Candidates are drawn from a homogeneous Poisson process at an upper bound of the hazard and
// accepted with the ratio of the hazard to the bound (P. A. W. Lewis, G. S. Shedler, "Simulation
// of nonhomogeneous Poisson processes by thinning", Naval Research Logistics Quarterly 26, 1979).
//
// A walk reads its arguments and writes its result, so the neurons of a window may be computed in
// any order, at the same time and on any processor. It throws nothing and allocates nothing.

namespace Lumenar::Core::Kelm {

/// One sine term of an external drive.
struct PhaseTerm {
    double amplitude = 0.0;  ///< factor of the sine
    double phase = 0.0;      ///< radians, at the drive's origin
    double omega = 0.0;      ///< radians per ns
};
static_assert(std::is_trivially_copyable_v<PhaseTerm> && std::is_standard_layout_v<PhaseTerm>);
static_assert(sizeof(PhaseTerm) == 24);
static_assert(offsetof(PhaseTerm, phase) == 8);
static_assert(offsetof(PhaseTerm, omega) == 16);

/// Sine terms that one neuron's drive can hold.
inline constexpr int max_phase_terms = 8;

/// The external drive of one neuron during one window. All zero without modulation.
struct PhaseDrive {
    ModelTime origin = 0;         ///< ns; the time at which the terms have their phases
    double base = 0.0;            ///< constant part
    double bound = 0.0;           ///< upper bound of the whole drive during the window
    std::int32_t term_count = 0;  ///< terms in use, 0 to max_phase_terms
    Gap<4> gap = {};              ///< always zero: equal drives have equal bytes
    PhaseTerm terms[max_phase_terms] = {};
};
static_assert(std::is_trivially_copyable_v<PhaseDrive> && std::is_standard_layout_v<PhaseDrive>);
static_assert(sizeof(PhaseDrive) == 224);
static_assert(offsetof(PhaseDrive, base) == 8);
static_assert(offsetof(PhaseDrive, bound) == 16);
static_assert(offsetof(PhaseDrive, term_count) == 24);
static_assert(offsetof(PhaseDrive, gap) == 28);
static_assert(offsetof(PhaseDrive, terms) == 32);

namespace Kernel {

/// One event of a neuron in a window. Copied to a device byte for byte.
struct WindowEvent {
    ModelTime time = 0;      ///< ns
    double value = 0.0;      ///< signed input, in units of the membrane trace
    bool wake_only = false;  ///< wakes the neuron for its candidate, is no input
    Gap<7> gap = {};         ///< always zero: equal events have equal bytes
};
static_assert(std::is_trivially_copyable_v<WindowEvent> && std::is_standard_layout_v<WindowEvent>);
static_assert(sizeof(WindowEvent) == 24);
static_assert(offsetof(WindowEvent, value) == 8);
static_assert(offsetof(WindowEvent, wake_only) == 16);
static_assert(offsetof(WindowEvent, gap) == 17);

/// The most spikes of one neuron in one window. A neuron with a hard refractory period of at least
/// an eighth of the window cannot exceed it.
inline constexpr int max_window_spikes = 8;

/// The result of a walk. If a flag is set, the rest is partial and must not be committed.
struct WindowResult {
    State state;                                    ///< at the end of the walk
    std::uint64_t rng = 0;                          ///< raw generator state after the walk
    std::int32_t spike_count = 0;                   ///< 0 to max_window_spikes
    Gap<4> count_gap = {};                          ///< always zero
    ModelTime spike_times[max_window_spikes] = {};  ///< ns, ascending; 0 from spike_count on
    ModelTime next_candidate = no_time;  ///< ns; pending candidate after the window, or no_time
    double next_bound = 0.0;             ///< spikes/s; its bound, negative for a marker
    std::uint32_t updates = 0;           ///< inputs applied plus candidates evaluated
    std::uint32_t candidates = 0;        ///< candidates evaluated
    std::uint32_t accepted = 0;          ///< candidates accepted
    bool spike_overflow = false;         ///< a spike past max_window_spikes was accepted
    bool bound_violation = false;        ///< a candidate's hazard exceeded its bound
    Gap<2> gap = {};                     ///< always zero: equal results have equal bytes
};
static_assert(std::is_trivially_copyable_v<WindowResult> &&
              std::is_standard_layout_v<WindowResult>);
static_assert(sizeof(WindowResult) == 152);
static_assert(offsetof(WindowResult, rng) == 40);
static_assert(offsetof(WindowResult, spike_count) == 48);
static_assert(offsetof(WindowResult, count_gap) == 52);
static_assert(offsetof(WindowResult, spike_times) == 56);
static_assert(offsetof(WindowResult, next_candidate) == 120);
static_assert(offsetof(WindowResult, next_bound) == 128);
static_assert(offsetof(WindowResult, updates) == 136);
static_assert(offsetof(WindowResult, candidates) == 140);
static_assert(offsetof(WindowResult, accepted) == 144);
static_assert(offsetof(WindowResult, spike_overflow) == 148);
static_assert(offsetof(WindowResult, bound_violation) == 149);
static_assert(offsetof(WindowResult, gap) == 150);

}  // namespace Kernel

/// One neuron's work in one window. Copied to a device byte for byte.
struct WindowWork {
    NodeId neuron = 0;
    Kernel::State state;            ///< at the start of the window
    Kernel::Neuron parameters;      ///< this neuron's dynamics
    Kernel::Firing firing;          ///< this neuron's hazard
    std::uint64_t rng = 0;          ///< raw state of the neuron's random stream
    std::uint32_t first_event = 0;  ///< index of its first event in the window's event array
    std::uint32_t event_count = 0;  ///< events from there on, ascending by (time, id)
    ModelTime pending_time = 0;     ///< ns; the pending candidate, or no_time
    double pending_bound = 0.0;     ///< spikes/s it was drawn under; negative for a marker
    PhaseDrive drive;
};
static_assert(std::is_trivially_copyable_v<WindowWork> && std::is_standard_layout_v<WindowWork>);
static_assert(sizeof(WindowWork) == 424);
static_assert(offsetof(WindowWork, state) == 8);
static_assert(offsetof(WindowWork, parameters) == 48);
static_assert(offsetof(WindowWork, firing) == 112);
static_assert(offsetof(WindowWork, rng) == 168);
static_assert(offsetof(WindowWork, first_event) == 176);
static_assert(offsetof(WindowWork, event_count) == 180);
static_assert(offsetof(WindowWork, pending_time) == 184);
static_assert(offsetof(WindowWork, pending_bound) == 192);
static_assert(offsetof(WindowWork, drive) == 200);

namespace Kernel {

/// Moves `rng` by one step and returns a double in [0, 1) with 53 random bits.
KELM_HD inline double drawUniform(std::uint64_t& rng) {
    rng = rng + splitmix_increment;
    constexpr double two_m53 = 1.1102230246251565e-16;
    static_assert(bitsOf(two_m53) == 0x3ca0000000000000);
    return static_cast<double>(splitmixOutput(rng) >> 11) * two_m53;
}

/// The external drive at `time` ns.
KELM_HD inline double phaseDriveAt(const PhaseDrive& drive, ModelTime time) {
    // An integer difference, so that the phase loses no digits at large times. Unsigned arithmetic,
    // so that it is defined for every pair of times.
    const auto elapsed = static_cast<ModelTime>(static_cast<std::uint64_t>(time) -
                                                static_cast<std::uint64_t>(drive.origin));
    const double t = static_cast<double>(elapsed);
    double sum = drive.base;
    for (std::int32_t i = 0; i < drive.term_count; ++i) {
        const PhaseTerm& term = drive.terms[i];
        const double x = t * term.omega + term.phase;
        sum = sum + kernelSin(x) * term.amplitude;
    }
    return sum;
}

/// A drawn candidate.
struct Candidate {
    ModelTime time = 0;  ///< ns, if found
    double bound = 0.0;  ///< spikes/s; valid also if no time was found
    bool found = false;
};

/// A waiting time of `wait` ns as an integer of at least 1, rounded half up.
/// `wait` must be below 9e18 and no NaN.
KELM_HD inline ModelTime waitingTime(double wait) {
    // Every negative wait gives 1, and its conversion could be out of range.
    if (wait < 0) return 1;
    const auto rounded = static_cast<ModelTime>(wait + 0.5);
    return rounded < 1 ? 1 : rounded;
}

/// Draws the next candidate after `from` and before `limit`, both in ns, under an external drive of
/// at most `drive_bound`. Moves `rng` by one step if and only if the bound is not 0. A candidate
/// comes at least 1 ns after the time from which it is drawn.
KELM_HD inline Candidate nextCandidate(const State& state, const NeuronModel& model, ModelTime from,
                                       ModelTime limit, double drive_bound, std::uint64_t& rng) {
    Candidate result;
    const ModelTime start = firstSpikeTime(state, model.neuron, from);
    if (start >= limit) return result;
    const double bound = hazardUpperBound(state, model, start, limit, drive_bound);
    if (bound == 0) return result;
    result.bound = bound;
    double u = drawUniform(rng);
    if (u == 0) u = 2.2250738585072014e-308;
    const double wait = -kernelLog(u) / bound * 1e9;
    if (isNotFinite(wait) || wait >= 9e18) return result;
    const ModelTime step = waitingTime(wait);
    // start + step >= limit, without a sum that could overflow.
    if (static_cast<std::uint64_t>(step) >=
        static_cast<std::uint64_t>(limit) - static_cast<std::uint64_t>(start)) {
        return result;
    }
    result.time = start + step;
    result.found = true;
    return result;
}
KELM_HD inline Candidate nextCandidate(const State& state, const Neuron& neuron,
                                       const Firing& firing, ModelTime from, ModelTime limit,
                                       double drive_bound, std::uint64_t& rng) {
    return nextCandidate(state, NeuronModel(neuron, firing), from, limit, drive_bound, rng);
}

/// True if the candidate of a draw at the state's time cannot come before the next input, at `next`
/// ns, which then replaces it. Moves `rng` in that case as nextCandidate does. False also if the
/// estimate cannot decide.
///
/// The waiting time is -log(u) / bound * 1e9, and -log(u) is at least 1 - u. The rounding to whole
/// ns takes less than 1 ns. The estimate exceeds the bound by more than all relative errors of both
/// sides.
KELM_HD inline bool skipCandidate(const State& state, const NeuronModel& model, ModelTime next,
                                  ModelTime limit, double drive_bound, std::uint64_t& rng) {
    const ModelTime start = firstSpikeTime(state, model.neuron, state.last_update);
    // Before time 0 the difference of two times could overflow.
    if (state.last_update < 0 || start >= limit) return false;
    std::uint64_t moved = rng;
    const double u = drawUniform(moved);
    const double room = static_cast<double>(next - start) + 1.0;
    // A NaN estimate fails.
    if (!((1.0 - u) * 1e9 > hazardEstimate(state, model, drive_bound) * room)) return false;
    rng = moved;
    return true;
}

/// A hazard above its bound by more than this factor is an error of the bound, not of rounding.
inline constexpr double bound_tolerance = 1.000000000001;
static_assert(bitsOf(bound_tolerance) == 0x3ff0000000001198);

/// Leaves every input to the walk.
struct NoInputRuns {
    KELM_HD std::uint32_t operator()(State&, std::uint64_t&, const NeuronModel&, const WindowEvent*,
                                     std::uint32_t, ModelTime, ModelTime, double) const {
        return 0;
    }
};

/// Walks one neuron through the window that ends at `window_end`, exclusive.
///
/// `events`: shape (event_count), ascending by (time, id). Those from window_end on are not taken.
/// `horizon`: exclusive end of the run in ns. `pending_time`, `pending_bound`: the candidate from
/// earlier windows. An input replaces a candidate of the same time.
///
/// Random draws, in order: one for each bound other than 0, and one for each candidate, after its
/// bound check and before the next bound.
///
/// `runs`: may apply several inputs at once, as runInputs does; changes no result.
template <class InputRuns = NoInputRuns>
KELM_HD inline WindowResult processWindow(const State& state, std::uint64_t rng,
                                          const NeuronModel& model, const WindowEvent* events,
                                          std::uint32_t event_count, ModelTime window_end,
                                          ModelTime horizon, const PhaseDrive& drive,
                                          ModelTime pending_time, double pending_bound,
                                          InputRuns runs = {}) {
    const Neuron& neuron = model.neuron;
    WindowResult result;
    result.state = state;
    result.rng = rng;
    ModelTime candidate = pending_time;
    double bound = pending_bound;

    // With phase terms the drive's bound is valid for this window only. The draw then ends with the
    // window and leaves a marker there, at which the next window draws again.
    const bool modulated = drive.term_count > 0;
    const ModelTime limit = modulated ? window_end : horizon;
    const auto redraw = [&](ModelTime from) {
        const Candidate next =
            nextCandidate(result.state, model, from, limit, drive.bound, result.rng);
        bound = next.bound;
        if (next.found) {
            candidate = next.time;
        } else if (modulated && window_end < horizon) {
            candidate = window_end;
            bound = -1.0;
        } else {
            candidate = no_time;
        }
    };

    // Whether a run is worth a try: not if a candidate has come due since the last input.
    bool quiet = true;
    std::uint32_t i = 0;
    while (true) {
        while (i < event_count && events[i].wake_only) ++i;
        const bool has_event = i < event_count && events[i].time < window_end;
        const ModelTime event_time = has_event ? events[i].time : window_end;

        if (candidate >= 0 && candidate < event_time) {
            if (bound < 0) {
                redraw(candidate);
                continue;
            }
            quiet = false;
            ++result.updates;
            ++result.candidates;
            const ModelTime time = candidate;
            const Traces traces =
                tracesAfter(result.state, neuron, decayInterval(result.state.last_update, time));
            const double hazard =
                hazardAt(result.state, traces, model, time, phaseDriveAt(drive, time));
            if (hazard > bound * bound_tolerance) {
                result.bound_violation = true;
                return result;
            }
            setTraces(result.state, traces, time);
            const double u = drawUniform(result.rng);
            const double ratio = bound == 0 ? 0.0 : hazard / bound;
            if (ratio > u) {
                ++result.accepted;
                if (result.spike_count >= max_window_spikes) {
                    result.spike_overflow = true;
                    return result;
                }
                result.spike_times[result.spike_count] = time;
                ++result.spike_count;
                applySpike(result.state, neuron, time);
            }
            redraw(time);
            continue;
        }

        if (!has_event) break;
        std::uint32_t applied = quiet ? runs(result.state, result.rng, model, events + i,
                                             event_count - i, window_end, limit, drive.bound)
                                      : 0;
        if (applied == 0) {
            advanceTraces(result.state, neuron, event_time);
            applyInput(result.state, neuron, events[i].value);
            applied = 1;
        }
        quiet = true;
        i += applied;
        result.updates += applied;
        while (i < event_count && events[i].wake_only) ++i;
        if (i < event_count && events[i].time < window_end &&
            skipCandidate(result.state, model, events[i].time, limit, drive.bound, result.rng)) {
            candidate = no_time;
        } else {
            redraw(result.state.last_update);
        }
    }

    result.next_candidate = candidate;
    result.next_bound = bound;
    result.state.hazard_bound = bound;
    return result;
}

KELM_HD inline WindowResult processWindow(const State& state, std::uint64_t rng,
                                          const Neuron& neuron, const Firing& firing,
                                          const WindowEvent* events, std::uint32_t event_count,
                                          ModelTime window_end, ModelTime horizon,
                                          const PhaseDrive& drive, ModelTime pending_time,
                                          double pending_bound) {
    return processWindow(state, rng, NeuronModel(neuron, firing), events, event_count, window_end,
                         horizon, drive, pending_time, pending_bound);
}

/// The walk of a work item. `model`: of the item's parameters. `events`: of the item's window.
template <class InputRuns = NoInputRuns>
KELM_HD inline WindowResult processWindow(const WindowWork& item, const NeuronModel& model,
                                          const WindowEvent* events, ModelTime window_end,
                                          ModelTime horizon, InputRuns runs = {}) {
    return processWindow(item.state, item.rng, model, events + item.first_event, item.event_count,
                         window_end, horizon, item.drive, item.pending_time, item.pending_bound,
                         runs);
}
KELM_HD inline WindowResult processWindow(const WindowWork& item, const WindowEvent* events,
                                          ModelTime window_end, ModelTime horizon) {
    return processWindow(item, NeuronModel(item.parameters, item.firing), events, window_end,
                         horizon);
}

}  // namespace Kernel

}  // namespace Lumenar::Core::Kelm

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/ModelTime.h"
#include "kelm/runtime/PhaseConfig.h"
#include "kelm/runtime/PhaseSample.h"

namespace Lumenar::Core::Kelm {

/// The phase of `oscillator` at `time` ns, moved by `offset` radians: in [0, 2 pi), but for a
/// rounding that can give 2 pi itself. A closed form, as exact centuries from zero as at zero, and
/// the same bits whatever was asked before.
/// Throws InvalidOscillator for a frequency or amplitude that is negative or not finite, and for a
/// phase or offset that is not finite.
double phaseAt(const Oscillator& oscillator, ModelTime time, double offset);

/// The oscillators of a runtime: global clocks, and the coupling that moves their phases.
///
/// Nothing is integrated: a phase is a closed form of model time, and the one thing that moves is
/// an offset per oscillator, which coupling changes on a fixed grid of model time. The coupling is
/// that of Y. Kuramoto, "Chemical Oscillations, Waves, and Turbulence", Springer, 1984, by explicit
/// Euler steps of one coupling period.
///
/// Invariant: ids are unique, every oscillator has valid parameters, couplings name oscillators of
/// the bank and have a positive period, and the time up to which coupling has been applied,
/// couplingSteps() * couplingPeriod(), is a valid ModelTime. Oscillators keep their positions for
/// the bank's whole life. Coupling starts disabled.
///
/// Used by one thread at a time: a query keeps its answer, as every neuron of a window asks for the
/// same few phases.
class OscillatorBank {
public:
    /// Takes over the oscillators, which keep their order. Throws InvalidOscillator for the first
    /// one with a parameter that is refused or an id that is taken.
    explicit OscillatorBank(std::vector<Oscillator> oscillators);

    /// The position of an oscillator. Throws InvalidOscillator for an unknown id.
    std::size_t indexOf(std::uint32_t id) const;
    /// Throws InvalidOscillator for an unknown id.
    const Oscillator& oscillator(std::uint32_t id) const { return oscillators_[indexOf(id)]; }
    /// In bank order.
    std::span<const Oscillator> oscillators() const { return oscillators_; }

    /// The phase at `time` ns under the present offset, in radians. Throws InvalidOscillator for an
    /// unknown id, and for an offset that coupling has driven out of the finite numbers.
    double phaseOf(std::uint32_t id, ModelTime time) const {
        return phaseOfPosition(indexOf(id), time);
    }
    /// The same without looking an id up. `position` must lie in the bank.
    double phaseOfPosition(std::size_t position, ModelTime time) const {
        Answer& last = answers_[position];
        if (!last.holds || last.time != time) {
            // Only an answer is kept, so a throw leaves the one before.
            last = {time, phaseAt(oscillators_[position], time, phase_offsets_[position]), true};
        }
        return last.phase;
    }
    /// The phases of all oscillators at `time` ns, in bank order. Throws as phaseOf does.
    std::vector<PhaseSample> allPhases(ModelTime time) const;
    /// The phases at `time` ns of the oscillators of which the neuron is a member, in the order of
    /// its list; empty for a neuron without a list. Throws as phaseOf does.
    std::vector<PhaseSample> neuronPhases(NodeId neuron, ModelTime time) const;

    /// The first of neuronPhases, in radians, or 0.0 where there is none. Throws as phaseOf does.
    double firstPhase(NodeId neuron, ModelTime time) const {
        if (neuron >= memberships_.size() || memberships_[neuron].empty()) return 0.0;
        return phaseOfPosition(memberships_[neuron].front(), time);
    }

    /// Sets which oscillators are reported for a neuron: one list of ids per neuron, by NodeId. The
    /// table may be shorter than the network and is not part of a snapshot.
    /// Throws InvalidOscillator for an unknown id; the old table then stays.
    void setMemberships(std::vector<std::vector<std::uint32_t>> memberships);

    /// Replaces the couplings and starts the count of steps anew, from time 0; coupling stays
    /// enabled or disabled as it is. `period`: ns, positive unless the list is empty.
    /// Throws InvalidOscillator for the period, then for the first coupling with an unknown source,
    /// an unknown target or a strength that is not finite; nothing is changed then.
    void configureCoupling(std::vector<OscillatorCoupling> couplings, ModelTime period);

    /// Whether advanceCoupling takes steps. While disabled the count of steps stands, so that the
    /// first advance after enabling takes every step since.
    void setCouplingEnabled(bool enabled) { coupling_enabled_ = enabled; }
    bool isCouplingEnabled() const { return coupling_enabled_; }

    /// Takes every coupling step that ends at or before `time` ns. A step reads all phases before
    /// it moves an offset, so only the order of a sum depends on the order of the couplings.
    ///
    /// Costs nothing but a comparison unless a step is due. Each step costs one phase per coupled
    /// oscillator and one sine per coupling, and the number of steps is bounded by nothing but
    /// `time` over the period: catching up a long stretch in short steps takes that long.
    ///
    /// Throws InvalidOscillator for a time before the steps already taken, enabled or not;
    /// TimeOverflow if the step after the last one due ends beyond the range of ModelTime; and what
    /// phaseOf throws, for strengths so large that an offset overflows. Steps before a throw stand.
    void advanceCoupling(ModelTime time);

    /// Radians, one per oscillator, in bank order.
    std::span<const double> phaseOffsets() const { return phase_offsets_; }
    std::span<const OscillatorCoupling> couplings() const { return couplings_; }
    ModelTime couplingPeriod() const { return coupling_period_; }
    std::uint64_t couplingSteps() const { return coupling_steps_; }

    /// Format "KELMOSC2": tag, oscillator count (8), coupling period (8), coupling steps (8),
    /// coupling enabled (1), then each oscillator in 36 bytes: id (4), frequency (8), phase (8),
    /// amplitude (8), offset (8). Couplings and memberships are configuration and not in it.
    Blob snapshot() const;

    /// Takes steps, flag and offsets from `blob`. False for a blob that is cut short, forged, of
    /// another format or from a bank with other oscillators or another period; the bank is then as
    /// it was.
    [[nodiscard]] bool restore(BlobView blob);

private:
    /// A coupling with its ids looked up.
    struct Pull {
        std::size_t source;
        std::size_t target;
        double strength;
    };

    /// The last phase that was asked for.
    struct Answer {
        ModelTime time = 0;
        double phase = 0.0;
        bool holds = false;  ///< under the present offset
    };

    void forgetAnswers() { answers_.assign(oscillators_.size(), Answer()); }
    ModelTime coupledUntil() const {
        return static_cast<ModelTime>(coupling_steps_) * coupling_period_;
    }
    void takeStep(ModelTime now, std::vector<double>& phases, std::vector<double>& deltas);

    std::vector<Oscillator> oscillators_;
    std::unordered_map<std::uint32_t, std::size_t> index_;  ///< id to position, never walked
    std::vector<double> phase_offsets_;
    mutable std::vector<Answer> answers_;                  ///< by position
    std::vector<std::vector<std::uint32_t>> memberships_;  ///< positions, per neuron
    std::vector<OscillatorCoupling> couplings_;
    std::vector<Pull> pulls_;           ///< one per coupling
    std::vector<std::size_t> coupled_;  ///< positions that occur in pulls_, ascending
    ModelTime coupling_period_ = 0;
    std::uint64_t coupling_steps_ = 0;
    bool coupling_enabled_ = false;
};

}  // namespace Lumenar::Core::Kelm

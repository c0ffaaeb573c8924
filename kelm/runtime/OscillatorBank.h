#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/ModelTime.h"
#include "kelm/runtime/PhaseConfig.h"
#include "kelm/runtime/PhaseSample.h"

namespace Lumenar::Core::Kelm {

/// The phase of `oscillator` at `time` ns, moved by `offset` radians. It lies in [0, 2 pi);
/// rounding can give 2 pi itself. The closed form is as exact centuries from time 0 as at time 0.
/// Throws InvalidOscillator for a frequency or amplitude that is negative or not finite, and for a
/// phase or offset that is not finite.
double phaseAt(const Oscillator& oscillator, ModelTime time, double offset);

/// The oscillators of a runtime: global clocks, and the coupling that moves their phases.
///
/// A phase is a closed form of model time. Nothing is integrated. The only state that changes is
/// one offset per oscillator, which coupling moves on a fixed grid of model time. The coupling is
/// that of Y. Kuramoto, "Chemical Oscillations, Waves, and Turbulence", Springer, 1984, by explicit
/// Euler steps of one coupling period.
///
/// Invariant: ids are unique, every oscillator has valid parameters, couplings name oscillators of
/// the bank and have a positive period, and the time up to which coupling was applied,
/// couplingSteps() * couplingPeriod(), is a valid ModelTime. Oscillators keep their positions for
/// the bank's whole life. Coupling starts disabled.
///
/// Const operations write nothing, so several threads may call them at once.
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
    /// The same without the look-up of an id. `position` must lie in the bank.
    double phaseOfPosition(std::size_t position, ModelTime time) const {
        return phaseAt(oscillators_[position], time, phase_offsets_[position]);
    }
    /// The phases of all oscillators at `time` ns, in bank order. Throws as phaseOf does.
    std::vector<PhaseSample> allPhases(ModelTime time) const;
    /// The phases at `time` ns of the oscillators reported for a neuron, in the order of its list.
    /// Empty for a neuron without a list. Throws as phaseOf does.
    std::vector<PhaseSample> neuronPhases(NodeId neuron, ModelTime time) const;
    /// The positions of the oscillators reported for a neuron, in the order of its list.
    std::span<const std::uint32_t> positionsOf(NodeId neuron) const {
        if (neuron >= memberships_.size()) return {};
        return memberships_[neuron];
    }

    /// Sets which oscillators are reported for a neuron: one list of ids per neuron, by NodeId. The
    /// table may be shorter than the network. A snapshot does not hold it.
    /// Throws InvalidOscillator for an unknown id; the old table then stays.
    void setMemberships(std::vector<std::vector<std::uint32_t>> memberships);

    /// Replaces the couplings and sets the count of steps to 0. Coupling stays enabled or disabled.
    /// `period`: ns, positive unless the list is empty.
    /// Throws InvalidOscillator, with nothing changed, for the period, then for the first coupling
    /// with an unknown source, an unknown target or a strength that is not finite.
    void configureCoupling(std::vector<OscillatorCoupling> couplings, ModelTime period);

    /// Sets whether advanceCoupling takes steps. While coupling is disabled the count of steps does
    /// not change, so the first advance after enabling takes every step since.
    void setCouplingEnabled(bool enabled) { coupling_enabled_ = enabled; }
    bool isCouplingEnabled() const { return coupling_enabled_; }

    /// Takes every coupling step that ends at or before `time` ns. A step reads all phases before
    /// it moves an offset, so only the order of a sum depends on the order of the couplings.
    ///
    /// Costs one comparison if no step is due. Each step costs one phase per coupled oscillator and
    /// one sine per coupling. The number of steps is `time` over the period at most.
    ///
    /// Throws InvalidOscillator for a time before the steps already taken, enabled or not;
    /// TimeOverflow if the step after the last one due ends beyond the range of ModelTime; and what
    /// phaseOf throws, for strengths so large that an offset overflows. Steps before a throw stay.
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

    /// What a run changes.
    struct State {
        std::uint64_t coupling_steps = 0;
        bool coupling_enabled = false;
        std::vector<double> phase_offsets;  ///< radians, in bank order
    };
    /// Reads a snapshot for adopt. No value for a blob that is cut short, forged, of another format
    /// or from a bank with other oscillators or another period.
    std::optional<State> read(BlobView blob) const;
    /// `state` must come from read() of this bank.
    void adopt(State&& state) noexcept;
    /// Reads and adopts. False, with the bank unchanged, for a blob that read() refuses.
    [[nodiscard]] bool restore(BlobView blob);

private:
    /// A coupling with its ids looked up.
    struct PlacedCoupling {
        std::size_t source;
        std::size_t target;
        double strength;
    };

    ModelTime coupledUntil() const {
        return static_cast<ModelTime>(coupling_steps_) * coupling_period_;
    }
    void takeStep(ModelTime now, std::vector<double>& phases, std::vector<double>& deltas);

    std::vector<Oscillator> oscillators_;
    std::unordered_map<std::uint32_t, std::size_t> index_;  ///< id to position, never walked
    std::vector<double> phase_offsets_;
    std::vector<std::vector<std::uint32_t>> memberships_;  ///< positions, per neuron
    std::vector<OscillatorCoupling> couplings_;
    std::vector<PlacedCoupling> placed_couplings_;  ///< one per coupling
    std::vector<std::size_t> coupled_;  ///< positions that occur in placed_couplings_, ascending
    ModelTime coupling_period_ = 0;
    std::uint64_t coupling_steps_ = 0;
    bool coupling_enabled_ = false;
};

}  // namespace Lumenar::Core::Kelm

#pragma once

#include <cstddef>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/WindowProcessing.h"
#include "kelm/runtime/OscillatorBank.h"
#include "kelm/runtime/PhaseConfig.h"

namespace Lumenar::Core::Kelm {

/// The phase bindings of one neuron: turns its oscillators into the sine terms that the kernel
/// evaluates, and bounds their sum for the thinning of candidates.
///
/// Sums run over the bindings in the order in which they were added. A binding without effect, be
/// it for its polarity, its strength, the oscillator's amplitude or the gain, takes no term.
/// Borrows its bank, which must stay where it is and outlive the modulator.
class PhaseModulator {
public:
    /// Without bindings, at gain 1.
    explicit PhaseModulator(const OscillatorBank& bank) : bank_(&bank) {}

    /// Throws InvalidOscillator for an oscillator that the bank lacks, whatever the polarity, then
    /// InvalidPhaseModulation for a strength or offset that is not finite; nothing is added then.
    void addBinding(const PhaseBinding& binding);

    /// Sets the factor of all bindings. Throws InvalidPhaseModulation unless it is finite and >= 0.
    void setGain(double gain);

    /// The signed factor of a binding's sine under the present gain; 0.0 for a polarity that is
    /// neither excitatory nor inhibitory. The binding need not be one of this modulator's.
    /// Throws InvalidOscillator for an oscillator that the bank lacks.
    double effectiveAmplitude(const PhaseBinding& binding) const;

    /// The sum of the magnitudes of all effective amplitudes: no drive can exceed it.
    double weightSum() const;

    /// An upper bound of the terms' sum on [start, end], in ns: the sum of each term's own maximum,
    /// at the sine that the kernel computes. It allows for an end that is off by 1e-12 radians, and
    /// leaves the rounding of the drive's sum to the caller's margin of some 1e-10. Two things cost
    /// more digits than that: offsets beyond some 1e5 radians, which the kernel's sine reduces in
    /// one step, and odd times past 2^53 ns, which are rounded before they are subtracted.
    /// Throws InvalidPhaseModulation for an interval that runs backwards, and what
    /// OscillatorBank::phaseOf throws.
    double intervalBound(ModelTime start, ModelTime end) const;

    /// The terms as the kernel takes them, with their phases at `origin` ns, and `bound` as the
    /// drive's bound. Throws InvalidPhaseModulation for more than max_phase_terms effective
    /// bindings, and what OscillatorBank::phaseOf throws.
    PhaseDrive kernelDrive(ModelTime origin, double bound) const;

private:
    /// A binding with its oscillator looked up, since every window asks for it.
    struct Tie {
        PhaseBinding binding;
        std::size_t position;
    };

    double amplitudeOf(const PhaseBinding& binding, const Oscillator& oscillator) const;
    double amplitudeOf(const Tie& tie) const {
        return amplitudeOf(tie.binding, bank_->oscillators()[tie.position]);
    }
    double phaseOf(const Tie& tie, ModelTime time) const {
        return bank_->phaseOfPosition(tie.position, time) + tie.binding.phase_offset;
    }

    const OscillatorBank* bank_;
    std::vector<Tie> ties_;
    double gain_ = 1.0;
};

}  // namespace Lumenar::Core::Kelm

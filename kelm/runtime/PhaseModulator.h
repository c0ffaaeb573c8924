#pragma once

#include <cstddef>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/WindowProcessing.h"
#include "kelm/runtime/InstantPhases.h"
#include "kelm/runtime/OscillatorBank.h"
#include "kelm/runtime/PhaseConfig.h"

namespace Lumenar::Core::Kelm {

/// The phase bindings of one neuron. Turns its oscillators into the sine terms that the kernel
/// evaluates, and bounds their sum for the thinning of candidates.
///
/// Sums run over the bindings in the order of addition. A binding whose effective amplitude is 0
/// takes no term. The bank is borrowed: it must stay at its address and outlive the modulator.
class PhaseModulator {
public:
    /// Without bindings, at gain 1.
    explicit PhaseModulator(const OscillatorBank& bank) : bank_(&bank) {}

    /// Makes a copy refer to a copy of the bank.
    void moveTo(const OscillatorBank& bank) { bank_ = &bank; }

    /// Throws, with nothing added, InvalidOscillator for an oscillator that the bank lacks,
    /// whatever the polarity, then InvalidPhaseModulation for a strength or offset that is not
    /// finite.
    void addBinding(const PhaseBinding& binding);

    /// Sets the factor of all bindings. Throws InvalidPhaseModulation unless it is finite and >= 0.
    void setGain(double gain);

    /// The signed factor of a binding's sine under the current gain. 0.0 for a polarity that is
    /// neither excitatory nor inhibitory. The binding may be any, not only one of this modulator.
    /// Throws InvalidOscillator for an oscillator that the bank lacks.
    double effectiveAmplitude(const PhaseBinding& binding) const;

    /// The sum of the magnitudes of all effective amplitudes. No drive exceeds it.
    double weightSum() const;

    /// An upper bound of the terms' sum on [start, end], in ns: the sum of the maximum of each
    /// term, by the sine that the kernel computes. It allows for an end that is off by 1e-12
    /// radians. The caller adds a margin of about 1e-10 for the rounding of the drive's sum. Two
    /// cases lose more digits: offsets beyond about 1e5 radians, which the kernel's sine reduces in
    /// one step, and odd times past 2^53 ns, which are rounded before the subtraction. Throws
    /// InvalidPhaseModulation for an interval that runs backwards, and what OscillatorBank::phaseOf
    /// throws.
    double intervalBound(ModelTime start, ModelTime end) const;
    /// The same for an interval that starts at the time of `phases`, which must be of this bank.
    double intervalBound(InstantPhases& phases, ModelTime end) const;

    /// The terms as the kernel takes them, with their phases at `origin` ns, and `bound` as the
    /// drive's bound. Throws InvalidPhaseModulation for more than max_phase_terms effective
    /// bindings, and what OscillatorBank::phaseOf throws.
    PhaseDrive kernelDrive(ModelTime origin, double bound) const;
    /// The same with the time of `phases` as origin. They must be of this bank.
    PhaseDrive kernelDrive(InstantPhases& phases, double bound) const;

private:
    /// A binding and the position of its oscillator.
    struct PlacedBinding {
        PhaseBinding binding;
        std::size_t position;
    };

    double amplitudeOf(const PhaseBinding& binding, const Oscillator& oscillator) const;
    double amplitudeOf(const PlacedBinding& placed) const {
        return amplitudeOf(placed.binding, bank_->oscillators()[placed.position]);
    }
    /// `phase_of`: the phase at the start or origin of the oscillator at a position.
    template <class PhaseOf>
    double boundOf(ModelTime start, ModelTime end, PhaseOf phase_of) const;
    template <class PhaseOf>
    PhaseDrive driveOf(ModelTime origin, double bound, PhaseOf phase_of) const;

    const OscillatorBank* bank_;
    std::vector<PlacedBinding> bindings_;
    double gain_ = 1.0;
};

}  // namespace Lumenar::Core::Kelm

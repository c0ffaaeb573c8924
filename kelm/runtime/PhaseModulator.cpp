#include "kelm/runtime/PhaseModulator.h"

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "kelm/core/Failures.h"
#include "kelm/core/PortableMath.h"

namespace Lumenar::Core::Kelm {

namespace {

using Kernel::PortableMathConstants::pi;
using Kernel::PortableMathConstants::pi_2;
using Kernel::PortableMathConstants::two_pi;

constexpr double ns_per_second = 1e9;
constexpr std::uint8_t excitatory = 0;
constexpr std::uint8_t inhibitory = 1;

bool isInert(const PhaseBinding& binding) {
    return binding.polarity != excitatory && binding.polarity != inhibitory;
}

/// The largest value of the sine on [theta, theta + span], in radians.
double sineMaximum(double theta, double span) {
    if (!(two_pi > span)) return 1.0;
    const double last = (span + 1e-12) + theta;
    const double crest = std::ceil((theta - pi_2) / two_pi) * two_pi + pi_2;
    if (last >= crest) return 1.0;
    // The kernel's own sine: the bound must hold for the values that the kernel computes.
    const double at_last = Kernel::kernelSin(last);
    const double at_theta = Kernel::kernelSin(theta);
    return at_last > at_theta ? at_last : at_theta;
}

double sineMinimum(double theta, double span) { return -sineMaximum(theta + pi, span); }

}  // namespace

void PhaseModulator::addBinding(const PhaseBinding& binding) {
    const std::size_t position = bank_->indexOf(binding.oscillator);
    if (!std::isfinite(binding.strength) || !std::isfinite(binding.phase_offset)) {
        throw InvalidPhaseModulation(InvalidPhaseModulation::not_finite);
    }
    bindings_.push_back({binding, position});
}

void PhaseModulator::setGain(double gain) {
    if (!std::isfinite(gain) || gain < 0.0) {
        throw InvalidPhaseModulation(InvalidPhaseModulation::gain);
    }
    gain_ = gain;
}

double PhaseModulator::amplitudeOf(const PhaseBinding& binding,
                                   const Oscillator& oscillator) const {
    if (isInert(binding)) return 0.0;
    return ((binding.polarity == inhibitory ? -gain_ : gain_) * binding.strength) *
           oscillator.amplitude;
}

double PhaseModulator::effectiveAmplitude(const PhaseBinding& binding) const {
    if (isInert(binding)) return 0.0;
    return amplitudeOf(binding, bank_->oscillator(binding.oscillator));
}

double PhaseModulator::weightSum() const {
    double sum = 0.0;
    for (const PlacedBinding& placed : bindings_) sum = sum + std::fabs(amplitudeOf(placed));
    return sum;
}

template <class PhaseOf>
double PhaseModulator::boundOf(ModelTime start, ModelTime end, PhaseOf phase_of) const {
    if (end < start) throw InvalidPhaseModulation(InvalidPhaseModulation::backwards);
    const double seconds = (static_cast<double>(end) - static_cast<double>(start)) / ns_per_second;
    double sum = 0.0;
    for (const PlacedBinding& placed : bindings_) {
        const double amplitude = amplitudeOf(placed);
        if (amplitude == 0.0) continue;
        const double theta = phase_of(placed.position) + placed.binding.phase_offset;
        const double span = (bank_->oscillators()[placed.position].frequency * two_pi) * seconds;
        const double extreme =
            amplitude > 0.0 ? sineMaximum(theta, span) : sineMinimum(theta, span);
        sum = sum + extreme * amplitude;
    }
    return sum;
}

double PhaseModulator::intervalBound(ModelTime start, ModelTime end) const {
    return boundOf(start, end,
                   [&](std::size_t position) { return bank_->phaseOfPosition(position, start); });
}

double PhaseModulator::intervalBound(InstantPhases& phases, ModelTime end) const {
    return boundOf(phases.time(), end,
                   [&](std::size_t position) { return phases.phaseOfPosition(position); });
}

template <class PhaseOf>
PhaseDrive PhaseModulator::driveOf(ModelTime origin, double bound, PhaseOf phase_of) const {
    PhaseDrive drive;
    drive.origin = origin;
    drive.bound = bound;
    for (const PlacedBinding& placed : bindings_) {
        const double amplitude = amplitudeOf(placed);
        if (amplitude == 0.0) continue;
        if (drive.term_count == max_phase_terms) {
            throw InvalidPhaseModulation(InvalidPhaseModulation::capacity);
        }
        PhaseTerm& term = drive.terms[drive.term_count];
        term.amplitude = amplitude;
        term.phase = phase_of(placed.position) + placed.binding.phase_offset;
        term.omega = (bank_->oscillators()[placed.position].frequency * two_pi) / ns_per_second;
        ++drive.term_count;
    }
    return drive;
}

PhaseDrive PhaseModulator::kernelDrive(ModelTime origin, double bound) const {
    return driveOf(origin, bound,
                   [&](std::size_t position) { return bank_->phaseOfPosition(position, origin); });
}

PhaseDrive PhaseModulator::kernelDrive(InstantPhases& phases, double bound) const {
    return driveOf(phases.time(), bound,
                   [&](std::size_t position) { return phases.phaseOfPosition(position); });
}

}  // namespace Lumenar::Core::Kelm

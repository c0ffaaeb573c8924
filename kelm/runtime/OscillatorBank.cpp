#include "kelm/runtime/OscillatorBank.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/core/PortableMath.h"

namespace Lumenar::Core::Kelm {

namespace {

using Kernel::PortableMathConstants::two_pi;

constexpr BlobTag format_tag("KELMOSC2");
constexpr std::size_t oscillator_bytes = 36;
constexpr ModelTime second = 1'000'000'000;
constexpr double ns_per_second = 1e9;

bool isFactor(double value) { return std::isfinite(value) && !(value < 0.0); }

/// fmod(cycles, 1.0) for `cycles` in [0, 2). Both the remainder and this subtraction are exact.
double wrapCycle(double cycles) { return cycles >= 1.0 ? cycles - 1.0 : cycles; }

/// The fractional part of `fraction` * `count`, for a fraction in [0, 1), by doubling. The product
/// itself would round away low digits of the fraction.
double fractionalProduct(double fraction, std::uint64_t count) {
    double sum = 0.0;
    // A fraction of few bits, such as that of 7.25, soon doubles to 0.
    for (; count != 0 && fraction != 0.0; count >>= 1) {
        if ((count & 1) != 0) sum = wrapCycle(sum + fraction);
        fraction = wrapCycle(fraction + fraction);
    }
    return sum;
}

/// `x` radians modulo 2 pi. A tiny negative remainder can round up to 2 pi.
double wrapPhase(double x) {
    const double rest = std::fmod(x, two_pi);
    return rest < 0.0 ? rest + two_pi : rest;
}

/// The first parameter that phaseAt refuses.
std::optional<FailureDetail> faultOf(const Oscillator& oscillator, std::size_t position) {
    const auto detail = [position](const char* field, double value, const char* bound) {
        return FailureDetail{"oscillator", position, field, decimal(value), bound};
    };
    if (!isFactor(oscillator.frequency)) {
        return detail("frequency", oscillator.frequency, "finite and at least 0");
    }
    if (!std::isfinite(oscillator.phase)) return detail("phase", oscillator.phase, "finite");
    if (!isFactor(oscillator.amplitude)) {
        return detail("amplitude", oscillator.amplitude, "finite and at least 0");
    }
    return std::nullopt;
}

}  // namespace

double phaseAt(const Oscillator& oscillator, ModelTime time, double offset) {
    if (!isFactor(oscillator.frequency) || !std::isfinite(oscillator.phase) ||
        !isFactor(oscillator.amplitude) || !std::isfinite(offset)) {
        throw InvalidOscillator(InvalidOscillator::parameters);
    }
    // Whole seconds contribute only the fraction of their cycles, the rest of a second all cycles.
    const ModelTime whole = time / second;
    const ModelTime rest = time - whole * second;
    const double fraction = std::fmod(oscillator.frequency, 1.0);
    const double whole_cycles =
        whole < 0 ? -fractionalProduct(fraction, static_cast<std::uint64_t>(-whole))
                  : fractionalProduct(fraction, static_cast<std::uint64_t>(whole));
    const double cycles =
        (static_cast<double>(rest) / ns_per_second) * oscillator.frequency + whole_cycles;
    return wrapPhase(std::fmod(cycles, 1.0) * two_pi + (oscillator.phase + offset));
}

OscillatorBank::OscillatorBank(std::vector<Oscillator> oscillators)
    : oscillators_(std::move(oscillators)), phase_offsets_(oscillators_.size(), 0.0) {
    index_.reserve(oscillators_.size());
    for (std::size_t position = 0; position < oscillators_.size(); ++position) {
        const Oscillator& oscillator = oscillators_[position];
        if (const std::optional<FailureDetail> fault = faultOf(oscillator, position)) {
            throw withDetail(InvalidOscillator(InvalidOscillator::parameters), *fault);
        }
        if (!index_.emplace(oscillator.id, position).second) {
            throw withDetail(InvalidOscillator(InvalidOscillator::duplicate),
                             {"oscillator", position, "id", decimal(std::uint64_t{oscillator.id}),
                              "different from the ids before it"});
        }
    }
}

std::size_t OscillatorBank::indexOf(std::uint32_t id) const {
    const auto found = index_.find(id);
    if (found == index_.end()) throw InvalidOscillator(InvalidOscillator::unknown);
    return found->second;
}

std::vector<PhaseSample> OscillatorBank::allPhases(ModelTime time) const {
    std::vector<PhaseSample> samples(oscillators_.size());
    for (std::size_t position = 0; position < samples.size(); ++position) {
        samples[position].oscillator = oscillators_[position].id;
        samples[position].phase = phaseOfPosition(position, time);
    }
    return samples;
}

std::vector<PhaseSample> OscillatorBank::neuronPhases(NodeId neuron, ModelTime time) const {
    const std::span<const std::uint32_t> positions = positionsOf(neuron);
    std::vector<PhaseSample> samples(positions.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i].oscillator = oscillators_[positions[i]].id;
        samples[i].phase = phaseOfPosition(positions[i], time);
    }
    return samples;
}

void OscillatorBank::setMemberships(std::vector<std::vector<std::uint32_t>> memberships) {
    // Stored as positions, so a report per spike looks up no id. They fit, because ids are unique.
    for (std::vector<std::uint32_t>& list : memberships) {
        for (std::uint32_t& entry : list) entry = static_cast<std::uint32_t>(indexOf(entry));
    }
    memberships_ = std::move(memberships);
}

void OscillatorBank::configureCoupling(std::vector<OscillatorCoupling> couplings,
                                       ModelTime period) {
    if (!couplings.empty() && period < 1) {
        throw withDetail(InvalidOscillator(InvalidOscillator::period),
                         {.field = "coupling_period",
                          .value = decimal(period) + " ns",
                          .bound = "at least 1 ns"});
    }
    std::vector<PlacedCoupling> placed;
    std::vector<std::size_t> coupled;
    placed.reserve(couplings.size());
    coupled.reserve(2 * couplings.size());
    for (const OscillatorCoupling& coupling : couplings) {
        const auto detail = [&](const char* field, std::string value, const char* bound) {
            return FailureDetail{"coupling", placed.size(), field, std::move(value), bound};
        };
        const auto position = [&](const char* field, std::uint32_t id) {
            if (const auto found = index_.find(id); found != index_.end()) return found->second;
            throw withDetail(InvalidOscillator(InvalidOscillator::unknown),
                             detail(field, decimal(std::uint64_t{id}), "the id of an oscillator"));
        };
        const std::size_t source = position("source", coupling.source);
        const std::size_t target = position("target", coupling.target);
        if (!std::isfinite(coupling.strength)) {
            throw withDetail(InvalidOscillator(InvalidOscillator::strength),
                             detail("strength", decimal(coupling.strength), "finite"));
        }
        placed.push_back({source, target, coupling.strength});
        coupled.push_back(source);
        coupled.push_back(target);
    }
    std::sort(coupled.begin(), coupled.end());
    coupled.erase(std::unique(coupled.begin(), coupled.end()), coupled.end());

    couplings_ = std::move(couplings);
    placed_couplings_ = std::move(placed);
    coupled_ = std::move(coupled);
    coupling_period_ = period;
    coupling_steps_ = 0;
}

void OscillatorBank::takeStep(ModelTime now, std::vector<double>& phases,
                              std::vector<double>& deltas) {
    phases.resize(oscillators_.size());
    deltas.assign(oscillators_.size(), 0.0);
    // Each phase once, not once per coupling: a bank may be coupled all to all.
    for (const std::size_t position : coupled_) phases[position] = phaseOfPosition(position, now);
    const double step_seconds = static_cast<double>(coupling_period_) / ns_per_second;
    for (const PlacedCoupling& coupling : placed_couplings_) {
        const double sine = std::sin(phases[coupling.source] - phases[coupling.target]);
        deltas[coupling.target] =
            (sine * coupling.strength) * step_seconds + deltas[coupling.target];
    }
    for (std::size_t position = 0; position < phase_offsets_.size(); ++position) {
        phase_offsets_[position] = wrapPhase(deltas[position] + phase_offsets_[position]);
    }
}

void OscillatorBank::advanceCoupling(ModelTime time) {
    ModelTime now = coupledUntil();
    if (time < now) throw InvalidOscillator(InvalidOscillator::into_the_past);
    if (!coupling_enabled_ || couplings_.empty()) return;
    // No allocation unless a step is due.
    std::vector<double> phases;
    std::vector<double> deltas;
    for (;;) {
        const ModelTime next = addTime(now, coupling_period_);
        if (next > time) return;
        takeStep(now, phases, deltas);
        ++coupling_steps_;
        now = next;
    }
}

Blob OscillatorBank::snapshot() const {
    Blob blob;
    blob.reserve(33 + oscillators_.size() * oscillator_bytes);
    appendTag(blob, format_tag);
    appendU64(blob, oscillators_.size());
    appendI64(blob, coupling_period_);
    appendU64(blob, coupling_steps_);
    appendFlag(blob, coupling_enabled_);
    for (std::size_t position = 0; position < oscillators_.size(); ++position) {
        const Oscillator& oscillator = oscillators_[position];
        appendU32(blob, oscillator.id);
        appendF64(blob, oscillator.frequency);
        appendF64(blob, oscillator.phase);
        appendF64(blob, oscillator.amplitude);
        appendF64(blob, phase_offsets_[position]);
    }
    return blob;
}

std::optional<OscillatorBank::State> OscillatorBank::read(BlobView blob) const {
    BlobReader in(blob);
    std::uint64_t count = 0;
    ModelTime period = 0;
    State state;
    if (!in.expectTag(format_tag) || !in.readCount(oscillator_bytes, count) ||
        count != oscillators_.size() || !in.readI64(period) || !in.readU64(state.coupling_steps) ||
        !in.readFlag(state.coupling_enabled)) {
        return std::nullopt;
    }
    state.phase_offsets.resize(oscillators_.size());
    for (std::size_t position = 0; position < oscillators_.size(); ++position) {
        const Oscillator& live = oscillators_[position];
        Oscillator stored;
        double& offset = state.phase_offsets[position];
        if (!in.readU32(stored.id) || !in.readF64(stored.frequency) || !in.readF64(stored.phase) ||
            !in.readF64(stored.amplitude) || !in.readF64(offset)) {
            return std::nullopt;
        }
        if (stored.id != live.id || !(stored.frequency == live.frequency) ||
            !(stored.phase == live.phase) || !(stored.amplitude == live.amplitude) ||
            !std::isfinite(offset)) {
            return std::nullopt;
        }
    }
    if (!in.atEnd() || period < 0 || period != coupling_period_) return std::nullopt;
    // The end of the last step must be a valid time.
    if (period > 0 && state.coupling_steps > static_cast<std::uint64_t>(last_model_time / period)) {
        return std::nullopt;
    }
    return state;
}

void OscillatorBank::adopt(State&& state) noexcept {
    coupling_steps_ = state.coupling_steps;
    coupling_enabled_ = state.coupling_enabled;
    phase_offsets_ = std::move(state.phase_offsets);
}

bool OscillatorBank::restore(BlobView blob) {
    std::optional<State> state = read(blob);
    if (!state) return false;
    adopt(std::move(*state));
    return true;
}

}  // namespace Lumenar::Core::Kelm

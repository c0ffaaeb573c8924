#include <cmath>

#include "compare/Grammar.h"
#include "fuzz/Fuzzing.h"
#include "fuzz/Mutation.h"
#include "fuzz/Subjects.h"
#include "kelm/runtime/InstantPhases.h"

using namespace Lumenar::Core::Kelm;
using namespace Lumenar::Core::Kelm::Fuzzing;

namespace {

void requirePhases(const OscillatorBank& bank, ModelTime time) {
    const std::vector<PhaseSample> samples = bank.allPhases(time);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double phase = samples[i].phase;
        require(phase >= 0.0 && phase <= 6.2831853071795865, "a phase is wrapped");
        require(phase == bank.phaseOf(samples[i].oscillator, time), "a phase has one value");
        require(phase == phaseAt(bank.oscillators()[i], time, bank.phaseOffsets()[i]),
                "a phase is that of its offset");
    }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned int seed) {
    return mutateBy(Compare::oscillator_grammar, data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    OscillatorBank bank = makeOscillators();
    OscillatorBank twin = makeOscillators();
    (void)bank.allPhases(0);
    static const Blob past = longestPast(makeOscillators(), "OscillatorBank");
    if (!acceptedByTwins(bank, twin, past, {data, size})) return 0;
    for (const ModelTime time : {ModelTime{0}, ModelTime{1}, last_model_time, -last_model_time}) {
        requirePhases(bank, time);
        InstantPhases phases;
        phases.moveTo(bank, time);
        for (NodeId n = 0; n < model().network.node_count; ++n) {
            const std::vector<PhaseSample> samples = bank.neuronPhases(n, time);
            const double first = samples.empty() ? 0.0 : samples[0].phase;
            require(phases.firstPhase(n) == first, "the first phase is the first reported");
        }
    }
    const ModelTime period = bank.couplingPeriod();
    const ModelTime now = static_cast<ModelTime>(bank.couplingSteps()) * period;
    require(now >= 0, "the end of the last step is a time");
    // Ten steps, or as many as there are up to the end of time.
    const ModelTime until =
        now > last_model_time - 10 * period ? last_model_time : now + 10 * period;
    if (!sameFor(bank, twin, [&](OscillatorBank& b) { b.advanceCoupling(until); })) return 0;
    require(!bank.isCouplingEnabled() || until - now < 10 * period ||
                bank.couplingSteps() == static_cast<std::uint64_t>(now / period) + 10,
            "coupling takes its steps");
    requirePhases(bank, until);
    requireRestorable(bank, makeOscillators());
    return 0;
}

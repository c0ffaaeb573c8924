#include "kelm/runtime/PhaseModulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameBits.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

constexpr double quarter = 1.5707963267948966;

PhaseModulator modulator(const OscillatorBank& bank, const std::vector<PhaseBinding>& bindings) {
    PhaseModulator result(bank);
    for (const PhaseBinding& binding : bindings) result.addBinding(binding);
    return result;
}

TEST(PhaseModulator, RefusesBadBindingsGainsAndIntervals) {
    const OscillatorBank bank({{3, 1.0, 0.0, 1.0}});
    PhaseModulator subject = modulator(bank, {{3, 0, 0.5, 0.0}});
    const auto adding = [&](PhaseBinding binding) {
        return [&subject, binding] { subject.addBinding(binding); };
    };
    const char* const unknown = "unknown KELM oscillator id";
    const char* const not_finite = "phase modulation must be finite";
    const char* const gain = "oscillator gain must be finite and >= 0";
    const PhaseBinding foreign{4, 0, 1.0, 0.0};
    expectRefusals<InvalidOscillator>({{unknown, adding({4, 7, infinity, 0.0})},
                                       {unknown, [&] { subject.effectiveAmplitude(foreign); }}});
    expectRefusals<InvalidPhaseModulation>(
        {{not_finite, adding({3, 0, not_a_number, 0.0})},
         {not_finite, adding({3, 7, 0.5, -infinity})},
         {gain, [&] { subject.setGain(-0.5); }},
         {gain, [&] { subject.setGain(not_a_number); }},
         {gain, [&] { subject.setGain(infinity); }},
         {"phase bound interval runs backwards", [&] { subject.intervalBound(5, 4); }}},
        [&] { EXPECT_EQ(subject.weightSum(), 0.5); });
    EXPECT_EQ(subject.effectiveAmplitude({4, 2, 1.0, 0.0}), 0.0)
        << "an inert binding is not looked up";
}

TEST(PhaseModulator, WritesOneTermPerEffectiveBindingInTheirOrder) {
    OscillatorBank bank({{5, 7.1, 0.2, 2.5}, {8, 0.0, quarter, 1.0}, {6, 40.0, 0.0, 0.0}});
    bank.configureCoupling({{8, 5, 2.0}}, 250'000'000);
    bank.setCouplingEnabled(true);
    bank.advanceCoupling(250'000'000);
    PhaseModulator subject = modulator(bank, {{5, 0, 0.7, 0.1},
                                              {8, 1, 0.5, 100.0},
                                              {5, 4, 0.5, 0.1},
                                              {6, 0, 0.5, 0.1},
                                              {8, 0, 0.0, 0.1},
                                              {5, 1, -0.7, -0.1}});
    subject.setGain(2.2);
    // (2.2 * 0.7) * 2.5 and (7.1 * 6.283185307179586) / 1e9 in doubles, by Python. Other orders
    // give other bits.
    constexpr double amplitude = 0x1.ecccccccccccdp+1;
    constexpr double omega = 0x1.7f33c8050b1f4p-25;
    const ModelTime origin = 333'333'333;
    PhaseDrive expected;
    expected.origin = origin;
    expected.bound = 0.375;
    expected.term_count = 3;
    expected.terms[0] = {amplitude, bank.phaseOf(5, origin) + 0.1, omega};
    expected.terms[1] = {-1.1, quarter + 100.0, 0.0};
    expected.terms[2] = {amplitude, bank.phaseOf(5, origin) + -0.1, omega};
    const PhaseDrive drive = subject.kernelDrive(origin, 0.375);
    EXPECT_TRUE(sameImages<PhaseDrive>({&drive, 1}, {&expected, 1}));

    // Only effective bindings count against the kernel's limit of eight.
    for (int i = 0; i < 5; ++i) subject.addBinding({5, 0, 0.5, 0.0});
    EXPECT_EQ(subject.kernelDrive(0, 0.0).term_count, 8);
    subject.addBinding({5, 1, 0.5, 0.0});
    expectThrows<InvalidPhaseModulation>([&] { subject.kernelDrive(0, 0.0); },
                                         "a neuron exceeds the kernel phase-binding capacity");
    subject.setGain(0.0);
    EXPECT_EQ(subject.kernelDrive(0, 0.0).term_count, 0);
}

TEST(PhaseBound, HoldsAtEveryTimeAndIsReachedBySingleBindings) {
    for (std::uint64_t seed = 1; seed <= 4'000; ++seed) {
        Draws draws(seed);
        std::vector<Oscillator> oscillators;
        for (std::uint32_t id = 0; id < 2; ++id) {
            const double frequency = draws.oneIn(8) ? 0.0 : std::exp2(draws.between(-6.0, 20.0));
            oscillators.push_back({id, frequency, draws.between(-10.0, 10.0), 1.5});
        }
        const OscillatorBank bank(oscillators);
        PhaseModulator subject(bank);
        const std::uint64_t count = 1 + draws.below(3);
        for (std::uint64_t i = 0; i < count; ++i) {
            const auto id = static_cast<std::uint32_t>(draws.below(2));
            const auto polarity = static_cast<std::uint8_t>(draws.below(2));
            const double strength = draws.between(-1.0, 1.0);
            subject.addBinding({id, polarity, strength, draws.between(-10.0, 10.0)});
        }
        subject.setGain(draws.between(0.0, 3.0));
        // Below 2^53 ns both ends of the interval are exact doubles.
        const ModelTime start = draws.timeBelow(std::uint64_t{1} << (10 + draws.below(43)));
        const ModelTime end = start + draws.timeBelow(1 << draws.below(12));
        const PhaseDrive drive = subject.kernelDrive(start, 0.0);
        double largest = -infinity;
        for (ModelTime time = start; time <= end; ++time) {
            largest = std::max(largest, Kernel::phaseDriveAt(drive, time));
        }
        const double bound = subject.intervalBound(start, end);
        const double margin = (subject.weightSum() + 1.0) * 1e-10;
        ASSERT_LE(largest, bound + margin) << "seed " << seed;
        // A crest lies at most half a nanosecond from a whole one.
        const PhaseTerm& term = drive.terms[0];
        const double missed = std::fabs(term.amplitude) * term.omega * term.omega / 8.0;
        ASSERT_TRUE(count > 1 || largest >= bound - missed - margin) << "seed " << seed;
    }
}

TEST(PhaseBound, CountsCrestsAtTheEndsWholeCyclesAndEmptyIntervals) {
    // A quarter of a cycle takes 1000 ns: crest at 1000, trough at 3000.
    const OscillatorBank bank({{0, 250'000.0, 0.0, 1.0}, {1, 2.0, 1.0, 1.0}});
    const PhaseModulator up = modulator(bank, {{0, 0, 0.75, 0.0}});
    const PhaseModulator down = modulator(bank, {{0, 1, 0.75, 0.0}});
    EXPECT_EQ(up.intervalBound(0, 1'000), 0.75) << "a crest at the end counts in full";
    EXPECT_EQ(up.intervalBound(1'000, 1'500), 0.75) << "and so does one at the start";
    EXPECT_EQ(down.intervalBound(1'500, 3'000), 0.75) << "the trough of an inhibitory binding";
    EXPECT_NEAR(up.intervalBound(0, 0), 0.75e-12, 1e-15) << "an end may be off by 1e-12 radians";
    // From one whole cycle on, the bound equals the sum of magnitudes to the bit.
    const PhaseModulator all =
        modulator(bank, {{1, 0, 0.3, 0.3}, {1, 1, 0.2, 4.0}, {1, 0, -0.1, 0}});
    EXPECT_TRUE(sameBits(all.weightSum(), (0.3 + 0.2) + 0.1));
    EXPECT_TRUE(sameBits(all.intervalBound(7, 500'000'007), all.weightSum()));
    EXPECT_TRUE(sameBits(all.intervalBound(first_model_time, last_model_time), all.weightSum()));
    const OscillatorBank fastest({{0, std::numeric_limits<double>::max(), 0.0, 1.0}});
    EXPECT_EQ(modulator(fastest, {{0, 0, 0.75, 0.0}}).intervalBound(5, 5), 0.75)
        << "an infinite frequency completes a cycle in an empty interval";
    // Past 2^53 ns both ends are rounded first: 1 ns from an odd time counts as 2 ns.
    const ModelTime odd = (ModelTime{1} << 53) + 1;
    const PhaseModulator rising = modulator(bank, {{0, 0, 0.75, -bank.phaseOf(0, odd)}});
    EXPECT_NEAR(rising.intervalBound(odd, odd + 1), 0.75 * std::sin(quarter * 0.002), 1e-9);
}

}  // namespace
}  // namespace Lumenar::Core::Kelm

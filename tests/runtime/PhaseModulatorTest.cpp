#include "kelm/runtime/PhaseModulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/kernel/WindowProcessing.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::Draws;
using Testing::expectThrows;
using Testing::sameBits;

constexpr double two_pi = 6.283185307179586;
constexpr double quarter = 1.5707963267948966;
constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

PhaseModulator modulator(const OscillatorBank& bank, const std::vector<PhaseBinding>& bindings,
                         double gain = 1.0) {
    PhaseModulator result(bank);
    for (const PhaseBinding& binding : bindings) result.addBinding(binding);
    result.setGain(gain);
    return result;
}

TEST(PhaseModulator, RefusesBadBindingsGainsAndIntervals) {
    const OscillatorBank bank({{3, 1.0, 0.0, 1.0}});
    PhaseModulator modulator(bank);
    const char* const unknown = "unknown KELM oscillator id";
    const char* const not_finite = "phase modulation must be finite";
    const char* const gain = "oscillator gain must be finite and >= 0";
    expectThrows<InvalidOscillator>([&] { modulator.addBinding({4, 7, 0.5, 0.0}); }, unknown);
    expectThrows<InvalidOscillator>([&] { modulator.addBinding({4, 0, infinity, 0.0}); }, unknown);
    for (const PhaseBinding& binding :
         {PhaseBinding{3, 0, not_a_number, 0.0}, PhaseBinding{3, 7, infinity, 0.0},
          PhaseBinding{3, 0, 0.5, -infinity}}) {
        expectThrows<InvalidPhaseModulation>([&] { modulator.addBinding(binding); }, not_finite);
    }
    EXPECT_EQ(modulator.weightSum(), 0.0) << "a refused binding is not added";

    modulator.addBinding({3, 0, 0.5, 0.0});
    for (const double value : {-0.5, not_a_number, infinity}) {
        expectThrows<InvalidPhaseModulation>([&] { modulator.setGain(value); }, gain);
    }
    EXPECT_EQ(modulator.weightSum(), 0.5) << "a refused gain changes nothing";
    expectThrows<InvalidPhaseModulation>([&] { modulator.intervalBound(5, 4); },
                                         "phase bound interval runs backwards");
}

TEST(PhaseModulator, SignsAndScalesEachBindingBeforeTheOscillator) {
    const OscillatorBank bank({{0, 1.0, 0.0, 2.5}, {1, 1.0, 0.0, 0.0}});
    struct Case {
        const char* fact;
        PhaseBinding binding;
        double gain;
        double amplitude;
    };
    // (2.2 * 0.7) * 2.5 in doubles, by Python; the two other orders end in other bits.
    constexpr double product = 0x1.ecccccccccccdp+1;
    for (const Case& c : {
             Case{"excitatory", {0, 0, 0.7, 0.0}, 2.2, product},
             Case{"inhibitory", {0, 1, 0.7, 0.0}, 2.2, -product},
             Case{"excitatory of negative strength", {0, 0, -0.7, 0.0}, 2.2, -product},
             Case{"inhibitory of negative strength", {0, 1, -0.7, 0.0}, 2.2, product},
             Case{"another polarity", {0, 2, 0.7, 0.0}, 2.2, 0.0},
             Case{"another polarity on no oscillator", {9, 255, 0.7, 0.0}, 2.2, 0.0},
             Case{"no gain", {0, 1, 0.7, 0.0}, 0.0, -0.0},
             Case{"a silent oscillator", {1, 0, 0.7, 0.0}, 2.2, 0.0},
         }) {
        SCOPED_TRACE(c.fact);
        const PhaseModulator subject = modulator(bank, {}, c.gain);
        EXPECT_TRUE(sameBits(subject.effectiveAmplitude(c.binding), c.amplitude));
    }
    const OscillatorBank plain({{0, 1.0, 0.0, 1.0}});
    std::vector<PhaseBinding> bindings = {{0, 0, 0.1, 0}, {0, 1, 0.2, 0}, {0, 0, -0.3, 0}};
    EXPECT_TRUE(sameBits(modulator(plain, bindings).weightSum(), (0.1 + 0.2) + 0.3));
    std::reverse(bindings.begin(), bindings.end());
    EXPECT_TRUE(sameBits(modulator(plain, bindings).weightSum(), (0.3 + 0.2) + 0.1));
    expectThrows<InvalidOscillator>(
        [&] {
            modulator(bank, {}).effectiveAmplitude({9, 0, 1, 0});
        },
        "unknown KELM oscillator id");
}

TEST(PhaseModulator, WritesOneTermPerEffectiveBindingInTheirOrder) {
    OscillatorBank bank({{5, 7.1, 0.2, 1.5}, {8, 0.0, quarter, 1.0}, {6, 40.0, 0.0, 0.0}});
    bank.configureCoupling({{8, 5, 2.0}}, 250'000'000);
    bank.setCouplingEnabled(true);
    bank.advanceCoupling(250'000'000);
    const ModelTime origin = 333'333'333;
    const PhaseDrive drive = modulator(bank, {{5, 0, 0.5, 0.1},
                                              {8, 1, 0.25, 100.0},
                                              {5, 4, 0.5, 0.1},
                                              {6, 0, 0.5, 0.1},
                                              {8, 0, 0.0, 0.1},
                                              {5, 1, -0.75, -0.1}})
                                 .kernelDrive(origin, 0.375);
    PhaseDrive expected;
    expected.origin = origin;
    expected.bound = 0.375;
    expected.term_count = 3;
    // (7.1 * 6.283185307179586) / 1e9 in doubles, by Python; other orders end in other bits.
    constexpr double omega = 0x1.7f33c8050b1f4p-25;
    const double coupled = bank.phaseOf(5, origin);
    expected.terms[0] = {0.75, coupled + 0.1, omega};
    expected.terms[1] = {-0.25, quarter + 100.0, 0.0};
    expected.terms[2] = {1.125, coupled + -0.1, omega};
    EXPECT_EQ(std::memcmp(&drive, &expected, sizeof(PhaseDrive)), 0);

    const PhaseDrive silent = modulator(bank, {{5, 0, 0.5, 0.1}}, 0.0).kernelDrive(origin, 0.375);
    EXPECT_EQ(silent.term_count, 0);
}

TEST(PhaseModulator, HoldsAsManyEffectiveBindingsAsTheKernel) {
    const OscillatorBank bank({{0, 1.0, 0.0, 1.0}, {1, 1.0, 0.0, 0.0}});
    std::vector<PhaseBinding> bindings(8, PhaseBinding{0, 0, 0.5, 0.0});
    for (const PhaseBinding& inert : {PhaseBinding{0, 0, 0.0, 0.0}, PhaseBinding{1, 0, 0.5, 0.0},
                                      PhaseBinding{0, 2, 0.5, 0.0}}) {
        bindings.insert(bindings.begin() + 3, inert);
    }
    PhaseModulator subject = modulator(bank, bindings);
    EXPECT_EQ(subject.kernelDrive(0, 0.0).term_count, 8);
    subject.addBinding({0, 1, 0.5, 0.0});
    const char* const capacity = "a neuron exceeds the kernel phase-binding capacity";
    expectThrows<InvalidPhaseModulation>([&] { subject.kernelDrive(0, 0.0); }, capacity);
    EXPECT_EQ(subject.intervalBound(0, 2'000'000'000), 4.5) << "a bound has no capacity";
    subject.setGain(0.0);
    EXPECT_EQ(subject.kernelDrive(0, 0.0).term_count, 0);
}

/// A random bank whose coupling has moved its phases.
OscillatorBank randomBank(Draws& draws) {
    std::vector<Oscillator> oscillators;
    for (std::uint32_t id = 0; id < 3; ++id) {
        const double frequency =
            draws.oneIn(6) ? 0.0 : std::exp2(draws.between(-6.0, draws.oneIn(3) ? 20.0 : 8.0));
        oscillators.push_back({id, frequency, draws.between(-20.0, 20.0), draws.between(0.0, 2.0)});
    }
    OscillatorBank bank(oscillators);
    bank.configureCoupling({{0, 1, 3.0}, {1, 2, -2.0}, {2, 0, 1.0}}, 100'000'000);
    bank.setCouplingEnabled(true);
    bank.advanceCoupling(300'000'000);
    return bank;
}

/// Instants of [start, end] at which a sum of sines could exceed its bound: a few hundred spread
/// out, both ends, and the integers around each term's crests and troughs.
std::vector<ModelTime> suspectInstants(const PhaseDrive& drive, ModelTime end, Draws& draws) {
    const auto length = static_cast<std::uint64_t>(end - drive.origin);
    std::vector<ModelTime> instants;
    const auto add = [&](ModelTime elapsed) {
        if (elapsed >= 0 && static_cast<std::uint64_t>(elapsed) <= length) {
            instants.push_back(drive.origin + elapsed);
        }
    };
    for (ModelTime i = 0; i < 4; ++i) {
        add(i);
        add(static_cast<ModelTime>(length) - i);
    }
    for (int i = 0; i < 60; ++i) add(draws.timeBelow(length + 1));
    for (std::int32_t i = 0; i < drive.term_count; ++i) {
        const PhaseTerm& term = drive.terms[i];
        if (term.omega == 0.0) continue;
        for (const double extreme : {quarter, -quarter}) {
            double ahead = std::fmod(extreme - term.phase, two_pi);
            if (ahead < 0.0) ahead += two_pi;
            const auto nearest = static_cast<ModelTime>(ahead / term.omega);
            for (ModelTime step = -1; step <= 2; ++step) add(nearest + step);
        }
    }
    return instants;
}

TEST(PhaseBound, HoldsForTheKernelsDriveAtEveryInstant) {
    int crests_at_ends = 0;
    for (std::uint64_t seed = 1; seed <= 4'000; ++seed) {
        Draws draws(seed);
        const OscillatorBank bank = randomBank(draws);
        PhaseModulator subject(bank);
        for (std::uint64_t count = 1 + draws.below(8); count != 0; --count) {
            subject.addBinding({static_cast<std::uint32_t>(draws.below(3)),
                                static_cast<std::uint8_t>(draws.below(2)), draws.between(-1.0, 1.0),
                                draws.between(-20.0, 20.0)});
        }
        const double margin = (subject.weightSum() + 1.0) * 1e-10;
        subject.setGain(draws.between(0.0, 3.0));

        // Below 2^53 ns, where both ends of the interval are exact doubles.
        const ModelTime start = draws.timeBelow(std::uint64_t{1} << (30 + draws.below(23)));
        PhaseDrive drive = subject.kernelDrive(start, 0.0);
        ModelTime end = start + draws.timeBelow(std::uint64_t{1} << draws.below(31));
        const PhaseTerm& term = drive.terms[draws.below(8)];
        if (draws.oneIn(3) && term.omega > 0.0) {
            // An interval that ends within a nanosecond of a crest or trough, on either side.
            const double extreme = term.amplitude > 0.0 ? quarter : -quarter;
            double ahead = std::fmod(extreme - term.phase, two_pi);
            if (ahead < 0.0) ahead += two_pi;
            end = start + static_cast<ModelTime>(ahead / term.omega) + draws.timeBelow(2);
            ++crests_at_ends;
        }
        const double bound = subject.intervalBound(start, end);
        drive.bound = margin + bound;
        for (const ModelTime time : suspectInstants(drive, end, draws)) {
            ASSERT_LE(Kernel::phaseDriveAt(drive, time), drive.bound)
                << "seed " << seed << ", [" << start << ", " << end << "] at " << time;
        }
    }
    EXPECT_GT(crests_at_ends, 500);
}

TEST(PhaseBound, IsReachedBySingleBindings) {
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        Draws draws(seed);
        const double frequency = std::exp2(draws.between(10.0, 20.0));
        const OscillatorBank bank({{0, frequency, draws.between(-10.0, 10.0), 1.0}});
        const auto polarity = static_cast<std::uint8_t>(draws.below(2));
        const PhaseModulator subject =
            modulator(bank, {{0, polarity, 1.0, draws.between(-10.0, 10.0)}});
        const ModelTime start = draws.timeBelow(1'000'000'000'000);
        const ModelTime end = start + draws.timeBelow(1'500);
        const PhaseDrive drive = subject.kernelDrive(start, 0.0);
        double largest = -infinity;
        for (ModelTime time = start; time <= end; ++time) {
            largest = std::max(largest, Kernel::phaseDriveAt(drive, time));
        }
        // A crest between two instants is missed by at most half a nanosecond.
        const double missed = drive.terms[0].omega * drive.terms[0].omega / 8.0;
        const double bound = subject.intervalBound(start, end);
        ASSERT_NEAR(largest, bound, missed + 1e-10) << "seed " << seed;
    }
}

TEST(PhaseBound, KnowsCrestsAtTheEndsWholeCyclesAndInstants) {
    // A quarter of a cycle takes 1000 ns: crest at 1000, trough at 3000.
    const OscillatorBank bank({{0, 250'000.0, 0.0, 1.0}, {1, 2.0, 1.0, 1.0}});
    const PhaseModulator up = modulator(bank, {{0, 0, 0.75, 0.0}});
    EXPECT_EQ(up.intervalBound(0, 1'000), 0.75) << "a crest at the end counts in full";
    EXPECT_EQ(up.intervalBound(1'000, 1'500), 0.75) << "and so does one at the start";
    EXPECT_LT(up.intervalBound(0, 999), 0.75);
    EXPECT_EQ(modulator(bank, {{0, 1, 0.75, 0.0}}).intervalBound(1'500, 3'000), 0.75)
        << "an inhibitory binding drives at its trough";
    EXPECT_NEAR(up.intervalBound(500, 500), 0.75 * std::sin(quarter / 2.0), 2e-12);

    // From one whole cycle on, a bound is the sum of magnitudes to the bit.
    const PhaseModulator both =
        modulator(bank, {{1, 0, 0.1, 0.3}, {1, 1, 0.2, 4.0}, {1, 0, -0.3, 0}});
    EXPECT_TRUE(sameBits(both.intervalBound(7, 500'000'007), both.weightSum()));
    EXPECT_TRUE(sameBits(both.intervalBound(first_model_time, last_model_time), both.weightSum()));
    EXPECT_LT(both.intervalBound(7, 100'000'000), both.weightSum());
    EXPECT_EQ(modulator(bank, {}).intervalBound(0, 1'000), 0.0);

    EXPECT_NEAR(up.intervalBound(0, 0), 0.75e-12, 1e-15) << "an end may be off by 1e-12 radians";
    const OscillatorBank fastest({{0, std::numeric_limits<double>::max(), 0.0, 1.0}});
    EXPECT_EQ(modulator(fastest, {{0, 0, 0.75, 0.0}}).intervalBound(5, 5), 0.75)
        << "an infinite speed turns even in no time";
    // Past 2^53 ns both ends are rounded first: 1 ns from an odd instant on counts as 2.
    const ModelTime odd = (ModelTime{1} << 53) + 1;
    const PhaseModulator rising = modulator(bank, {{0, 0, 0.75, -bank.phaseOf(0, odd)}});
    EXPECT_NEAR(rising.intervalBound(odd, odd + 1), 0.75 * std::sin(quarter * 0.002), 1e-9);
}

}  // namespace
}  // namespace Lumenar::Core::Kelm

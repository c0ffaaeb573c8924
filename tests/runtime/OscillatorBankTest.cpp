#include "kelm/runtime/OscillatorBank.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"
#include "tests/support/SameBits.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

constexpr double two_pi = 6.283185307179586;
constexpr double quarter = 1.5707963267948966;
constexpr ModelTime second = 1'000'000'000;
constexpr std::uint32_t last_id = 4'294'967'295;
const char* const unknown = "unknown KELM oscillator id";

/// The closed form with a library remainder for every reduction.
double phaseByRemainders(const Oscillator& oscillator, ModelTime time, double offset) {
    const ModelTime whole = time / second;
    double fraction = std::fmod(oscillator.frequency, 1.0);
    double sum = 0.0;
    for (ModelTime n = std::abs(whole); n != 0; n /= 2) {
        if (n % 2 != 0) sum = std::fmod(sum + fraction, 1.0);
        fraction = std::fmod(fraction + fraction, 1.0);
    }
    const double rest = static_cast<double>(time - whole * second) / 1e9;
    const double cycles = rest * oscillator.frequency + (whole < 0 ? -sum : sum);
    const double turned =
        std::fmod(std::fmod(cycles, 1.0) * two_pi + (oscillator.phase + offset), two_pi);
    return turned < 0.0 ? turned + two_pi : turned;
}

TEST(OscillatorPhase, EqualsTheFormWithRemaindersAtAnyTime) {
    Draws draws(7);
    for (int i = 0; i < 40'000; ++i) {
        // Some frequencies are eighths of a hertz, whose fractions double to exactly 1, and some
        // are too large to have a fraction. A tiny negative start rounds up to 2 pi.
        double frequency = std::exp2(draws.between(-20.0, draws.oneIn(8) ? 1000.0 : 20.0));
        if (draws.oneIn(4)) frequency = static_cast<double>(draws.below(64)) / 8.0;
        const double start = draws.oneIn(8) ? -1e-17 : draws.between(-50.0, 50.0);
        const double offset = draws.oneIn(4) ? 0.0 : draws.between(0.0, two_pi);
        auto time = static_cast<ModelTime>(std::exp2(draws.between(0.0, 62.99)));
        if (draws.oneIn(2)) time = -time;
        SCOPED_TRACE(testing::Message() << frequency << " Hz at " << time << " ns");
        const Oscillator oscillator{0, frequency, start, 1.0};
        ASSERT_TRUE(sameBits(phaseAt(oscillator, time, offset),
                             phaseByRemainders(oscillator, time, offset)));
    }
}

TEST(OscillatorBank, RefusesParametersAndRepeatedIdsInOrder) {
    const char* const parameters = "invalid KELM oscillator parameters";
    const auto building = [](std::vector<Oscillator> oscillators) {
        return [oscillators] { OscillatorBank bank(oscillators); };
    };
    expectRefusals<InvalidOscillator>(
        {{parameters, building({{0, -0.5, 0, 1}})},
         {parameters, building({{0, infinity, 0, 1}})},
         {parameters, building({{0, 1, -infinity, 1}})},
         {parameters, building({{0, 1, 0, -1e-300}})},
         {parameters, building({{0, 1, 0, not_a_number}})},
         {parameters,
          [] {
              phaseAt({0, 1, 0, 1}, 0, not_a_number);
          }},
         {parameters, building({{3, 1, 0, 1}, {3, -1, 0, 1}})},
         {"duplicate KELM oscillator id", building({{3, 1, 0, 1}, {3, 1, 0, 1}, {5, -1, 0, 1}})}});
    EXPECT_NO_THROW(OscillatorBank({{0, -0.0, 10.0, 0.0}}));
}

TEST(OscillatorBank, ReportsPhasesByIdInTheOrderOfTheLists) {
    OscillatorBank bank({{9, 7.25, 0.1, 1.0}, {last_id, 0.3, 0.2, 0.0}, {0, 11.0, 0.3, 2.0}});
    EXPECT_TRUE(bank.neuronPhases(0, 7).empty());
    bank.setMemberships({{0, 9}, {}, {last_id, 0, last_id}});
    const std::vector<std::vector<std::uint32_t>> strange{{9}, {0, 1}};
    expectRefusals<InvalidOscillator>({{unknown, [&] { bank.setMemberships(strange); }},
                                       {unknown, [&] { bank.phaseOf(1, 0); }},
                                       {unknown, [&] { bank.oscillator(8); }}});
    const std::vector<std::uint32_t> lists[] = {
        {0, 9}, {}, {last_id, 0, last_id}, {}, {9, last_id, 0}};
    for (NodeId neuron = 0; neuron < 5; ++neuron) {
        std::vector<PhaseSample> expected;
        for (const std::uint32_t id : lists[neuron]) {
            expected.push_back({id, {}, phaseAt(bank.oscillator(id), 7, 0.0)});
        }
        const auto samples = neuron < 4 ? bank.neuronPhases(neuron, 7) : bank.allPhases(7);
        EXPECT_TRUE(sameImages<PhaseSample>(samples, expected));
    }
}

TEST(OscillatorCoupling, RefusesBadSettingsAndKeepsTheOldOnes) {
    OscillatorBank bank({{1, 1.0, 0.0, 1.0}, {2, 1.0, 1.0, 1.0}});
    bank.setCouplingEnabled(true);
    bank.configureCoupling({{1, 2, 0.5}}, 1'000);
    bank.advanceCoupling(5'000);
    const auto configuring = [&](std::vector<OscillatorCoupling> couplings, ModelTime period) {
        return [&bank, couplings, period] { bank.configureCoupling(couplings, period); };
    };
    const char* const strength = "oscillator coupling strength must be finite";
    expectRefusals<InvalidOscillator>(
        {{"oscillator coupling period must be positive", configuring({{7, 2, 0.5}}, 0)},
         {unknown, configuring({{7, 2, not_a_number}}, 1)},
         {unknown, configuring({{1, 2, 0.5}, {1, 7, infinity}}, 1)},
         {strength, configuring({{1, 2, not_a_number}, {1, 7, 0.5}}, 1)},
         {strength, configuring({{1, 2, -infinity}}, 1)}},
        [&] { EXPECT_EQ(bank.couplingSteps(), 5U); });
    EXPECT_EQ(bank.couplings().size(), 1U);
    bank.configureCoupling({}, 0);
    EXPECT_EQ(bank.couplingSteps(), 0U);
    EXPECT_TRUE(bank.isCouplingEnabled());
    EXPECT_NE(bank.phaseOffsets()[1], 0.0) << "a new coupling keeps the phases";
}

TEST(OscillatorCoupling, TakesTheSameStepsHoweverItIsAdvanced) {
    const std::vector<Oscillator> oscillators{
        {0, 7.3, 0.1, 1.0}, {1, 6.9, 2.0, 0.0}, {2, 40.1, -3.0, 2.0}};
    const std::vector<OscillatorCoupling> couplings{
        {0, 1, 1.5}, {1, 0, -0.7}, {2, 1, 3.0}, {0, 2, 0.2}};
    const ModelTime period = 1'000'013;
    const double period_s = static_cast<double>(period) / 1e9;
    const auto build = [&] {
        OscillatorBank bank(oscillators);
        bank.configureCoupling(couplings, period);
        return bank;
    };
    OscillatorBank bank = build();
    bank.advanceCoupling(second);
    EXPECT_EQ(bank.couplingSteps(), 0U) << "disabled coupling takes no step";
    bank.setCouplingEnabled(true);
    Draws draws(11);
    std::vector<double> offsets(3, 0.0);
    ModelTime now = 0;
    for (ModelTime time = 0; time < second; time += draws.timeBelow(3 * period)) {
        if (draws.oneIn(4)) time = now + period;  // exactly at the end of a step
        OscillatorBank twin = build();
        twin.phaseOf(0, time);  // before the restore
        ASSERT_TRUE(twin.restore(bank.snapshot()));
        bank = twin;
        // Before the steps up to that time.
        ASSERT_TRUE(sameBits(bank.phaseOf(0, time), phaseAt(oscillators[0], time, offsets[0])));
        bank.advanceCoupling(time);
        for (; now + period <= time; now += period) {
            // All phases are read before an offset changes.
            double deltas[3] = {};
            for (const auto& [source, target, strength] : couplings) {
                const double a = phaseAt(oscillators[source], now, offsets[source]);
                const double b = phaseAt(oscillators[target], now, offsets[target]);
                deltas[target] = (std::sin(a - b) * strength) * period_s + deltas[target];
            }
            for (std::size_t i = 0; i < 3; ++i) {
                offsets[i] = std::fmod(deltas[i] + offsets[i], two_pi);
                if (offsets[i] < 0.0) offsets[i] += two_pi;
            }
        }
        for (std::uint32_t i = 0; i < 3; ++i) {
            ASSERT_TRUE(sameBits(bank.phaseOffsets()[i], offsets[i])) << time;
            for (const ModelTime at : {now - period, time}) {
                ASSERT_TRUE(sameBits(bank.phaseOf(i, at), phaseAt(oscillators[i], at, offsets[i])));
            }
        }
    }
}

TEST(OscillatorCoupling, RefusesThePastAndTheEndOfTime) {
    const char* const past = "oscillator coupling advanced into the past";
    OscillatorBank bank({{0, 1.0, 0.0, 1.0}, {1, 1.0, 1.0, 1.0}});
    expectThrows<InvalidOscillator>([&] { bank.advanceCoupling(-1); }, past);
    bank.setCouplingEnabled(true);
    const ModelTime period = 4 * second * second;
    bank.configureCoupling({{0, 1, 1e-9}}, period);
    expectThrows<TimeOverflow>([&] { bank.advanceCoupling(last_model_time); },
                               "KELM model time overflow");
    bank.setCouplingEnabled(false);
    expectThrows<InvalidOscillator>([&] { bank.advanceCoupling(2 * period - 1); }, past);
    bank.advanceCoupling(last_model_time);
    EXPECT_EQ(bank.couplingSteps(), 2U) << "the steps before the overflow stay";
}

TEST(OscillatorCoupling, RefusesAnOffsetThatBecomesInfinite) {
    OscillatorBank bank({{0, 0.0, quarter, 1.0}, {1, 0.0, 0.0, 1.0}});
    bank.setCouplingEnabled(true);
    bank.configureCoupling({{0, 1, std::numeric_limits<double>::max()}}, 2 * second);
    expectThrows<InvalidOscillator>([&] { bank.advanceCoupling(100 * second); },
                                    "invalid KELM oscillator parameters");
    EXPECT_EQ(bank.couplingSteps(), 1U);
}

TEST(OscillatorBlob, HoldsEveryFieldInItsPlaceAndRefusesAnotherConfiguration) {
    OscillatorBank bank({{0x01020304, 7.25, 0.125, 1.5}, {last_id, 0.25, 0.125 + quarter, 3.0}});
    bank.configureCoupling({{last_id, 0x01020304, 2.0}}, second / 4);
    bank.setCouplingEnabled(true);
    bank.advanceCoupling(second / 4);  // moves the phase by exactly half a radian
    const Blob blob = blobOf(BlobTag("KELMOSC2"), 2UL, second / 4, 1UL, true, 0x01020304U, 7.25,
                             0.125, 1.5, 0.5, last_id, 0.25, 0.125 + quarter, 3.0, 0.0);
    EXPECT_EQ(bank.snapshot(), blob);
    constexpr std::size_t steps_at = 24;
    // The largest count of steps whose end is a valid time.
    const auto last_step = static_cast<std::uint64_t>(last_model_time / (second / 4));
    bank.advanceCoupling(second);
    expectTakesAllOrNothing(
        bank, blob,
        {{"another count", OscillatorBank({}).snapshot()},
         {"another period", withValueAt(blob, 16, second / 2)},
         {"a step past the end of time", withValueAt(blob, steps_at, last_step + 1)},
         {"a count that wraps to a small time", withValueAt(blob, steps_at, 1UL << 62)},
         {"a flag of 2", withValueAt(blob, 32, std::uint8_t{2})},
         {"another id", withValueAt(blob, 33, 0x01020305U)},
         {"another frequency", withValueAt(blob, 37, std::nextafter(7.25, 8.0))},
         {"another start", withValueAt(blob, 45, std::nextafter(0.125, 8.0))},
         {"another amplitude", withValueAt(blob, 53, std::nextafter(1.5, 8.0))},
         {"an infinite offset", withValueAt(blob, 97, -infinity)}});
    EXPECT_TRUE(bank.restore(withValueAt(blob, steps_at, last_step)));
    // Configuration is compared as numbers. Without a period every count of steps is valid.
    const Blob still = OscillatorBank({{0, 0.0, -0.0, 1.0}}).snapshot();
    EXPECT_TRUE(OscillatorBank({{0, -0.0, 0.0, 1.0}}).restore(withValueAt(still, steps_at, ~0UL)));
}

}  // namespace
}  // namespace Lumenar::Core::Kelm

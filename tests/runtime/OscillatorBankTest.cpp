#include "kelm/runtime/OscillatorBank.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm {
namespace {

using Testing::Draws;
using Testing::expectThrows;
using Testing::sameBits;

__extension__ using Int128 = __int128;

constexpr double two_pi = 6.283185307179586;
constexpr double quarter = 1.5707963267948966;
constexpr ModelTime second = 1'000'000'000;
constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

std::uint64_t bits(double value) { return std::bit_cast<std::uint64_t>(value); }

/// A time of either sign, of every magnitude from 1 ns to the ends of the range.
ModelTime anyTime(Draws& draws) {
    const auto magnitude = std::exp2(draws.between(0.0, 63.0));
    const auto time = magnitude < 9.2e18 ? static_cast<ModelTime>(magnitude) : last_model_time;
    return draws.oneIn(2) ? -time : time;
}

/// The fraction of frequency * time in cycles, with the sign of the time: the frequency as the
/// fraction of two integers that it is, and the remainder taken in integers.
long double exactCycles(double frequency, ModelTime time) {
    int exponent = 0;
    const auto mantissa =
        static_cast<std::int64_t>(std::ldexp(std::frexp(frequency, &exponent), 53));
    const Int128 denominator = static_cast<Int128>(second) << (53 - exponent);
    return static_cast<long double>(static_cast<Int128>(mantissa) * time % denominator) /
           static_cast<long double>(denominator);
}

/// The distance of two phases around the circle.
double apart(double a, double b) {
    const double distance = std::fmod(std::fabs(a - b), two_pi);
    return std::min(distance, two_pi - distance);
}

TEST(OscillatorPhase, IsExactAtAnyDistanceFromZero) {
    Draws draws(5);
    for (int i = 0; i < 20'000; ++i) {
        const double frequency = i == 0 ? 0.1 : draws.between(0.02, 200.0);
        const ModelTime time = i == 0 ? second * second : anyTime(draws);
        const Oscillator oscillator{0, frequency, 0.75, 1.0};
        const double phase = phaseAt(oscillator, time, 1.5);
        const auto expected = static_cast<double>(exactCycles(frequency, time) * two_pi + 2.25L);
        // At most 34 roundings of the whole seconds' fraction, four more below frequency + 1.
        const double tolerance = (40.0 + 4.0 * (frequency + 1.0)) * 0x1p-53 * two_pi;
        ASSERT_LE(apart(phase, expected), tolerance)
            << "frequency " << frequency << " at " << time << " ns";
        ASSERT_TRUE(phase >= 0.0 && phase <= two_pi) << phase;
    }
}

TEST(OscillatorPhase, IsExactToTheBitWhereNothingRounds) {
    // 7.25 Hz at whole eighths of a second: all cycles are multiples of 2^-5.
    const Oscillator oscillator{0, 7.25, 0.2, 1.0};
    Draws draws(6);
    for (int i = 0; i < 2'000; ++i) {
        const ModelTime eighths = anyTime(draws) / (second / 8);
        const auto cycles = static_cast<double>(eighths * 29 % 32) / 32.0;
        double expected = std::fmod(cycles * two_pi + 0.2, two_pi);
        if (expected < 0.0) expected += two_pi;
        ASSERT_TRUE(sameBits(phaseAt(oscillator, eighths * (second / 8), 0.0), expected))
            << eighths << " eighths of a second";
    }
}

/// The closed form with a library remainder at every place where something is reduced.
double phaseByRemainders(const Oscillator& oscillator, ModelTime time, double offset) {
    const ModelTime whole = time / second;
    double fraction = std::fmod(oscillator.frequency, 1.0);
    double sum = 0.0;
    for (ModelTime n = std::abs(whole); n != 0; n /= 2) {
        if (n % 2 != 0) sum = std::fmod(sum + fraction, 1.0);
        fraction = std::fmod(fraction + fraction, 1.0);
    }
    const double cycles =
        (static_cast<double>(time - whole * second) / 1e9) * oscillator.frequency +
        (whole < 0 ? -sum : sum);
    const double turned =
        std::fmod(std::fmod(cycles, 1.0) * two_pi + (oscillator.phase + offset), two_pi);
    return turned < 0.0 ? turned + two_pi : turned;
}

TEST(OscillatorPhase, RoundsAsReductionByRemaindersDoes) {
    Draws draws(7);
    for (int i = 0; i < 20'000; ++i) {
        // Every fourth in eighths of a hertz, whose fractions double to exactly 1.
        const double frequency = draws.oneIn(4) ? static_cast<double>(draws.below(64)) / 8.0
                                                : std::exp2(draws.between(-20.0, 20.0));
        const Oscillator oscillator{0, frequency, draws.between(-50.0, 50.0), 1.0};
        const ModelTime time = anyTime(draws);
        const double offset = draws.between(0.0, two_pi);
        ASSERT_TRUE(sameBits(phaseAt(oscillator, time, offset),
                             phaseByRemainders(oscillator, time, offset)))
            << std::hexfloat << oscillator.frequency << " Hz at " << time << " ns";
    }
}

TEST(OscillatorPhase, IsItsStartWhereNoCyclesCount) {
    struct Case {
        const char* fact;
        double frequency;
        double phase;
        ModelTime time;
        double expected;
    };
    for (const Case& c : {
             Case{"no frequency before zero", 0.0, 0.5, -123'456'789'012'345, 0.5},
             Case{"whole cycles in whole seconds", 7.0, 0.2, 86'400 * second, 0.2},
             Case{"whole cycles before zero", 7.0, 0.2, -86'400 * second, 0.2},
             Case{"a start beyond one turn is wrapped at use", 0.0, 10.0, 0, 10.0 - two_pi},
             Case{"a negative start is turned", 0.0, -1.0, 0, -1.0 + two_pi},
             Case{"a tiny negative start rounds up to the full turn", 0.0, -1e-17, 0, two_pi},
             Case{"a frequency too large for a fraction", std::numeric_limits<double>::max(), 0.25,
                  second, 0.25},
         }) {
        SCOPED_TRACE(c.fact);
        EXPECT_TRUE(sameBits(phaseAt({0, c.frequency, c.phase, 1.0}, c.time, 0.0), c.expected));
    }
}

TEST(OscillatorBank, RefusesParametersAndRepeatedIdsInOrder) {
    struct Case {
        const char* fact;
        std::vector<Oscillator> oscillators;
        const char* text;
    };
    const char* const parameters = "invalid KELM oscillator parameters";
    const char* const duplicate = "duplicate KELM oscillator id";
    for (const Case& c : {
             Case{"negative frequency", {{0, -0.5, 0, 1}}, parameters},
             Case{"infinite frequency", {{0, infinity, 0, 1}}, parameters},
             Case{"infinite phase", {{0, 1, -infinity, 1}}, parameters},
             Case{"negative amplitude", {{0, 1, 0, -1e-300}}, parameters},
             Case{"amplitude NaN", {{0, 1, 0, not_a_number}}, parameters},
             Case{"repeated id", {{3, 1, 0, 1}, {4, 1, 0, 1}, {3, 1, 0, 1}}, duplicate},
             Case{"parameters before the id", {{3, 1, 0, 1}, {3, -1, 0, 1}}, parameters},
             Case{"first fault first", {{3, 1, 0, 1}, {3, 1, 0, 1}, {4, -1, 0, 1}}, duplicate},
         }) {
        SCOPED_TRACE(c.fact);
        expectThrows<InvalidOscillator>([&] { OscillatorBank(c.oscillators); }, c.text);
    }
    expectThrows<InvalidOscillator>([] { phaseAt({0, 1, 0, 1}, 0, not_a_number); }, parameters);
    EXPECT_NO_THROW(OscillatorBank({{0, -0.0, 10.0, 0.0}}));
}

constexpr std::uint32_t last_id = 4'294'967'295;

TEST(OscillatorBank, ReportsPhasesByIdInTheOrderAskedFor) {
    OscillatorBank bank({{9, 7.25, 0.1, 1.0}, {last_id, 0.3, 0.2, 0.0}, {0, 11.0, 0.3, 2.0}});
    const ModelTime time = 123'456'789'012;
    const auto expectSamples = [&](const std::vector<PhaseSample>& samples,
                                   const std::vector<std::uint32_t>& ids) {
        ASSERT_EQ(samples.size(), ids.size());
        for (std::size_t i = 0; i < ids.size(); ++i) {
            EXPECT_EQ(samples[i].oscillator, ids[i]);
            EXPECT_TRUE(sameBits(samples[i].phase, phaseAt(bank.oscillator(ids[i]), time, 0.0)));
            EXPECT_TRUE(sameBits(samples[i].phase, bank.phaseOf(ids[i], time)));
        }
    };
    expectSamples(bank.allPhases(time), {9, last_id, 0});
    expectSamples(bank.neuronPhases(0, time), {});

    bank.setMemberships({{0, 9}, {}, {last_id, 0, last_id}});
    expectSamples(bank.neuronPhases(0, time), {0, 9});
    expectSamples(bank.neuronPhases(1, time), {});
    expectSamples(bank.neuronPhases(2, time), {last_id, 0, last_id});
    expectSamples(bank.neuronPhases(3, time), {});

    const char* const unknown = "unknown KELM oscillator id";
    expectThrows<InvalidOscillator>([&] { bank.setMemberships({{9}, {0, 1}}); }, unknown);
    expectSamples(bank.neuronPhases(0, time), {0, 9});
    expectThrows<InvalidOscillator>([&] { bank.phaseOf(1, 0); }, unknown);
    expectThrows<InvalidOscillator>([&] { bank.oscillator(8); }, unknown);
}

TEST(OscillatorCoupling, RefusesBadSettingsAndKeepsTheOldOnes) {
    OscillatorBank bank({{1, 1.0, 0.0, 1.0}, {2, 1.0, 1.0, 1.0}});
    bank.setCouplingEnabled(true);
    bank.configureCoupling({{1, 2, 0.5}}, 1'000);
    bank.advanceCoupling(5'000);
    const Blob before = bank.snapshot();

    struct Case {
        const char* fact;
        std::vector<OscillatorCoupling> couplings;
        ModelTime period;
        const char* text;
    };
    const char* const unknown = "unknown KELM oscillator id";
    const char* const strength = "oscillator coupling strength must be finite";
    const char* const period = "oscillator coupling period must be positive";
    for (const Case& c : {
             Case{"no period", {{1, 2, 0.5}}, 0, period},
             Case{"negative period, before the couplings", {{7, 2, 0.5}}, -1, period},
             Case{"unknown source", {{7, 2, not_a_number}}, 1, unknown},
             Case{"unknown target", {{1, 2, 0.5}, {1, 7, infinity}}, 1, unknown},
             Case{"strength NaN", {{1, 2, not_a_number}}, 1, strength},
             Case{"infinite strength", {{1, 2, -infinity}}, 1, strength},
         }) {
        SCOPED_TRACE(c.fact);
        expectThrows<InvalidOscillator>([&] { bank.configureCoupling(c.couplings, c.period); },
                                        c.text);
        EXPECT_EQ(bank.snapshot(), before);
        EXPECT_EQ(bank.couplings().size(), 1u);
    }

    bank.configureCoupling({}, 0);
    EXPECT_EQ(bank.couplingSteps(), 0u);
    EXPECT_TRUE(bank.isCouplingEnabled());
    EXPECT_NE(bank.phaseOffsets()[1], 0.0) << "a new coupling keeps the phases";
}

TEST(OscillatorCoupling, ReadsAllPhasesAtTheStartOfAStepBeforeItMovesOne) {
    // A quarter of a second at a quarter cycle's difference: the sine is exactly 1 and the step
    // exactly half a radian. The source turns by a quarter within the step, which must not count.
    OscillatorBank bank({{0, 1.0, quarter, 1.0}, {1, 0.0, 0.0, 1.0}});
    bank.configureCoupling({{0, 1, 2.0}, {1, 0, 2.0}}, second / 4);
    bank.setCouplingEnabled(true);
    bank.advanceCoupling(second / 4 - 1);
    EXPECT_EQ(bank.couplingSteps(), 0u);
    bank.advanceCoupling(second / 4);
    EXPECT_EQ(bank.couplingSteps(), 1u);
    EXPECT_TRUE(sameBits(bank.phaseOffsets()[1], 0.5));
    EXPECT_TRUE(sameBits(bank.phaseOffsets()[0], -0.5 + two_pi));
    EXPECT_TRUE(sameBits(bank.phaseOf(1, 0), 0.5));

    OscillatorBank slow({{0, 0.0, 0.7, 1.0}, {1, 0.0, 0.0, 1.0}});
    slow.configureCoupling({{0, 1, 0.7}}, second / 10);
    slow.setCouplingEnabled(true);
    slow.advanceCoupling(second / 10);
    EXPECT_TRUE(sameBits(slow.phaseOffsets()[1], (std::sin(0.7) * 0.7) * 0.1));
}

TEST(OscillatorCoupling, SumsPullsInTheOrderOfTheCouplings) {
    OscillatorBank bank({{0, 0.0, quarter, 1.0}, {1, 0.0, 0.0, 1.0}});
    bank.setCouplingEnabled(true);
    // Steps of 2^53, 1 and -2^53 radians: the 1 is lost in a sum that holds 2^53 already.
    bank.configureCoupling({{0, 1, 0x1p55}, {0, 1, 4.0}, {0, 1, -0x1p55}}, second / 4);
    bank.advanceCoupling(second / 4);
    EXPECT_TRUE(sameBits(bank.phaseOffsets()[1], 0.0));
    bank.configureCoupling({{0, 1, 0x1p55}, {0, 1, -0x1p55}, {0, 1, 4.0}}, second / 4);
    bank.advanceCoupling(second / 4);
    EXPECT_TRUE(sameBits(bank.phaseOffsets()[1], 1.0));
}

/// How far the source leads the target, in (-pi, pi].
double lead(const OscillatorBank& bank, ModelTime time) {
    const double difference = bank.phaseOf(0, time) - bank.phaseOf(1, time);
    return std::remainder(difference, two_pi);
}

TEST(OscillatorCoupling, PullsTogetherOrPushesApartAsTheClosedFormTells) {
    // At equal frequencies the lead obeys x' = -K sin x, so tan(x / 2) decays with exp(-K t).
    for (const double strength : {2.0, -2.0}) {
        SCOPED_TRACE(strength);
        OscillatorBank bank({{0, 7.25, 1.0, 1.0}, {1, 7.25, 0.0, 1.0}});
        bank.configureCoupling({{0, 1, strength}}, 1'000'000);
        bank.setCouplingEnabled(true);
        double before = lead(bank, 0);
        for (ModelTime time = 50'000'000; time <= 2 * second; time += 50'000'000) {
            bank.advanceCoupling(time);
            const double now = lead(bank, time);
            const double seconds = static_cast<double>(time) / 1e9;
            ASSERT_NEAR(now, 2.0 * std::atan(std::tan(0.5) * std::exp(-strength * seconds)), 2e-3);
            ASSERT_TRUE(strength > 0.0 ? now < before : now > before) << time;
            before = now;
        }
        bank.advanceCoupling(20 * second);
        EXPECT_NEAR(lead(bank, 20 * second), strength > 0.0 ? 0.0 : two_pi / 2.0, 1e-9);
    }
}

TEST(OscillatorCoupling, LocksADetunedPairAtItsKnownLead) {
    // Locked, the pull makes up for the difference of frequencies: sin x = 2 pi 0.25 / pi = 1/2.
    OscillatorBank bank({{0, 7.25, 0.0, 1.0}, {1, 7.0, 3.0, 1.0}});
    bank.configureCoupling({{0, 1, two_pi / 2.0}}, 2'000'000);
    bank.setCouplingEnabled(true);
    bank.advanceCoupling(20 * second);
    EXPECT_NEAR(lead(bank, 20 * second), two_pi / 12.0, 1e-9);
}

OscillatorBank coupledBank() {
    OscillatorBank bank({{5, 7.3, 0.1, 1.0}, {6, 6.9, 2.0, 0.0}, {7, 40.1, -3.0, 2.0}});
    bank.configureCoupling({{5, 6, 1.5}, {6, 5, -0.7}, {7, 6, 3.0}, {5, 7, 0.2}}, 1'000'003);
    return bank;
}

TEST(OscillatorCoupling, EndsInTheSameBitsHoweverItIsAdvanced) {
    OscillatorBank at_once = coupledBank();
    at_once.setCouplingEnabled(true);
    at_once.advanceCoupling(second);

    OscillatorBank in_hops = coupledBank();
    in_hops.setCouplingEnabled(true);
    Draws draws(11);
    ModelTime time = 0;
    while (time < second) {
        in_hops.advanceCoupling(time);
        time += draws.timeBelow(3'000'000);
    }
    in_hops.advanceCoupling(second);
    EXPECT_EQ(in_hops.snapshot(), at_once.snapshot());

    OscillatorBank late = coupledBank();
    late.advanceCoupling(second);
    EXPECT_EQ(late.couplingSteps(), 0u) << "disabled coupling takes no step";
    late.setCouplingEnabled(true);
    late.advanceCoupling(second);
    EXPECT_EQ(late.snapshot(), at_once.snapshot());
}

TEST(OscillatorCoupling, RefusesThePastAndTheEndOfTime) {
    const char* const past = "oscillator coupling advanced into the past";
    const char* const overflow = "KELM model time overflow";
    OscillatorBank bank({{0, 1.0, 0.0, 1.0}, {1, 1.0, 1.0, 1.0}});
    bank.advanceCoupling(0);
    expectThrows<InvalidOscillator>([&] { bank.advanceCoupling(-1); }, past);

    bank.setCouplingEnabled(true);
    bank.configureCoupling({{0, 1, 1e-9}}, 4 * second * second);
    expectThrows<TimeOverflow>([&] { bank.advanceCoupling(last_model_time); }, overflow);
    EXPECT_EQ(bank.couplingSteps(), 2u) << "the steps before the end stand";
    const Blob before = bank.snapshot();
    expectThrows<TimeOverflow>([&] { bank.advanceCoupling(8 * second * second); }, overflow);
    expectThrows<InvalidOscillator>([&] { bank.advanceCoupling(8 * second * second - 1); }, past);
    EXPECT_EQ(bank.snapshot(), before);
    bank.setCouplingEnabled(false);
    expectThrows<InvalidOscillator>([&] { bank.advanceCoupling(8 * second * second - 1); }, past);
    bank.advanceCoupling(last_model_time);
}

TEST(OscillatorCoupling, ReportsAnOffsetThatItHasDrivenOutOfTheFiniteNumbers) {
    OscillatorBank bank({{0, 0.0, quarter, 1.0}, {1, 0.0, 0.0, 1.0}});
    bank.setCouplingEnabled(true);
    bank.configureCoupling({{0, 1, std::numeric_limits<double>::max()}}, 2 * second);
    expectThrows<InvalidOscillator>([&] { bank.advanceCoupling(100 * second); },
                                    "invalid KELM oscillator parameters");
    EXPECT_EQ(bank.couplingSteps(), 1u);
    EXPECT_NO_THROW(bank.phaseOf(0, 0));
}

/// One oscillator after a step of exactly half a radian, and its source.
OscillatorBank steppedBank() {
    OscillatorBank bank({{0x01020304, 7.25, 0.125, 1.5}, {last_id, 0.25, 0.125 + quarter, 3.0}});
    bank.configureCoupling({{last_id, 0x01020304, 2.0}}, second / 4);
    bank.setCouplingEnabled(true);
    bank.advanceCoupling(second / 4);
    return bank;
}

// Written by hand from the values of steppedBank; 0.125 + quarter is 0x1.b21fb54442d18p+0.
const Blob stepped_blob = {'K',  'E',  'L',  'M',  'O',  'S',  'C',  '2',   // tag
                           2,    0,    0,    0,    0,    0,    0,    0,     // oscillators
                           0x80, 0xb2, 0xe6, 0x0e, 0,    0,    0,    0,     // 250'000'000 ns
                           1,    0,    0,    0,    0,    0,    0,    0,     // steps
                           1,                                               // enabled
                           4,    3,    2,    1,                             // id
                           0,    0,    0,    0,    0,    0,    0x1d, 0x40,  // 7.25
                           0,    0,    0,    0,    0,    0,    0xc0, 0x3f,  // 0.125
                           0,    0,    0,    0,    0,    0,    0xf8, 0x3f,  // 1.5
                           0,    0,    0,    0,    0,    0,    0xe0, 0x3f,  // 0.5
                           0xff, 0xff, 0xff, 0xff,                          // id
                           0,    0,    0,    0,    0,    0,    0xd0, 0x3f,  // 0.25
                           0x18, 0x2d, 0x44, 0x54, 0xfb, 0x21, 0xfb, 0x3f,  // 0.125 + quarter
                           0,    0,    0,    0,    0,    0,    0x08, 0x40,  // 3.0
                           0,    0,    0,    0,    0,    0,    0,    0};    // 0.0

constexpr std::size_t steps_at = 24;
constexpr std::size_t flag_at = 32;
constexpr std::size_t first_offset_at = 61;
constexpr std::size_t second_offset_at = 97;

void put(Blob& blob, std::size_t at, std::uint64_t value) {
    for (std::size_t i = 0; i < 8; ++i) {
        blob[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

TEST(OscillatorBlob, HoldsEveryFieldAtItsPlace) {
    EXPECT_EQ(steppedBank().snapshot(), stepped_blob);
}

TEST(OscillatorBlob, CarriesARunOverToABankOfTheSameConfiguration) {
    OscillatorBank original = coupledBank();
    original.setCouplingEnabled(true);
    original.advanceCoupling(second);
    OscillatorBank restored = coupledBank();
    ASSERT_TRUE(restored.restore(original.snapshot()));
    EXPECT_EQ(restored.snapshot(), original.snapshot());
    for (ModelTime time = second; time < 2 * second; time += second / 7) {
        original.advanceCoupling(time);
        restored.advanceCoupling(time);
        ASSERT_EQ(restored.snapshot(), original.snapshot()) << time;
        ASSERT_TRUE(sameBits(restored.phaseOf(6, time), original.phaseOf(6, time)));
    }
}

TEST(OscillatorBank, AnswersUnderThePresentOffsetsWhateverWasAskedBefore) {
    OscillatorBank bank = coupledBank();
    bank.setCouplingEnabled(true);
    const Blob start = bank.snapshot();
    const auto expectPresentPhases = [&] {
        for (const ModelTime time : {ModelTime{0}, second / 3, second / 3, ModelTime{0}}) {
            for (std::size_t position = 0; position < bank.oscillators().size(); ++position) {
                ASSERT_TRUE(sameBits(
                    bank.phaseOfPosition(position, time),
                    phaseAt(bank.oscillators()[position], time, bank.phaseOffsets()[position])))
                    << "oscillator " << position << " at " << time;
            }
        }
    };
    expectPresentPhases();
    for (int step = 1; step <= 3; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        bank.advanceCoupling(step * bank.couplingPeriod());
        expectPresentPhases();
    }
    ASSERT_NE(bank.snapshot(), start);
    ASSERT_TRUE(bank.restore(start));
    expectPresentPhases();
}

TEST(OscillatorBlob, IsRefusedCutShortOrChangedInWhatIsConfiguration) {
    OscillatorBank bank = steppedBank();
    bank.advanceCoupling(second);
    const Blob before = bank.snapshot();
    for (std::size_t length = 0; length < stepped_blob.size(); ++length) {
        ASSERT_FALSE(bank.restore(BlobView(stepped_blob).first(length))) << length;
        ASSERT_EQ(bank.snapshot(), before);
    }
    Blob longer = stepped_blob;
    longer.push_back(0);
    EXPECT_FALSE(bank.restore(longer));

    const auto isRunState = [](std::size_t at) {
        return (at >= steps_at && at <= flag_at) ||
               (at >= first_offset_at && at < first_offset_at + 8) || at >= second_offset_at;
    };
    for (std::size_t at = 0; at < stepped_blob.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            SCOPED_TRACE("byte " + std::to_string(at) + " bit " + std::to_string(bit));
            Blob forged = stepped_blob;
            forged[at] = static_cast<std::uint8_t>(forged[at] ^ (1 << bit));
            OscillatorBank target = steppedBank();
            const bool accepted = target.restore(forged);
            ASSERT_EQ(target.snapshot(), accepted ? forged : stepped_blob);
            ASSERT_FALSE(accepted && !isRunState(at));
        }
    }
}

TEST(OscillatorBlob, IsRefusedWithRunStateThatNoRunReaches) {
    // The largest count of steps whose end is a valid time.
    const auto last_step = static_cast<std::uint64_t>(last_model_time / (second / 4));
    struct Case {
        const char* fact;
        std::size_t at;
        std::uint64_t value;
        bool accepted;
    };
    for (const Case& c : {
             Case{"the last step of all time", steps_at, last_step, true},
             Case{"one step more", steps_at, last_step + 1, false},
             Case{"a count whose product wraps to a small time", steps_at, 1ULL << 62, false},
             Case{"offset NaN", first_offset_at, bits(not_a_number), false},
             Case{"infinite offset", second_offset_at, bits(-infinity), false},
             Case{"an offset of many turns", second_offset_at, bits(-1e300), true},
         }) {
        SCOPED_TRACE(c.fact);
        OscillatorBank bank = steppedBank();
        Blob forged = stepped_blob;
        put(forged, c.at, c.value);
        const bool accepted = bank.restore(forged);
        EXPECT_EQ(accepted, c.accepted);
        EXPECT_EQ(bank.snapshot(), c.accepted ? forged : stepped_blob);
        if (c.at == steps_at && accepted && c.accepted) {
            expectThrows<TimeOverflow>([&] { bank.advanceCoupling(last_model_time); },
                                       "KELM model time overflow");
        }
    }
    Blob two = stepped_blob;
    two[flag_at] = 2;
    EXPECT_FALSE(steppedBank().restore(two));
}

TEST(OscillatorBlob, ComparesConfigurationAsNumbers) {
    const Blob blob = OscillatorBank({{0, 0.0, -0.0, 1.0}}).snapshot();
    EXPECT_TRUE(OscillatorBank({{0, -0.0, 0.0, 1.0}}).restore(blob));
    EXPECT_FALSE(OscillatorBank({{0, 5e-324, -0.0, 1.0}}).restore(blob));

    // Without a period no count of steps is a time, so every count is one.
    Blob many = blob;
    put(many, steps_at, ~0ULL);
    OscillatorBank bank({{0, 0.0, -0.0, 1.0}});
    EXPECT_TRUE(bank.restore(many));
    bank.advanceCoupling(0);
}

}  // namespace
}  // namespace Lumenar::Core::Kelm

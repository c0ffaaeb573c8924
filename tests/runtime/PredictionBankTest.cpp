#include "kelm/runtime/PredictionBank.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <utility>
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

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

TEST(PredictionBank, RefusesAChannelForItsFirstFaultAndKeepsNothingOfIt) {
    // Each channel has the faults of all rows below it, as far as they go together.
    struct Case {
        const char* text;
        ErrorChannel channel;
    };
    const char* const global = "a global error scalar is forbidden; declare local channels instead";
    for (const Case& c :
         {Case{"runtime prediction target is outside the graph", {"", {1, 4}, -1.0, infinity, 0.0}},
          Case{"error channel needs a name", {"", {}, -1.0, infinity, 0.0}},
          Case{global, {"global", {}, -1.0, infinity, 0.0}},
          Case{global, {"global_error", {}, -1.0, infinity, 0.0}},
          Case{"error channel acts on no local circuit", {"hand", {}, -1.0, infinity, 0.0}},
          Case{"precision must be finite and >= 0", {"hand", {1}, -0x1p-1074, infinity, 0.0}},
          Case{"precision must be finite and >= 0", {"hand", {1}, not_a_number, infinity, 0.0}},
          Case{"precision must be finite and >= 0", {"hand", {1}, infinity, infinity, 0.0}},
          Case{"error strength must be finite", {"hand", {1}, 0.0, not_a_number, 0.0}},
          Case{"error strength must be finite", {"hand", {1}, -0.0, -infinity, 0.0}},
          Case{"error clamp must be finite and > 0", {"hand", {1}, 0.0, -0.0, 0.0}},
          Case{"error clamp must be finite and > 0", {"hand", {1}, 0.0, 0.0, infinity}},
          Case{"error clamp must be finite and > 0", {"hand", {1}, 0.0, 0.0, not_a_number}},
          Case{"duplicate error channel 'hand'", {"hand", {1}, 0.0, 0.0, 0x1p-1074}}}) {
        SCOPED_TRACE(c.text);
        PredictionBank bank(4);
        ASSERT_EQ(bank.addErrorChannel({"hand", {3}, 1.0, 2.0, 0.5}), 0U);
        expectThrows<InvalidPrediction>([&] { bank.addErrorChannel(c.channel); }, c.text);
        EXPECT_EQ(bank.channels().size(), 1U);
        EXPECT_EQ(bank.errorBound(1), 0.0);
        EXPECT_EQ(bank.errorBound(3), 1.0);
        // Only the exact words are global.
        EXPECT_EQ(bank.addErrorChannel({"Global", {1}, 1.0, 2.0, 0.5}), 1U);
        EXPECT_EQ(bank.predictors().size(), 2U);
    }
}

TEST(PredictionBank, RefusesAReadoutForItsFirstFaultAndKeepsTheFormerOne) {
    struct Case {
        const char* text;
        std::size_t index;
        Predictor predictor;
    };
    const PredictorKind kind = PredictorKind::explicit_readout;
    for (const Case& c :
         {Case{"unknown error channel", 1, {kind, {1}, {}, infinity}},
          Case{"predictor readout shape mismatch", 0, {kind, {}, {infinity}, infinity}},
          Case{"predictor readout shape mismatch", 0, {kind, {1, 2}, {infinity}, infinity}},
          Case{"an explicit predictor needs a source population", 0, {kind, {}, {}, infinity}},
          Case{"predictor weights must be finite", 0, {kind, {1, 2}, {0.0, infinity}, infinity}},
          Case{"predictor weights must be finite", 0, {kind, {1}, {not_a_number}, infinity}},
          Case{"predictor bias must be finite", 0, {kind, {1}, {0.0}, not_a_number}}}) {
        SCOPED_TRACE(c.text);
        PredictionBank bank(1);
        bank.addErrorChannel({"hand", {0}});
        bank.setPredictor(0, {kind, {7, 9}, {-1.0, 0.5}, 3.0});
        expectThrows<InvalidPrediction>([&] { bank.setPredictor(c.index, c.predictor); }, c.text);
        EXPECT_EQ(bank.predictors()[0].sources, (std::vector<NodeId>{7, 9}));
        EXPECT_EQ(bank.predictors()[0].weights, (std::vector<double>{-1.0, 0.5}));
        EXPECT_EQ(bank.predictors()[0].bias, 3.0);
    }
    PredictionBank bank(1);
    bank.addErrorChannel({"hand", {0}});
    const auto unnamed_kind = static_cast<PredictorKind>(7);
    bank.setPredictor(0, {unnamed_kind, {1}, {}, infinity});
    EXPECT_EQ(bank.predictors()[0].kind, unnamed_kind) << "a kind without rules is only kept";
}

TEST(PredictionBank, WeighsAndClampsAnError) {
    struct Case {
        const char* fact;
        double precision, clamp, observed, predicted, error, weighted_error;
    };
    const double huge = std::numeric_limits<double>::max();
    for (const Case& c :
         {Case{"within the clamp", 0.5, 1.0, 3.0, 1.5, 1.5, 0.75},
          Case{"at the clamp", 0.5, 1.0, 3.0, 1.0, 2.0, 1.0},
          Case{"above it", 0.5, 1.0, 4.0, 1.0, 3.0, 1.0},
          Case{"below it", 0.5, 1.0, 1.0, 4.0, -3.0, -1.0},
          Case{"no precision", 0.0, 1.0, 4.0, 1.0, 3.0, 0.0},
          Case{"no precision, negative error", 0.0, 1.0, 1.0, 4.0, -3.0, -0.0},
          Case{"a difference that is no double", 1.0, 0.25, huge, -huge, infinity, 0.25}}) {
        SCOPED_TRACE(c.fact);
        PredictionBank bank(1);
        bank.addErrorChannel({"hand", {0}, c.precision, 1.0, c.clamp});
        bank.observeValue(0, c.observed, c.predicted, 12);
        const Observation& seen = bank.observations()[0];
        EXPECT_TRUE(sameBits(seen.error, c.error));
        EXPECT_TRUE(sameBits(seen.weighted_error, c.weighted_error));
        EXPECT_TRUE(sameBits(seen.observed, c.observed));
        EXPECT_TRUE(sameBits(seen.predicted, c.predicted));
        EXPECT_EQ(seen.time, 12);
    }
}

TEST(PredictionBank, PutsTheReportThatCameLastInForceWhateverItsTime) {
    PredictionBank bank(2);
    bank.addErrorChannel({"hand", {1}, 1.0, -2.0, 8.0});
    EXPECT_FALSE(bank.latestObservation(0));
    bank.observeValue(0, 3.0, 0.0, 1000);
    bank.observeValue(0, 5.0, 0.0, 10);
    EXPECT_EQ(bank.errorDrive(1), -10.0);
    bank.setPrecision(0, 0.5);
    EXPECT_EQ(bank.errorDrive(1), -10.0) << "a report keeps the precision of its day";

    expectThrows<InvalidPrediction>([&] { bank.observeValue(1, infinity, 0.0, 0); },
                                    "unknown error channel");
    expectThrows<InvalidPrediction>([&] { bank.observeValue(0, infinity, 0.0, 0); },
                                    "observed values must be finite");
    expectThrows<InvalidPrediction>([&] { bank.observeValue(0, 0.0, not_a_number, 0); },
                                    "observed values must be finite");
    expectThrows<InvalidPrediction>([&] { bank.latestObservation(1); }, "unknown error channel");
    expectThrows<InvalidPrediction>([&] { bank.setPrecision(1, -1.0); }, "unknown error channel");
    expectThrows<InvalidPrediction>([&] { bank.setPrecision(0, -1.0); },
                                    "precision must be finite and >= 0");
    EXPECT_EQ(bank.observations().size(), 2U);
    EXPECT_EQ(bank.latestObservation(0)->time, 10);
    bank.observeValue(0, 5.0, 0.0, 0);
    EXPECT_EQ(bank.errorDrive(1), -5.0);
}

// The definition, searched anew at each question.

const Observation* latestOf(const PredictionBank& bank, std::size_t channel) {
    for (std::size_t i = bank.observations().size(); i-- > 0;) {
        if (bank.observations()[i].channel == channel) return &bank.observations()[i];
    }
    return nullptr;
}

bool reaches(const ErrorChannel& channel, NodeId neuron) {
    return std::find(channel.targets.begin(), channel.targets.end(), neuron) !=
           channel.targets.end();
}

double searchedDrive(const PredictionBank& bank, NodeId neuron) {
    double sum = 0.0;
    for (std::size_t c = 0; c < bank.channels().size(); ++c) {
        const Observation* const seen = latestOf(bank, c);
        if (!reaches(bank.channels()[c], neuron) || seen == nullptr) continue;
        sum += seen->weighted_error * bank.channels()[c].strength;
    }
    return sum;
}

double searchedBound(const PredictionBank& bank, NodeId neuron) {
    double sum = 0.0;
    for (const ErrorChannel& channel : bank.channels()) {
        if (reaches(channel, neuron)) sum += std::fabs(channel.strength) * channel.clamp;
    }
    return sum;
}

/// Compares every neuron, and one beyond the last, with the search.
void expectAsSearched(const PredictionBank& bank, NodeId neurons) {
    for (NodeId n = 0; n <= neurons; ++n) {
        ASSERT_TRUE(sameBits(bank.errorDrive(n), searchedDrive(bank, n))) << "neuron " << n;
        ASSERT_TRUE(sameBits(bank.errorBound(n), searchedBound(bank, n))) << "neuron " << n;
    }
    for (std::size_t c = 0; c < bank.channels().size(); ++c) {
        const Observation* const seen = latestOf(bank, c);
        const std::optional<Observation> latest = bank.latestObservation(c);
        ASSERT_EQ(latest.has_value(), seen != nullptr) << "channel " << c;
        if (!latest) continue;
        ASSERT_EQ(std::memcmp(&*latest, seen, sizeof(Observation)), 0) << "channel " << c;
    }
}

/// Of widely different sizes, so that another order of a sum shows; some are zeros of either sign.
double value(Draws& draws) {
    const double magnitude = draws.oneIn(16) ? 0.0
                                             : std::ldexp(draws.between(0.5, 1.0),
                                                          static_cast<int>(draws.below(60)) - 30);
    return draws.oneIn(2) ? magnitude : -magnitude;
}

TEST(PredictionBank, AnswersEveryNeuronToTheBitAsASearchOfAllChannelsAndReportsWould) {
    constexpr NodeId neurons = 13;
    for (std::uint64_t seed = 1; seed <= 25; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Draws draws(seed);
        PredictionBank bank(neurons);
        for (std::size_t step = 0; step < 120; ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            const std::size_t channels = bank.channels().size();
            if (channels == 0 || draws.oneIn(6)) {
                ErrorChannel channel{std::to_string(step),
                                     {},
                                     std::fabs(value(draws)),
                                     value(draws),
                                     std::fabs(value(draws)) + 0x1p-20};
                for (std::size_t i = draws.below(9) + 1; i > 0; --i) {
                    channel.targets.push_back(draws.below(neurons));
                }
                bank.addErrorChannel(std::move(channel));
            } else if (draws.oneIn(8)) {
                bank.setPrecision(draws.below(channels), std::fabs(value(draws)));
            } else if (draws.oneIn(16)) {
                // Back to an earlier history, under other precisions.
                std::vector<double> precisions = bank.precisions();
                for (double& precision : precisions) precision = std::fabs(value(draws));
                const auto seen =
                    bank.observations().first(draws.below(bank.observations().size() + 1));
                ASSERT_TRUE(bank.restoreState(precisions, {seen.begin(), seen.end()}, 0.0, 0.0));
            } else {
                // One by one: the order in which arguments are evaluated is not fixed.
                const std::size_t index = draws.below(channels);
                const double observed = value(draws);
                const double predicted = value(draws);
                bank.observeValue(index, observed, predicted, draws.timeBelow(1000));
            }
            expectAsSearched(bank, neurons);
            if (HasFatalFailure()) return;
        }
    }
}

TEST(PredictionBank, RestoresAllOfAStateOrNothing) {
    PredictionBank bank(2);
    bank.addErrorChannel({"a", {0}, 1.0, 1.0, 10.0});
    bank.addErrorChannel({"b", {0, 1}, 1.0, 1.0, 10.0});
    EXPECT_EQ(bank.reservedA(), 0.5);
    EXPECT_EQ(bank.reservedB(), 1.0);
    bank.observeValue(0, 3.0, 0.0, 5);
    bank.observeValue(1, 4.0, 0.0, 6);

    const std::vector<double> precisions{2.0, 0.5};
    const Observation good{1, 6.0, 0.0, 6.0, 3.0, 7};
    const Observation foreign{2, 6.0, 0.0, 6.0, 3.0, 7};
    EXPECT_FALSE(bank.restoreState(std::vector<double>{2.0}, {good}, 8.0, 9.0));
    EXPECT_FALSE(bank.restoreState(std::vector<double>{2.0, 0.5, 1.0}, {good}, 8.0, 9.0));
    EXPECT_FALSE(bank.restoreState(std::vector<double>{2.0, -0.5}, {good}, 8.0, 9.0));
    EXPECT_FALSE(bank.restoreState(std::vector<double>{not_a_number, 0.5}, {good}, 8.0, 9.0));
    EXPECT_FALSE(bank.restoreState(precisions, {good, foreign}, 8.0, 9.0));
    EXPECT_EQ(bank.precisions(), (std::vector<double>{1.0, 1.0}));
    EXPECT_EQ(bank.observations().size(), 2U);
    EXPECT_EQ(bank.reservedA(), 0.5);
    EXPECT_EQ(bank.errorDrive(0), 7.0);

    EXPECT_TRUE(bank.restoreState(precisions, {good}, 8.0, 9.0));
    EXPECT_EQ(bank.precisions(), precisions);
    EXPECT_EQ(bank.reservedA(), 8.0);
    EXPECT_EQ(bank.reservedB(), 9.0);
    EXPECT_EQ(bank.errorDrive(0), 3.0) << "the report on channel a is gone";
    EXPECT_EQ(bank.errorBound(0), 20.0);
    bank.observeValue(0, 1.0, 0.0, 8);
    EXPECT_EQ(bank.errorDrive(0), 5.0);
}

}  // namespace
}  // namespace Lumenar::Core::Kelm

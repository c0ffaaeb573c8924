#include "kelm/runtime/PredictionBank.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameBits.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

using Values = std::vector<double>;

TEST(PredictionBank, RefusesAChannelForItsFirstFaultWithoutAChange) {
    PredictionBank bank;
    bank.addErrorChannel({"hand", {3}, 1.0, 2.0, 0.5});
    const auto adding = [&](const ErrorChannel& channel) {
        return [&bank, channel] { bank.addErrorChannel(channel); };
    };
    const char* const global = "a global error scalar is forbidden; declare local channels instead";
    const char* const precision = "precision must be finite and >= 0";
    const char* const strength = "error strength must be finite";
    const char* const clamp = "error clamp must be finite and > 0";
    // Each channel also has the faults of the rows below it, if they can occur together.
    expectRefusals<InvalidPrediction>(
        {{"error channel needs a name", adding({"", {}, -1.0, infinity, 0.0})},
         {global, adding({"global", {}, -1.0, infinity, 0.0})},
         {global, adding({"global_error", {}, -1.0, infinity, 0.0})},
         {"error channel acts on no local circuit", adding({"hand", {}, -1.0, infinity, 0.0})},
         {precision, adding({"hand", {1}, -0x1p-1074, infinity, 0.0})},
         {precision, adding({"hand", {1}, not_a_number, infinity, 0.0})},
         {strength, adding({"hand", {1}, -0.0, -infinity, 0.0})},
         {clamp, adding({"hand", {1}, 0.0, -0.0, 0.0})},
         {clamp, adding({"hand", {1}, 0.0, 0.0, infinity})},
         {"duplicate error channel 'hand'", adding({"hand", {1}, 0.0, 0.0, 0x1p-1074})}},
        [&] { EXPECT_EQ(bank.channels().size(), 1U); });
    EXPECT_EQ(bank.errorBound(1), 0.0);
    EXPECT_EQ(bank.addErrorChannel({"Global", {~NodeId{0}}}), 1U)
        << "only the exact names are global";
    EXPECT_EQ(bank.errorBound(~NodeId{0}), 0.5) << "a bank knows no network";
}

TEST(PredictionBank, RefusesAReadoutOrReportForItsFirstFault) {
    PredictionBank bank;
    bank.addErrorChannel({"hand", {0}});
    bank.setPredictor(0, {PredictorKind::explicit_readout, {7, 9}, {-1.0, 0.5}, 3.0});
    const auto setting = [&](std::size_t index, const Predictor& predictor) {
        return [&bank, index, predictor] { bank.setPredictor(index, predictor); };
    };
    const char* const unknown = "unknown error channel";
    const char* const not_finite = "observed values must be finite";
    expectRefusals<InvalidPrediction>(
        {{unknown, setting(1, {{}, {1}, {}, infinity})},
         {"predictor readout shape mismatch", setting(0, {{}, {}, {infinity}, infinity})},
         {"an explicit predictor needs a source population", setting(0, {{}, {}, {}, infinity})},
         {"predictor weights must be finite", setting(0, {{}, {1, 2}, {0.0, infinity}, infinity})},
         {"predictor bias must be finite", setting(0, {{}, {1}, {0.0}, not_a_number})},
         {unknown, [&] { bank.observeValue(1, infinity, 0.0, 0); }},
         {not_finite, [&] { bank.observeValue(0, infinity, 0.0, 0); }},
         {not_finite, [&] { bank.observeValue(0, 0.0, not_a_number, 0); }},
         {unknown, [&] { bank.latestObservation(1); }},
         {unknown, [&] { bank.setPrecision(1, -1.0); }},
         {"precision must be finite and >= 0", [&] { bank.setPrecision(0, -1.0); }}},
        [&] { EXPECT_EQ(bank.predictors()[0].bias, 3.0); });
    EXPECT_TRUE(bank.observations().empty());
    bank.setPredictor(0, {static_cast<PredictorKind>(7), {1}, {}, infinity});
    EXPECT_EQ(bank.predictors()[0].bias, infinity) << "an unknown kind is stored unchecked";
}

/// Values of widely different sizes, so that another order of a sum shows. Some are 0.0 or -0.0.
double value(Draws& draws) {
    const int exponent = static_cast<int>(draws.below(60)) - 30;
    const double size = draws.oneIn(16) ? 0.0 : std::ldexp(draws.between(0.5, 1.0), exponent);
    return draws.oneIn(2) ? size : -size;
}

TEST(PredictionBank, EqualsASearchOfAllChannelsAndReportsToTheBit) {
    constexpr NodeId neurons = 9;
    for (std::uint64_t seed = 1; seed <= 25; ++seed) {
        Draws draws(seed);
        PredictionBank bank;
        std::vector<ErrorChannel> channels;
        std::vector<Observation> reports;
        for (int step = 0; step < 120; ++step) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
            if (step == 0 || draws.oneIn(6)) {
                ErrorChannel& added = channels.emplace_back();
                added = {
                    std::to_string(step), {}, 0.0, value(draws), 0x1p-20 + std::fabs(value(draws))};
                for (int i = 0; i < 5; ++i) added.targets.push_back(draws.below(neurons));
                bank.addErrorChannel(added);
            }
            const std::uint64_t index = draws.below(channels.size());
            ErrorChannel& channel = channels[index];
            channel.precision = std::fabs(value(draws));
            const std::uint64_t version = bank.version();
            if (draws.oneIn(16)) {  // back to an earlier history, under another precision
                reports.resize(draws.below(reports.size() + 1));
                PredictionBank::State state{{}, reports};
                for (const ErrorChannel& c : channels) state.precisions.push_back(c.precision);
                ASSERT_TRUE(bank.accepts(state));
                bank.adopt(std::move(state));
                ASSERT_GT(bank.version(), version);
            } else {
                bank.setPrecision(index, channel.precision);
            }
            if (draws.oneIn(2)) {  // the last report is in force, whatever its time
                const double observed = value(draws);
                const double error = observed - 0.25;
                const double weighted =
                    std::clamp(error * channel.precision, -channel.clamp, channel.clamp);
                reports.push_back({index, observed, 0.25, error, weighted, -step});
                bank.observeValue(index, observed, 0.25, -step);
                ASSERT_GT(bank.version(), version);
            }
            ASSERT_TRUE(sameImages<Observation>(bank.observations(), reports));
            std::vector<double> terms(channels.size(), 0.0);
            std::vector<ModelTime> times(channels.size(), 1);
            for (const Observation& report : reports) {
                terms[report.channel] = report.weighted_error * channels[report.channel].strength;
                times[report.channel] = report.time;
            }
            for (NodeId n = 0; n <= neurons; ++n) {
                double drive = 0.0;
                double bound = 0.0;
                for (std::size_t c = 0; c < channels.size(); ++c) {
                    const auto latest = bank.latestObservation(c);
                    ASSERT_EQ(latest ? latest->time : 1, times[c]);
                    if (std::ranges::count(channels[c].targets, n) == 0) continue;
                    bound += std::fabs(channels[c].strength) * channels[c].clamp;
                    drive += terms[c];
                }
                ASSERT_TRUE(sameBits(bank.errorDrive(n), drive)) << "neuron " << n;
                ASSERT_TRUE(sameBits(bank.errorBound(n), bound)) << "neuron " << n;
            }
        }
    }
}

TEST(PredictionBank, AcceptsOnlyAStateOfItsChannels) {
    PredictionBank bank;
    bank.addErrorChannel({"a", {0}});
    bank.addErrorChannel({"b", {0}});
    for (const Values& bad : {Values{2.0}, {2.0, 0.5, 1.0}, {2.0, -0.5}, {not_a_number, 0.5}}) {
        EXPECT_FALSE(bank.accepts({bad, {}}));
    }
    EXPECT_FALSE(bank.accepts({{2.0, 0.5}, {Observation{.channel = 2}}}));
    EXPECT_EQ((Values{bank.reservedA(), bank.reservedB()}), (Values{0.5, 1.0}));
    bank.adopt({{2.0, 0.5}, {Observation{}}, 8.0, 9.0});
    EXPECT_EQ((Values{bank.channels()[0].precision, bank.channels()[1].precision}),
              (Values{2.0, 0.5}));
    EXPECT_EQ((Values{bank.reservedA(), bank.reservedB()}), (Values{8.0, 9.0}));
}

}  // namespace
}  // namespace Lumenar::Core::Kelm

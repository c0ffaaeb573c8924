// Plants a fault in a backend: the soak must name the window, the neuron and the field, and shrink
// the model.

#include "fuzz/Soak.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include "kelm/core/ShardRanges.h"
#include "kelm/core/SplitMix64.h"
#include "kelm/engine/CpuWindowBackend.h"

namespace Lumenar::Core::Kelm::Fuzzing {

namespace {

using namespace Compare;
using namespace Testing;

/// The reference backend, except for one neuron's result in one window.
class FaultyBackend final : public IWindowBackend {
public:
    const char* name() override { return "faulty"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime end,
                       ModelTime horizon, const Kernel::Neuron& parameters,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override {
        cpu_.processWindow(work, events, end, horizon, parameters, firing, results);
        for (std::size_t i = 0; end == window_end && i < work.size(); ++i) {
            if (work[i].neuron == neuron && faults_left-- > 0) spoil(results[i]);
        }
    }
    bool tryResidentRun(WindowEngine&) override { return false; }

    ModelTime window_end = no_time;
    NodeId neuron = 0;
    int faults_left = 1'000'000;
    std::function<void(Kernel::WindowResult&)> spoil;

private:
    CpuWindowBackend cpu_;
};

/// Plants the fault in a late window of the model, for a neuron from `first` on whose result it
/// changes. False if there is none.
bool plant(Soak& soak, const SoakModel& model, FaultyBackend& fault, NodeId first = 2) {
    const auto whole = soak.start(model, Soak::reference);
    whole->advance(model.network().horizon);
    const auto& windows = whole->trace().windows();
    for (std::size_t place = windows.size() * 2 / 3; place > 2; --place) {
        const auto again = soak.start(model, Soak::reference);
        again->trace().keep(place);
        again->advance(model.network().horizon);
        for (const WindowTrace::Item& item : again->trace().kept()) {
            Kernel::WindowResult spoiled = item.result;
            fault.spoil(spoiled);
            if (item.work.neuron < first ||
                std::memcmp(&spoiled, &item.result, sizeof spoiled) == 0) {
                continue;
            }
            fault.window_end = windows[place].end;
            fault.neuron = item.work.neuron;
            return true;
        }
    }
    return false;
}

TEST(Soak, NamesTheWindowTheNeuronAndTheFieldOfAPlantedFaultAndShrinksTheModel) {
    struct Case {
        const char* fact;
        std::string field;
        void (*spoil)(Kernel::WindowResult& result);
    };
    const Case cases[] = {
        {"the last bit of a trace", "result.state.membrane",
         [](Kernel::WindowResult& result) {
             double& trace = result.state.membrane;
             if (trace == 0.0) return;
             trace = std::bit_cast<double>(std::bit_cast<std::uint64_t>(trace) ^ 1);
         }},
        {"a spike that is dropped", "result.spike_count",
         [](Kernel::WindowResult& result) {
             if (result.spike_count != 0) --result.spike_count;
         }},
        {"one draw too many", "result.rng",
         [](Kernel::WindowResult& result) { result.rng += splitmix_increment; }},
        {"a count", "result.updates", [](Kernel::WindowResult& result) { ++result.updates; }},
    };
    for (const ModelKind kind : {ModelKind::plain, ModelKind::extreme, ModelKind::composed}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.fact) + " in a model of kind " + nameOf(kind));
            FaultyBackend fault;
            fault.spoil = c.spoil;
            Soak soak;
            soak.addBackend("faulty", fault);
            SoakModel model;
            std::uint64_t seed = 1;
            for (; seed < 100; ++seed) {
                model = generateSoakModel(seed, kind);
                if (model.network().node_count >= 10 && plant(soak, model, fault)) break;
            }
            ASSERT_LT(seed, 100);

            const auto finding = soak.examine(model, "faulty");
            ASSERT_TRUE(finding.has_value() && finding->repeats);
            EXPECT_EQ(finding->way, "faulty");
            EXPECT_EQ(finding->difference.window, fault.window_end / model.window() - 1);
            EXPECT_EQ(finding->difference.what.neuron, fault.neuron);
            EXPECT_EQ(finding->difference.what.field, c.field);
            if (c.field == "result.state.membrane") {
                EXPECT_EQ(finding->difference.what.left ^ finding->difference.what.right, 1);
            }

            // The smallest model has only what the fault needs: the neuron and those before it, and
            // the events that make it active in that window.
            const auto smallest = soak.shrink(model, "faulty");
            ASSERT_TRUE(smallest.has_value());
            const GeneratedModel& network = smallest->model.network();
            EXPECT_GT(network.node_count, fault.neuron);
            EXPECT_LE(network.node_count, fault.neuron + 3);
            EXPECT_LE(network.synapses.size() + network.inputs.size(), 3);
            EXPECT_TRUE(smallest->model.cuts.empty());
            EXPECT_LE(smallest->model.composed.steps.size(), 3);
            EXPECT_EQ(smallest->difference.what.field, c.field);
            EXPECT_EQ(smallest->difference.what.neuron, fault.neuron);
            EXPECT_EQ(soak.compare(smallest->model, "cpu", "device"), std::nullopt);
        }
    }
}

TEST(Soak, NamesAndShrinksAFaultOfOneRank) {
    for (const ModelKind kind : {ModelKind::plain, ModelKind::composed}) {
        SCOPED_TRACE(nameOf(kind));
        FaultyBackend fault;
        fault.spoil = [](Kernel::WindowResult& result) { result.rng += splitmix_increment; };
        CpuWindowBackend sound;
        Soak soak;
        soak.addRanks("faulty", {&sound, &fault});
        SoakModel model;
        std::uint64_t seed = 1;
        for (; seed < 400; ++seed) {
            model = generateSoakModel(seed, kind);
            const std::uint64_t neurons = model.network().node_count;
            if (!soak.applies("faulty", model) || neurons < 10) continue;
            if (plant(soak, model, fault, Kernel::shardBegin(neurons, 2, 1))) break;
        }
        ASSERT_LT(seed, 400);

        const auto finding = soak.examine(model, "faulty");
        ASSERT_TRUE(finding.has_value() && finding->repeats);
        EXPECT_EQ(finding->difference.window, fault.window_end / model.window() - 1);
        EXPECT_EQ(finding->difference.what.neuron, fault.neuron);
        EXPECT_EQ(finding->difference.what.field, "random state at byte 0");

        const auto smallest = soak.shrink(model, "faulty");
        ASSERT_TRUE(smallest.has_value());
        EXPECT_TRUE(soak.applies("faulty", smallest->model));
        EXPECT_EQ(smallest->model.network().node_count, fault.neuron + 1);
        EXPECT_LE(smallest->model.network().synapses.size(), 3);
        EXPECT_EQ(smallest->difference.what.neuron, fault.neuron);
        EXPECT_EQ(soak.compare(smallest->model, "cpu", "ranks-2"), std::nullopt);
    }
}

TEST(Soak, ReportsADifferenceThatDoesNotRepeat) {
    FaultyBackend fault;
    fault.spoil = [](Kernel::WindowResult& result) { ++result.updates; };
    Soak soak;
    soak.addBackend("faulty", fault);
    const SoakModel model = generateSoakModel(2, ModelKind::plain);
    ASSERT_TRUE(plant(soak, model, fault));
    for (const int faults : {1, 2}) {
        SCOPED_TRACE(faults);
        fault.faults_left = faults;
        const auto finding = soak.examine(model, "faulty");
        ASSERT_TRUE(finding.has_value());
        EXPECT_FALSE(finding->repeats);
        EXPECT_EQ(finding->difference.window, fault.window_end / model.window() - 1);
        EXPECT_EQ(finding->difference.what.field, "window digest");
        EXPECT_NE(finding->difference.what.left, finding->difference.what.right);
        EXPECT_FALSE(soak.shrink(model, "faulty").has_value());
    }
}

TEST(Soak, NamesAKindWhoseModelsDoNothing) {
    Soak soak;
    CpuWindowBackend sound;
    soak.addBackend("sound", sound);
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        SoakModel idle = generateSoakModel(seed, ModelKind::plain);
        for (Kernel::Firing& firing : idle.network().firings) firing.base_rate = 0.0;
        EXPECT_EQ(soak.examine(idle, "sound"), std::nullopt) << seed;
    }
    EXPECT_EQ(soak.idleKind(), "plain");
}

/// A run without windows, in which the state of neuron 1 changes at one time.
struct ScriptedRun final : CarriedRun {
    explicit ScriptedRun(ModelTime change) : change_at(change) {}

    void advance(ModelTime until) override { now = std::max(now, until); }
    RunResults results() override {
        RunResults results;
        results.image.states.resize(3);
        results.image.states[1].last_update = now >= change_at ? 0x77 : 0x33;
        return results;
    }

    ModelTime change_at;
    ModelTime now = -1;
};

TEST(FirstDifference, FindsADifferenceBetweenWindowsByBisection) {
    constexpr ModelTime d_min = 10, end = 1'000'000'000'007;
    const auto run = [](ModelTime change) {
        return [=] { return std::make_unique<ScriptedRun>(change); };
    };
    constexpr ModelTime never = std::numeric_limits<ModelTime>::max();
    EXPECT_EQ(firstDifference(run(never), run(never), d_min, end), std::nullopt);
    EXPECT_EQ(firstDifference(run(5), run(5), d_min, end), std::nullopt);
    for (const auto& [change, window] : {std::pair<ModelTime, std::int64_t>{0, -1},
                                         {1, 0},
                                         {10, 0},
                                         {11, 1},
                                         {123'456'789'010, 12'345'678'900},
                                         {123'456'789'011, 12'345'678'901},
                                         {end, 100'000'000'000}}) {
        SCOPED_TRACE(change);
        const auto found = firstDifference(run(never), run(change), d_min, end);
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(found->window, window);
        EXPECT_EQ(found->text(), "window " + std::to_string(window) +
                                     ": state.last_update of neuron 1: 0x33 vs 0x77");
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Fuzzing

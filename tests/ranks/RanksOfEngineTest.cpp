#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "compare/RunImage.h"
#include "kelm/core/Digest.h"
#include "kelm/core/SplitMix64.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/network/Wiring.h"
#include "tests/ranks/ThreadRanks.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/PermutedTeam.h"
#include "tests/support/ShardEdges.h"

// Networks on several ranks against the same networks on one engine, step by step.

namespace Lumenar::Core::Kelm::Testing {

namespace {

constexpr ModelTime window = 1'000'000;  // ns
constexpr ModelTime horizon = 60 * window;

class Dice {
public:
    explicit Dice(std::uint64_t seed) : state_(seed) {}
    std::uint64_t below(std::uint64_t n) {
        state_ += splitmix_increment;
        return splitmixOutput(state_) % n;
    }
    ModelTime timeBelow(ModelTime end) {
        return static_cast<ModelTime>(below(static_cast<std::uint64_t>(end)));
    }
    bool oneIn(std::uint64_t n) { return below(n) == 0; }

private:
    std::uint64_t state_;
};

struct Network {
    std::uint64_t seed;
    NodeId neurons;
    std::optional<ModelTime> min_delay;
    std::vector<Synapse> synapses;
    std::vector<Kernel::Neuron> parameters;
    std::vector<Kernel::Firing> firings;
    std::vector<SpikeRecord> given;

    explicit Network(std::uint64_t from) : seed(from), neurons(0) {
        Dice dice(seed);
        constexpr NodeId sizes[] = {7, 8, 17, 40, 130};
        neurons = sizes[dice.below(5)];
        drawSynapses(dice);
        for (NodeId n = 0; n < neurons; ++n) {
            parameters.push_back({.refractory_period = 200'000});
            firings.push_back({.base_rate = dice.oneIn(3) ? 5.0 : 200.0, .max_rate = 1000.0});
            if (dice.oneIn(6)) firings.back().base_rate = 0.0;
        }
        if (dice.oneIn(4)) {
            // More spikes than a result can hold, sooner or later.
            const NodeId n = dice.below(neurons);
            parameters[n].refractory_period = 1;
            firings[n] = {.base_rate = 2500.0 + static_cast<double>(dice.below(2500)), .gain = 0.0};
        }
        if (dice.oneIn(3)) drawGivenSpikes(dice);
    }

    SynapseGraph whole() const { return {neurons, min_delay, synapses}; }
    SynapseGraph shareOf(const IRankGroup& ranks) const {
        return Testing::shareOf(ranks, neurons, min_delay, synapses);
    }

    WindowEngine engineOf(IRankGroup& ranks, std::uint64_t run_seed) const {
        SynapseGraph share = shareOf(ranks);
        const ParameterTable all(parameters, firings);
        ParameterTable part = all.part(share.share()->begin, share.share()->end);
        return {std::move(share), std::move(part), run_seed, horizon, nullptr, &ranks};
    }

private:
    void drawSynapses(Dice& dice) {
        const std::uint64_t style = dice.below(5);
        const std::uint64_t degree = dice.oneIn(8) ? 0 : 1 + dice.below(dice.oneIn(2) ? 30 : 8);
        const bool extra_fields = dice.oneIn(8);
        for (NodeId source = 0; source < neurons; ++source) {
            const ModelTime common = window + (style == 0 ? 0 : dice.timeBelow(3 * window));
            const std::uint64_t count = dice.oneIn(5) ? 0 : degree;
            for (std::uint64_t k = 0; k < count; ++k) {
                Synapse& synapse = synapses.emplace_back();
                synapse.source = source;
                synapse.target = dice.below(neurons);
                synapse.weight = 0.05F * static_cast<float>(1 + dice.below(6));
                synapse.delay =
                    style <= 2 ? common
                               : window + dice.timeBelow(style == 3 ? 2 * window : 20 * window);
                synapse.inhibitory = dice.oneIn(4);
                synapse.enabled = !dice.oneIn(50);
                if (extra_fields && dice.oneIn(5)) synapse.reserved_a = 3;
            }
        }
        if (dice.oneIn(2)) {
            for (std::size_t i = synapses.size(); i > 1; --i) {
                std::swap(synapses[i - 1], synapses[dice.below(i)]);
            }
        }
        if (dice.oneIn(3) || synapses.empty() || style > 0) min_delay = window;
    }
    void drawGivenSpikes(Dice& dice) {
        std::set<std::pair<ModelTime, NodeId>> spikes;
        for (std::uint64_t i = dice.below(100); i > 0; --i) {
            const NodeId n = dice.below(neurons);
            if (firings[n].base_rate == 0.0) spikes.emplace(dice.timeBelow(horizon), n);
        }
        for (const auto& [time, neuron] : spikes) given.push_back({time, neuron});
    }
};

template <class Record>
std::string digestOf(std::span<const Record> records) {
    return std::to_string(records.size()) + ":" + std::to_string(digestImages(records));
}

/// Acts on an engine, as its seed says, and notes what it sees. All ranks and the engine in one
/// piece do the same.
class Course final : IWindowPrepare, IWindowCommit, IWindowObserver, IStateSampler {
public:
    Course(const Network& network, WindowEngine& engine, IRankGroup* ranks)
        : network_(network),
          engine_(engine),
          ranks_(ranks),
          dice_(network.seed + 1),
          neurons_{0, network.neurons - 1, network.neurons / 2, 1} {}

    void run(IWindowBackend& backend) {
        if (dice_.oneIn(3)) {
            for (int i = 0; i < 8; ++i) {
                Event event;
                event.time = dice_.timeBelow(horizon);
                engine_.declareObserverEvent(event);
            }
        }
        next_sample_ = dice_.oneIn(4) ? dice_.timeBelow(3 * window) : last_model_time;
        if (next_sample_ != last_model_time) engine_.addSampler(*this);
        engine_.giveSpikes(network_.given);
        if (dice_.oneIn(8)) hook_fails_at_ = dice_.timeBelow(50 * window);
        ModelTime until = 0;
        for (int segment = 0; segment < 10 && !failed_; ++segment) {
            posts_ = dice_.oneIn(4);
            switches_ = dice_.oneIn(4);
            engine_.setHooks(dice_.oneIn(3) ? this : nullptr, dice_.oneIn(2) ? this : nullptr,
                             dice_.oneIn(2) ? this : nullptr);
            until += dice_.timeBelow(dice_.oneIn(3) ? 2 * window : 8 * window);
            runTo(backend, until);
            if (!failed_) until = std::max(until, act());
        }
    }

    /// The exception of the hook, which other ranks get in a later window.
    const std::string& hookFailure() const { return hook_failure_; }
    /// What every rank sees.
    const std::vector<std::string>& notes() const { return notes_; }
    /// What is collected on rank 0.
    const std::vector<std::string>& collected() const { return collected_; }

private:
    void runTo(IWindowBackend& backend, ModelTime until) {
        try {
            engine_.run(backend, until);
        } catch (const std::exception& failure) {
            failed_ = true;
            note(std::string("thrown: ") + failure.what());
            if (hook_fails_at_ >= 0 && std::string(failure.what()).starts_with("hook")) {
                hook_failure_ = failure.what();
                return;
            }
        }
        note("until " + std::to_string(engine_.processedUntil()));
        const WindowProfile profile = engine_.profile();
        note("profile " + digestOf(std::span(&profile, 1)));
        const Blob blob = engine_.snapshot();
        collected_.push_back("snapshot " + digestOf(std::span(std::as_const(blob))));
    }

    /// A call between runs. Returns the end of the last window.
    ModelTime act() {
        switch (dice_.below(12)) {
            case 0:
                post(engine_.openFrom() + dice_.timeBelow(9 * window));
                break;
            case 1:
                engine_.graph().setTransmissionEnabled(dice_.oneIn(2), dice_.oneIn(2));
                break;
            case 2:
                engine_.reseed(dice_.below(1000), engine_.openFrom() + dice_.timeBelow(2 * window));
                break;
            case 3:
                engine_.takeSpikes();
                note("taken " + std::to_string(engine_.taken().count) + " " +
                     std::to_string(engine_.taken().digest));
                break;
            case 4:
                note("hash " + std::to_string(engine_.logHash()));
                break;
            case 5:
                saved_ = everywhere(engine_.snapshot());
                break;
            case 6:
                if (saved_.empty() || next_sample_ != last_model_time) break;
                note(engine_.restore(saved_) ? "restored" : "not restored");
                return engine_.processedUntil();
            case 7: {
                Blob cut = everywhere(engine_.snapshot());
                cut.pop_back();
                note(engine_.restore(cut) ? "restored" : "not restored");
                break;
            }
            case 9: {
                // Only the rank of the target sees the fault. No rank may change.
                Blob forged = everywhere(engine_.snapshot());
                if (network_.synapses.empty()) break;
                constexpr std::string_view tag = "KELMSYN1";
                const auto graph =
                    std::search(forged.begin(), forged.end(), tag.begin(), tag.end());
                const std::uint64_t edge = dice_.below(network_.synapses.size());
                const float weight = -1.0F;
                std::memcpy(&*graph + 35 + 63 * edge + 16, &weight, sizeof weight);
                note(engine_.restore(forged) ? "restored" : "not restored");
                break;
            }
            case 8: {
                const auto states = engine_.statesAt(engine_.processedUntil(), neurons_);
                note("states " + digestOf(std::span<const StateSample>(states)));
                break;
            }
            default:
                break;
        }
        return 0;
    }
    void post(ModelTime time) {
        Event event;
        event.time = time;
        event.target = dice_.below(network_.neurons);
        event.value = 0.3;
        note("id " + std::to_string(engine_.post(event)));
    }
    Blob everywhere(Blob blob) const {
        if (ranks_ == nullptr) return blob;
        const BlobView first = ranks_->share(blob).front();
        return {first.begin(), first.end()};
    }
    void note(std::string text) { notes_.push_back(std::move(text)); }

    void prepare(ModelTime window_start, ModelTime, std::span<WindowWork> work,
                 SynapseGraph& graph) override {
        if (switches_ && dice_.oneIn(20)) {
            graph.setTransmissionEnabled(dice_.oneIn(2), dice_.oneIn(2));
        }
        for (WindowWork& item : work) {
            if (item.neuron % 3 == 0) {
                item.drive.base = 1e-4 * static_cast<double>(window_start / window % 7);
            }
        }
    }
    void commit(ModelTime window_start, ModelTime window_end, std::span<const SpikeRecord> spikes,
                SynapseGraph& graph) override {
        const bool fails_here = ranks_ == nullptr || ranks_->rank() == ranks_->size() / 2;
        if (hook_fails_at_ >= 0 && window_start >= hook_fails_at_ && fails_here) {
            throw std::runtime_error("hook at " + std::to_string(window_start));
        }
        note("commit " + std::to_string(window_start) + " " + digestOf(spikes));
        if (posts_ && dice_.oneIn(4)) post(window_end + dice_.timeBelow(3 * window));
        if (switches_ && dice_.oneIn(20)) {
            graph.setTransmissionEnabled(dice_.oneIn(2), dice_.oneIn(2));
        }
    }
    void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {}
    void observe(const Event& event, std::span<const Kernel::State> states,
                 std::span<const ModelTime> candidate_times, SynapseGraph& graph) override {
        if (switches_ && dice_.oneIn(3)) graph.setTransmissionEnabled(true, dice_.oneIn(2));
        note("seen " + std::to_string(event.time) + " " + digestOf(states) + " " +
             digestOf(candidate_times));
    }
    ModelTime nextSample() const override { return next_sample_; }
    std::span<const NodeId> neurons() const override { return neurons_; }
    void addSamples(std::span<const StateSample> samples) override {
        note("sample " + std::to_string(next_sample_) + " " + digestOf(samples));
        next_sample_ += 3 * window + 7;
    }

    const Network& network_;
    WindowEngine& engine_;
    IRankGroup* ranks_;
    Dice dice_;
    std::vector<NodeId> neurons_;  ///< that are sampled
    ModelTime next_sample_ = last_model_time;
    ModelTime hook_fails_at_ = -1;
    bool posts_ = false;
    bool switches_ = false;
    bool failed_ = false;
    Blob saved_;
    std::string hook_failure_;
    std::vector<std::string> notes_;
    std::vector<std::string> collected_;
};

}  // namespace

TEST(RanksOfEngine, LeaveTheBitsOfOneEngine) {
    for (std::uint64_t seed = 0; seed < 60; ++seed) {
        const Network network(seed);
        CpuWindowBackend backend;
        WindowEngine one(network.whole(), network.parameters, network.firings, seed, horizon);
        Course expected(network, one, nullptr);
        expected.run(backend);
        for (const std::uint32_t size : {1U, 2U, 3U, 7U}) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", ranks " + std::to_string(size));
            ThreadRanks(size).run([&](IRankGroup& ranks) {
                CpuWindowBackend own;
                WindowEngine engine = network.engineOf(ranks, seed);
                Course course(network, engine, &ranks);
                course.run(own);
                EXPECT_EQ(course.hookFailure(), expected.hookFailure());
                if (expected.hookFailure().empty()) {
                    EXPECT_EQ(course.notes(), expected.notes());
                }
                if (ranks.rank() == 0) {
                    EXPECT_EQ(course.collected(), expected.collected());
                }
            });
            if (HasFailure()) return;
        }
    }
}

namespace {

/// Divides the neurons of a rank into up to three shards.
class TeamBackend final : public IWindowBackend {
public:
    const char* name() override { return "team"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime run_horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override {
        cpu_.processWindow(work, events, window_end, run_horizon, neuron, firing, results);
    }
    bool tryResidentRun(WindowEngine&) override { return false; }
    std::size_t partItems() const override { return cpu_.partItems(); }
    IShardTeam* team() override { return &team_; }

private:
    CpuWindowBackend cpu_;
    PermutedTeam team_{3};
};

}  // namespace

TEST(RanksOfEngine, LeaveTheBitsOfOnePieceAtEveryEdge) {
    for (const ShardEdge& edge : shardEdges()) {
        CpuWindowBackend backend;
        const Blob expected = runEdge(edge, backend);
        for (const std::uint32_t size : {2U, 3U, 7U}) {
            ThreadRanks(size).run([&](IRankGroup& ranks) {
                CpuWindowBackend whole;
                TeamBackend divided;
                for (IWindowBackend* own : {static_cast<IWindowBackend*>(&whole),
                                            static_cast<IWindowBackend*>(&divided)}) {
                    const Blob blob = runEdge(edge, *own, &ranks);
                    if (ranks.rank() == 0) {
                        EXPECT_TRUE(blob == expected)
                            << edge.fact << ", " << size << " ranks, " << own->name();
                    }
                }
            });
        }
    }
}

// A rank that has committed its part of the window before it hears of the failure undoes it.
TEST(RanksOfEngine, CommitNothingOfAWindowWhosePrepareHookFails) {
    struct FailingHook final : IWindowPrepare {
        explicit FailingHook(bool fails) : fails_here(fails) {}
        void prepare(ModelTime start, ModelTime, std::span<WindowWork>, SynapseGraph&) override {
            if (fails_here && start >= 20 * window) throw std::runtime_error("of the hook");
        }
        bool fails_here;
    };
    const Network network(3);
    const auto imageAfterFailure = [](WindowEngine& engine, bool fails_here) {
        FailingHook hook(fails_here);
        engine.setHooks(&hook, nullptr, nullptr);
        CpuWindowBackend backend;
        EXPECT_EQ(Compare::failureOf(engine, backend, horizon), "of the hook");
        return Compare::imageOf(engine);
    };
    WindowEngine one(network.whole(), network.parameters, network.firings, 3, horizon);
    const Compare::RunImage expected = imageAfterFailure(one, true);
    EXPECT_FALSE(expected.log.empty());
    constexpr std::uint32_t size = 3;
    std::vector<Compare::RunImage> images(size);
    ThreadRanks(size).run([&](IRankGroup& ranks) {
        WindowEngine engine = network.engineOf(ranks, 3);
        images[ranks.rank()] = imageAfterFailure(engine, ranks.rank() == 1);
    });
    Compare::RunImage all = images[0];
    for (std::uint32_t rank = 1; rank < size; ++rank) {
        const auto append = [](auto& values, const auto& part) {
            values.insert(values.end(), part.begin(), part.end());
        };
        append(all.states, images[rank].states);
        append(all.random_states, images[rank].random_states);
        append(all.candidates, images[rank].candidates);
        append(all.log, images[rank].log);
    }
    std::ranges::sort(all.log, SpikeRecordLess());
    EXPECT_EQ(Compare::firstDifference(all, expected), "");
}

TEST(RanksOfEngine, RefuseSharesSeedsAndCallsThatDiffer) {
    const Network network(3);
    const auto expectRefused = [&](const std::string& text, auto act) {
        ThreadRanks(3).run([&](IRankGroup& ranks) {
            std::string seen;
            try {
                act(ranks);
            } catch (const std::exception& failure) {
                seen = failure.what();
            }
            EXPECT_EQ(seen, text);
            ranks.share({});  // no rank is behind the others
        });
    };
    expectRefused("rank 2 has another seed or horizon than rank 0",
                  [&](IRankGroup& ranks) { network.engineOf(ranks, ranks.rank() == 2 ? 4 : 3); });
    const std::string unequal = "rank 1 has another number of neurons or min_delay than rank 0";
    const auto manyOnOthers = [](IRankGroup& ranks) {
        return ranks.rank() == 0 ? std::uint64_t{10} : std::uint64_t{100'000};
    };
    expectRefused(unequal, [&](IRankGroup& ranks) {
        Network other = network;
        if (ranks.rank() > 0) ++other.neurons;
        SynapseGraph share = other.shareOf(ranks);
        share.countShare(ranks);
    });
    expectRefused(unequal, [&](IRankGroup& ranks) {
        const std::vector<NodeId> last = {manyOnOthers(ranks) - 1};
        SynapseGraph::buildShare(
            manyOnOthers(ranks), window,
            {.sources = last, .targets = last, .weights = 0.1F, .delays = window}, ranks);
    });
    expectRefused(unequal, [&](IRankGroup& ranks) {
        const NeuronRange all{0, manyOnOthers(ranks)};
        Wiring(all.count, window,
               {{.name = "all",
                 .sources = all,
                 .targets = all,
                 .rule = ConnectionRule::fixedInDegree(1),
                 .weight = 0.1,
                 .delay = 1e6}},
               1)
            .buildShare(ranks);
    });
    ThreadRanks(2).run([&](IRankGroup& ranks) {
        WindowEngine engine = network.engineOf(ranks, 3);
        const std::vector<NodeId> many(ranks.rank() == 0 ? 100'000 : 0, network.neurons - 1);
        EXPECT_THROW(engine.statesAt(0, many), std::logic_error);
        // The first spike that a rank refuses counts, however many spikes the others give.
        const std::vector<SpikeRecord> good = {{1, network.neurons - 1}};
        const std::vector<SpikeRecord> bad = {{1, network.neurons - 1}, {0, 0}, {0, 0}};
        EXPECT_THROW(engine.giveSpikes(ranks.rank() == 0 ? good : bad), InvalidSpikeTrain);
    });
    expectRefused("the ranks of a network have made different calls: see rank 1",
                  [&](IRankGroup& ranks) {
                      WindowEngine engine = network.engineOf(ranks, 3);
                      Event event;
                      event.time = 5 * window;
                      if (ranks.rank() == 1) engine.post(event);
                      CpuWindowBackend backend;
                      engine.run(backend);
                  });
    struct ReplacingHook final : IWindowPrepare {
        void prepare(ModelTime, ModelTime, std::span<WindowWork>, SynapseGraph& graph) override {
            graph.setTransmissionEnabled(true, false);
            graph = SynapseGraph(graph.nodeCount(), window, {});
        }
    };
    expectRefused(
        "a graph that is not the share of its rank cannot be spread over several ranks yet",
        [&](IRankGroup& ranks) {
            WindowEngine engine = network.engineOf(ranks, 3);
            ReplacingHook hook;
            engine.setHooks(&hook, nullptr, nullptr);
            CpuWindowBackend backend;
            engine.run(backend);
        });
    const std::vector<Synapse> two = {{.source = 0, .target = 1, .delay = window},
                                      {.source = 1, .target = 2, .delay = window}};
    const auto shareOf = [&](NodeId begin, NodeId end, std::vector<EdgeId> edges) {
        return SynapseGraph::shareOf(4, window, begin, end, two, edges);
    };
    const auto expectBad = [](const std::string& text, auto make) {
        expectThrows<std::invalid_argument>([&] { make(); }, text);
    };
    expectBad("the neurons of a share do not lie in the network", [&] { shareOf(0, 5, {0, 1}); });
    expectBad("the synapses of a share need one EdgeId each", [&] { shareOf(0, 4, {0}); });
    expectBad("synapse 1 of a share enters a neuron of another rank", [&] {
        shareOf(0, 2, {0, 1});
    });
    std::vector<Synapse> turned = {two[1], two[0]};
    expectBad("synapse 1 of a share must lie behind the one before", [&] {
        SynapseGraph::shareOf(4, window, 0, 4, turned, std::vector<EdgeId>{0, 1});
    });
    // Shares of two ranks of four neurons.
    const auto shareWith = [&](const IRankGroup& ranks, EdgeId second, NodeId middle) {
        return ranks.rank() == 0
                   ? SynapseGraph::shareOf(4, window, 0, middle, std::span(two).first(1),
                                           std::vector<EdgeId>{0})
                   : SynapseGraph::shareOf(4, window, 2, 4, std::span(two).last(1),
                                           std::vector<EdgeId>{second});
    };
    ThreadRanks(2).run([&](IRankGroup& ranks) {
        SynapseGraph share = shareWith(ranks, 7, 2);
        expectBad("a share has EdgeId 7, and the network has 2 synapses",
                  [&] { share.countShare(ranks); });
        share = shareWith(ranks, 0, 2);
        expectBad("two synapses of the shares have the same EdgeId",
                  [&] { share.countShare(ranks); });
        SynapseGraph other = shareWith(ranks, 1, 3);
        expectBad("the share of the network is not that of its rank",
                  [&] { other.countShare(ranks); });
        share = shareWith(ranks, 1, 2);
        share.countShare(ranks);
        EXPECT_EQ(share.networkEdgeCount(), 2U);
    });
}

// After each of these calls the ranks are where they were before it.
TEST(RanksOfEngine, RefuseCallsWithOtherArguments) {
    const Network network(3);
    ThreadRanks(2).run([&](IRankGroup& ranks) {
        const bool first = ranks.rank() == 0;
        const auto expectRefused = [](auto act) {
            expectThrows<std::logic_error>(
                act, "the ranks of a network have made different calls: see rank 1");
        };
        // Only rank 0 has the snapshot.
        const auto snapshotOf = [&](WindowEngine& engine) {
            const BlobView of_rank_0 = ranks.share(engine.snapshot())[0];
            return Blob(of_rank_0.begin(), of_rank_0.end());
        };
        CpuWindowBackend backend;
        WindowEngine engine = network.engineOf(ranks, 3);
        engine.run(backend, 4 * window);
        const Blob early = snapshotOf(engine);
        // The ends lie in one window.
        expectRefused([&] { engine.run(backend, 6 * window + (first ? 1 : 2)); });
        expectRefused([&] { engine.reseed(first ? 1 : 2, 8 * window); });
        const std::vector<NodeId> read = {first ? 0U : 1U};
        expectRefused([&] { engine.statesAt(4 * window, read); });
        engine.run(backend, 9 * window);
        const Blob late = snapshotOf(engine);
        EXPECT_FALSE(engine.restore(first ? early : late));

        const Blob expected = [&] {
            WindowEngine other = network.engineOf(ranks, 3);
            other.run(backend, 9 * window);
            return snapshotOf(other);
        }();
        EXPECT_EQ(snapshotOf(engine), expected);
    });
}

// A window's message must not be taken from another call, whatever its bytes are.
TEST(RanksOfEngine, RefuseASamplerOfOneRank) {
    struct Sampler final : IStateSampler {
        explicit Sampler(NodeId node) : nodes(8, node) {}
        ModelTime nextSample() const override { return 3 * window; }
        std::span<const NodeId> neurons() const override { return nodes; }
        void addSamples(std::span<const StateSample>) override {}
        std::vector<NodeId> nodes;
    };
    const Network network(3);
    for (NodeId node = 0; node < network.neurons; ++node) {
        const NodeId with = node % 2;
        ThreadRanks(2).run([&](IRankGroup& ranks) {
            Sampler sampler(node);
            WindowEngine engine = network.engineOf(ranks, 3);
            if (ranks.rank() == with) engine.addSampler(sampler);
            CpuWindowBackend backend;
            EXPECT_THROW(engine.run(backend), std::logic_error);
        });
    }
}

// A report and a request to stop reach all ranks, also where only one has made the request.
TEST(RanksOfEngine, ReportAndStopTogether) {
    const Network network(3);
    ThreadRanks(4).run([&](IRankGroup& ranks) {
        WindowEngine engine = network.engineOf(ranks, 3);
        CpuWindowBackend backend;
        RunControl control;
        std::uint64_t reports = 0;
        std::uint64_t spikes = 0;
        control.setCallback(
            [&](const RunProgress& progress) {
                spikes = progress.spikes;
                if (++reports == 5 && ranks.rank() == 1) control.requestStop();
            },
            0);
        // A rank may have no control.
        const bool reporting = ranks.rank() != 3;
        if (reporting) engine.setRunControl(&control);
        engine.run(backend);
        EXPECT_TRUE(engine.stopped());
        EXPECT_EQ(reports, reporting ? 5U : 0U);
        EXPECT_EQ(engine.profile().windows, 5U);
        EXPECT_EQ(engine.networkLog().size(), ranks.shareRecord(spikes).front());
        EXPECT_EQ(spikes > 0, reporting);
        // A request of the last window stops the next run.
        engine.run(backend, engine.processedUntil() + 1);
        if (ranks.rank() == 2) control.requestStop();
        const std::uint64_t windows = engine.profile().windows;
        engine.run(backend);
        EXPECT_TRUE(engine.stopped());
        EXPECT_EQ(engine.profile().windows, windows);
        engine.run(backend);
        EXPECT_FALSE(engine.stopped());
    });
}

TEST(RanksOfEngine, BuildTheirSharesOfAWiring) {
    for (std::uint64_t seed = 0; seed < 12; ++seed) {
        const NodeId neurons = 20 + seed * 7;
        const NeuronRange all{0, neurons};
        const NeuronRange low{0, neurons / 2};
        const NeuronRange high{neurons / 2, neurons - neurons / 2};
        const auto delay = SynapseValues::uniform(1e6, 3e6);
        const Wiring wiring(neurons, seed % 2 == 0 ? std::optional(window) : std::nullopt,
                            {{.name = "bernoulli",
                              .sources = all,
                              .targets = all,
                              .rule = ConnectionRule::bernoulli(0.1),
                              .weight = SynapseValues::uniform(0.0, 1.0),
                              .delay = delay},
                             {.name = "in",
                              .sources = low,
                              .targets = high,
                              .rule = ConnectionRule::fixedInDegree(3),
                              .weight = 0.2,
                              .delay = 1e6},
                             {.name = "out",
                              .sources = high,
                              .targets = all,
                              .rule = ConnectionRule::fixedOutDegree(5),
                              .weight = SynapseValues::normal(0.3, 0.1).within(0.0, 2.0),
                              .delay = delay,
                              .inhibitory = true},
                             {.name = "total",
                              .sources = all,
                              .targets = low,
                              .rule = ConnectionRule::fixedTotalNumber(77),
                              .weight = 0.1,
                              .delay = 2e6}},
                            seed);
        const Kernel::Firing firing{.base_rate = 60.0};
        const ModelTime end = 40 * window;
        CpuWindowBackend backend;
        WindowEngine one(wiring.build(), Kernel::Neuron(), firing, seed, end);
        one.run(backend);
        const Blob expected = one.snapshot();
        for (const std::uint32_t size : {1U, 3U, 16U}) {
            ThreadRanks(size).run([&](IRankGroup& ranks) {
                CpuWindowBackend own;
                SynapseGraph share = wiring.buildShare(ranks);
                const std::uint64_t count = share.share()->end - share.share()->begin;
                WindowEngine engine(std::move(share),
                                    ParameterTable(count, Kernel::Neuron(), firing), seed, end,
                                    nullptr, &ranks);
                engine.run(own);
                const Blob blob = engine.snapshot();
                if (ranks.rank() == 0) {
                    EXPECT_TRUE(blob == expected);
                }
            });
        }
    }
}

}  // namespace Lumenar::Core::Kelm::Testing

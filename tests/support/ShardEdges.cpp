#include "tests/support/ShardEdges.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "kelm/engine/WindowEngine.h"
#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm::Testing {

namespace {

constexpr std::uint64_t ids_of_32_bits = std::uint64_t{1} << 32;

/// Where a snapshot of an engine holds the id of its next event.
std::size_t placeOfNextId(const Blob& snapshot) {
    constexpr std::string_view tag = "KELMBKT1";
    const auto store = std::search(snapshot.begin(), snapshot.end(), tag.begin(), tag.end());
    return static_cast<std::size_t>(store - snapshot.begin()) + 33;
}

/// Random synapses; those of every second neuron have one delay.
GeneratedModel drawNetwork(std::uint64_t node_count, ModelTime window, std::int64_t windows) {
    Draws draws(node_count);
    GeneratedModel model;
    model.node_count = node_count;
    model.d_min = window;
    model.declares_d_min = true;
    model.run_seed = 7;
    model.horizon = windows * window;
    model.neurons.resize(node_count, {.tau_membrane = 10 * window,
                                      .tau_adaptation = 100 * window,
                                      .refractory_period = window / 8,
                                      .adaptation_increment = 0.05});
    const double windows_per_s = 1e9 / static_cast<double>(window);
    model.firings.resize(node_count,
                         {.base_rate = 0.2 * windows_per_s, .max_rate = 2.0 * windows_per_s});
    for (NodeId source = 0; source < node_count; ++source) {
        for (int k = 0; k < 10; ++k) {
            // The sum of the weights of one time depends on their order.
            model.synapses.push_back(
                {.source = source,
                 .target = draws.below(node_count),
                 .weight = draws.oneOf({0.3F, 3e-5F, 7e-10F}),
                 .delay = source % 2 == 0 ? window : draws.timeBetween(window, 3 * window),
                 .inhibitory = draws.oneIn(4)});
        }
    }
    return model;
}

ShardEdge idsPast32Bits() {
    ShardEdge edge{"ids pass 2^32", drawNetwork(30, 1'000'000, 100)};
    edge.first_id = ids_of_32_bits - 2000;
    edge.isReached = [](const auto&, std::uint64_t ids) { return ids > ids_of_32_bits + 1000; };
    return edge;
}

ShardEdge timesPast32Bits() {
    constexpr ModelTime window = 20'000'000'000;
    ShardEdge edge{"windows are longer than 2^32 ns", drawNetwork(12, window, 50)};
    edge.isReached = [](const auto& log, std::uint64_t) {
        return std::ranges::any_of(log, [](const SpikeRecord& spike) {
            return spike.time % window > ModelTime{0xffffffff};
        });
    };
    return edge;
}

/// `hot`: the first of four neurons which alone have more spikes than all others.
ShardEdge oneBusyShard(NodeId hot) {
    ShardEdge edge{"most spikes are of neurons from " + std::to_string(hot) + " on",
                   drawNetwork(28, 1'000'000, 100)};
    const auto is_hot = [hot](NodeId n) { return n >= hot && n < hot + 4; };
    for (NodeId n = 0; n < 28; ++n) {
        edge.model.firings[n] = {.base_rate = is_hot(n) ? 1500.0 : 5.0, .gain = 0.0};
    }
    edge.isReached = [is_hot](const auto& log, std::uint64_t) {
        const auto busy = std::ranges::count_if(log, is_hot, &SpikeRecord::neuron);
        return 2 * static_cast<std::size_t>(busy) > log.size();
    };
    return edge;
}

ShardEdge silentShards() {
    ShardEdge edge{"most shards have no event", drawNetwork(28, 1'000'000, 100)};
    const auto is_silent = [](NodeId n) { return n < 12 || n >= 16; };
    for (NodeId n = 0; n < 28; ++n) {
        if (is_silent(n)) edge.model.firings[n].base_rate = 0.0;
    }
    for (Synapse& synapse : edge.model.synapses) synapse.target = 12 + synapse.target % 4;
    edge.isReached = [is_silent](const auto& log, std::uint64_t) {
        return !log.empty() && std::ranges::none_of(log, is_silent, &SpikeRecord::neuron);
    };
    return edge;
}

ShardEdge emptyShards() {
    ShardEdge edge{"there are fewer neurons than shards", drawNetwork(2, 1'000'000, 100)};
    edge.isReached = [](const auto& log, std::uint64_t) { return log.size() > 10; };
    return edge;
}

/// Every second neuron fires at the same ns, also first and last in a window. All its deliveries,
/// and inputs from outside, arrive at one time.
ShardEdge equalTimes() {
    constexpr ModelTime window = 1'000'000;
    ShardEdge edge{"spikes and deliveries have equal times", drawNetwork(28, window, 60)};
    for (NodeId n = 0; n < 28; n += 2) edge.model.firings[n].base_rate = 0.0;
    for (ModelTime start = 0; start < edge.model.horizon - 3 * window; start += 3 * window) {
        for (const ModelTime time : {start, start + window - 1}) {
            for (NodeId n = 0; n < 28; n += 2) edge.given.push_back({time, n});
            for (NodeId n = 1; n < 28; n += 5) {
                Event& input = edge.model.inputs.emplace_back();
                input.time = time + window;
                input.target = n;
                input.value = 1e-5;
            }
        }
    }
    edge.isReached = [](const auto& log, std::uint64_t) {
        return std::ranges::count(log, 3 * window, &SpikeRecord::time) == 14 &&
               std::ranges::any_of(log, [](const SpikeRecord& s) { return s.neuron % 2 == 1; });
    };
    return edge;
}

}  // namespace

std::vector<ShardEdge> shardEdges() {
    return {idsPast32Bits(),  timesPast32Bits(), oneBusyShard(0), oneBusyShard(12),
            oneBusyShard(24), silentShards(),    emptyShards(),   equalTimes()};
}

Blob runEdge(const ShardEdge& edge, IWindowBackend& backend, IRankGroup* ranks) {
    const GeneratedModel& model = edge.model;
    WindowEngine engine = ranks == nullptr ? makeEngine(model) : makeEngine(model, *ranks);
    if (edge.first_id != 0) {
        Blob start = makeEngine(model).snapshot();
        std::memcpy(start.data() + placeOfNextId(start), &edge.first_id, sizeof edge.first_id);
        if (!engine.restore(start)) throw std::logic_error("the first snapshot is refused");
    }
    postInputs(model, engine);
    if (!edge.given.empty()) engine.giveSpikes(edge.given);
    engine.run(backend);
    const std::vector<SpikeRecord> log = engine.networkLog();
    Blob end = engine.snapshot();
    if (ranks == nullptr) {
        std::uint64_t ids = 0;
        std::memcpy(&ids, end.data() + placeOfNextId(end), sizeof ids);
        if (!edge.isReached(log, ids)) throw std::logic_error("not reached: " + edge.fact);
    }
    return end;
}

}  // namespace Lumenar::Core::Kelm::Testing

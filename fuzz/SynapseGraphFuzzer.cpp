#include <cmath>
#include <limits>

#include "compare/Grammar.h"
#include "fuzz/Fuzzing.h"
#include "fuzz/Mutation.h"
#include "fuzz/Subjects.h"
#include "kelm/runtime/Homeostasis.h"

using namespace Lumenar::Core::Kelm;
using namespace Lumenar::Core::Kelm::Fuzzing;

namespace {

struct Sink final : IEventSink {
    std::uint64_t post(const Event& event) override {
        events.push_back(event);
        return events.size();
    }
    std::vector<Event> events;
};

void requireValid(const SynapseGraph& graph, const Synapse& synapse) {
    require(synapse.source < graph.nodeCount() && synapse.target < graph.nodeCount(),
            "synapses lie in the network");
    require(std::isfinite(synapse.weight) && !(synapse.weight < 0.0F), "weights are magnitudes");
    require(synapse.delay >= 1, "delays are positive");
}

/// Every routed synapse is in both of its lists and in no other.
void walkRoutes(SynapseGraph& graph) {
    std::uint64_t listed = 0;
    for (NodeId n = 0; n < graph.nodeCount(); ++n) {
        for (const EdgeId id : graph.outgoing(n)) {
            require(graph.isRouted(id) && graph.source(id) == n, "outgoing lists are correct");
            ++listed;
        }
        for (const EdgeId id : graph.incoming(n)) {
            require(graph.isRouted(id) && graph.target(id) == n, "incoming lists are correct");
            ++listed;
        }
    }
    require(listed == 2 * graph.routedCount(), "lists are complete");
    for (EdgeId id = 0; id < graph.edgeCount(); ++id) {
        requireValid(graph, graph.edge(id));
        require(!graph.isRouted(id) || *graph.dMin() <= graph.edge(id).delay,
                "d_min bounds every delay");
    }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned int seed) {
    return mutateBy(Compare::graph_grammar, data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    SynapseGraph graph = makeGraph();
    SynapseGraph twin = makeGraph();
    static const Blob past = longestPast(makeGraph(), "SynapseGraph");
    // Build the tables of this network, which a restore replaces.
    (void)graph.outgoing(0);
    (void)graph.incoming(0);
    (void)graph.dMin();
    if (!acceptedByTwins(graph, twin, past, {data, size})) return 0;
    walkRoutes(graph);
    Sink sink;
    for (NodeId n = 0; n < graph.nodeCount(); ++n) {
        sink.events.clear();
        const std::uint64_t count = graph.deliver(n, 0, sink);
        require(count == sink.events.size(), "deliveries are counted");
        (void)outcomeOf([&] { graph.deliver(n, last_model_time - 1'000, sink); });
    }
    std::vector<NodeId> targets;
    std::uint64_t call = 0;
    for (SynapseGraph* one : {&graph, &twin}) call = one->takeReweightedTargets(0, targets);
    sameFor(graph, twin, [](SynapseGraph& g) {
        applyHomeostasis(g, {true, 0.5});
        for (EdgeId id = 0; id < g.edgeCount(); ++id) {
            g.setWeight(id, std::numeric_limits<float>::max());
            g.lastChange(id) = last_model_time;
        }
        applyHomeostasis(g, {true, 1e-300});
    });
    graph.takeReweightedTargets(call, targets);
    requireRestorable(graph, makeGraph());
    return 0;
}

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kelm/kelm.h"
#include "python/src/Binding.h"
#include "python/src/Graph.h"

namespace Lumenar::Core::Kelm::Python {

namespace {

/// Reads a one-dimensional array of any stride and alignment. Its type is one of two.
template <class Narrow, class Wide>
class ArrayReader {
public:
    explicit ArrayReader(const py::array& array)
        : place_(static_cast<const char*>(array.data())),
          stride_(array.strides(0)),
          is_wide_(array.itemsize() == sizeof(Wide)) {}

    /// The value of the first call is the first one.
    Wide next() {
        const char* const place = std::exchange(place_, place_ + stride_);
        return is_wide_ ? read<Wide>(place) : static_cast<Wide>(read<Narrow>(place));
    }

private:
    template <class T>
    static T read(const char* place) {
        T value;
        std::memcpy(&value, place, sizeof value);
        return value;
    }

    const char* place_;
    py::ssize_t stride_;
    bool is_wide_;
};

/// The graph of synapses in arrays of one length, in the order of the rows. `sources`, `targets`,
/// `delays`: int32 or int64. `weights`: float or double. `inhibitory`: uint8; without it, negative
/// weights are those of inhibitory synapses. Throws InvalidSynapse.
std::shared_ptr<Graph> graphOfArrays(std::uint64_t neurons, std::optional<ModelTime> window,
                                     const py::array& sources, const py::array& targets,
                                     const py::array& weights, const py::array& delays,
                                     const std::optional<py::array>& inhibitory) {
    ArrayReader<std::int32_t, std::int64_t> source(sources), target(targets), delay(delays);
    ArrayReader<float, double> weight(weights);
    const bool has_flags = inhibitory.has_value();
    ArrayReader<std::uint8_t, std::uint8_t> flag(has_flags ? *inhibitory : weights);
    const auto count = static_cast<std::uint64_t>(sources.size());
    const py::gil_scoped_release release;
    return std::make_shared<Graph>(SynapseGraph(neurons, window, count, [&](EdgeId) {
        const double given = weight.next();
        Synapse synapse{.source = static_cast<NodeId>(source.next()),
                        .target = static_cast<NodeId>(target.next()),
                        .weight = static_cast<float>(given),
                        .delay = delay.next()};
        if (has_flags) {
            // A small negative double is rounded to -0, which the graph would accept.
            if (given < 0) throw InvalidSynapse(InvalidSynapse::weight);
            const std::uint8_t sign = flag.next();
            if (sign > 1) throw InvalidSynapse(InvalidSynapse::sign);
            synapse.inhibitory = sign == 1;
        } else {
            synapse.inhibitory = synapse.weight < 0;
            synapse.weight = std::fabs(synapse.weight);
        }
        return synapse;
    }));
}

/// The indices of the synapses, ascending by source. Synapses of one source keep their order.
std::vector<EdgeId> orderBySource(const SynapseGraph& graph) {
    std::vector<std::uint64_t> next(graph.nodeCount() + 1, 0);
    std::vector<EdgeId> order(graph.edgeCount());
    for (EdgeId i = 0; i < order.size(); ++i) ++next[graph.source(i) + 1];
    for (std::uint64_t n = 0; n < graph.nodeCount(); ++n) next[n + 1] += next[n];
    for (EdgeId i = 0; i < order.size(); ++i) order[next[graph.source(i)]++] = i;
    return order;
}

/// The synapses of both graphs, ascending by source. For each source those of `first` come first.
/// `first` must be sorted by source.
SynapseGraph merged(const SynapseGraph& first, const SynapseGraph& second, std::uint64_t neurons,
                    std::optional<ModelTime> window) {
    const std::vector<EdgeId> order = orderBySource(second);
    EdgeId from_first = 0;
    std::size_t from_second = 0;
    return SynapseGraph(neurons, window, first.edgeCount() + order.size(), [&](EdgeId) {
        const bool second_left = from_second < order.size();
        if (from_first < first.edgeCount() &&
            (!second_left || first.source(from_first) <= second.source(order[from_second]))) {
            return first.edge(from_first++);
        }
        return second.edge(order[from_second++]);
    });
}

/// Collects the connections of a network and builds its graph.
class Plan {
public:
    Plan(std::uint64_t neurons, std::optional<ModelTime> window, std::uint64_t seed)
        : neurons_(neurons), window_(window), seed_(seed) {}

    void addProjection(std::string name, std::pair<NodeId, std::uint64_t> sources,
                       std::pair<NodeId, std::uint64_t> targets, ConnectionRule::Kind kind,
                       std::uint64_t count, double probability, bool self, bool multiple,
                       const py::tuple& weight, const py::tuple& delay, bool inhibitory) {
        projections_.push_back({std::move(name),
                                {sources.first, sources.second},
                                {targets.first, targets.second},
                                {kind, count, probability, self, multiple},
                                valuesOf(weight),
                                valuesOf(delay),
                                inhibitory});
    }

    void addGraph(std::shared_ptr<Graph> graph) { graphs_.push_back(std::move(graph)); }

    /// Throws what build() throws before it draws anything.
    void check() const {
        if (!projections_.empty()) wiring();
    }

    /// One graph and no projection keep the order of the synapses.
    std::shared_ptr<Graph> build() const {
        const py::gil_scoped_release release;
        if (projections_.empty() && graphs_.size() == 1) {
            const SynapseGraph& only = graphs_.front()->synapses;
            if (only.nodeCount() == neurons_) return graphs_.front();
            return std::make_shared<Graph>(SynapseGraph(
                neurons_, window_, only.edgeCount(), [&only](EdgeId id) { return only.edge(id); }));
        }
        SynapseGraph graph = wiring().build();
        for (const auto& more : graphs_) graph = merged(graph, more->synapses, neurons_, window_);
        return std::make_shared<Graph>(std::move(graph));
    }

private:
    Wiring wiring() const { return Wiring(neurons_, window_, projections_, seed_); }

    /// ("uniform", low, high, smallest, largest), ("array", values) or ("function", callable).
    SynapseValues valuesOf(const py::tuple& description) {
        const auto kind = description[0].cast<std::string>();
        if (kind == "array") {
            arrays_.push_back(description[1].cast<Column<double>>());
            return SynapseValues::fromArray(viewOf(arrays_.back()));
        }
        if (kind == "function") {
            return SynapseValues::fromFunction(
                [shared = SharedCallable(description[1].cast<py::function>())](
                    NodeId source, NodeId target, std::uint64_t index) {
                    return shared.call<double>(source, target, index);
                });
        }
        const auto a = description[1].cast<double>(), b = description[2].cast<double>();
        const SynapseValues values = kind == "constant"      ? SynapseValues(a)
                                     : kind == "uniform"     ? SynapseValues::uniform(a, b)
                                     : kind == "normal"      ? SynapseValues::normal(a, b)
                                     : kind == "lognormal"   ? SynapseValues::logNormal(a, b)
                                     : kind == "exponential" ? SynapseValues::exponential(a)
                                                             : SynapseValues();
        return values.within(description[3].cast<double>(), description[4].cast<double>());
    }

    std::uint64_t neurons_;
    std::optional<ModelTime> window_;
    std::uint64_t seed_;
    std::vector<Projection> projections_;
    std::vector<std::shared_ptr<Graph>> graphs_;
    std::vector<Column<double>> arrays_;  ///< that projections borrow
};

template <class T, class Field>
py::array_t<T> synapseColumn(const Graph& graph, Field field) {
    const std::uint64_t count = graph.synapses.edgeCount();
    py::array_t<T> array(static_cast<py::ssize_t>(count));
    T* const out = array.mutable_data();
    const py::gil_scoped_release release;
    for (EdgeId id = 0; id < count; ++id) out[id] = field(graph.synapses.edge(id));
    return array;
}

}  // namespace

void bindNetwork(py::module_& module) {
    py::enum_<ConnectionRule::Kind>(module, "RuleKind")
        .value("one_to_one", ConnectionRule::Kind::one_to_one)
        .value("all_to_all", ConnectionRule::Kind::all_to_all)
        .value("fixed_indegree", ConnectionRule::Kind::fixed_in_degree)
        .value("fixed_outdegree", ConnectionRule::Kind::fixed_out_degree)
        .value("fixed_total", ConnectionRule::Kind::fixed_total_number)
        .value("bernoulli", ConnectionRule::Kind::bernoulli);

    py::class_<Graph, std::shared_ptr<Graph>>(module, "Graph")
        .def_property_readonly("neurons", [](const Graph& g) { return g.synapses.nodeCount(); })
        .def_property_readonly("count", [](const Graph& g) { return g.synapses.edgeCount(); })
        .def_readonly("window", &Graph::window)
        .def("sources",
             [](const Graph& g) {
                 return synapseColumn<NodeId>(g, [](const Synapse& s) { return s.source; });
             })
        .def("targets",
             [](const Graph& g) {
                 return synapseColumn<NodeId>(g, [](const Synapse& s) { return s.target; });
             })
        .def("weights",
             [](const Graph& g) {
                 return synapseColumn<float>(g, [](const Synapse& s) { return s.weight; });
             })
        .def("delays",
             [](const Graph& g) {
                 return synapseColumn<ModelTime>(g, [](const Synapse& s) { return s.delay; });
             })
        .def("inhibitory", [](const Graph& g) {
            return synapseColumn<std::uint8_t>(
                g, [](const Synapse& s) { return std::uint8_t{s.inhibitory}; });
        });

    module.def("graph_of_arrays", &graphOfArrays, py::arg("neurons"), py::arg("window"),
               py::arg("sources"), py::arg("targets"), py::arg("weights"), py::arg("delays"),
               py::arg("inhibitory"));

    py::class_<Plan>(module, "Plan")
        .def(py::init<std::uint64_t, std::optional<ModelTime>, std::uint64_t>(), py::arg("neurons"),
             py::arg("window"), py::arg("seed"))
        .def("add_projection", &Plan::addProjection, py::arg("name"), py::arg("sources"),
             py::arg("targets"), py::arg("kind"), py::arg("count"), py::arg("probability"),
             py::arg("allow_self"), py::arg("allow_multiple"), py::arg("weight"), py::arg("delay"),
             py::arg("inhibitory"))
        .def("add_graph", &Plan::addGraph, py::arg("graph"))
        .def("check", &Plan::check)
        .def("build", &Plan::build);
}

}  // namespace Lumenar::Core::Kelm::Python

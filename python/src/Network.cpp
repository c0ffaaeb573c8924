#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kelm/kelm.h"
#include "python/src/Binding.h"
#include "python/src/Graph.h"

namespace Lumenar::Core::Kelm::Python {

namespace {

/// Synapses in arrays, shape (synapses) each.
struct Columns {
    Column<NodeId> sources, targets;
    Column<float> weights;
    Column<ModelTime> delays;
    Column<std::uint8_t> inhibitory;

    SynapseColumns view() const {
        return {viewOf(sources), viewOf(targets), viewOf(weights), viewOf(delays),
                viewOf(inhibitory)};
    }
};

/// The indices of the synapses, ascending by source. Synapses of one source keep their order.
std::vector<EdgeId> orderBySource(const SynapseColumns& columns, std::uint64_t neurons) {
    std::vector<std::uint64_t> next(neurons + 1, 0);
    for (const NodeId source : columns.sources) {
        if (source >= neurons) throw InvalidSynapse(InvalidSynapse::endpoint);
        ++next[source + 1];
    }
    for (std::uint64_t n = 0; n < neurons; ++n) next[n + 1] += next[n];
    std::vector<EdgeId> order(columns.sources.size());
    for (EdgeId i = 0; i < order.size(); ++i) order[next[columns.sources[i]]++] = i;
    return order;
}

/// The synapses of `first` and of `columns`, ascending by source. For each source those of `first`
/// come first. `first` must be sorted by source.
SynapseGraph merged(const SynapseGraph& first, const SynapseColumns& columns, std::uint64_t neurons,
                    std::optional<ModelTime> window) {
    const std::vector<EdgeId> order = orderBySource(columns, neurons);
    EdgeId from_first = 0;
    std::size_t from_columns = 0;
    return SynapseGraph(neurons, window, first.edgeCount() + order.size(), [&](EdgeId) {
        const bool columns_left = from_columns < order.size();
        if (from_first < first.edgeCount() &&
            (!columns_left || first.source(from_first) <= columns.sources[order[from_columns]])) {
            return first.edge(from_first++);
        }
        return columns[order[from_columns++]];
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

    void addColumns(Columns columns) { columns_.push_back(std::move(columns)); }

    std::shared_ptr<Graph> build() const {
        std::vector<SynapseColumns> columns;
        for (const Columns& arrays : columns_) columns.push_back(arrays.view());
        const py::gil_scoped_release release;
        return std::make_shared<Graph>(graphOf(columns));
    }

private:
    SynapseGraph graphOf(const std::vector<SynapseColumns>& columns) const {
        if (projections_.empty() && columns.size() == 1) {
            return SynapseGraph(neurons_, window_, columns.front());
        }
        SynapseGraph graph = Wiring(neurons_, window_, projections_, seed_).build();
        for (const SynapseColumns& more : columns) {
            graph = merged(graph, more, neurons_, window_);
        }
        return graph;
    }

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
    std::vector<Columns> columns_;
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

    py::class_<Plan>(module, "Plan")
        .def(py::init<std::uint64_t, std::optional<ModelTime>, std::uint64_t>(), py::arg("neurons"),
             py::arg("window"), py::arg("seed"))
        .def("add_projection", &Plan::addProjection, py::arg("name"), py::arg("sources"),
             py::arg("targets"), py::arg("kind"), py::arg("count"), py::arg("probability"),
             py::arg("allow_self"), py::arg("allow_multiple"), py::arg("weight"), py::arg("delay"),
             py::arg("inhibitory"))
        .def(
            "add_columns",
            [](Plan& plan, Column<NodeId> sources, Column<NodeId> targets, Column<float> weights,
               Column<ModelTime> delays, Column<std::uint8_t> inhibitory) {
                plan.addColumns({std::move(sources), std::move(targets), std::move(weights),
                                 std::move(delays), std::move(inhibitory)});
            },
            py::arg("sources"), py::arg("targets"), py::arg("weights"), py::arg("delays"),
            py::arg("inhibitory"))
        .def("build", &Plan::build);
}

}  // namespace Lumenar::Core::Kelm::Python

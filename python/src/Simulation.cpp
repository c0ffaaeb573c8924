#include "python/src/Simulation.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "compare/BlobLayout.h"
#include "python/src/Graph.h"

namespace Lumenar::Core::Kelm::Python {

Simulation::Simulation(std::unique_ptr<KelmRuntime> runtime) : runtime_(std::move(runtime)) {
    runtime_->setProgress([this](const RunProgress& progress) { report(progress); },
                          std::chrono::milliseconds(50));
}

void Simulation::report(const RunProgress& progress) {
    const py::gil_scoped_acquire gil;
    try {
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
        if (poll_) poll_(progress.position, progress.spikes, progress.speed);
    } catch (...) {
        interrupted_ = true;
        throw;
    }
}

bool Simulation::run(ModelTime until, std::optional<py::function> poll) {
    const Use use(*this);
    struct Drop {  // else a progress function that knows the simulation would keep it alive
        py::object& poll;
        ~Drop() { poll = py::object(); }
    } const drop{poll_};
    poll_ = poll ? std::move(*poll) : py::object();
    interrupted_ = false;
    try {
        const py::gil_scoped_release release;
        use->run(until);
    } catch (const RefusedCall&) {
        throw;
    } catch (...) {
        if (!interrupted_) failed_ = true;
        throw;
    }
    return use->stopped();
}

namespace {

/// A probe and the simulation that owns it.
class ProbeView {
public:
    ProbeView(Simulation& simulation, ProbeConfig config)
        : simulation_(&simulation),
          probe_(&Simulation::Use(simulation)->addProbe(std::move(config))) {}

    py::array_t<ModelTime> times() const {
        const Simulation::Use use(*simulation_);
        return copied(probe_->times());
    }
    /// Shape (times, neurons).
    py::array values(ProbeField field) const {
        const Simulation::Use use(*simulation_);
        return copied(probe_->values(field)).reshape(shape(probe_->times().size()));
    }
    /// The times, and a table of values for each field of the probe. Copies nothing.
    std::pair<py::array, std::vector<py::array>> take() {
        const Simulation::Use use(*simulation_);
        Probe::Samples samples = probe_->take();
        std::vector<py::array> fields;
        for (const ProbeField field : probe_->config().fields) {
            std::vector<double>& values = samples.by_field[static_cast<std::size_t>(field)];
            fields.push_back(owned(std::move(values)).reshape(shape(samples.times.size())));
        }
        return {owned(std::move(samples.times)), std::move(fields)};
    }

private:
    std::array<py::ssize_t, 2> shape(std::size_t times) const {
        return {static_cast<py::ssize_t>(times),
                static_cast<py::ssize_t>(probe_->config().neurons.size())};
    }

    Simulation* simulation_;  ///< Python keeps it alive
    Probe* probe_;
};

/// Calls a Python function after each window.
class CommitFunction final : public ICommitListener {
public:
    explicit CommitFunction(py::function function) : function_(std::move(function)) {}
    void committed(ModelTime window_start, ModelTime window_end,
                   std::span<const SpikeRecord> spikes) override {
        const py::gil_scoped_acquire gil;
        function_.call<py::object>(window_start, window_end, copied(spikes));
    }

private:
    SharedCallable function_;
};

std::unique_ptr<Simulation> makeSimulation(const Graph& graph, const RuntimeOptions& options) {
    const py::gil_scoped_release release;
    return std::make_unique<Simulation>(makeRuntime(SynapseGraph(graph.synapses), options));
}

py::bytes bytesOf(const Blob& blob) {
    return py::bytes(reinterpret_cast<const char*>(blob.data()), blob.size());
}

py::bytes writeCheckpoint(Simulation& simulation) {
    const Simulation::Use use(simulation);
    Blob blob;
    {
        const py::gil_scoped_release release;
        blob = use->checkpoint();
    }
    return bytesOf(blob);
}

BlobView viewOf(const py::buffer_info& bytes) {
    return {static_cast<const std::uint8_t*>(bytes.ptr),
            static_cast<std::size_t>(bytes.size * bytes.itemsize)};
}

void readCheckpoint(Simulation& simulation, const py::buffer& checkpoint) {
    const py::buffer_info bytes = checkpoint.request();
    const Simulation::Use use(simulation);
    const py::gil_scoped_release release;
    restoreCheckpoint(*use, viewOf(bytes));
}

py::dict summaryOf(const py::buffer& checkpoint) {
    const py::buffer_info bytes = checkpoint.request();
    const CheckpointSummary summary = examineCheckpoint(viewOf(bytes));
    py::dict fields;
    fields["fault"] = textOf(summary.faultText());
    fields["engine_version"] = textOf(summary.engine_version);
    fields["label"] = textOf(summary.label);
    fields["fingerprint"] = summary.config_id;
    fields["seed"] = summary.seed;
    fields["position"] = summary.position;
    fields["neurons"] = summary.neurons;
    fields["synapses"] = summary.synapses;
    fields["spikes"] = summary.spikes;
    fields["taken_spikes"] = summary.taken_spikes;
    fields["plasticity"] = summary.has_plasticity;
    fields["oscillators"] = summary.has_oscillators;
    fields["samples"] = summary.samples;
    fields["input_channels"] = summary.input_channels;
    fields["error_channels"] = summary.error_channels;
    return fields;
}

/// One line on the first difference of two checkpoints; empty if there is none.
std::string firstDifference(const py::buffer& a, const py::buffer& b) {
    const py::buffer_info left = a.request();
    const py::buffer_info right = b.request();
    const auto difference = Compare::blobDifference("checkpoint", viewOf(left), viewOf(right));
    return difference ? difference->text() : std::string();
}

py::array_t<std::uint64_t> perturb(Simulation& simulation, ModelTime time, bool inhibition,
                                   double strength, const Column<NodeId>& targets,
                                   std::uint64_t cause) {
    const auto ids = Python::viewOf(targets);
    return owned(
        Simulation::Use(simulation)
            ->perturb({cause,
                       time,
                       inhibition ? PerturbationKind::inhibition : PerturbationKind::activation,
                       strength,
                       {ids.begin(), ids.end()}}));
}

/// `post`: (times, neurons, values) of equal length. One event each, in this order.
py::array_t<std::uint64_t> post(Simulation& simulation, const Column<ModelTime>& times,
                                const Column<NodeId>& neurons, const Column<double>& values) {
    const Simulation::Use use(simulation);
    std::vector<std::uint64_t> ids;
    Perturbation event{.kind = PerturbationKind::activation, .targets = {0}};
    for (std::size_t i = 0; i < static_cast<std::size_t>(times.size()); ++i) {
        event.time = times.data()[i];
        event.targets[0] = neurons.data()[i];
        event.strength = values.data()[i];
        ids.push_back(use->perturb(event).front());
    }
    return owned(std::move(ids));
}

py::array_t<float> readWeights(Simulation& simulation) {
    const Simulation::Use use(simulation);
    py::array_t<float> weights(static_cast<py::ssize_t>(use->graph().edgeCount()));
    use->graph().readWeights(0, {weights.mutable_data(), static_cast<std::size_t>(weights.size())});
    return weights;
}

py::array_t<StateSample> statesAt(Simulation& simulation, std::optional<ModelTime> time,
                                  const std::optional<Column<NodeId>>& neurons) {
    const Simulation::Use use(simulation);
    const ModelTime at = time ? *time : use->earliestInput();
    return owned(neurons ? use->statesAt(at, Python::viewOf(*neurons)) : use->statesAt(at));
}

}  // namespace

void bindSimulation(py::module_& module) {
    PYBIND11_NUMPY_DTYPE(SpikeRecord, time, neuron);
    PYBIND11_NUMPY_DTYPE(StateSample, membrane, adaptation, refractory_left, hazard);
    PYBIND11_NUMPY_DTYPE(Kernel::State, membrane, adaptation, last_update, refractory_until,
                         hazard_bound);

    module.def("examine_checkpoint", &summaryOf);
    module.def("first_difference", &firstDifference);

    py::enum_<ProbeField>(module, "ProbeField")
        .value("membrane", ProbeField::membrane)
        .value("adaptation", ProbeField::adaptation)
        .value("refractory_left", ProbeField::refractory_left)
        .value("hazard", ProbeField::hazard);
    py::class_<ProbeView>(module, "Probe")
        .def("times", &ProbeView::times)
        .def("values", &ProbeView::values, py::arg("field"))
        .def("take", &ProbeView::take);

    py::class_<Simulation> simulation(module, "Runtime");
    simulation.def(py::init(&makeSimulation), py::arg("graph"), py::arg("options"))
        .def("run", &Simulation::run, py::arg("until"), py::arg("poll"))
        .def("request_stop", &Simulation::requestStop)
        .def_property_readonly("busy", &Simulation::isBusy)
        .def_property_readonly("failed", &Simulation::hasFailed)
        .def_property_readonly("stopped",
                               [](Simulation& s) { return Simulation::Use(s)->stopped(); })
        .def_property_readonly("position",
                               [](Simulation& s) { return Simulation::Use(s)->position(); })
        .def_property_readonly("earliest_input",
                               [](Simulation& s) { return Simulation::Use(s)->earliestInput(); })
        .def_property_readonly("seed", [](Simulation& s) { return Simulation::Use(s)->seed(); })
        .def_property_readonly("horizon",
                               [](Simulation& s) { return Simulation::Use(s)->horizon(); })
        .def_property_readonly("label", [](Simulation& s) { return Simulation::Use(s)->label(); })
        .def_property_readonly("fingerprint",
                               [](Simulation& s) { return Simulation::Use(s)->configId(); })
        .def_property_readonly("digest",
                               [](Simulation& s) { return Simulation::Use(s)->logHash(); })
        .def_property_readonly("windows",
                               [](Simulation& s) { return Simulation::Use(s)->commitCount(); })
        .def_property_readonly("spike_count",
                               [](Simulation& s) {
                                   const Simulation::Use use(s);
                                   return use->spikeLog().size() + use->takenSpikes();
                               })
        .def_property_readonly("taken_spikes",
                               [](Simulation& s) { return Simulation::Use(s)->takenSpikes(); })
        .def_property_readonly("warnings",
                               [](Simulation& s) {
                                   const Simulation::Use use(s);
                                   std::vector<std::pair<std::string, std::string>> found;
                                   for (const Finding& finding : use->warnings()) {
                                       found.emplace_back(finding.field, finding.text);
                                   }
                                   return found;
                               })
        .def("profile",
             [](Simulation& s) {
                 const WindowProfile profile = Simulation::Use(s)->profile();
                 return py::dict(py::arg("windows") = profile.windows,
                                 py::arg("deliveries") = profile.deliveries,
                                 py::arg("updates") = profile.updates,
                                 py::arg("candidates") = profile.candidates,
                                 py::arg("accepted") = profile.accepted);
             })
        .def("spikes", [](Simulation& s) { return copied(Simulation::Use(s)->spikeLog()); })
        .def("take_spikes", [](Simulation& s) { return owned(Simulation::Use(s)->takeSpikes()); })
        .def("states", &statesAt, py::arg("time"), py::arg("neurons"))
        .def("last_states",
             [](Simulation& s) { return copied(Simulation::Use(s)->neuronStates()); })
        .def(
            "add_probe",
            [](Simulation& s, const Column<NodeId>& neurons, std::vector<ProbeField> fields,
               ModelTime interval) {
                const auto ids = Python::viewOf(neurons);
                return ProbeView(s, {{ids.begin(), ids.end()}, std::move(fields), interval});
            },
            py::keep_alive<0, 1>(), py::arg("neurons"), py::arg("fields"), py::arg("interval"))
        .def("weights", &readWeights)
        .def(
            "set_weights",
            [](Simulation& s, std::uint64_t first, const Column<float>& weights) {
                Simulation::Use(s)->graph().writeWeights(first, Python::viewOf(weights));
            },
            py::arg("first"), py::arg("weights"))
        .def(
            "set_weights_of",
            [](Simulation& s, const Column<EdgeId>& ids, const Column<float>& weights) {
                const Simulation::Use use(s);
                for (py::ssize_t i = 0; i < ids.size(); ++i) {
                    use->graph().setWeight(ids.data()[i], weights.data()[i]);
                }
            },
            py::arg("synapses"), py::arg("weights"))
        .def(
            "set_enabled",
            [](Simulation& s, const Column<EdgeId>& ids, bool enabled) {
                const Simulation::Use use(s);
                for (const EdgeId id : Python::viewOf(ids)) use->graph().setEnabled(id, enabled);
            },
            py::arg("synapses"), py::arg("enabled"))
        .def("enabled",
             [](Simulation& s) {
                 const Simulation::Use use(s);
                 py::array_t<bool> on(static_cast<py::ssize_t>(use->graph().edgeCount()));
                 for (py::ssize_t i = 0; i < on.size(); ++i) {
                     on.mutable_data()[i] = use->graph().edge(static_cast<EdgeId>(i)).enabled;
                 }
                 return on;
             })
        .def(
            "set_transmission",
            [](Simulation& s, bool inhibitory, bool on) {
                Simulation::Use(s)->graph().setTransmissionEnabled(inhibitory, on);
            },
            py::arg("inhibitory"), py::arg("enabled"))
        .def(
            "transmission",
            [](Simulation& s, bool inhibitory) {
                return Simulation::Use(s)->graph().transmissionEnabled(inhibitory);
            },
            py::arg("inhibitory"))
        .def("checkpoint", &writeCheckpoint)
        .def(
            "save",
            [](Simulation& s, const std::string& path) {
                const Simulation::Use use(s);
                const py::gil_scoped_release release;
                saveCheckpoint(*use, path);
            },
            py::arg("path"))
        .def("restore", &readCheckpoint, py::arg("checkpoint"))
        .def("fork",
             [](Simulation& s) {
                 const Simulation::Use use(s);
                 const py::gil_scoped_release release;
                 return std::make_unique<Simulation>(use->fork());
             })
        .def(
            "reseed",
            [](Simulation& s, std::uint64_t seed) {
                const Simulation::Use use(s);
                const py::gil_scoped_release release;
                use->reseed(seed);
            },
            py::arg("seed"))
        .def(
            "inject",
            [](Simulation& s, const std::string& name, ModelTime time, double value) {
                return owned(Simulation::Use(s)->inject(name, time, value));
            },
            py::arg("name"), py::arg("time"), py::arg("value"))
        .def("perturb", &perturb, py::arg("time"), py::arg("inhibition"), py::arg("strength"),
             py::arg("targets"), py::arg("cause"))
        .def("post", &post, py::arg("times"), py::arg("neurons"), py::arg("values"))
        .def(
            "on_commit",
            [](Simulation& s, std::optional<py::function> function) {
                std::unique_ptr<ICommitListener> listener;
                if (function) listener = std::make_unique<CommitFunction>(std::move(*function));
                s.setCommitListener(std::move(listener));
            },
            py::arg("function"))
        .def("trace_injections", [](Simulation& s) { s.traceInjections(); })
        .def("injections", [](Simulation& s) {
            std::vector<std::tuple<std::string, ModelTime, double>> found;
            for (const InjectionRecord& record : s.traceInjections().records()) {
                found.emplace_back(record.name, record.time, record.value);
            }
            return found;
        });
    bindParts(simulation);
}

}  // namespace Lumenar::Core::Kelm::Python

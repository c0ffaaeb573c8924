#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kelm/kelm.h"
#include "python/src/Binding.h"

namespace Lumenar::Core::Kelm::Python {

void bindSettings(py::module_& module) {
    using Kernel::Firing;
    using Kernel::Neuron;

    py::class_<Neuron>(module, "Neuron")
        .def(py::init<>())
        .def_readwrite("tau_membrane", &Neuron::tau_membrane)
        .def_readwrite("tau_adaptation", &Neuron::tau_adaptation)
        .def_readwrite("refractory_period", &Neuron::refractory_period)
        .def_readwrite("adaptation_increment", &Neuron::adaptation_increment)
        .def_readwrite("input_coupling", &Neuron::input_coupling)
        .def_readwrite("reset_value", &Neuron::reset_value)
        .def_readwrite("trace_epsilon", &Neuron::trace_epsilon)
        .def_readwrite("hard_refractory", &Neuron::hard_refractory)
        .def_readwrite("non_leaky", &Neuron::non_leaky);
    py::class_<Firing>(module, "Firing")
        .def(py::init<>())
        .def_readwrite("base_rate", &Firing::base_rate)
        .def_readwrite("gain", &Firing::gain)
        .def_readwrite("threshold", &Firing::threshold)
        .def_readwrite("adaptation_weight", &Firing::adaptation_weight)
        .def_readwrite("rate_scale", &Firing::rate_scale)
        .def_readwrite("max_rate", &Firing::max_rate);
    py::class_<Population>(module, "Population")
        .def(py::init<>())
        .def_readwrite("name", &Population::name)
        .def_readwrite("size", &Population::size)
        .def_readwrite("neuron", &Population::neuron)
        .def_readwrite("firing", &Population::firing);
    module.def("poisson_sources", &poissonSources, py::arg("name"), py::arg("size"),
               py::arg("rate"));
    module.def("spike_sources", &spikeSources, py::arg("name"), py::arg("size"));

    py::enum_<PlasticityRuleKind>(module, "PlasticityRuleKind")
        .value("none", PlasticityRuleKind::none)
        .value("pair", PlasticityRuleKind::pair)
        .value("coincidence", PlasticityRuleKind::coincidence);
    py::class_<PlasticityRule>(module, "PlasticityRule")
        .def(py::init<>())
        .def_readwrite("kind", &PlasticityRule::kind)
        .def_readwrite("potentiation", &PlasticityRule::a_potentiation)
        .def_readwrite("depression", &PlasticityRule::a_depression)
        .def_readwrite("coincidence", &PlasticityRule::a_coincidence)
        .def_readwrite("scale", &PlasticityRule::scale);
    py::class_<PlasticityConfig>(module, "PlasticityConfig")
        .def(py::init<>())
        .def_readwrite("enabled", &PlasticityConfig::enabled)
        .def_readwrite("excitatory", &PlasticityConfig::excitatory)
        .def_readwrite("inhibitory", &PlasticityConfig::inhibitory)
        .def("set_trace",
             [](PlasticityConfig& config, ModelTime tau_pre, ModelTime tau_post,
                ModelTime tau_coincidence, double epsilon) {
                 config.trace = {tau_pre, tau_post, tau_coincidence, epsilon};
             })
        .def("set_homeostasis", [](PlasticityConfig& config, double cap) {
            config.homeostasis = {.enabled = true, .cap = cap};
        });

    py::class_<PhaseConfig>(module, "PhaseConfig")
        .def(py::init<>())
        .def_readwrite("coupling_period", &PhaseConfig::coupling_period)
        .def("add_oscillator",
             [](PhaseConfig& config, std::uint32_t id, double frequency, double phase,
                double amplitude) {
                 config.oscillators.push_back({id, frequency, phase, amplitude});
             })
        .def("add_coupling",
             [](PhaseConfig& config, std::uint32_t source, std::uint32_t target, double strength) {
                 config.couplings.push_back({source, target, strength});
             })
        .def("set_neurons",
             [](PhaseConfig& config, std::size_t count) { config.bindings.resize(count); })
        .def("bind",
             [](PhaseConfig& config, const Column<NodeId>& neurons, std::uint32_t oscillator,
                bool inhibitory, const Column<double>& strength, const Column<double>& offset) {
                 const auto ids = viewOf(neurons);
                 for (std::size_t i = 0; i < ids.size(); ++i) {
                     config.bindings.at(ids[i]).push_back({oscillator, std::uint8_t{inhibitory},
                                                           viewOf(strength)[i], viewOf(offset)[i]});
                 }
             });

    py::enum_<SampleKind>(module, "SampleKind")
        .value("membrane", SampleKind::membrane)
        .value("oscillator_phases", SampleKind::oscillator_phases)
        .value("active_synapses", SampleKind::active_synapses)
        .value("adaptation", SampleKind::adaptation)
        .value("refractory_left", SampleKind::refractory_left)
        .value("next_candidate", SampleKind::next_candidate)
        .value("spike_counts", SampleKind::spike_counts);
    py::class_<RecorderConfig>(module, "RecorderConfig")
        .def(py::init<>())
        .def_readwrite("record_spikes", &RecorderConfig::record_spikes)
        .def_readwrite("causal", &RecorderConfig::causal)
        .def_readwrite("sample_interval", &RecorderConfig::sample_interval)
        .def_readwrite("sample_kinds", &RecorderConfig::sample_kinds);

    py::class_<Predictor>(module, "Predictor")
        .def(py::init<>())
        .def_readwrite("sources", &Predictor::sources)
        .def_readwrite("weights", &Predictor::weights)
        .def_readwrite("bias", &Predictor::bias);

    py::class_<RuntimeOptions>(module, "RuntimeOptions")
        .def(py::init<>())
        .def_readwrite("seed", &RuntimeOptions::seed)
        .def_readwrite("horizon", &RuntimeOptions::horizon)
        .def_readwrite("backend", &RuntimeOptions::backend)
        .def_readwrite("threads", &RuntimeOptions::threads)
        .def_readwrite("populations", &RuntimeOptions::populations)
        .def_readwrite("plasticity", &RuntimeOptions::plasticity)
        .def_readwrite("learning_journal", &RuntimeOptions::learning_journal)
        .def_readwrite("phase", &RuntimeOptions::phase)
        .def_readwrite("recorder", &RuntimeOptions::recorder)
        .def_readwrite("label", &RuntimeOptions::label)
        .def("give_spikes",
             [](RuntimeOptions& options, const Column<ModelTime>& times,
                const Column<NodeId>& neurons) {
                 options.given_spikes.clear();
                 for (std::size_t i = 0; i < viewOf(times).size(); ++i) {
                     options.given_spikes.push_back({viewOf(times)[i], viewOf(neurons)[i]});
                 }
             })
        .def("add_input_channel",
             [](RuntimeOptions& options, std::string name, std::uint8_t modality,
                const Column<NodeId>& targets, ModelTime delay, double gain) {
                 const auto ids = viewOf(targets);
                 options.input_channels.push_back(
                     {std::move(name), modality, {ids.begin(), ids.end()}, delay, gain});
             })
        .def("add_error_channel",
             [](RuntimeOptions& options, std::string name, const Column<NodeId>& targets,
                double precision, double strength, double clamp,
                std::optional<Predictor> predictor) {
                 if (!options.prediction) options.prediction.emplace();
                 const auto ids = viewOf(targets);
                 options.prediction->channels.push_back(
                     {std::move(name), {ids.begin(), ids.end()}, precision, strength, clamp});
                 auto& predictors = options.prediction->predictors;
                 if (!predictor && predictors.empty()) return;
                 predictors.resize(options.prediction->channels.size());
                 predictors.back() = std::move(predictor);
             });
}

}  // namespace Lumenar::Core::Kelm::Python

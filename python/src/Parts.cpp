#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "python/src/Simulation.h"

// The parts of a simulation. The package's Python part calls a function here only where the
// simulation has the part.

namespace Lumenar::Core::Kelm::Python {

namespace {

void bindLearning(py::class_<Simulation>& simulation) {
    PYBIND11_NUMPY_DTYPE(JournalEntry, edge, time, weight_before, weight_after, fast_before,
                         fast_after, slow_before, slow_after, pre_last_spike, post_last_spike,
                         delta, rule_kind, kind);
    PYBIND11_NUMPY_DTYPE(ModulatorSample, time, open);
    PYBIND11_NUMPY_DTYPE(SynapseLearningState, slow, fast, last_weight, initialized, pending);
    PYBIND11_NUMPY_DTYPE(SpikeTrace, pre, post, coincidence, updated, last_spike);

    simulation
        .def("has_learning",
             [](Simulation& s) { return Simulation::Use(s)->learningControl() != nullptr; })
        .def("learning_journal",
             [](Simulation& s) { return copied(Simulation::Use(s)->learningControl()->journal()); })
        .def("learning_gate_history",
             [](Simulation& s) {
                 return copied(Simulation::Use(s)->learningControl()->modulatorHistory());
             })
        .def("learning_states",
             [](Simulation& s) {
                 return copied(Simulation::Use(s)->learningControl()->synapseStates());
             })
        .def("learning_pending",
             [](Simulation& s) {
                 return copied(Simulation::Use(s)->learningControl()->pendingEdges());
             })
        .def("learning_traces",
             [](Simulation& s) { return copied(Simulation::Use(s)->plasticity()->traces()); })
        .def("learning_settings",
             [](Simulation& s) {
                 const Simulation::Use use(s);
                 const LearningControl& learning = *use->learningControl();
                 const FastWeightSettings& fast = learning.fastWeights();
                 const auto allowed = learning.allowedGroups();
                 py::dict settings;
                 settings["enabled"] = learning.isLearningEnabled();
                 settings["frozen"] = learning.frozen();
                 settings["weight_cap"] = learning.weightCap();
                 settings["journal_mode"] = static_cast<int>(learning.journalMode());
                 settings["journal_rate"] = learning.journalRate();
                 settings["fast_weights"] = fast.enabled != 0;
                 settings["fast_tau"] = fast.tau;
                 settings["consolidation_rate"] = fast.consolidation_rate;
                 settings["allowed_groups"] =
                     learning.restrictsGroups()
                         ? py::cast(std::vector<std::uint32_t>(allowed.begin(), allowed.end()))
                         : py::none();
                 return settings;
             })
        .def("learning_group_of",
             [](Simulation& s, NodeId neuron) {
                 return Simulation::Use(s)->learningControl()->groupOf(neuron);
             })
        .def("learning_set_group",
             [](Simulation& s, const Column<NodeId>& neurons, std::uint32_t group) {
                 const Simulation::Use use(s);
                 for (const NodeId neuron : viewOf(neurons)) {
                     use->learningControl()->setGroup(neuron, group);
                 }
             })
        .def("learning_set_group_enabled",
             [](Simulation& s, std::uint32_t group, bool enabled) {
                 Simulation::Use(s)->learningControl()->setGroupEnabled(group, enabled);
             })
        .def("learning_allow_groups",
             [](Simulation& s, std::optional<std::vector<std::uint32_t>> groups) {
                 const Simulation::Use use(s);
                 if (groups) {
                     use->learningControl()->allowOnlyGroups(std::move(*groups));
                 } else {
                     use->learningControl()->allowAllGroups();
                 }
             })
        .def("learning_set_enabled",
             [](Simulation& s, bool enabled) {
                 Simulation::Use(s)->learningControl()->setLearningEnabled(enabled);
             })
        .def("learning_set_frozen",
             [](Simulation& s, std::uint32_t index, bool frozen) {
                 Simulation::Use(s)->learningControl()->setFrozen(index, frozen);
             })
        .def("learning_set_gate",
             [](Simulation& s, std::optional<py::function> gate) {
                 const Simulation::Use use(s);
                 if (!gate) return use->learningControl()->setModulator({});
                 use->learningControl()->setModulator(
                     [shared = SharedCallable(std::move(*gate))](ModelTime window_end) {
                         return shared.call<bool>(window_end);
                     });
             })
        .def("learning_set_fast_weights",
             [](Simulation& s, bool enabled, ModelTime tau, double rate) {
                 Simulation::Use(s)->learningControl()->setFastWeights(enabled, tau, rate);
             })
        .def("learning_set_journal",
             [](Simulation& s, int mode, double rate) {
                 Simulation::Use(s)->learningControl()->setJournal(static_cast<JournalMode>(mode),
                                                                   rate);
             })
        .def("learning_set_weight_cap",
             [](Simulation& s, double cap) {
                 Simulation::Use(s)->learningControl()->setWeightCap(cap);
             })
        .def("learning_set_change_hook", [](Simulation& s, std::optional<py::function> hook) {
            const Simulation::Use use(s);
            if (!hook) return use->plasticity()->setChangeHook({});
            use->plasticity()->setChangeHook(
                [shared = SharedCallable(std::move(*hook))](const WeightChangeContext& context) {
                    const py::gil_scoped_acquire gil;
                    py::dict fields;
                    fields["synapse"] = context.edge;
                    fields["source"] = context.pre_neuron;
                    fields["target"] = context.post_neuron;
                    fields["time"] = context.time;
                    fields["source_last_spike"] = context.pre_last_spike;
                    fields["target_last_spike"] = context.post_last_spike;
                    fields["weight"] = context.weight;
                    fields["factor"] = context.factor;
                    fields["source_phase"] = context.pre_phase;
                    fields["target_phase"] = context.post_phase;
                    fields["inhibitory"] = context.synapse_kind == 1;
                    fields["rule"] =
                        context.rule_kind == PlasticityRuleKind::pair ? "pair" : "coincidence";
                    fields["target_fired"] = context.side == PlasticitySide::target;
                    return shared.call<double>(fields);
                });
        });
}

void bindOscillators(py::class_<Simulation>& simulation) {
    simulation
        .def("has_oscillators",
             [](Simulation& s) { return Simulation::Use(s)->oscillators() != nullptr; })
        .def("oscillator_phases",
             [](Simulation& s, ModelTime time) {
                 const auto phases = Simulation::Use(s)->oscillators()->allPhases(time);
                 return columnOf<double>(phases, [](const PhaseSample& p) { return p.phase; });
             })
        .def(
            "oscillator_offsets",
            [](Simulation& s) { return copied(Simulation::Use(s)->oscillators()->phaseOffsets()); })
        .def("oscillator_set_memberships",
             [](Simulation& s, std::vector<std::vector<std::uint32_t>> memberships) {
                 Simulation::Use(s)->oscillators()->setMemberships(std::move(memberships));
             })
        .def("oscillator_configure_coupling",
             [](Simulation& s,
                const std::vector<std::tuple<std::uint32_t, std::uint32_t, double>>& couplings,
                ModelTime period) {
                 std::vector<OscillatorCoupling> list;
                 for (const auto& [source, target, strength] : couplings) {
                     list.push_back({source, target, strength});
                 }
                 Simulation::Use(s)->oscillators()->configureCoupling(std::move(list), period);
             })
        .def("oscillator_set_coupling_enabled",
             [](Simulation& s, bool enabled) {
                 Simulation::Use(s)->oscillators()->setCouplingEnabled(enabled);
             })
        .def("oscillator_coupling_enabled",
             [](Simulation& s) { return Simulation::Use(s)->oscillators()->isCouplingEnabled(); })
        .def("oscillator_coupling_steps",
             [](Simulation& s) { return Simulation::Use(s)->oscillators()->couplingSteps(); })
        .def("phase_log", [](Simulation& s) {
            const Simulation::Use use(s);
            std::vector<ModelTime> times;
            std::vector<NodeId> neurons;
            std::vector<std::uint32_t> oscillators;
            std::vector<double> phases;
            for (const PhaseLogEntry& entry : use->phaseLog()) {
                for (const PhaseSample& phase : entry.phases) {
                    times.push_back(entry.time);
                    neurons.push_back(entry.neuron);
                    oscillators.push_back(phase.oscillator);
                    phases.push_back(phase.phase);
                }
            }
            return py::make_tuple(owned(std::move(times)), owned(std::move(neurons)),
                                  owned(std::move(oscillators)), owned(std::move(phases)));
        });
}

void bindChannels(py::class_<Simulation>& simulation) {
    PYBIND11_NUMPY_DTYPE(Observation, channel, observed, predicted, error, weighted_error, time);

    simulation
        .def("channel_names",
             [](Simulation& s) {
                 const Simulation::Use use(s);
                 std::vector<std::string> names;
                 const InputChannelBank* bank = use->inputChannels();
                 for (std::size_t i = 0; bank != nullptr && i < bank->size(); ++i) {
                     names.push_back(bank->spec(i).name);
                 }
                 return names;
             })
        .def("channel_state",
             [](Simulation& s, const std::string& name) {
                 const Simulation::Use use(s);
                 const InputChannelBank& bank = *use->inputChannels();
                 const std::size_t i = bank.indexOf(name);
                 const InputChannelStats& stats = bank.stats(i);
                 py::dict fields;
                 fields["gain"] = bank.spec(i).gain;
                 fields["connected"] = bank.isConnected(i);
                 fields["injections"] = stats.injections;
                 fields["events"] = stats.events;
                 fields["dropped"] = stats.dropped;
                 fields["last_time"] = stats.last_time;
                 return fields;
             })
        .def("channel_set_connected",
             [](Simulation& s, const std::string& name, bool connected) {
                 Simulation::Use(s)->inputChannels()->setConnected(name, connected);
             })
        .def("channel_set_gain",
             [](Simulation& s, const std::string& name, double gain) {
                 Simulation::Use(s)->inputChannels()->setGain(name, gain);
             })
        .def("error_channel_names",
             [](Simulation& s) {
                 const Simulation::Use use(s);
                 std::vector<std::string> names;
                 if (use->prediction() == nullptr) return names;
                 for (const ErrorChannel& channel : use->prediction()->channels()) {
                     names.push_back(channel.name);
                 }
                 return names;
             })
        .def("error_observe",
             [](Simulation& s, std::size_t channel, double observed, double predicted,
                ModelTime time) {
                 Simulation::Use(s)->prediction()->observeValue(channel, observed, predicted, time);
             })
        .def("error_set_precision",
             [](Simulation& s, std::size_t channel, double precision) {
                 Simulation::Use(s)->prediction()->setPrecision(channel, precision);
             })
        .def("error_precision",
             [](Simulation& s, std::size_t channel) {
                 return Simulation::Use(s)->prediction()->channels()[channel].precision;
             })
        .def("error_set_predictor",
             [](Simulation& s, std::size_t channel, Predictor predictor) {
                 Simulation::Use(s)->prediction()->setPredictor(channel, std::move(predictor));
             })
        .def("error_drive",
             [](Simulation& s, NodeId neuron) {
                 return Simulation::Use(s)->prediction()->errorDrive(neuron);
             })
        .def("error_observations", [](Simulation& s) {
            return copied(Simulation::Use(s)->prediction()->observations());
        });
}

/// A table of one list of each sample, shape (samples, values). Empty where it is not sampled.
template <class Field>
py::array tableOf(std::span<const RecordedSample> samples, Field field) {
    const std::size_t width = samples.empty() ? 0 : (samples.front().*field).size();
    std::vector<double> values;
    values.reserve(samples.size() * width);
    for (const RecordedSample& sample : samples) {
        values.insert(values.end(), (sample.*field).begin(), (sample.*field).end());
    }
    return owned(std::move(values))
        .reshape({static_cast<py::ssize_t>(samples.size()), static_cast<py::ssize_t>(width)});
}

void bindRecorder(py::class_<Simulation>& simulation) {
    simulation
        .def("has_recorder",
             [](Simulation& s) { return Simulation::Use(s)->recorder() != nullptr; })
        .def("recorded_spikes",
             [](Simulation& s) {
                 const Simulation::Use use(s);
                 const auto spikes = use->recorder()->spikes();
                 return py::make_tuple(
                     columnOf<ModelTime>(spikes, [](const RecordedSpike& r) { return r.time; }),
                     columnOf<NodeId>(spikes, [](const RecordedSpike& r) { return r.neuron; }),
                     columnOf<std::uint32_t>(spikes,
                                             [](const RecordedSpike& r) { return r.spike_kind; }));
             })
        .def("recorded_samples",
             [](Simulation& s) {
                 const Simulation::Use use(s);
                 const auto samples = use->recorder()->samples();
                 using Sample = RecordedSample;
                 py::dict tables;
                 tables["time"] =
                     columnOf<ModelTime>(samples, [](const Sample& r) { return r.time; });
                 tables["active_synapses"] = columnOf<std::uint64_t>(
                     samples, [](const Sample& r) { return r.active_synapses; });
                 tables["membrane"] = tableOf(samples, &Sample::membrane);
                 tables["adaptation"] = tableOf(samples, &Sample::adaptation);
                 tables["refractory_left"] = tableOf(samples, &Sample::refractory_left);
                 tables["next_candidate"] = tableOf(samples, &Sample::next_candidate);
                 tables["spike_counts"] = tableOf(samples, &Sample::spike_counts);
                 tables["oscillator_phases"] = tableOf(samples, &Sample::oscillator_phases);
                 return tables;
             })
        .def("recorded_causes", [](Simulation& s) {
            std::vector<std::pair<std::uint64_t, std::optional<std::uint64_t>>> causes;
            for (const CauseEntry& entry : Simulation::Use(s)->recorder()->causes()) {
                causes.emplace_back(entry.event_id, entry.cause.present
                                                        ? std::optional(entry.cause.id)
                                                        : std::nullopt);
            }
            return causes;
        });
}

void bindInterventionsAndStreams(py::class_<Simulation>& simulation) {
    simulation
        .def("intervention_gains",
             [](Simulation& s) { return Simulation::Use(s)->interventions().mechanism_gain; })
        .def("intervention_switches",
             [](Simulation& s) { return Simulation::Use(s)->interventions().mechanism_off; })
        .def("intervention_log",
             [](Simulation& s) { return Simulation::Use(s)->interventions().intervention_log; })
        .def("intervention_set_gain",
             [](Simulation& s, std::size_t mechanism, double gain) {
                 Simulation::Use(s)->interventions().setGain(mechanism, gain);
             })
        .def("intervention_set_off",
             [](Simulation& s, std::size_t mechanism, bool off) {
                 Simulation::Use(s)->interventions().setOff(mechanism, off);
             })
        .def("intervention_note",
             [](Simulation& s, std::uint64_t id) { Simulation::Use(s)->interventions().note(id); })
        .def("stream_state",
             [](Simulation& s, const std::string& name, std::uint64_t index) {
                 return Simulation::Use(s)->randomStreams().rawState(name, index);
             })
        .def("stream_tape",
             [](Simulation& s, const std::string& name, std::uint64_t index) {
                 const Simulation::Use use(s);
                 return copied(use->randomStreams().streamFor(name, index).tape());
             })
        .def("stream_record",
             [](Simulation& s, const std::string& name, std::uint64_t index) {
                 Simulation::Use(s)->randomStreams().record(name, index);
             })
        .def("stream_replay",
             [](Simulation& s, const std::string& name, std::uint64_t index,
                const Column<std::uint64_t>& tape) {
                 Simulation::Use(s)->randomStreams().replay(name, index, viewOf(tape));
             })
        .def("stream_stop", [](Simulation& s, const std::string& name, std::uint64_t index) {
            Simulation::Use(s)->randomStreams().stopTape(name, index);
        });
}

}  // namespace

void bindParts(py::class_<Simulation>& simulation) {
    bindLearning(simulation);
    bindOscillators(simulation);
    bindChannels(simulation);
    bindRecorder(simulation);
    bindInterventionsAndStreams(simulation);
}

}  // namespace Lumenar::Core::Kelm::Python

#include "kelm/runtime/KelmRuntime.h"

#include <stdexcept>
#include <utility>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

KelmRuntime::KelmRuntime(SynapseGraph&& network, const Kernel::Neuron& neuron,
                         const Kernel::Firing& firing, std::uint64_t seed, ModelTime horizon,
                         IWindowBackend& backend, std::unique_ptr<IEventStore> store,
                         std::uint64_t config_id, std::string&& label)
    : seed_(seed),
      horizon_(horizon),
      config_id_(config_id),
      label_(std::move(label)),
      engine_(std::move(network), neuron, firing, seed, horizon, std::move(store)),
      backend_(&backend) {
    engine_.setHooks(this, this, this);
}

KelmRuntime makeKelmRuntime(SynapseGraph network, const Kernel::Neuron& neuron,
                            const Kernel::Firing& firing, std::uint64_t seed, ModelTime horizon,
                            IWindowBackend* backend, std::unique_ptr<IEventStore> store,
                            const PlasticityConfig& plasticity, std::optional<PhaseConfig> phase,
                            std::optional<RecorderConfig> recorder,
                            std::vector<InputChannelSpec> input_channels,
                            std::optional<PredictionConfig> prediction, std::uint64_t config_id,
                            std::string label) {
    if (backend == nullptr) throw std::invalid_argument("a runtime needs a backend");
    // A part that would silently do nothing is worse than a refusal.
    if (plasticity.enabled) throw InvalidPlasticity("this runtime has no plasticity");
    if (phase) throw InvalidPhaseModulation("this runtime has no phase modulation");
    if (recorder) throw std::invalid_argument("this runtime has no recorder");
    if (!input_channels.empty()) throw InvalidModality(InvalidModality::no_channels);
    if (prediction) throw InvalidPrediction("this runtime has no prediction");
    return KelmRuntime(std::move(network), neuron, firing, seed, horizon, *backend,
                       std::move(store), config_id, std::move(label));
}

void KelmRuntime::run() { run(horizon_); }

void KelmRuntime::run(ModelTime until) {
    engine_.run(*backend_, until);
    position_ = until;
}

std::vector<std::uint64_t> KelmRuntime::inject(const std::string&, ModelTime, double) {
    throw InvalidModality(InvalidModality::no_channels);
}

void KelmRuntime::prepare(ModelTime, ModelTime, std::span<WindowWork>, SynapseGraph&) {}

void KelmRuntime::commit(ModelTime window_start, ModelTime window_end,
                         std::span<const SpikeRecord> spikes, SynapseGraph&) {
    if (commit_listener_ != nullptr) {
        commit_listener_->committed(window_start, window_end, spikes);
    }
    ++commit_count_;
}

void KelmRuntime::observe(const Event& event, std::span<const Kernel::State> states,
                          SynapseGraph& graph) {
    observe(event, states, {}, graph);
}

void KelmRuntime::observe(const Event&, std::span<const Kernel::State>, std::span<const ModelTime>,
                          SynapseGraph&) {}

}  // namespace Lumenar::Core::Kelm

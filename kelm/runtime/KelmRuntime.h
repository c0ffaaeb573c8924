#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kelm/engine/WindowEngine.h"
#include "kelm/runtime/InputChannelSpec.h"
#include "kelm/runtime/PhaseConfig.h"
#include "kelm/runtime/PlasticityConfig.h"
#include "kelm/runtime/PredictionConfig.h"
#include "kelm/runtime/RecorderConfig.h"

namespace Lumenar::Core::Kelm {

class LearningControl;
class PredictionBank;
class Recorder;

/// Told of each window that a runtime has committed.
class ICommitListener {
public:
    virtual ~ICommitListener() = default;
    /// `window_start`, `window_end`: ns. `spikes`: what the window added, valid during the call.
    virtual void committed(ModelTime window_start, ModelTime window_end,
                           std::span<const SpikeRecord> spikes) = 0;
};

/// What a user of the library composes: one engine, and through its three window hooks everything
/// that is more than spiking neurons. Each part is a slot that may be empty, and a runtime with
/// all slots empty is complete: its hooks then only count.
///
/// Build one with makeKelmRuntime. The engine's hooks refer to the object, so it stays where it
/// was built: it is neither copied nor moved. After a throw out of run it may only be destroyed.
/// One thread at a time.
class KelmRuntime : private IWindowPrepare, private IWindowCommit, private IWindowObserver {
public:
    KelmRuntime(const KelmRuntime&) = delete;
    KelmRuntime& operator=(const KelmRuntime&) = delete;
    ~KelmRuntime() override = default;

    /// Runs to the horizon. Throws what WindowEngine::run and the hooks throw.
    void run();
    /// Runs every window that starts before `until` ns. Throws as above; position() then stays.
    void run(ModelTime until);

    /// Injects a value on a named input channel at `time` ns and returns the ids of its events.
    /// Throws InvalidModality, since this runtime has no input channels.
    std::vector<std::uint64_t> inject(const std::string& name, ModelTime time, double value);

    /// The parts of the composition; null for an empty slot.
    const Recorder* recorder() const { return nullptr; }
    PredictionBank* prediction() { return nullptr; }
    const LearningControl* learningControl() const { return nullptr; }

    /// All spikes so far, by time, then neuron. Valid until the next run.
    std::span<const SpikeRecord> spikeLog() { return engine_.spikeLog(); }
    /// 64-bit digest of spikeLog().
    std::uint64_t logHash() { return engine_.logHash(); }
    WindowProfile profile() const { return engine_.profile(); }
    /// Shape (neurons): each state as of the neuron's last update.
    std::span<const Kernel::State> neuronStates() const { return engine_.states(); }
    /// The raw state of a neuron's random stream. `neuron` must lie in the network.
    std::uint64_t spontaneousState(NodeId neuron) { return engine_.spontaneousState(neuron); }
    const SynapseGraph& graph() const { return engine_.graph(); }
    SynapseGraph& graph() { return engine_.graph(); }

    /// How many windows have reached the end of the commit hook.
    std::uint64_t commitCount() const { return commit_count_; }
    /// The `until` of the last finished run in ns; 0 at the start.
    ModelTime position() const { return position_; }
    std::uint64_t seed() const { return seed_; }
    ModelTime horizon() const { return horizon_; }
    std::uint64_t configId() const { return config_id_; }
    const std::string& label() const { return label_; }

    /// Sets who is told of committed windows; null for nobody. It must outlive the runs.
    void setCommitListener(ICommitListener* listener) { commit_listener_ = listener; }

private:
    friend KelmRuntime makeKelmRuntime(
        SynapseGraph network, const Kernel::Neuron& neuron, const Kernel::Firing& firing,
        std::uint64_t seed, ModelTime horizon, IWindowBackend* backend,
        std::unique_ptr<IEventStore> store, const PlasticityConfig& plasticity,
        std::optional<PhaseConfig> phase, std::optional<RecorderConfig> recorder,
        std::vector<InputChannelSpec> input_channels, std::optional<PredictionConfig> prediction,
        std::uint64_t config_id, std::string label);

    KelmRuntime(SynapseGraph&& network, const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                std::uint64_t seed, ModelTime horizon, IWindowBackend& backend,
                std::unique_ptr<IEventStore> store, std::uint64_t config_id, std::string&& label);

    void prepare(ModelTime window_start, ModelTime window_end, std::span<WindowWork> work,
                 SynapseGraph& graph) override;
    void commit(ModelTime window_start, ModelTime window_end, std::span<const SpikeRecord> spikes,
                SynapseGraph& graph) override;
    void observe(const Event& event, std::span<const Kernel::State> states,
                 SynapseGraph& graph) override;
    void observe(const Event& event, std::span<const Kernel::State> states,
                 std::span<const ModelTime> candidate_times, SynapseGraph& graph) override;

    std::uint64_t seed_;
    ModelTime horizon_;
    std::uint64_t config_id_;
    std::string label_;
    ModelTime position_ = 0;
    WindowEngine engine_;
    IWindowBackend* backend_;
    ICommitListener* commit_listener_ = nullptr;
    std::uint64_t commit_count_ = 0;
};

/// Builds a runtime in the caller's storage.
///
/// `network`: the graph, taken over. `neuron`, `firing`: the parameters of every neuron. `seed`:
/// of all random streams. `horizon`: ns. `backend`: borrowed, must outlive the runtime. `store`:
/// the pending events, or null for the engine's own. `config_id`, `label`: name the configuration
/// in checkpoints. `plasticity`, `phase`, `recorder`, `input_channels` and `prediction` must stand
/// at their defaults: a runtime with one of these parts is refused.
///
/// Throws std::invalid_argument for a null backend, then the failure class of the first part that
/// is asked for, then what WindowEngine's constructor throws.
KelmRuntime makeKelmRuntime(SynapseGraph network, const Kernel::Neuron& neuron,
                            const Kernel::Firing& firing, std::uint64_t seed, ModelTime horizon,
                            IWindowBackend* backend, std::unique_ptr<IEventStore> store = nullptr,
                            const PlasticityConfig& plasticity = {},
                            std::optional<PhaseConfig> phase = std::nullopt,
                            std::optional<RecorderConfig> recorder = std::nullopt,
                            std::vector<InputChannelSpec> input_channels = {},
                            std::optional<PredictionConfig> prediction = std::nullopt,
                            std::uint64_t config_id = 0, std::string label = "unknown");

}  // namespace Lumenar::Core::Kelm

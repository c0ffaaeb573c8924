#pragma once

#include <functional>
#include <string>
#include <vector>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm::Testing {

/// The result of a walk in which nothing happens.
inline Kernel::WindowResult quietResult(const WindowWork& item) {
    Kernel::WindowResult result;
    result.state = item.state;
    result.rng = item.rng;
    result.next_bound = item.pending_bound;
    return result;
}

/// A quiet result with spikes.
inline Kernel::WindowResult spikingResult(const WindowWork& item,
                                          const std::vector<ModelTime>& times) {
    Kernel::WindowResult result = quietResult(item);
    for (const ModelTime time : times) result.spike_times[result.spike_count++] = time;
    return result;
}

/// A backend whose results a test writes.
class ScriptedBackend : public IWindowBackend {
public:
    using Script = std::function<Kernel::WindowResult(
        const WindowWork& item, const Kernel::WindowEvent* events, ModelTime window_end)>;

    explicit ScriptedBackend(Script script) : script_(std::move(script)) {}

    const char* name() override { return "scripted"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override {
        ++windows;
        horizon_seen = horizon;
        neuron_seen = neuron;
        firing_seen = firing;
        for (std::size_t i = 0; i < work.size(); ++i) {
            results[i] = script_(work[i], events.data() + work[i].first_event, window_end);
        }
    }
    bool tryResidentRun(WindowEngine&) override {
        ++offers;
        return takes_whole_runs;
    }

    int windows = 0;
    int offers = 0;
    bool takes_whole_runs = false;
    ModelTime horizon_seen = 0;
    Kernel::Neuron neuron_seen;
    Kernel::Firing firing_seen;

private:
    Script script_;
};

}  // namespace Lumenar::Core::Kelm::Testing

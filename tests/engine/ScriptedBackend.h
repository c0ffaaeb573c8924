#pragma once

#include <functional>
#include <initializer_list>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm::Testing {

/// The result of a walk with only these spikes.
inline Kernel::WindowResult quietResult(const WindowWork& item,
                                        std::initializer_list<ModelTime> spikes = {}) {
    Kernel::WindowResult result;
    result.state = item.state;
    result.rng = item.rng;
    result.next_bound = item.pending_bound;
    for (const ModelTime time : spikes) result.spike_times[result.spike_count++] = time;
    return result;
}

/// A backend whose results a test defines.
class ScriptedBackend : public IWindowBackend {
public:
    using Script = std::function<Kernel::WindowResult(
        const WindowWork& item, const Kernel::WindowEvent* events, ModelTime window_end)>;

    /// Without a script every result is quiet.
    explicit ScriptedBackend(Script script = nullptr) : script_(std::move(script)) {}

    const char* name() override { return "scripted"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime, const Kernel::Neuron&, const Kernel::Firing&,
                       const std::span<Kernel::WindowResult>& results) override {
        ++windows;
        for (std::size_t i = 0; i < work.size(); ++i) {
            results[i] = script_ ? script_(work[i], events.data() + work[i].first_event, window_end)
                                 : quietResult(work[i]);
        }
    }
    bool tryResidentRun(WindowEngine&) override {
        ++offers;
        return takes_whole_runs;
    }

    int windows = 0;
    int offers = 0;
    bool takes_whole_runs = false;

private:
    Script script_;
};

}  // namespace Lumenar::Core::Kelm::Testing

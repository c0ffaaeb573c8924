#pragma once

#include <vector>

#include "kelm/engine/WindowEngine.h"

namespace Lumenar::Core::Kelm::Testing {

/// Keeps everything that it is shown.
class KeepingObserver : public IWindowObserver {
public:
    struct Sight {
        Event event;
        std::vector<Kernel::State> states;
        std::vector<ModelTime> candidate_times;
    };

    void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {}
    void observe(const Event& event, std::span<const Kernel::State> states,
                 std::span<const ModelTime> candidate_times, SynapseGraph&) override {
        times.push_back(event.time);
        sights.push_back({event,
                          {states.begin(), states.end()},
                          {candidate_times.begin(), candidate_times.end()}});
        if (leaves_after_first != nullptr) leaves_after_first->setHooks(nullptr, nullptr, nullptr);
    }

    std::vector<ModelTime> times;
    std::vector<Sight> sights;
    WindowEngine* leaves_after_first = nullptr;
};

/// An observation at `time` ns.
inline Event observationAt(ModelTime time) {
    Event event;
    event.time = time;
    event.kind = EventKind::observation;
    return event;
}

}  // namespace Lumenar::Core::Kelm::Testing

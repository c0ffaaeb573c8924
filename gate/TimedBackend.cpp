#include "gate/TimedBackend.h"

#include <chrono>
#include <cstdint>

namespace Lumenar::Core::Kelm {

void TimedBackend::processWindow(const std::span<const WindowWork>& work,
                                 const std::span<const Kernel::WindowEvent>& events,
                                 ModelTime window_end, ModelTime horizon,
                                 const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                                 const std::span<Kernel::WindowResult>& results) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    inner_->processWindow(work, events, window_end, horizon, neuron, firing, results);
    const std::int64_t elapsed_ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
    seconds_ += static_cast<double>(elapsed_ns) / 1e9;
}

}  // namespace Lumenar::Core::Kelm

#include "kelm/kernel/InputRun.h"

#define KELM_LANE_COUNT 2
#include "kelm/kernel/InputRunText.h"

namespace Lumenar::Core::Kelm::Kernel {

std::uint32_t runInputs(State& state, std::uint64_t& rng, const NeuronModel& model,
                        const WindowEvent* events, std::uint32_t count, ModelTime window_end,
                        ModelTime limit, double drive_bound) {
    return Lanes::runInputs(state, rng, model, events, count, window_end, limit, drive_bound);
}

}  // namespace Lumenar::Core::Kelm::Kernel

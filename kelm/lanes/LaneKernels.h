#pragma once

#include <cstdint>
#include <span>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm::Kernel {
struct State;
struct NeuronModel;
struct WindowEvent;
}  // namespace Lumenar::Core::Kelm::Kernel

// The interface between the lane backend and the vector code: plain data and a table of functions.
// The vector code is compiled for instruction sets that the processor may lack. So this header has
// no inline functions: the linker could keep the copy that was compiled for the wrong processor.

namespace Lumenar::Core::Kelm::Lanes {

/// Walks in a block: several vectors of any width, so that their divisions overlap, and few enough
/// for the first cache.
inline constexpr int block_walks = 32;

/// The steps of `block_walks` walks, one array a quantity. A time has two arrays if the formulas
/// use both the integer and its rounded double.
struct alignas(64) LaneBlock {
    double membrane[block_walks];
    double adaptation[block_walks];
    double last_update[block_walks];             ///< ns, rounded; the time of both traces
    double time[block_walks];                    ///< ns, rounded; the time of the step
    std::int64_t step_time[block_walks];         ///< ns; the same
    double value[block_walks];                   ///< of the step's input
    std::int64_t is_input[block_walks];          ///< all bits set for an input, 0 for a candidate
    double refractory[block_walks];              ///< ns, rounded
    std::int64_t refractory_until[block_walks];  ///< ns; the same
    std::uint64_t rng[block_walks];              ///< raw generator states
    std::int64_t start[block_walks];             ///< ns; out: the start of the draw
    double bound[block_walks];                   ///< spikes/s; out: 0 if nothing was drawn
    double wait[block_walks];                    ///< ns; out: unrounded, valid if bound is not 0
};

/// The parameters and derived terms that all walks of a call share, as in Kernel::NeuronModel.
struct LaneConstants {
    double tau_membrane;        ///< ns, rounded
    double tau_adaptation;      ///< ns, rounded
    double membrane_decay;      ///< 1/ns; 1 / tau_membrane
    double adaptation_decay;    ///< 1/ns; 1 / tau_adaptation
    double input_coupling;      ///< as in Kernel::Neuron
    double trace_epsilon;       ///< as in Kernel::Neuron
    double adaptation_weight;   ///< as in Kernel::Firing
    double threshold;           ///< as in Kernel::Firing
    double gain;                ///< as in Kernel::Firing
    double rate;                ///< spikes/s; base_rate * rate_scale
    double cap;                 ///< largest exponent of the hazard
    double margin;              ///< added to a drive's bound, for traces clipped later
    double horizon_rounded;     ///< ns
    std::int64_t horizon;       ///< ns
    double minimum_adaptation;  ///< as in Kernel::NeuronTerms
    bool hard_refractory;
    bool non_leaky;
};

/// The vector code for one instruction set. Arrays need no alignment.
struct LaneKernels {
    const char* name;  ///< the instruction set
    int lanes;         ///< walks a vector
    /// Moves the first `count` walks to the times of their steps and applies the inputs.
    void (*advance)(LaneBlock& block, int count, const LaneConstants& constants);
    /// The part of Kernel::nextCandidate up to the waiting time, for the first `count` walks.
    void (*redraw)(LaneBlock& block, int count, const LaneConstants& constants);
    /// kernelExp and kernelLog of `count` values, a multiple of `lanes`.
    void (*exponentials)(const double* arguments, double* values, std::int64_t count);
    void (*logarithms)(const double* arguments, double* values, std::int64_t count);
    /// Kernel::runInputs.
    std::uint32_t (*run_inputs)(Kernel::State& state, std::uint64_t& rng,
                                const Kernel::NeuronModel& model, const Kernel::WindowEvent* events,
                                std::uint32_t count, ModelTime window_end, ModelTime limit,
                                double drive_bound);
};

/// The kernels that this build has and this processor can run, the widest last.
std::span<const LaneKernels* const> availableKernels();

}  // namespace Lumenar::Core::Kelm::Lanes

#pragma once

#include <cstdint>
#include <span>

// What the lane backend and the vector text share: plain data and a table of functions. The vector
// text is compiled for instruction sets that a processor may lack, so nothing inline stands here:
// the linker could keep a copy of it that was compiled for the wrong processor.

namespace Lumenar::Core::Kelm::Lanes {

/// Walks that are under way at once: some vectors of any width, so that their divisions overlap,
/// and few enough for the first cache.
inline constexpr int block_walks = 32;

/// The steps of `block_walks` walks, one array a quantity. Times are held twice where both the
/// integer and its rounded double take part in formulas.
struct alignas(64) LaneBlock {
    double membrane[block_walks];
    double adaptation[block_walks];
    double last_update[block_walks];      ///< ns, rounded; the instant at which both traces hold
    double time[block_walks];             ///< ns, rounded; the instant of the step
    std::int64_t step_time[block_walks];  ///< ns; the same
    double value[block_walks];            ///< of the step's input
    std::int64_t is_input[block_walks];   ///< all bits set for an input, 0 for a candidate
    double refractory[block_walks];       ///< ns, rounded
    std::int64_t refractory_until[block_walks];  ///< ns; the same
    std::uint64_t rng[block_walks];              ///< raw generator states
    std::int64_t start[block_walks];             ///< ns; out: where a redraw begins
    double bound[block_walks];                   ///< spikes/s; out: 0 where nothing was drawn
    double wait[block_walks];                    ///< ns; out: unrounded, valid where bound is not 0
};

/// What the walks of a call have in common: parameters, and what the formulas derive from them
/// alone. Each derived value is that of the formula's own operations.
struct LaneConstants {
    double tau_membrane;       ///< ns, rounded
    double tau_adaptation;     ///< ns, rounded
    double membrane_decay;     ///< 1/ns; 1 / tau_membrane
    double adaptation_decay;   ///< 1/ns; 1 / tau_adaptation
    double input_coupling;     ///< as in Kernel::Neuron
    double trace_epsilon;      ///< as in Kernel::Neuron
    double adaptation_weight;  ///< as in Kernel::Firing
    double threshold;          ///< as in Kernel::Firing
    double gain;               ///< as in Kernel::Firing
    double rate;               ///< spikes/s; base_rate * rate_scale
    double cap;                ///< largest exponent of the hazard
    double margin;             ///< of the bound, for traces that are clipped later than it saw
    double horizon_rounded;    ///< ns
    std::int64_t horizon;      ///< ns
    /// An adaptation trace from which on a minimum of the net drive may be passed over (see
    /// LaneText.h); infinity where the parameters do not allow it.
    double minimum_adaptation;
    bool hard_refractory;
    bool non_leaky;
};

/// The vector text for one instruction set. Arrays need no alignment.
struct LaneKernels {
    const char* name;  ///< the instruction set
    int lanes;         ///< walks a vector
    /// Moves the first `count` walks to the instants of their steps and applies the inputs.
    void (*advance)(LaneBlock& block, int count, const LaneConstants& constants);
    /// Draws the next candidates of the first `count` walks: Kernel::nextCandidate up to the
    /// waiting time.
    void (*redraw)(LaneBlock& block, int count, const LaneConstants& constants);
    /// kernelExp and kernelLog of `count` values, a multiple of `lanes`.
    void (*exponentials)(const double* arguments, double* values, std::int64_t count);
    void (*logarithms)(const double* arguments, double* values, std::int64_t count);
};

/// The kernels that this build holds and this processor can run, the widest last. Empty where there
/// are none.
std::span<const LaneKernels* const> availableKernels();

}  // namespace Lumenar::Core::Kelm::Lanes

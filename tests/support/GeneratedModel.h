#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "kelm/core/IRankGroup.h"
#include "kelm/core/ModelTime.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/events/Event.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm::Testing {

// From small values to the limits of model time.
inline constexpr ModelTime durations[] = {1,
                                          2,
                                          3,
                                          1'000'000,
                                          1L << 31,
                                          1L << 53,
                                          1L << 61,
                                          1L << 62,
                                          last_model_time / 2,
                                          last_model_time / 2 + 1,
                                          last_model_time - 100,
                                          last_model_time - 1,
                                          last_model_time};
inline constexpr ModelTime moments[] = {first_model_time,
                                        first_model_time + 1,
                                        -1,
                                        0,
                                        1,
                                        999'999,
                                        1L << 40,
                                        1L << 62,
                                        last_model_time / 2,
                                        last_model_time - 2,
                                        last_model_time - 1,
                                        last_model_time};

/// Limits and options of a generated model.
struct ModelTraits {
    std::uint64_t max_neurons = 24;
    std::int64_t max_windows = 60;
    bool alike = false;           ///< all neurons have the parameters of neuron 0
    bool external_events = true;  ///< some inputs are posted before the run
    /// Every neuron has the same number of synapses, each one window long, and the horizon is a
    /// multiple of the window. With `alike` and without external events, the model can run whole on
    /// a device.
    bool resident = false;
    /// Each neuron has up to 40 synapses with one delay, so its deliveries are kept as runs.
    bool fans = false;
    /// Some parameters, weights and inputs are at the limits of arithmetic, and some windows are a
    /// few ns long.
    bool extreme = false;
    /// Windows, delays, inputs and the horizon lie anywhere up to the limits of model time.
    bool boundless = false;
    /// Bursts lie far apart, up to the last model time, with quiet between them. A burst may be
    /// endless, so a run of the model needs a limit.
    bool far = false;
};

/// A random model, a function of its seed and traits alone. The graph has inhibition, parallel
/// synapses, self-loops, switched-off synapses and delays of one to many windows. Some neurons fire
/// in most windows, some never. Inputs from outside come at any time, also several at one time and
/// at the borders of windows.
///
/// Neurons with high rates and no hard refractory period may fire more spikes than a window can
/// hold. The run then ends with that error.
struct GeneratedModel {
    std::uint64_t seed = 0;  ///< of the generator; print it on failure
    std::uint64_t node_count = 0;
    ModelTime d_min = 0;          ///< ns; the smallest delay
    bool declares_d_min = false;  ///< else the synapses determine it
    std::vector<Synapse> synapses;
    std::vector<Kernel::Neuron> neurons;
    std::vector<Kernel::Firing> firings;
    std::uint64_t run_seed = 0;
    ModelTime horizon = 0;      ///< ns
    std::vector<Event> inputs;  ///< from outside, in the order of posting

    SynapseGraph graph() const;
    /// The share of a rank.
    SynapseGraph graph(const IRankGroup& ranks) const;
    /// Synapses per neuron, if all neurons have the same number.
    std::uint64_t fanout() const { return synapses.size() / node_count; }
};

GeneratedModel generateModel(std::uint64_t seed, const ModelTraits& traits = {});

/// Default neurons on a ring, each with synapses to its `fanout` successors. Every second synapse
/// is inhibitory, and all are one window long. The model can run whole on a device.
GeneratedModel ringModel(std::uint64_t node_count, std::uint64_t fanout, ModelTime d_min,
                         std::int64_t windows);

/// An engine for the model, before its inputs are posted.
WindowEngine makeEngine(const GeneratedModel& model, std::unique_ptr<IEventStore> store = nullptr);

/// The engine of a rank, before its inputs are posted. To be called by all ranks.
WindowEngine makeEngine(const GeneratedModel& model, IRankGroup& ranks);

/// The share of a rank of the network that these arguments of SynapseGraph make.
SynapseGraph shareOf(const IRankGroup& ranks, std::uint64_t node_count,
                     std::optional<ModelTime> min_delay, std::span<const Synapse> synapses);

/// Posts the model's inputs.
void postInputs(const GeneratedModel& model, IEventSink& sink);

}  // namespace Lumenar::Core::Kelm::Testing

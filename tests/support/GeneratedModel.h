#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/events/Event.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm::Testing {

// From small to the ends of the range of times.
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

/// What a generated model may be like.
struct ModelTraits {
    std::uint64_t max_neurons = 24;
    std::int64_t max_windows = 60;
    bool alike = false;           ///< all neurons have the parameters of neuron 0
    bool external_events = true;  ///< some inputs are posted before the run
    /// The same number of synapses from every neuron, each one window long, and a horizon of whole
    /// windows. Alike and without external events, it is of the one shape that runs whole on a
    /// device.
    bool resident = false;
    /// Some parameters, weights and inputs lie at the ends of what arithmetic takes, and some
    /// windows are a few ns long.
    bool extreme = false;
    /// Windows, delays, inputs and the horizon lie anywhere up to the ends of what times reach.
    bool boundless = false;
    /// Bursts lie far apart, up to as late as times reach, with quiet between them. It may burst
    /// without end, so whoever runs it sets a limit.
    bool far = false;
};

/// A random model, a function of its seed and traits alone: a graph with inhibition, parallel
/// synapses, self-loops, switched-off synapses and delays of one to many windows; neurons of every
/// temper, some so hot that most windows see them, some that never fire; inputs from outside, also
/// several at one instant and at the borders of windows.
///
/// Hot neurons without a hard refractory period may exceed what a window can hold, which is then
/// the model's outcome.
struct GeneratedModel {
    std::uint64_t seed = 0;  ///< of the generator; print it on failure
    std::uint64_t node_count = 0;
    ModelTime d_min = 0;          ///< ns; the smallest delay
    bool declares_d_min = false;  ///< else it follows from the synapses
    std::vector<Synapse> synapses;
    std::vector<Kernel::Neuron> neurons;
    std::vector<Kernel::Firing> firings;
    std::uint64_t run_seed = 0;
    ModelTime horizon = 0;      ///< ns
    std::vector<Event> inputs;  ///< from outside, in the order in which they are to be posted

    SynapseGraph graph() const;
    /// Synapses a neuron, where it is the same for all.
    std::uint64_t fanout() const { return synapses.size() / node_count; }
};

GeneratedModel generateModel(std::uint64_t seed, const ModelTraits& traits = {});

/// Default neurons, each with synapses to its `fanout` successors on a ring, every second of them
/// inhibitory and all one window long. It runs whole on a device.
GeneratedModel ringModel(std::uint64_t node_count, std::uint64_t fanout, ModelTime d_min,
                         std::int64_t windows);

/// An engine for the model, before its inputs are posted.
WindowEngine makeEngine(const GeneratedModel& model, std::unique_ptr<IEventStore> store = nullptr);

/// Posts the model's inputs.
void postInputs(const GeneratedModel& model, IEventSink& sink);

}  // namespace Lumenar::Core::Kelm::Testing

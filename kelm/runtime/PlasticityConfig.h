#pragma once

#include <cstdint>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// The decay of the spike traces that plasticity reads.
struct TraceConfig {
    ModelTime tau_pre = 20'000'000;          ///< ns, at least 1
    ModelTime tau_post = 20'000'000;         ///< ns, at least 1
    ModelTime tau_coincidence = 20'000'000;  ///< ns, at least 1
    double epsilon = 1e-15;  ///< a decayed trace of smaller magnitude becomes 0; finite, >= 0
};

enum class PlasticityRuleKind : std::uint8_t { none = 0, pair = 1, coincidence = 2 };

/// How a spike changes the weights of one class of synapses. Amplitudes are finite and >= 0.
struct PlasticityRule {
    PlasticityRuleKind kind = PlasticityRuleKind::none;
    double a_potentiation = 0.0;  ///< pair rule, the target neuron fired
    double a_depression = 0.0;    ///< pair rule, the source neuron fired
    double a_coincidence = 0.0;   ///< coincidence rule
    double scale = 1.0;           ///< factor of every change
};

/// A cap on the mean incoming weight of a neuron.
struct HomeostasisConfig {
    bool enabled = false;
    double cap = 1.0;  ///< finite, > 0
};

/// How a runtime's weights learn.
struct PlasticityConfig {
    TraceConfig trace = {};
    PlasticityRule excitatory = {};  ///< for synapses that are not inhibitory
    PlasticityRule inhibitory = {};
    HomeostasisConfig homeostasis = {};
    bool enabled = false;
};

}  // namespace Lumenar::Core::Kelm

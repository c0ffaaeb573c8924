#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// A named local error over a declared set of neurons.
struct ErrorChannel {
    std::string name = {};             ///< not empty, unique, not "global" or "global_error"
    std::vector<NodeId> targets = {};  ///< not empty
    double precision = 1.0;            ///< weight of the error; finite, >= 0
    double strength = -0.5;            ///< factor from weighted error to drive; finite
    double clamp = 1.0;                ///< bound of the weighted error's magnitude; finite, > 0
};

enum class PredictorKind : std::uint8_t { explicit_readout = 0 };

/// A readout from a population.
struct Predictor {
    PredictorKind kind = PredictorKind::explicit_readout;
    std::vector<NodeId> sources = {};
    std::vector<double> weights = {};  ///< one per source
    double bias = 0.0;
};

/// The error channels of a runtime.
struct PredictionConfig {
    std::vector<ErrorChannel> channels = {};
    std::vector<std::optional<Predictor>> predictors = {};  ///< one per channel, or empty
};

}  // namespace Lumenar::Core::Kelm

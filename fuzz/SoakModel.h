#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/ComposedModel.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm::Fuzzing {

/// The kinds of models.
enum class ModelKind : std::uint8_t {
    plain,             ///< an engine whose neurons all differ
    alike,             ///< an engine with equal neurons, whose items go through vector lanes
    large,             ///< plain or alike, with windows of hundreds of items
    resident,          ///< an engine that runs whole on a device
    extreme,           ///< parameters or times at the ends of their ranges
    far,               ///< bursts far apart, up to the last model time
    composed,          ///< a runtime with every part
    composed_extreme,  ///< composed, with parameters at the ends of their ranges
    composed_far,      ///< composed, without oscillators, with bursts far apart
};
inline constexpr std::size_t kind_count = 9;
const char* nameOf(ModelKind kind);
std::optional<ModelKind> kindNamed(std::string_view name);

/// A time at which another object takes the run over, on another backend.
struct Cut {
    ModelTime time = 0;         ///< ns
    std::uint64_t backend = 0;  ///< any number
};

/// A model that the soak runs in every way, and the actions of its caller.
struct SoakModel {
    std::uint64_t seed = 0;
    ModelKind kind = ModelKind::plain;
    Testing::ComposedModel composed;  ///< a bare engine uses only its network
    std::vector<Cut> cuts;            ///< ascending
    std::vector<ModelTime> moments;   ///< ns, times of an engine's observations
    /// Several ranks can run the model: it does nothing that they refuse. If it is a runtime,
    /// makeRuntime makes it in every way.
    bool spreads = false;

    Testing::GeneratedModel& network() { return composed.network; }
    const Testing::GeneratedModel& network() const { return composed.network; }
    bool isComposed() const { return kind >= ModelKind::composed; }
    /// ns, the window length of the engine's own store; 1 for a network without d_min.
    ModelTime window() const;
    /// ns, the end of its runs. A bare engine continues past its horizon.
    ModelTime end() const;

    /// The whole model as text.
    std::string text() const;
};

/// A function of its arguments alone. Without `kind` the seed chooses one.
SoakModel generateSoakModel(std::uint64_t seed, std::optional<ModelKind> kind = std::nullopt);

/// Leaves out parts of `model` as long as the rest still `differs`. `differs` must not throw.
SoakModel shrunk(SoakModel model, const std::function<bool(const SoakModel&)>& differs);

}  // namespace Lumenar::Core::Kelm::Fuzzing

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

/// What a model is like.
enum class ModelKind : std::uint8_t {
    plain,             ///< an engine whose neurons all differ
    alike,             ///< an engine whose neurons are alike: their items go through vectors
    large,             ///< as either, with windows of hundreds of items
    resident,          ///< an engine that runs whole on a device
    extreme,           ///< parameters, or times, at the ends of what arithmetic takes
    far,               ///< bursts that lie far apart, up to the end of time
    composed,          ///< a runtime with every part
    composed_extreme,  ///< the same at the ends of what arithmetic takes
    composed_far,      ///< the same, but for rhythms, with bursts that lie far apart
};
inline constexpr std::size_t kind_count = 9;
const char* nameOf(ModelKind kind);
std::optional<ModelKind> kindNamed(std::string_view name);

/// A moment at which fresh objects take a run over, on another backend.
struct Cut {
    ModelTime time = 0;         ///< ns
    std::uint64_t backend = 0;  ///< any number
};

/// A model to be run in every way there is, and what its caller does with it.
struct SoakModel {
    std::uint64_t seed = 0;
    ModelKind kind = ModelKind::plain;
    Testing::ComposedModel composed;  ///< of a bare engine only the network counts
    std::vector<Cut> cuts;            ///< ascending
    std::vector<ModelTime> moments;   ///< ns, at which an engine's observer looks at it

    Testing::GeneratedModel& network() { return composed.network; }
    const Testing::GeneratedModel& network() const { return composed.network; }
    bool isComposed() const { return kind >= ModelKind::composed; }
    /// ns; of an engine's own store. Falls back to 1 where there is none.
    ModelTime window() const;
    /// ns; where its runs end. An engine is carried on behind its horizon.
    ModelTime end() const;

    /// The whole model as text.
    std::string text() const;
};

/// A function of its arguments alone. Without a kind the seed chooses one.
SoakModel generateSoakModel(std::uint64_t seed, std::optional<ModelKind> kind = std::nullopt);

/// The smallest model that can be reached from `model` by leaving things out while it still
/// `differs`, which must not throw.
SoakModel shrunk(SoakModel model, const std::function<bool(const SoakModel&)>& differs);

}  // namespace Lumenar::Core::Kelm::Fuzzing

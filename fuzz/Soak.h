#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "compare/FirstDifference.h"
#include "fuzz/SoakModel.h"
#include "fuzz/SoakRun.h"
#include "kelm/engine/IWindowBackend.h"

// Runs one generated model in every way: on every backend, over other event stores, whole on a
// device, without a recorder, on several ranks, and cut into pieces that other objects on other
// backends or ranks continue. All ways must show and leave the same bits.

namespace Lumenar::Core::Kelm::Fuzzing {

/// A way of running a model that differs from the reference.
struct Finding {
    std::string way;
    Compare::FirstDifference difference;
    /// False if the repeated runs were equal, for example because threads race. `difference` is
    /// then what the first runs showed.
    bool repeats = false;
};

/// A model after shrinking, and the difference that it still shows.
struct SmallestModel {
    SoakModel model;
    Compare::FirstDifference difference;
};

/// The ways of running a model. A program may hold only one at a time, because it sets the global
/// controls of the emulated device.
class Soak {
public:
    static constexpr const char* reference = "cpu";

    Soak();
    ~Soak();
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    /// Adds a way that runs on `backend`, which must outlive this object.
    void addBackend(std::string name, IWindowBackend& backend);
    /// Adds a way that runs on as many ranks as there are `backends`, which must outlive this
    /// object.
    void addRanks(std::string name, std::vector<IWindowBackend*> backends);

    /// The names of all ways, the reference first.
    std::vector<std::string> ways() const;
    /// Whether the way exists and suits the model.
    bool applies(const std::string& way, const SoakModel& model) const;

    /// Starts a run of `model`, which must outlive it. Throws std::invalid_argument for an unknown
    /// way.
    std::unique_ptr<SoakRun> start(const SoakModel& model, const std::string& way);

    /// The first difference between two ways of running a model.
    std::optional<Compare::FirstDifference> compare(const SoakModel& model, const std::string& left,
                                                    const std::string& right);

    /// Runs the model in every way, or in the reference and `only`. Returns the first way that
    /// differs from the reference.
    std::optional<Finding> examine(const SoakModel& model,
                                   const std::optional<std::string>& only = std::nullopt);

    /// The smallest model found for which `way` still differs from the reference. None if the
    /// difference no longer shows.
    std::optional<SmallestModel> shrink(const SoakModel& model, const std::string& way);

    /// Sums over the runs of examine(), by kind of model. Runs, refusals, exceptions, cuts and
    /// whole runs include all ways; the other counts are of the reference alone.
    const std::array<Tally, kind_count>& tallies() const { return tallies_; }
    /// Models of each kind that examine() ran, and how many of them spiked.
    const std::array<std::uint64_t, kind_count>& models() const { return models_; }
    const std::array<std::uint64_t, kind_count>& spiking() const { return spiking_; }
    /// Digest of all that the reference computed. It depends on the models alone.
    std::uint64_t digest() const { return digest_; }
    /// The first kind whose models do too little for the comparison to prove anything; empty if
    /// there is none.
    std::string idleKind() const;

private:
    struct Backends;

    std::unique_ptr<SoakRun> run(const SoakModel& model, const std::string& way);
    bool isComparable(const std::string& way, SoakRun& expected) const;

    std::unique_ptr<Backends> backends_;
    std::array<Tally, kind_count> tallies_ = {};
    std::array<std::uint64_t, kind_count> models_ = {};
    std::array<std::uint64_t, kind_count> spiking_ = {};
    std::uint64_t digest_ = 0;
};

}  // namespace Lumenar::Core::Kelm::Fuzzing

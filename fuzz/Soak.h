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
#include "kelm/engine/IWindowBackend.h"

// One generated model, run in every way that there is: on every backend, over other event stores,
// whole on a device, unwatched, and cut into pieces that fresh objects on other backends carry on.
// All ways must show and leave the same to the bit.

namespace Lumenar::Core::Kelm::Fuzzing {

/// What one run came to, beside what is compared.
struct Tally {
    std::uint64_t runs = 0;
    std::uint64_t spikes = 0;
    std::uint64_t windows = 0;
    std::uint64_t refusals = 0;  ///< actions of the caller that were refused
    std::uint64_t thrown = 0;    ///< runs that ended in an exception
    std::uint64_t cuts = 0;      ///< times that fresh objects took a run over
    std::uint64_t whole = 0;     ///< runs that a device took whole
    std::uint64_t observed = 0;  ///< moments at which somebody looked on
    std::uint64_t learned = 0;   ///< entries of the journal
    std::uint64_t gated = 0;     ///< answers of the gate that differed from the one before
    std::uint64_t coupled = 0;   ///< steps of the rhythms' coupling

    Tally& operator+=(const Tally& other);
};

/// A run of a model that tells what it came to.
class SoakRun : public Compare::CarriedRun {
public:
    virtual Tally tally() = 0;

protected:
    SoakRun();
};

/// Two ways of running a model that differ.
struct Finding {
    std::string way;  ///< which differs from the reference, "cpu"
    Compare::FirstDifference difference;
    /// False where the runs were equal when they were repeated, as where threads race: the
    /// difference is then told as far as it showed.
    bool repeats = false;
};

/// A model in which little is left but a difference.
struct SmallestModel {
    SoakModel model;
    Compare::FirstDifference difference;
};

/// The ways of running a model. One at a time in a program: it turns the controls of the emulated
/// device.
class Soak {
public:
    static constexpr const char* reference = "cpu";

    Soak();
    ~Soak();
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    /// Adds a way: on a backend of the caller's, which must outlive this object.
    void addBackend(std::string name, IWindowBackend& backend);

    /// The ways of all models, the reference first.
    std::vector<std::string> ways() const;
    /// Whether there is such a way for a model.
    bool applies(const std::string& way, const SoakModel& model) const;

    /// Starts a run of `model`, which must outlive it. Throws std::invalid_argument for an unknown
    /// way.
    std::unique_ptr<SoakRun> start(const SoakModel& model, const std::string& way);

    /// Where two ways of running a model part.
    std::optional<Compare::FirstDifference> compare(const SoakModel& model, const std::string& left,
                                                    const std::string& right);

    /// Runs the model in every way, or in the reference's and one other; the first way that differs
    /// from the reference, if there is one.
    std::optional<Finding> examine(const SoakModel& model,
                                   const std::optional<std::string>& only = std::nullopt);

    /// The model made as small as it can be while `way` differs from the reference. None where it
    /// ceases to.
    std::optional<SmallestModel> shrink(const SoakModel& model, const std::string& way);

    /// Of all runs that examine() made, by the kind of model; beside runs, refusals, exceptions,
    /// cuts and whole runs those of the reference alone.
    const std::array<Tally, kind_count>& tallies() const { return tallies_; }
    /// How many models of each kind it was given, and how many of them spiked.
    const std::array<std::uint64_t, kind_count>& models() const { return models_; }
    const std::array<std::uint64_t, kind_count>& spiking() const { return spiking_; }
    /// Of all that the reference has computed: the same wherever the same models are run.
    std::uint64_t digest() const { return digest_; }
    /// The first kind of whose models so many idled, or so little happened in them, that nothing is
    /// proved; empty where there is none.
    std::string idleKind() const;

private:
    struct Backends;

    std::unique_ptr<SoakRun> run(const SoakModel& model, const std::string& way);

    std::unique_ptr<Backends> backends_;
    std::array<Tally, kind_count> tallies_ = {};
    std::array<std::uint64_t, kind_count> models_ = {};
    std::array<std::uint64_t, kind_count> spiking_ = {};
    std::uint64_t digest_ = 0;
};

}  // namespace Lumenar::Core::Kelm::Fuzzing

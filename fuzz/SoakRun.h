#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "compare/FirstDifference.h"
#include "fuzz/SoakModel.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/engine/IWindowBackend.h"

// One run of a generated model: of an engine, of a composed runtime, or on several ranks.

namespace Lumenar::Core::Kelm::Fuzzing {

/// Counts of what happened in one run. They are not compared.
struct Tally {
    std::uint64_t runs = 0;
    std::uint64_t spikes = 0;
    std::uint64_t windows = 0;
    std::uint64_t refusals = 0;  ///< actions of the caller that were refused
    std::uint64_t thrown = 0;    ///< runs that ended in an exception
    std::uint64_t cuts = 0;      ///< times that another object took a run over
    std::uint64_t whole = 0;     ///< runs that a device took whole
    std::uint64_t observed = 0;  ///< observations or samples
    std::uint64_t learned = 0;   ///< entries of the journal
    std::uint64_t gated = 0;     ///< changes of the learning gate
    std::uint64_t coupled = 0;   ///< coupling steps of the oscillators

    Tally& operator+=(const Tally& other);
};

/// A run of a model that counts what happens in it.
class SoakRun : public Compare::CarriedRun {
public:
    virtual Tally tally() = 0;

protected:
    SoakRun();
};

/// What the way of a run changes besides the backend.
enum class Manner : std::uint8_t {
    ordinary,
    plain_store,
    short_ring,
    cut,
    resident,
    unwatched,
    ranks,
    ranks_cut
};

/// The way of a run.
struct Setting {
    Manner manner = Manner::ordinary;
    /// Several for Manner::cut, one of each rank for Manner::ranks and ranks_cut, else one.
    std::vector<IWindowBackend*> backends;
    /// How many runs a device has taken whole; of Manner::resident.
    const std::uint64_t* whole_runs = nullptr;
    IRankGroup* group = nullptr;  ///< of a run that is one rank of several
};

/// Starts a run of `model`, which must outlive it.
std::unique_ptr<SoakRun> startSoakRun(const SoakModel& model, Setting setting);

}  // namespace Lumenar::Core::Kelm::Fuzzing

#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/LargePages.h"
#include "kelm/core/SplitMix64.h"

namespace Lumenar::Core::Runtime {

/// All random streams of one simulation, derived from one seed.
///
/// A stream is addressed by a name and an index, and its numbers depend on the seed and that
/// address alone, never on which other streams exist or in which order they were made. Streams are
/// created on first use and never removed. Work on a processor steps a private copy of a stream's
/// raw state; advanceTo then catches the stream up with it.
///
/// The streams of one name form a family. A family handle reaches its streams by index without
/// looking at the name; it stays valid until the context is assigned to or restored.
///
/// Used by one thread at a time.
class RandomContext {
public:
    /// The streams of one name, in one context.
    class Family {
    public:
        bool operator==(const Family&) const = default;

    private:
        friend class RandomContext;
        explicit Family(std::size_t place) : place_(place) {}
        std::size_t place_;
    };

    /// One stream of one context; valid as long as its family.
    struct Stream {
        Family family;
        std::uint64_t index;
    };

    /// How a stream treats its values when it is advanced.
    enum class Mode : std::uint8_t {
        generate = 0,  ///< moves on
        record = 1,    ///< appends each value to its tape
        replay = 2,    ///< compares each value with its tape
    };

    /// An empty table of streams.
    explicit RandomContext(std::uint64_t seed) : seed_(seed) {}

    std::uint64_t seed() const { return seed_; }

    /// The raw state with which stream (name, index) starts under `seed`.
    static std::uint64_t deriveStreamState(std::uint64_t seed, std::string_view name,
                                           std::uint64_t index);

    Family family(std::string_view name);

    /// The stream (name, index), created if need be.
    Stream streamFor(std::string_view name, std::uint64_t index);

    /// The stream's raw state; the stream is created if need be.
    std::uint64_t rawState(std::string_view name, std::uint64_t index) {
        return rawState(family(name), index);
    }
    std::uint64_t rawState(Family family, std::uint64_t index) {
        FamilyTable& table = families_[family.place_];
        if (index < table.dense.size()) return table.dense[index];
        return stateOf(table, index);
    }

    /// The raw states of the family's streams 0, 1, 2 and so on, up to the first that does not
    /// exist. The view is valid until a stream is created, or the context assigned to or restored.
    std::span<const std::uint64_t> firstStates(Family family) const {
        return families_[family.place_].dense;
    }

    /// Moves a stream by one step and returns its value, whatever the stream's mode; a tape is
    /// neither read nor written.
    std::uint64_t next(Stream stream);

    /// Brings stream (name, index) to the raw state `raw`, which must lie at most 10^9 steps ahead.
    /// A recording stream appends each value to its tape, a replaying one compares each with its.
    /// Throws std::logic_error for a raw state that is not so reachable, ReplayExhausted past the
    /// end of a tape, std::runtime_error for a value that differs from the tape; steps taken
    /// before a throw stand.
    void advanceTo(std::string_view name, std::uint64_t index, std::uint64_t raw) {
        advanceTo(family(name), index, raw);
    }
    void advanceTo(Family family, std::uint64_t index, std::uint64_t raw) {
        FamilyTable& table = families_[family.place_];
        if (index < table.dense.size() && table.tapes.empty()) {
            // Without a tape the walk leaves what the assignment leaves.
            requireReachable(table.dense[index], raw);
            table.dense[index] = raw;
            return;
        }
        advanceSlowly(table, index, raw);
    }

    /// Records stream (name, index): advanceTo appends each value from here on to a new, empty
    /// tape, which only grows until another takes its place. The stream is created if need be; a
    /// tape that it had is dropped.
    void record(std::string_view name, std::uint64_t index);

    /// Checks stream (name, index) against `tape`, shape (value_count): advanceTo compares each
    /// value from here on with the next one of the tape, from its first, and throws as told there.
    /// The tape is copied, so it may be a view of a tape of this context. The stream is created if
    /// need be; a tape that it had is dropped.
    void replay(std::string_view name, std::uint64_t index, std::span<const std::uint64_t> tape);

    /// Drops the tape of stream (name, index), which then only moves on. The stream itself stays
    /// where it is, and is created if need be.
    void stopTape(std::string_view name, std::uint64_t index);

    /// The values that stream (name, index) has recorded, or that it is replayed against; empty for
    /// a stream without a tape. The stream is created if need be. The view is valid until the
    /// stream is advanced or given another tape, or the context is assigned to or restored.
    std::span<const std::uint64_t> tape(std::string_view name, std::uint64_t index);

    /// Format "RNDCTX1": tag, seed (8), stream count (4), then the streams ascending by name as
    /// bytes and by index, each: name length (4), name, index (8), state (8), mode (1), cursor (8),
    /// tape length (8), tape values (8 each).
    Kelm::Blob snapshot() const;

    /// Replaces seed and streams by those of `blob`. False for a blob that is cut short, forged or
    /// of another format, or that names a stream twice; the context is then as it was.
    [[nodiscard]] bool restore(Kelm::BlobView blob);

private:
    struct Tape {
        Mode mode = Mode::generate;
        std::vector<std::uint64_t> values;
        std::uint64_t cursor = 0;  ///< in replay, the next value
    };

    /// States of indices 0, 1, 2 and so on stand densely; whatever lies behind the first gap is
    /// sparse. Every sparse index is above dense.size().
    struct FamilyTable {
        std::string name;
        Kelm::LargeArray<std::uint64_t> dense;
        std::map<std::uint64_t, std::uint64_t> sparse;
        std::map<std::uint64_t, Tape> tapes;  ///< of streams that record, replay or have a past
    };

    /// The table that holds stream (name, index), created with the stream if need be.
    FamilyTable& tableOf(std::string_view name, std::uint64_t index);
    std::uint64_t& stateOf(FamilyTable& table, std::uint64_t index);
    static void insertState(FamilyTable& table, std::uint64_t index, std::uint64_t state);
    void advanceSlowly(FamilyTable& table, std::uint64_t index, std::uint64_t raw);
    static std::uint64_t requireReachable(std::uint64_t state, std::uint64_t raw) {
        const std::uint64_t steps = (raw - state) * Kelm::splitmix_increment_inverse;
        if (steps > max_steps) refuseUnreachable();
        return steps;
    }
    [[noreturn]] static void refuseUnreachable();
    static void appendStream(Kelm::Blob& blob, const FamilyTable& table, std::uint64_t index,
                             std::uint64_t state);

    static constexpr std::uint64_t max_steps = 1'000'000'000;

    std::uint64_t seed_;
    std::vector<FamilyTable> families_;
    std::map<std::string, std::size_t, std::less<>> places_;  ///< of names in families_
};

}  // namespace Lumenar::Core::Runtime

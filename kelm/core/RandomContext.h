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
/// A stream has a name and an index, and its numbers depend only on the seed, the name and the
/// index, not on the other streams or the order of their creation. A stream is created on first use
/// and never removed. A neuron's computation steps a copy of the raw state of its stream; advanceTo
/// then moves the stream to the state of the copy.
///
/// The streams of one name form a family. A handle of a family or of a stream belongs to one
/// context and is valid until that context is assigned to, restored or destroyed. If the context is
/// moved, its handles belong to the new one.
///
/// Used by one thread at a time.
class RandomContext {
public:
    /// How a stream treats its values when it is advanced.
    enum class Mode : std::uint8_t {
        generate = 0,  ///< no tape takes part
        record = 1,    ///< each value is appended to the tape
        replay = 2,    ///< each value is compared with the tape
    };

private:
    struct Tape {
        Mode mode = Mode::generate;
        std::vector<std::uint64_t> values;
        std::uint64_t cursor = 0;  ///< in replay, the index of the next value
    };

    /// The name of a family and an index in it, ordered by name as bytes, then by index.
    struct Address {
        std::string name;
        std::uint64_t index;
    };
    struct AddressView {
        std::string_view name;
        std::uint64_t index;
    };
    struct AddressLess {
        using is_transparent = void;
        template <class A, class B>
        bool operator()(const A& a, const B& b) const {
            const int order = std::string_view(a.name).compare(b.name);
            return order != 0 ? order < 0 : a.index < b.index;
        }
    };

    /// Streams of one family with consecutive indices.
    struct Run {
        Kelm::LargeArray<std::uint64_t> states;
        std::map<std::uint64_t, Tape> tapes;  ///< by index, of streams that have or had a tape
    };

    /// All runs, by the address of their first stream. Each stream is in one run. The run at index
    /// 0 of a family may be empty, and one run may end where the next begins.
    using Runs = std::map<Address, Run, AddressLess>;

    static const Tape& tapeOf(const Run& run, std::uint64_t index);

public:
    /// The streams of one name. A stream of its first run is found without a look-up of the name.
    class Family {
    private:
        friend class RandomContext;
        explicit Family(Runs::value_type& first) : first_(&first), index_(first.first.index) {}
        std::uint64_t placeOf(std::uint64_t index) const { return index - index_; }
        Runs::value_type* first_;  ///< the run at its first index
        std::uint64_t index_;      ///< the first index
    };

    /// One stream, as it is at the time of each call.
    class Stream {
    public:
        std::string_view name() const { return run_->first.name; }
        std::uint64_t index() const { return index_; }
        /// The raw state.
        std::uint64_t state() const { return run_->second.states[place()]; }
        Mode mode() const { return tapeOf(run_->second, index_).mode; }
        /// The values that the stream has recorded, or that it is replayed against; empty for a
        /// stream without a tape. The view is valid until the stream is advanced or given another
        /// tape, or the context is assigned to or restored.
        std::span<const std::uint64_t> tape() const { return tapeOf(run_->second, index_).values; }
        /// In replay, the index of the next value of the tape.
        std::uint64_t cursor() const { return tapeOf(run_->second, index_).cursor; }

    private:
        friend class RandomContext;
        Stream(Runs::value_type& run, std::uint64_t index) : run_(&run), index_(index) {}
        std::uint64_t place() const { return index_ - run_->first.index; }

        Runs::value_type* run_;
        std::uint64_t index_;
    };

    /// An empty table of streams.
    explicit RandomContext(std::uint64_t seed) : seed_(seed) {}

    std::uint64_t seed() const { return seed_; }

    /// The raw state with which stream (name, index) starts under `seed`.
    static std::uint64_t deriveStreamState(std::uint64_t seed, std::string_view name,
                                           std::uint64_t index);

    /// `first`: its first index; streams before it are found by name.
    Family family(std::string_view name, std::uint64_t first = 0) {
        return Family(runFor(name, first));
    }

    /// The stream (name, index), created if need be.
    Stream streamFor(std::string_view name, std::uint64_t index);

    /// The stream's raw state; the stream is created if need be.
    std::uint64_t rawState(std::string_view name, std::uint64_t index) {
        return streamFor(name, index).state();
    }
    std::uint64_t rawState(Family family, std::uint64_t index) {
        const Run& run = family.first_->second;
        const std::uint64_t place = family.placeOf(index);
        if (place < run.states.size()) return run.states[place];
        return rawState(family.first_->first.name, index);
    }

    /// The raw states of the family's first streams, which lie in one array. These are
    /// all up to the first missing index, if the streams were created in ascending order or read
    /// from a snapshot. The view is valid until a stream is created, or the context assigned to or
    /// restored.
    std::span<const std::uint64_t> firstStates(Family family) const {
        return family.first_->second.states;
    }

    /// Whether the family's first `count` streams lie in one array without tapes. Several
    /// threads may then read and advance different ones of them.
    bool canAdvanceApart(Family family, std::uint64_t count) const {
        const Run& run = family.first_->second;
        return run.states.size() >= count && run.tapes.empty();
    }

    /// Moves a stream by one step and returns its value. In every mode the tape is neither read nor
    /// written.
    std::uint64_t next(Stream stream);

    /// Moves stream (name, index) to the raw state `raw`, which must be at most 10^9 steps ahead.
    /// In mode record each value is appended to the tape, in mode replay compared with it. Throws
    /// std::logic_error for a raw state that is not reachable, ReplayExhausted past the end of a
    /// tape, std::runtime_error for a value that differs from the tape. Steps before a throw are
    /// not undone.
    void advanceTo(std::string_view name, std::uint64_t index, std::uint64_t raw) {
        advance(streamFor(name, index), raw);
    }
    void advanceTo(Family family, std::uint64_t index, std::uint64_t raw) {
        Run& run = family.first_->second;
        const std::uint64_t place = family.placeOf(index);
        if (place < run.states.size() && run.tapes.empty()) {
            // Without a tape single steps end in the same state.
            requireReachable(run.states[place], raw);
            run.states[place] = raw;
            return;
        }
        advanceTo(family.first_->first.name, index, raw);
    }

    /// Sets the raw state of a stream for which canAdvanceApart holds, also backwards.
    void setState(Family family, std::uint64_t index, std::uint64_t raw) {
        family.first_->second.states[family.placeOf(index)] = raw;
    }

    /// Records stream (name, index): from now on advanceTo appends each value to a new, empty tape.
    /// The tape grows until it is replaced. An earlier tape is dropped. The stream is created if
    /// need be.
    void record(std::string_view name, std::uint64_t index);

    /// Checks stream (name, index) against `tape`, shape (value_count): from now on advanceTo
    /// compares each value with the next one of the tape, starting with the first. The tape is
    /// copied, so it may be a view of a tape of this context. An earlier tape is dropped. The
    /// stream is created if need be.
    void replay(std::string_view name, std::uint64_t index, std::span<const std::uint64_t> tape);

    /// Drops the tape of stream (name, index) and sets mode generate. The raw state does not
    /// change. The stream is created if need be.
    void stopTape(std::string_view name, std::uint64_t index);

    /// Drops the streams of a name whose index lies outside [first, first + count). False, with
    /// nothing dropped, if one of these streams is missing or a stream of that name has a tape.
    [[nodiscard]] bool keepOnly(std::string_view name, std::uint64_t first, std::uint64_t count);

    /// Format "RNDCTX1": tag, seed (8), stream count (4), then the streams ascending by name as
    /// bytes and by index, each: name length (4), name, index (8), state (8), mode (1), cursor (8),
    /// tape length (8), tape values (8 each).
    Kelm::Blob snapshot() const;

    /// Replaces seed and streams by those of `blob`. False for a blob that is cut short, forged or
    /// of another format, or that has a stream twice; the context is then unchanged.
    [[nodiscard]] bool restore(Kelm::BlobView blob);

private:
    /// The run that holds stream (name, index). If there is none: the run to append the stream to,
    /// which ends right before it or is new.
    Runs::value_type& runFor(std::string_view name, std::uint64_t index);
    void setTape(std::string_view name, std::uint64_t index, Tape tape);
    static void advance(Stream stream, std::uint64_t raw);
    static std::uint64_t requireReachable(std::uint64_t state, std::uint64_t raw) {
        const std::uint64_t steps = (raw - state) * Kelm::splitmix_increment_inverse;
        if (steps > max_steps) refuseUnreachable();
        return steps;
    }
    [[noreturn]] static void refuseUnreachable();

    static constexpr std::uint64_t max_steps = 1'000'000'000;

    std::uint64_t seed_;
    Runs runs_;
};

}  // namespace Lumenar::Core::Runtime

#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <typeinfo>

#include "kelm/core/Blob.h"

// What the fuzzers of the readers share. A fuzzer gives arbitrary bytes to a fresh object, and what
// the object promises of them is checked: bytes that it refuses leave it as it was, and bytes that
// it accepts leave it in a state like any other, in which it works, reads its own snapshot and does
// the same as its twin that has read the snapshot. A check that fails ends the program, which
// libFuzzer takes down together with the input.

namespace Lumenar::Core::Kelm::Fuzzing {

inline void require(bool holds, const char* fact) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", fact);
    std::abort();
}

/// What an action came to: nothing, or the class and text of a failure. Only failures of the engine
/// may come out of it; anything else, such as an allocation without bound, is a fault.
template <class Action>
std::string outcomeOf(Action action) {
    try {
        action();
        return {};
    } catch (const std::exception& failure) {
        const std::string outcome = std::string(typeid(failure).name()) + ": " + failure.what();
        const bool ours = outcome.find("4Kelm") != std::string::npos ||
                          std::string_view(failure.what()).starts_with("RandomContext ");
        if (!ours) std::fprintf(stderr, "%s\n", outcome.c_str());
        require(ours, "a failure is one of the engine's own");
        return outcome;
    }
}

/// Gives `bytes` to an object that already holds `past`, so that it has something to lose. True
/// where they were accepted: `twin`, which must be fresh, is then in the same state by way of a
/// snapshot.
template <class Object>
bool acceptedByTwins(Object& object, Object& twin, BlobView past, BlobView bytes) {
    require(object.restore(past), "an object reads a snapshot of a run");
    const Blob before = object.snapshot();
    if (!object.restore(bytes)) {
        require(object.snapshot() == before, "a refusal leaves an object as it was");
        return false;
    }
    const Blob taken = object.snapshot();
    require(twin.restore(taken), "an object reads its own snapshot");
    require(twin.snapshot() == taken, "a snapshot restores to itself");
    return true;
}

/// Performs one action on both, which must come to the same and leave the same. False where it
/// failed, after which nothing more is promised.
template <class Object, class Action>
bool sameFor(Object& object, Object& twin, Action action) {
    const std::string outcome = outcomeOf([&] { action(object); });
    require(outcome == outcomeOf([&] { action(twin); }), "twins fail alike");
    if (!outcome.empty()) return false;
    require(object.snapshot() == twin.snapshot(), "twins do the same");
    return true;
}

/// Whatever came of an object, it can be carried on: `fresh` takes its snapshot.
template <class Object>
void requireRestorable(Object& object, Object&& fresh) {
    const Blob end = object.snapshot();
    require(fresh.restore(end), "an object reads a snapshot of what came of another");
    require(fresh.snapshot() == end, "a snapshot of what came of an object restores to itself");
}

/// Whether a store in `bytes` has all but used up its ids: no store reads that it issued more than
/// 2^62, which a run can only reach by being told so.
inline bool runsOutOfIds(BlobView bytes) {
    constexpr std::string_view tag = "KELMBKT1";
    const auto store = std::search(bytes.begin(), bytes.end(), tag.begin(), tag.end());
    if (bytes.end() - store < 41) return false;
    std::uint64_t next_id = 0;
    std::memcpy(&next_id, &*store + 33, 8);
    return next_id > (std::uint64_t{1} << 62) - 100'000;
}

}  // namespace Lumenar::Core::Kelm::Fuzzing

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

// Shared code of the fuzzers of the readers. A fuzzer gives arbitrary bytes to an object and checks
// its promises. Refused bytes leave the object as it was. After accepted bytes the object works,
// reads its own snapshot, and does the same as a twin that has read this snapshot. A failed check
// ends the program, and libFuzzer keeps the input.

namespace Lumenar::Core::Kelm::Fuzzing {

inline void require(bool holds, const char* fact) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", fact);
    std::abort();
}

/// The outcome of an action: empty, or the class and text of an exception. Only the engine's own
/// exceptions are allowed; any other, such as std::bad_alloc, is a fault.
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

/// Gives `bytes` to an object that has restored `past`, so that it has a state to lose. True if the
/// object accepts them: `twin`, which must be fresh, then gets the same state from a snapshot.
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

/// Performs an action on both objects, which must have the same outcome and leave the same state.
/// False if the action fails; nothing more is promised then.
template <class Object, class Action>
bool sameFor(Object& object, Object& twin, Action action) {
    const std::string outcome = outcomeOf([&] { action(object); });
    require(outcome == outcomeOf([&] { action(twin); }), "twins fail alike");
    if (!outcome.empty()) return false;
    require(object.snapshot() == twin.snapshot(), "twins do the same");
    return true;
}

/// A fresh object must accept the snapshot of an object, whatever the object has done.
template <class Object>
void requireRestorable(Object& object, Object&& fresh) {
    const Blob end = object.snapshot();
    require(fresh.restore(end), "an object reads the last snapshot of another");
    require(fresh.snapshot() == end, "the last snapshot of an object restores to itself");
}

/// Whether a store in `bytes` is close to its last id. A store refuses a next id above 2^62, which
/// only a forged snapshot brings near. The tag of a store may also stand where none begins.
inline bool runsOutOfIds(BlobView bytes) {
    constexpr std::string_view tag = "KELMBKT1";
    auto store = bytes.begin();
    while (true) {
        store = std::search(store, bytes.end(), tag.begin(), tag.end());
        if (bytes.end() - store < 41) return false;
        std::uint64_t next_id = 0;
        std::memcpy(&next_id, &*store + 33, 8);
        if (next_id > (std::uint64_t{1} << 62) - 100'000) return true;
        ++store;
    }
}

}  // namespace Lumenar::Core::Kelm::Fuzzing

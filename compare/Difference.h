#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <type_traits>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/engine/WindowProfile.h"
#include "kelm/events/CandidateSlot.h"
#include "kelm/kernel/WindowProcessing.h"

// Comparing records to the bit, and naming what differs.

namespace Lumenar::Core::Kelm::Compare {

/// What two runs differ in.
struct Difference {
    std::string field;             ///< with the list it stands in
    std::optional<NodeId> neuron;  ///< whose it is, where it is a neuron's
    std::uint64_t left = 0;        ///< bits of the field, or of its first word that differs
    std::uint64_t right = 0;

    /// On one line: "state.membrane of neuron 3: 0x... vs 0x...".
    std::string text() const;

    friend bool operator==(const Difference&, const Difference&) = default;
};

/// A part of a record. One of several words, a gap or an array, has a name for all of them.
struct Field {
    const char* name;
    std::size_t offset;
    std::size_t bytes;
    std::span<const Field> inner = {};  ///< of a record inside
};

std::span<const Field> fieldsOf(const Kernel::State*);
std::span<const Field> fieldsOf(const CandidateSlot*);
std::span<const Field> fieldsOf(const SpikeRecord*);
std::span<const Field> fieldsOf(const WindowProfile*);
std::span<const Field> fieldsOf(const WindowWork*);
std::span<const Field> fieldsOf(const Kernel::WindowEvent*);
std::span<const Field> fieldsOf(const Kernel::WindowResult*);
std::span<const Field> fieldsOf(const std::uint64_t*);

/// The first difference of two lists of records, with its place in them; none where they are equal.
struct PlacedDifference {
    std::size_t place;  ///< the length of the shorter list, where only the lengths differ
    Difference difference;
};
std::optional<PlacedDifference> differenceOfBytes(const std::string& list,
                                                  std::span<const std::byte> a,
                                                  std::span<const std::byte> b,
                                                  std::size_t record_bytes,
                                                  std::span<const Field> fields);

template <class Record>
std::optional<PlacedDifference> placedDifference(const std::string& list, std::span<const Record> a,
                                                 std::span<const Record> b) {
    static_assert(std::is_trivially_copyable_v<Record>);
    return differenceOfBytes(list, std::as_bytes(a), std::as_bytes(b), sizeof(Record),
                             fieldsOf(static_cast<const Record*>(nullptr)));
}

/// Of two lists with an entry for each neuron.
template <class Record>
std::optional<Difference> neuronDifference(const std::string& list, std::span<const Record> a,
                                           std::span<const Record> b) {
    auto found = placedDifference(list, a, b);
    if (!found) return std::nullopt;
    if (a.size() == b.size()) found->difference.neuron = found->place;
    return found->difference;
}

}  // namespace Lumenar::Core::Kelm::Compare

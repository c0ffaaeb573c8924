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

// Compares records bit by bit and names the field that differs.

namespace Lumenar::Core::Kelm::Compare {

/// A difference between two runs.
struct Difference {
    std::string field;             ///< with the name of its list in front
    std::optional<NodeId> neuron;  ///< if the field belongs to one
    std::uint64_t left = 0;        ///< bits of the field, or of its first word that differs
    std::uint64_t right = 0;

    /// On one line: "state.membrane of neuron 3: 0x... vs 0x...".
    std::string text() const;

    friend bool operator==(const Difference&, const Difference&) = default;
};

/// A field of a record. A gap or an array of several words is one field.
struct Field {
    const char* name;
    std::size_t offset;
    std::size_t bytes;
    std::span<const Field> inner = {};  ///< the fields, if this field is a record
};

std::span<const Field> fieldsOf(const Kernel::State*);
std::span<const Field> fieldsOf(const CandidateSlot*);
std::span<const Field> fieldsOf(const SpikeRecord*);
std::span<const Field> fieldsOf(const WindowProfile*);
std::span<const Field> fieldsOf(const WindowWork*);
std::span<const Field> fieldsOf(const Kernel::WindowEvent*);
std::span<const Field> fieldsOf(const Kernel::WindowResult*);
std::span<const Field> fieldsOf(const std::uint64_t*);

/// The first difference of two lists of records, and its index; none if the lists are equal.
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

/// The first difference of two lists with one entry per neuron.
template <class Record>
std::optional<Difference> neuronDifference(const std::string& list, std::span<const Record> a,
                                           std::span<const Record> b) {
    auto found = placedDifference(list, a, b);
    if (!found) return std::nullopt;
    if (a.size() == b.size()) found->difference.neuron = found->place;
    return found->difference;
}

}  // namespace Lumenar::Core::Kelm::Compare

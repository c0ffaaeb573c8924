#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kelm/core/Blob.h"

// Where the fields of a stored run lie: a second reader of the formats, which knows their grammar
// and trusts their counts, so it is for bytes that were just written.

namespace Lumenar::Core::Kelm::Testing {

/// The fields of a stored run, in order and without a gap. A field that begins with its count or
/// its length has them at `begin`.
class BlobLayout {
public:
    struct Field {
        std::string_view name;
        std::size_t begin;
        std::size_t end;
    };

    /// Of a runtime's checkpoint. `has_prediction`: whether the runtime has error channels, which
    /// the file does not tell. Throws std::runtime_error for bytes that end too early or too late.
    static BlobLayout ofCheckpoint(BlobView bytes, bool has_prediction);
    /// Of an engine's snapshot. Throws as above.
    static BlobLayout ofEngine(BlobView bytes);

    const std::vector<Field>& fields() const { return fields_; }
    /// Throws std::runtime_error for a field that is not there.
    const Field& field(std::string_view name) const;
    /// The bytes behind a field's length: the blob that is nested there.
    BlobView nested(BlobView bytes, std::string_view name) const;
    /// The 64-bit number at the beginning of a field.
    std::uint64_t number(BlobView bytes, std::string_view name) const;
    /// "field <name>, byte <offset in it>".
    std::string place(std::size_t offset) const;

private:
    std::vector<Field> fields_;
};

/// The 64-bit number at `offset`.
std::uint64_t numberAt(BlobView bytes, std::size_t offset);
/// The bytes with the 64-bit number at `offset` replaced.
Blob withNumberAt(BlobView bytes, std::size_t offset, std::uint64_t number);

/// Names the first difference of two checkpoints; empty where they are equal.
std::string firstCheckpointDifference(BlobView a, BlobView b, bool has_prediction);

}  // namespace Lumenar::Core::Kelm::Testing

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "compare/Difference.h"
#include "kelm/core/Blob.h"

namespace Lumenar::Core::Kelm::Compare {

/// A stored run and its fields, which its grammar names, in order and without a gap. A field that
/// begins with its count or its length has them at `begin`; of one that holds others it is all.
class BlobLayout {
public:
    struct Field {
        std::string name;
        std::size_t begin;
        std::size_t end;
    };

    BlobLayout() = default;
    /// Of a runtime's checkpoint, with the fields of the engine's snapshot in place, or of an
    /// engine's snapshot; a prediction bank has at least one error channel. Throws
    /// std::runtime_error for other bytes.
    explicit BlobLayout(Blob blob);

    const Blob& bytes() const { return bytes_; }
    /// Throws std::runtime_error for a field that is not there.
    const Field& field(std::string_view name) const;
    /// Throws std::runtime_error for an offset behind the end.
    const Field& fieldAt(std::size_t offset) const;
    std::size_t begin(std::string_view name) const { return field(name).begin; }
    /// The 64-bit number at the beginning of a field.
    std::uint64_t number(std::string_view name) const;

private:
    Blob bytes_;
    std::vector<Field> fields_;
};

/// The 64-bit number at `offset`.
std::uint64_t numberAt(BlobView bytes, std::size_t offset);

/// The first difference of two stored runs, by the field of `name` that it stands in and the offset
/// there. Of other bytes by the offset alone.
std::optional<Difference> blobDifference(const std::string& name, BlobView a, BlobView b);

}  // namespace Lumenar::Core::Kelm::Compare

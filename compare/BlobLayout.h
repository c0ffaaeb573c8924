#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "compare/Difference.h"
#include "kelm/core/Blob.h"

namespace Lumenar::Core::Kelm::Compare {

/// A stored run and its fields, named by its grammar, in order and without gaps. A count or a
/// length in front of a field lies at its `begin`. A field that holds other fields is only that
/// count or length.
class BlobLayout {
public:
    struct Field {
        std::string name;
        std::size_t begin;
        std::size_t end;
    };

    BlobLayout() = default;
    /// Takes a runtime's checkpoint, including the fields of the engine's snapshot in it, or an
    /// engine's snapshot. A prediction bank must have at least one error channel. Throws
    /// std::runtime_error for other bytes.
    explicit BlobLayout(Blob blob);

    const Blob& bytes() const { return bytes_; }
    /// Throws std::runtime_error for an unknown name.
    const Field& field(std::string_view name) const;
    /// Throws std::runtime_error for an offset past the end.
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

/// The first difference of two byte sequences. For stored runs it gives the field inside `name` and
/// the offset in the field, for other bytes only the offset.
std::optional<Difference> blobDifference(const std::string& name, BlobView a, BlobView b);

}  // namespace Lumenar::Core::Kelm::Compare

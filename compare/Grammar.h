#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelm/core/Blob.h"

// The formats of stored bytes as texts, independent of their readers.

namespace Lumenar::Core::Kelm::Compare {

/// The bytes that an item of a grammar matches.
struct Part {
    char kind = '(';    ///< the item's first character, or '0' for bytes
    std::string name;   ///< the item's name, or empty
    std::size_t begin;  ///< offset in all bytes; the part includes its count, length or flag
    std::size_t end;    ///< exclusive
    Blob bytes;         ///< for an item without inner items
    std::vector<Part> parts;
};

/// Parses all of `bytes`. None if they do not match the grammar.
///
/// A grammar is a list of items. An item is
///     12      a number of bytes
///     =12     the same, for bytes that a mutation must not change
///     #8      a count, which a mutation must not change either
///     ~item   the item, repeated as often as the last count "#" says
///     *item   a 64-bit count, then the item, repeated as often; "+" for a 32-bit count
///     ?item   a byte, then the item if the byte is 1
///     &item   the item, if the last list was not empty
///     !item   the item, if bytes are left; only at the end
///     (list)  items
///     {list}  a 64-bit length, then items in that many bytes; no items if the length is 0
/// and may have a name and a colon in front.
std::optional<Part> parsed(BlobView bytes, std::string_view grammar);

extern const std::string random_grammar;
extern const std::string graph_grammar;
extern const std::string store_grammar;
extern const std::string plasticity_grammar;
extern const std::string learning_grammar;
extern const std::string oscillator_grammar;
extern const std::string engine_grammar;
extern const std::string checkpoint_grammar;

}  // namespace Lumenar::Core::Kelm::Compare

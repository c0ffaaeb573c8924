#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelm/core/Blob.h"

// The formats of stored bytes as texts: a second description of them, beside their readers.

namespace Lumenar::Core::Kelm::Compare {

/// A piece of stored bytes, as an item of a grammar found it.
struct Part {
    char kind = '(';    ///< that of the item: its first character, or '0' for bytes
    std::string name;   ///< that of the item, if it has one
    std::size_t begin;  ///< in the whole, with the count, the length or the flag in front of it
    std::size_t end;    ///< exclusive
    Blob bytes;         ///< of an item that has no items inside
    std::vector<Part> parts;
};

/// Takes `bytes` apart, all of them. None where they do not fit the grammar.
///
/// A grammar is a list of items. An item is
///     12      a number of bytes
///     =12     the same, where nothing can be read if they change
///     #8      a count, of which the same is true
///     ~item   an item that comes as often as the last count said
///     *item   an item behind a count of 64 bits, as often as that says; "+", behind one of 32
///     ?item   an item that is there where a byte in front of it is 1
///     &item   an item that is there where the list before it was not empty
///     (list)  items
///     {list}  items in a blob behind its length of 64 bits; an empty one has none
/// and has a name and a colon in front if somebody asks for it.
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

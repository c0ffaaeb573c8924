#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Lumenar::Core::Kelm::Fuzzing {

/// A mutation that respects the grammar of a format, so that what is deep inside is changed while
/// counts and lengths stay true; now and then one that respects nothing. Arguments and result are
/// those of LLVMFuzzerCustomMutator.
///
/// A grammar is a list of items. An item is a number of bytes, behind "=" if they had better stay
/// as they are, as without them nothing is read; "*" or "+" and an item that comes as often as a
/// count of 64 or 32 bits says; "?" and an item that is there where a byte is 1; items in brackets;
/// or a grammar in braces, for a blob behind its length of 64 bits.
std::size_t mutateBy(std::string_view grammar, std::uint8_t* data, std::size_t size,
                     std::size_t max_size, unsigned int seed);

// The grammars of the formats.
inline constexpr const char* random_grammar = "=8 8 +(+1 8 8 1 8 *8)";
inline constexpr const char* graph_grammar = "=16 1 8 1 1 *(8 8 4 8 1 4 8 8 1 4 8 1)";
inline constexpr const char* store_grammar = "=24 8 1 8 *(8 8 1 7 8 8 8 8 8)";
inline constexpr const char* plasticity_grammar =
    "=8 *(8 8 8 8 8) *(8 8) *(8 8 1 7 8 8 8 8 8 8 8 8 8 8 8 1 1 1 5)";
inline constexpr const char* learning_grammar =
    "=8 *4 *(8 8 8 1 1 6) *1 *(8 8 8 8 8 8 8 8 8 8 8 1 1 6) *(8 1 7) *8 1 7 8 8 1 1 *4 1 8 8 1 1 1 "
    "1 8";
std::string oscillatorGrammar(std::size_t oscillators);
std::string engineGrammar(std::size_t neurons);
std::string checkpointGrammar(std::size_t neurons, std::size_t oscillators);

}  // namespace Lumenar::Core::Kelm::Fuzzing

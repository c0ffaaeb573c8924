#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Lumenar::Core::Kelm::Fuzzing {

/// Mutates bytes by the grammar of their format (compare/Grammar.h): inner fields change, while
/// counts and lengths stay correct. One mutation in ten is arbitrary. Arguments and result are
/// those of LLVMFuzzerCustomMutator.
std::size_t mutateBy(std::string_view grammar, std::uint8_t* data, std::size_t size,
                     std::size_t max_size, unsigned int seed);

}  // namespace Lumenar::Core::Kelm::Fuzzing

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Lumenar::Core::Kelm::Fuzzing {

/// A mutation that respects the grammar of a format (compare/Grammar.h), so that what is deep
/// inside is changed while counts and lengths stay true; now and then one that respects nothing.
/// Arguments and result are those of LLVMFuzzerCustomMutator.
std::size_t mutateBy(std::string_view grammar, std::uint8_t* data, std::size_t size,
                     std::size_t max_size, unsigned int seed);

}  // namespace Lumenar::Core::Kelm::Fuzzing

#include "fuzz/Mutation.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "compare/Grammar.h"
#include "kelm/core/Blob.h"
#include "tests/support/Draws.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

namespace Lumenar::Core::Kelm::Fuzzing {

namespace {

using Compare::Part;

void write(Blob& blob, const Part& part) {
    Blob inner;
    for (const Part& item : part.parts) write(inner, item);
    if (part.kind == '*') appendU64(blob, part.parts.size());
    if (part.kind == '+') appendU32(blob, static_cast<std::uint32_t>(part.parts.size()));
    if (part.kind == '?') appendFlag(blob, !part.parts.empty());
    if (part.kind == '{') appendU64(blob, inner.size());
    appendBytes(blob, part.bytes.data(), part.bytes.size());
    appendBytes(blob, inner.data(), inner.size());
}

void collect(Part& part, std::vector<Part*>& places) {
    if (std::string_view("0*+!").find(part.kind) != std::string_view::npos) places.push_back(&part);
    for (Part& item : part.parts) collect(item, places);
}

/// Adds or removes an item, or swaps two.
void mutateItems(std::vector<Part>& items, Testing::Draws& draws) {
    if (items.empty()) return;
    const auto any = [&] {
        return items.begin() + static_cast<std::ptrdiff_t>(draws.below(items.size()));
    };
    const std::uint64_t choice = draws.below(4);
    if (choice == 0) {
        items.erase(any());
    } else if (choice == 1) {
        std::iter_swap(any(), any());
    } else {
        Part copy = *any();
        items.insert(any(), std::move(copy));
    }
}

void mutateBytes(Blob& bytes, Testing::Draws& draws) {
    const std::size_t length = bytes.size();
    if (length == 8 && draws.chance(25)) {
        // Limits of times, counts and numbers, and small values.
        const auto value = draws.oneOf<std::uint64_t>(
            {0, 1, 2, ~0ULL, 1ULL << 63, ~0ULL >> 1, 1ULL << 32, 1ULL << 62, 0x7ff0000000000000,
             0xfff0000000000000, 0x7ff8000000000001, 0x7fefffffffffffff, 0x43e0000000000000,
             0x3ff0000000000000, 0x8000000000000001, draws.below(1024), draws.next() >> 3});
        std::memcpy(bytes.data(), &value, 8);
        return;
    }
    bytes.resize(std::max<std::size_t>(LLVMFuzzerMutate(bytes.data(), length, length), 1));
    bytes.resize(length);
}

}  // namespace

std::size_t mutateBy(std::string_view grammar, std::uint8_t* data, std::size_t size,
                     std::size_t max_size, unsigned int seed) {
    Testing::Draws draws(seed);
    auto root = Compare::parsed({data, size}, grammar);
    if (!root || draws.oneIn(10)) return LLVMFuzzerMutate(data, size, max_size);
    for (std::uint64_t left = 1 + draws.below(3) * draws.below(2); left != 0; --left) {
        std::vector<Part*> places;
        collect(*root, places);
        Part& place = *places[draws.below(places.size())];
        const Part& other = draws.oneIn(4) ? *places[draws.below(places.size())] : *root;
        if (place.kind != '0') {
            mutateItems(place.parts, draws);
        } else if (other.kind == '0' && other.bytes.size() == place.bytes.size()) {
            place.bytes = other.bytes;  // an id that exists, or an equal time
        } else if (!place.bytes.empty()) {
            mutateBytes(place.bytes, draws);
        }
    }
    Blob blob;
    write(blob, *root);
    if (blob.size() > max_size) return LLVMFuzzerMutate(data, size, max_size);
    std::memcpy(data, blob.data(), blob.size());
    return blob.size();
}

}  // namespace Lumenar::Core::Kelm::Fuzzing

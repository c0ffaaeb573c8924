#include "fuzz/Grammar.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "kelm/core/Blob.h"
#include "tests/support/Draws.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

namespace Lumenar::Core::Kelm::Fuzzing {

namespace {

/// A blob taken apart by its grammar.
struct Node {
    /// '0' bytes, '=' bytes that stay, '*', '+' or '?' repeated items, '(' items, '{' blob.
    char kind = '(';
    Blob bytes;                  ///< of the first two kinds
    std::vector<Node> children;  ///< of the others
};

/// Where the item at the head of `grammar` ends.
std::size_t itemLength(std::string_view grammar) {
    const std::size_t sign = std::min(grammar.find_first_not_of("=*+?"), grammar.size());
    const char open = grammar[sign];
    if (open != '(' && open != '{') {
        return std::min(grammar.find_first_not_of("0123456789", sign), grammar.size());
    }
    int depth = 0;
    for (std::size_t at = sign;; ++at) {
        if (grammar[at] == '(' || grammar[at] == '{') ++depth;
        if ((grammar[at] == ')' || grammar[at] == '}') && --depth == 0) return at + 1;
    }
}

bool parseList(BlobReader& in, std::string_view grammar, std::vector<Node>& nodes);

/// `grammar` is one item.
bool parse(BlobReader& in, std::string_view grammar, Node& node) {
    node.kind = grammar.front();
    const std::string_view inner = grammar.substr(1);
    BlobView view;
    std::uint64_t count = 0;
    std::uint32_t short_count = 0;
    bool there = false;
    switch (node.kind) {
        case '(':
            return parseList(in, inner.substr(0, inner.size() - 1), node.children);
        case '{': {
            if (!in.readNested(view)) return false;
            BlobReader nested(view);
            return parseList(nested, inner.substr(0, inner.size() - 1), node.children) &&
                   nested.atEnd();
        }
        case '*':
            if (!in.readCount(1, count)) return false;
            break;
        case '+':
            if (!in.readU32(short_count)) return false;
            count = short_count;
            break;
        case '?':
            if (!in.readFlag(there)) return false;
            count = there ? 1 : 0;
            break;
        default:
            if (node.kind != '=') node.kind = '0';
            if (!in.readView(std::stoull(std::string(node.kind == '=' ? inner : grammar)), view)) {
                return false;
            }
            node.bytes.assign(view.begin(), view.end());
            return true;
    }
    for (; count != 0; --count) {
        if (!parse(in, inner, node.children.emplace_back())) return false;
    }
    return true;
}

bool parseList(BlobReader& in, std::string_view grammar, std::vector<Node>& nodes) {
    while (!grammar.empty()) {
        const std::size_t length = itemLength(grammar);
        if (!parse(in, grammar.substr(0, length), nodes.emplace_back())) return false;
        grammar.remove_prefix(std::min(length + 1, grammar.size()));
    }
    return true;
}

void write(Blob& blob, const Node& node) {
    Blob inner;
    for (const Node& child : node.children) write(inner, child);
    if (node.kind == '*') appendU64(blob, node.children.size());
    if (node.kind == '+') appendU32(blob, static_cast<std::uint32_t>(node.children.size()));
    if (node.kind == '?') appendFlag(blob, !node.children.empty());
    if (node.kind == '{') appendU64(blob, inner.size());
    appendBytes(blob, node.bytes.data(), node.bytes.size());
    appendBytes(blob, inner.data(), inner.size());
}

void collect(Node& node, std::vector<Node*>& places) {
    if (node.kind == '0' || node.kind == '*' || node.kind == '+') places.push_back(&node);
    for (Node& child : node.children) collect(child, places);
}

/// One more, one less, or two in each other's place.
void mutateItems(std::vector<Node>& items, Testing::Draws& draws) {
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
        Node copy = *any();
        items.insert(any(), std::move(copy));
    }
}

void mutateBytes(Blob& bytes, Testing::Draws& draws) {
    const std::size_t length = bytes.size();
    if (length == 8 && draws.chance(25)) {
        // Ends of the ranges of times, counts and numbers, and what lies near the small ones.
        const auto value = draws.oneOf<std::uint64_t>(
            {0, 1, 2, ~0ULL, 1ULL << 63, ~0ULL >> 1, 1ULL << 32, 1ULL << 40, 0x7ff0000000000000,
             0xfff0000000000000, 0x7ff8000000000001, 0x7fefffffffffffff, 0x43e0000000000000,
             0x3ff0000000000000, 0x8000000000000001, draws.below(1024), draws.next() >> 3});
        std::memcpy(bytes.data(), &value, 8);
        return;
    }
    bytes.resize(std::max<std::size_t>(LLVMFuzzerMutate(bytes.data(), length, length), 1));
    bytes.resize(length);
}

/// `item` so many times.
std::string repeated(std::string_view item, std::size_t times) {
    std::string list;
    for (; times != 0; --times) list.append(item).append(" ");
    return list;
}

}  // namespace

std::size_t mutateBy(std::string_view grammar, std::uint8_t* data, std::size_t size,
                     std::size_t max_size, unsigned int seed) {
    Testing::Draws draws(seed);
    Node root;
    BlobReader in(BlobView(data, size));
    if (draws.oneIn(10) || !parseList(in, grammar, root.children) || !in.atEnd()) {
        return LLVMFuzzerMutate(data, size, max_size);
    }
    for (std::uint64_t left = 1 + draws.below(3) * draws.below(2); left != 0; --left) {
        std::vector<Node*> places;
        collect(root, places);
        Node& place = *places[draws.below(places.size())];
        const Node& other = draws.oneIn(4) ? *places[draws.below(places.size())] : root;
        if (place.kind != '0') {
            mutateItems(place.children, draws);
        } else if (other.kind == '0' && other.bytes.size() == place.bytes.size()) {
            place.bytes = other.bytes;  // names what exists, or comes at the same time
        } else if (!place.bytes.empty()) {
            mutateBytes(place.bytes, draws);
        }
    }
    Blob blob;
    write(blob, root);
    if (blob.size() > max_size) return LLVMFuzzerMutate(data, size, max_size);
    std::memcpy(data, blob.data(), blob.size());
    return blob.size();
}

std::string oscillatorGrammar(std::size_t oscillators) {
    std::string grammar = "=16 8 8 1 " + repeated("=28 8", oscillators);
    grammar.pop_back();
    return grammar;
}

std::string engineGrammar(std::size_t neurons) {
    return "=16 " + repeated("8 8 8 8 8", neurons) + "{" + random_grammar + "} " +
           repeated("8 8 8", neurons) + "*(8 8) 8 8 8 8 8 {" + graph_grammar +
           "} *(8 8 1 7 8 8 8 8 8) 8 {" + store_grammar + "}";
}

std::string checkpointGrammar(std::size_t neurons, std::size_t oscillators) {
    return "=8 *=1 *=1 =16 8 {" + engineGrammar(neurons) + "} {" + plasticity_grammar + "} {" +
           learning_grammar + "} {" + oscillatorGrammar(oscillators) +
           "} *(8 8 *(4 4 8)) *(8 4 8 *(4 4 8) ?8) *(8 *8 *8 8) *(8 ?8) *(8 1 8 8 8 8) *8 "
           "*(8 8 8 8 8 8) 8 8 " +
           repeated("8", 9) + repeated("1", 9) + "*8 8 8 *(*8 *8 *8 *8)";
}

}  // namespace Lumenar::Core::Kelm::Fuzzing

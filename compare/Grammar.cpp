#include "compare/Grammar.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace Lumenar::Core::Kelm::Compare {

namespace {

class Parser {
public:
    explicit Parser(BlobView bytes) : bytes_(bytes), end_(bytes.size()) {}

    bool parseWhole(std::string_view grammar, Part& root) {
        root.begin = 0;
        if (!parseList(grammar, root.parts) || at_ != end_) return false;
        root.end = at_;
        return true;
    }

private:
    /// The length of the first item of `grammar`.
    static std::size_t itemLength(std::string_view grammar) {
        int depth = 0;
        std::size_t at = 0;
        // A name may hold spaces.
        const std::size_t colon = grammar.find(':');
        if (grammar.find_first_of("0123456789=#~*+?&!({") > colon) at = colon;
        for (; at < grammar.size() && (depth != 0 || grammar[at] != ' '); ++at) {
            if (grammar[at] == '(' || grammar[at] == '{') ++depth;
            if (grammar[at] == ')' || grammar[at] == '}') --depth;
        }
        return at;
    }

    bool parseList(std::string_view grammar, std::vector<Part>& parts) {
        while (!grammar.empty()) {
            const std::size_t length = itemLength(grammar);
            if (!parseItem(grammar.substr(0, length), parts.emplace_back())) return false;
            grammar.remove_prefix(std::min(length + 1, grammar.size()));
        }
        return true;
    }

    /// `grammar` is one item.
    bool parseItem(std::string_view grammar, Part& part) {
        const std::size_t colon = grammar.find(':');
        const std::size_t first = grammar.find_first_of("0123456789=#~*+?&!({");
        if (first > colon) {
            part.name = grammar.substr(0, colon);
            grammar.remove_prefix(colon + 1);
        }
        part.kind = grammar.front();
        part.begin = at_;
        const bool fits = parseKind(grammar, part);
        part.end = at_;
        return fits;
    }

    bool parseKind(std::string_view grammar, Part& part) {
        const std::string_view inner = grammar.substr(1);
        std::uint64_t count = 0;
        switch (part.kind) {
            case '(':
                return parseList(inner.substr(0, inner.size() - 1), part.parts);
            case '{': {
                if (!readNumber(8, count) || count > end_ - at_) return false;
                if (count == 0) return true;
                const std::size_t outer_end = end_;
                end_ = at_ + static_cast<std::size_t>(count);
                const bool fits =
                    parseList(inner.substr(0, inner.size() - 1), part.parts) && at_ == end_;
                end_ = outer_end;
                return fits;
            }
            case '~':
                return parseRepeated(inner, counted_, part);
            case '&':
                return parseRepeated(inner, listed_ != 0 ? 1 : 0, part);
            case '!':
                return parseRepeated(inner, at_ != end_ ? 1 : 0, part);
            case '?':
                return readNumber(1, count) && count <= 1 && parseRepeated(inner, count, part);
            case '*':
            case '+':
                if (!readNumber(part.kind == '*' ? 8 : 4, count)) return false;
                if (!parseRepeated(inner, count, part)) return false;
                listed_ = count;
                return true;
            default:
                if (part.kind != '=' && part.kind != '#') part.kind = '0';
                return parseBytes(part.kind == '0' ? grammar : inner, part);
        }
    }

    bool parseRepeated(std::string_view grammar, std::uint64_t count, Part& part) {
        if (count > end_ - at_) return false;  // no item is empty
        for (; count != 0; --count) {
            if (!parseItem(grammar, part.parts.emplace_back())) return false;
        }
        return true;
    }

    bool parseBytes(std::string_view width, Part& part) {
        const std::size_t length = std::stoull(std::string(width));
        if (length > end_ - at_) return false;
        const BlobView view = bytes_.subspan(at_, length);
        part.bytes.assign(view.begin(), view.end());
        return part.kind == '#' ? readNumber(length, counted_) : skip(length);
    }

    bool skip(std::size_t length) {
        at_ += length;
        return true;
    }
    bool readNumber(std::size_t width, std::uint64_t& number) {
        if (width > end_ - at_) return false;
        number = 0;
        std::memcpy(&number, bytes_.data() + at_, width);
        return skip(width);
    }

    BlobView bytes_;
    std::size_t at_ = 0;
    std::size_t end_;            ///< of the blob that is being parsed
    std::uint64_t counted_ = 0;  ///< the last count "#"
    std::uint64_t listed_ = 0;   ///< number of items of the last list
};

}  // namespace

std::optional<Part> parsed(BlobView bytes, std::string_view grammar) {
    std::optional<Part> root(std::in_place);
    if (!Parser(bytes).parseWhole(grammar, *root)) root.reset();
    return root;
}

namespace {

const std::string event = "(8 8 1 7 8 8 8 8 8)";
const std::string phases = "*(4 4 8)";

}  // namespace

const std::string random_grammar = "=8 8 +(+1 8 8 1 8 *8)";
const std::string graph_grammar = "=16 1 8 1 1 *(8 8 4 8 1 4 8 8 1 4 8 1)";
const std::string store_grammar = "=24 8 1 8 *" + event;
const std::string plasticity_grammar =
    "=8 *(8 8 8 8 8) *(8 8) *(8 8 1 7 8 8 8 8 8 8 8 8 8 8 8 1 1 1 5)";
const std::string learning_grammar =
    "=8 *4 *(8 8 8 1 1 6) *1 *(8 8 8 8 8 8 8 8 8 8 8 1 1 6) *(8 1 7) *8 1 7 8 8 1 1 *4 1 8 8 1 1 1 "
    "1 8";
const std::string oscillator_grammar = "=8 #8 8 8 1 ~(=28 8)";
const std::string engine_grammar = "tag:=8 states:(#8 ~(8 8 8 8 8)) random:{" + random_grammar +
                                   "} candidates:~(8 8 8) log:*(8 8) profile:(8 8 8 8 8) graph:{" +
                                   graph_grammar + "} moments:*" + event +
                                   " moment cursor:8 store:{" + store_grammar + "}";
const std::string checkpoint_grammar =
    "magic:=8 engine version:*=1 label:*=1 config id:=8 seed:=8 position:8 engine:{" +
    engine_grammar + "} plasticity:{" + plasticity_grammar + "} learning:{" + learning_grammar +
    "} oscillators:{" + oscillator_grammar + "} phase log:*(8 8 " + phases + ") spikes:*(8 4 8 " +
    phases +
    " ?8) samples:*(8 *8 *8 8) causes:*(8 ?8) channels:*(8 1 8 8 8 8) precisions:*8 "
    "&(observations:*(8 8 8 8 8 8) reserved pair:(8 8)) gains:(8 8 8 8 8 8 8 8 8) "
    "switches:(1 1 1 1 1 1 1 1 1) intervention log:*8 commit count:8 extension tag:8 "
    "extension:*(*8 *8 *8 *8) !(taken tag:=8 taken spikes:8 taken digest:8 uncounted:*(8 8))";

}  // namespace Lumenar::Core::Kelm::Compare

#include "compare/BlobLayout.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace Lumenar::Core::Kelm::Compare {

namespace {

/// Takes an item off `grammar` and, where it is `there`, steps over its bytes. An item is a number
/// of bytes; "?" and an item that is there where a byte is 1; "*" and one that comes as often as a
/// count says; or items in brackets.
void skip(BlobView bytes, std::size_t& at, std::string_view& grammar, bool there) {
    const auto take = [&](std::uint64_t count) {
        if (count > bytes.size() - at) throw std::runtime_error("the bytes end too early");
        at += count;
        return at - count;
    };
    const char kind = grammar.front();
    if (const std::size_t digits = grammar.find_first_not_of("0123456789"); digits != 0) {
        const std::uint64_t count = std::stoull(std::string(grammar.substr(0, digits)));
        if (there) take(count);
        return grammar.remove_prefix(std::min(digits, grammar.size()));
    }
    grammar.remove_prefix(1);
    if (kind == '(') {
        for (; grammar.front() != ')'; grammar.remove_prefix(grammar.front() == ' ')) {
            skip(bytes, at, grammar, there);
        }
        return grammar.remove_prefix(1);
    }
    std::uint64_t times = 0;
    if (there) times = kind == '*' ? numberAt(bytes, take(8)) : bytes[take(1)];
    const std::string_view repeated = grammar;
    for (skip(bytes, at, grammar, false); times != 0; --times) {
        std::string_view again = repeated;
        skip(bytes, at, again, true);
    }
}

}  // namespace

std::uint64_t numberAt(BlobView bytes, std::size_t offset) {
    std::uint64_t number = 0;
    std::memcpy(&number, bytes.subspan(offset, 8).data(), 8);
    return number;
}

/// Fields behind those that are there, each as "name:item;".
void BlobLayout::walk(std::string_view grammar) {
    while (!grammar.empty()) {
        const std::size_t colon = grammar.find(':');
        std::size_t at = fields_.empty() ? 0 : fields_.back().end;
        Field field{std::string(grammar.substr(0, colon)), at, 0};
        grammar.remove_prefix(colon + 1);
        skip(bytes_, at, grammar, true);
        grammar.remove_prefix(1);
        field.end = at;
        fields_.push_back(std::move(field));
    }
}

BlobLayout::BlobLayout(Blob blob) : bytes_(std::move(blob)) {
    constexpr std::string_view engine_tag = "KELMWEN3";
    const bool of_engine =
        bytes_.size() > 8 && std::equal(engine_tag.begin(), engine_tag.end(), bytes_.begin());
    if (!of_engine) {
        walk("magic:8;engine version:*1;label:*1;config id:8;seed:8;position:8;engine:8;");
    }
    walk("tag:8;states:*40;random:*1;");
    walk("candidates:" + std::to_string(24 * number("states")) + ";");
    walk("log:*16;profile:40;graph:*1;moments:*64;moment cursor:8;store:*1;");
    if (!of_engine) walkParts();
    if (fields_.back().end != bytes_.size()) throw std::runtime_error("the bytes end too late");
}

/// What a checkpoint holds behind the engine.
void BlobLayout::walkParts() {
    walk(
        "plasticity:*1;learning:*1;oscillators:*1;phase log:*(16 *16);spikes:*(20 *16 ?8);"
        "samples:*(8 *8 *8 8);causes:*(8 ?8);channels:*41;precisions:*8;");
    if (number("precisions") != 0) walk("observations:*48;reserved pair:16;");
    walk(
        "gains:72;switches:9;intervention log:*8;commit count:8;extension tag:8;"
        "extension:*(*8 *8 *8 *8);");
}

const BlobLayout::Field& BlobLayout::field(std::string_view name) const {
    const auto found = std::find_if(fields_.begin(), fields_.end(),
                                    [&](const Field& field) { return field.name == name; });
    if (found == fields_.end()) throw std::runtime_error("no field " + std::string(name));
    return *found;
}

const BlobLayout::Field& BlobLayout::fieldAt(std::size_t offset) const {
    const auto found = std::find_if(fields_.begin(), fields_.end(),
                                    [&](const Field& field) { return offset < field.end; });
    if (found == fields_.end()) throw std::runtime_error("no field at that offset");
    return *found;
}

std::uint64_t BlobLayout::number(std::string_view name) const {
    return numberAt(bytes_, begin(name));
}

std::optional<Difference> blobDifference(const std::string& name, BlobView a, BlobView b) {
    const auto found = differenceOfBytes(name, std::as_bytes(a), std::as_bytes(b), 1, {});
    if (!found) return std::nullopt;
    Difference difference = found->difference;
    difference.field = name;
    std::size_t begin = 0;
    try {
        const BlobLayout layout(Blob(a.begin(), a.end()));
        const BlobLayout::Field& field = layout.fieldAt(found->place);
        difference.field += '.' + field.name;
        begin = field.begin;
    } catch (const std::runtime_error&) {
        // Bytes of another kind, or a difference behind their end.
    }
    const std::size_t offset = (found->place - begin) / 8 * 8;
    difference.field += " at byte " + std::to_string(offset);
    const auto word = [&](BlobView bytes) {
        std::uint64_t value = 0;
        const BlobView rest = bytes.subspan(std::min(begin + offset, bytes.size()));
        if (!rest.empty()) std::memcpy(&value, rest.data(), std::min<std::size_t>(8, rest.size()));
        return value;
    };
    difference.left = word(a);
    difference.right = word(b);
    return difference;
}

}  // namespace Lumenar::Core::Kelm::Compare

#include "compare/BlobLayout.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "compare/Grammar.h"

namespace Lumenar::Core::Kelm::Compare {

namespace {

/// Appends the fields of a part. The field of a part ends where the first field inside it begins.
void appendFields(const Part& part, std::vector<BlobLayout::Field>& fields) {
    const std::size_t place = fields.size();
    if (!part.name.empty()) fields.push_back({part.name, part.begin, part.end});
    for (const Part& inner : part.parts) appendFields(inner, fields);
    if (!part.name.empty() && fields.size() > place + 1) {
        fields[place].end = fields[place + 1].begin;
    }
}

}  // namespace

std::uint64_t numberAt(BlobView bytes, std::size_t offset) {
    std::uint64_t number = 0;
    std::memcpy(&number, bytes.subspan(offset, 8).data(), 8);
    return number;
}

BlobLayout::BlobLayout(Blob blob) : bytes_(std::move(blob)) {
    constexpr std::string_view engine_tag = "KELMWEN3";
    const bool of_engine =
        bytes_.size() > 8 && std::equal(engine_tag.begin(), engine_tag.end(), bytes_.begin());
    const auto root = parsed(bytes_, of_engine ? engine_grammar : checkpoint_grammar);
    if (!root) throw std::runtime_error("the bytes are not a stored run");
    appendFields(*root, fields_);
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
        // Other bytes, or a difference past the end of `a`.
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

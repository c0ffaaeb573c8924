#include "tests/support/BlobLayout.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace Lumenar::Core::Kelm::Testing {

namespace {

/// Steps over the bytes and notes where fields end.
class Walk {
public:
    explicit Walk(BlobView bytes) : bytes_(bytes) {}

    void skip(std::uint64_t bytes) {
        if (bytes > bytes_.size() - at_) throw std::runtime_error("the bytes end too early");
        at_ += bytes;
    }
    std::uint64_t readNumber() {
        const std::size_t at = at_;
        skip(8);
        return numberAt(bytes_, at);
    }
    /// A count and that many items of one size.
    void skipSequence(std::uint64_t item_bytes) { skip(readNumber() * item_bytes); }
    void skipCause() {
        const std::size_t at = at_;
        skip(1);
        if (bytes_[at] != 0) skip(8);
    }
    /// The field that ends here.
    void end(std::string_view name) {
        fields_.push_back({name, begin_, at_});
        begin_ = at_;
    }

    void fixed(std::string_view name, std::uint64_t bytes) {
        skip(bytes);
        end(name);
    }
    void sequence(std::string_view name, std::uint64_t item_bytes) {
        skipSequence(item_bytes);
        end(name);
    }
    /// A count and that many items, each stepped over by `skip_item`.
    template <class SkipItem>
    void items(std::string_view name, SkipItem skip_item) {
        for (std::uint64_t left = readNumber(); left != 0; --left) skip_item();
        end(name);
    }

    std::vector<BlobLayout::Field> finish() {
        if (at_ != bytes_.size()) throw std::runtime_error("the bytes end too late");
        return std::move(fields_);
    }

private:
    BlobView bytes_;
    std::size_t begin_ = 0;
    std::size_t at_ = 0;
    std::vector<BlobLayout::Field> fields_;
};

}  // namespace

std::uint64_t numberAt(BlobView bytes, std::size_t offset) {
    std::uint64_t number = 0;
    std::memcpy(&number, bytes.subspan(offset, 8).data(), 8);
    return number;
}

Blob withNumberAt(BlobView bytes, std::size_t offset, std::uint64_t number) {
    Blob changed(bytes.begin(), bytes.end());
    std::memcpy(changed.data() + offset, &number, 8);
    return changed;
}

BlobLayout BlobLayout::ofCheckpoint(BlobView bytes, bool has_prediction) {
    constexpr std::uint64_t phase_bytes = 16;
    Walk walk(bytes);
    walk.fixed("magic", 8);
    walk.sequence("engine version", 1);
    walk.sequence("label", 1);
    walk.fixed("config id", 8);
    walk.fixed("seed", 8);
    walk.fixed("position", 8);
    for (const char* part : {"engine", "plasticity", "learning", "oscillators"}) {
        walk.sequence(part, 1);
    }
    walk.items("phase log", [&] {
        walk.skip(16);
        walk.skipSequence(phase_bytes);
    });
    walk.items("spikes", [&] {
        walk.skip(20);
        walk.skipSequence(phase_bytes);
        walk.skipCause();
    });
    walk.items("samples", [&] {
        walk.skip(8);
        walk.skipSequence(8);
        walk.skipSequence(8);
        walk.skip(8);
    });
    walk.items("causes", [&] {
        walk.skip(8);
        walk.skipCause();
    });
    walk.sequence("channels", 41);
    const std::uint64_t error_channels = walk.readNumber();
    walk.end("prediction count");
    if (has_prediction) {
        walk.fixed("precisions", 8 * error_channels);
        walk.sequence("observations", 48);
        walk.fixed("reserved pair", 16);
    }
    walk.fixed("gains", 72);
    walk.fixed("switches", 9);
    walk.sequence("intervention log", 8);
    walk.fixed("commit count", 8);
    walk.fixed("extension tag", 8);
    walk.items("extension", [&] {
        for (int list = 0; list < 4; ++list) walk.skipSequence(8);
    });
    BlobLayout layout;
    layout.fields_ = walk.finish();
    return layout;
}

BlobLayout BlobLayout::ofEngine(BlobView bytes) {
    Walk walk(bytes);
    walk.fixed("tag", 8);
    const std::uint64_t neurons = walk.readNumber();
    walk.end("state count");
    walk.fixed("states", 40 * neurons);
    walk.sequence("random", 1);
    walk.fixed("candidates", 24 * neurons);
    walk.sequence("log", 16);
    walk.fixed("profile", 40);
    walk.sequence("graph", 1);
    walk.sequence("observations", 64);
    walk.fixed("observer cursor", 8);
    walk.sequence("store", 1);
    BlobLayout layout;
    layout.fields_ = walk.finish();
    return layout;
}

const BlobLayout::Field& BlobLayout::field(std::string_view name) const {
    const auto found = std::find_if(fields_.begin(), fields_.end(),
                                    [&](const Field& field) { return field.name == name; });
    if (found == fields_.end()) throw std::runtime_error("no field " + std::string(name));
    return *found;
}

BlobView BlobLayout::nested(BlobView bytes, std::string_view name) const {
    const Field& place = field(name);
    return bytes.subspan(place.begin + 8, place.end - place.begin - 8);
}

std::uint64_t BlobLayout::number(BlobView bytes, std::string_view name) const {
    return numberAt(bytes, field(name).begin);
}

std::string BlobLayout::place(std::size_t offset) const {
    for (const Field& field : fields_) {
        if (offset >= field.end) continue;
        return "field " + std::string(field.name) + ", byte " +
               std::to_string(offset - field.begin);
    }
    return "behind the last field";
}

std::string firstCheckpointDifference(BlobView a, BlobView b, bool has_prediction) {
    const auto [at, other] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    if (at == a.end() && other == b.end()) return {};
    const auto offset = static_cast<std::size_t>(at - a.begin());
    const BlobLayout layout = BlobLayout::ofCheckpoint(a, has_prediction);
    std::ostringstream text;
    text << layout.place(offset) << " (" << a.size() << " vs " << b.size() << " bytes in all)";
    const BlobLayout::Field& engine = layout.field("engine");
    if (offset >= engine.begin + 8 && offset < engine.end) {
        const BlobView nested = layout.nested(a, "engine");
        text << ": " << BlobLayout::ofEngine(nested).place(offset - engine.begin - 8);
    }
    return text.str();
}

}  // namespace Lumenar::Core::Kelm::Testing

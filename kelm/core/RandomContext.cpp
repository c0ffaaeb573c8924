#include "kelm/core/RandomContext.h"

#include <stdexcept>
#include <utility>

#include "kelm/core/Digest.h"
#include "kelm/core/Failures.h"

namespace Lumenar::Core::Runtime {

using namespace Kelm;

namespace {

constexpr BlobTag format_tag("RNDCTX1");

/// One stream as a blob holds it.
struct StoredStream {
    std::string name;
    std::uint64_t index = 0;
    std::uint64_t state = 0;
    std::uint8_t mode = 0;
    std::uint64_t cursor = 0;
    std::vector<std::uint64_t> tape;
};

bool readStream(BlobReader& in, StoredStream& stream) {
    std::uint32_t name_length = 0;
    BlobView name;
    std::uint64_t tape_length = 0;
    if (!in.readU32(name_length) || !in.readView(name_length, name) || !in.readU64(stream.index) ||
        !in.readU64(stream.state) || !in.readU8(stream.mode) || !in.readU64(stream.cursor) ||
        !in.readCount(8, tape_length)) {
        return false;
    }
    if (stream.cursor > tape_length || stream.mode > 2) return false;
    stream.name.assign(name.begin(), name.end());
    stream.tape.resize(tape_length);
    for (std::uint64_t& value : stream.tape) {
        if (!in.readU64(value)) return false;
    }
    return true;
}

}  // namespace

std::uint64_t RandomContext::deriveStreamState(std::uint64_t seed, std::string_view name,
                                               std::uint64_t index) {
    const std::uint64_t root = splitmixOutput(seed + splitmix_increment);
    return splitmixOutput(splitmixOutput(digest(name) ^ root) ^ index);
}

RandomContext::Family RandomContext::family(std::string_view name) {
    const auto found = places_.find(name);
    if (found != places_.end()) return Family(found->second);
    families_.push_back(FamilyTable{std::string(name), {}, {}, {}});
    try {
        places_.emplace(std::string(name), families_.size() - 1);
    } catch (...) {
        families_.pop_back();
        throw;
    }
    return Family(families_.size() - 1);
}

RandomContext::Stream RandomContext::streamFor(std::string_view name, std::uint64_t index) {
    const Stream stream{family(name), index};
    rawState(stream.family, index);
    return stream;
}

RandomContext::FamilyTable& RandomContext::tableOf(std::string_view name, std::uint64_t index) {
    FamilyTable& table = families_[family(name).place_];
    stateOf(table, index);
    return table;
}

std::uint64_t& RandomContext::stateOf(FamilyTable& table, std::uint64_t index) {
    if (index < table.dense.size()) return table.dense[index];
    const auto found = table.sparse.find(index);
    if (found != table.sparse.end()) return found->second;
    insertState(table, index, deriveStreamState(seed_, table.name, index));
    return index < table.dense.size() ? table.dense[index] : table.sparse.at(index);
}

void RandomContext::insertState(FamilyTable& table, std::uint64_t index, std::uint64_t state) {
    if (index != table.dense.size()) {
        table.sparse.emplace(index, state);
        return;
    }
    table.dense.push_back(state);
    while (!table.sparse.empty() && table.sparse.begin()->first == table.dense.size()) {
        table.dense.push_back(table.sparse.begin()->second);
        table.sparse.erase(table.sparse.begin());
    }
}

std::uint64_t RandomContext::next(Stream stream) {
    std::uint64_t& state = stateOf(families_[stream.family.place_], stream.index);
    state += splitmix_increment;
    return splitmixOutput(state);
}

void RandomContext::advanceSlowly(FamilyTable& table, std::uint64_t index, std::uint64_t raw) {
    std::uint64_t& state = stateOf(table, index);
    const std::uint64_t steps = requireReachable(state, raw);
    const auto taped = table.tapes.find(index);
    if (taped == table.tapes.end() || taped->second.mode == Mode::generate) {
        state = raw;
        return;
    }
    Tape& tape = taped->second;
    for (std::uint64_t step = 0; step < steps; ++step) {
        state += splitmix_increment;
        const std::uint64_t value = splitmixOutput(state);
        if (tape.mode == Mode::record) {
            tape.values.push_back(value);
            continue;
        }
        if (tape.cursor >= tape.values.size()) {
            throw ReplayExhausted(ReplayExhausted::stream(table.name));
        }
        if (tape.values[tape.cursor++] != value) {
            throw std::runtime_error("RandomContext replay differs from generated stream: " +
                                     table.name);
        }
    }
    if (state != raw) throw std::logic_error("RandomContext raw batch accounting failed");
}

void RandomContext::refuseUnreachable() {
    throw std::logic_error("RandomContext raw state is not a reachable batch");
}

void RandomContext::record(std::string_view name, std::uint64_t index) {
    tableOf(name, index).tapes.insert_or_assign(index, Tape{Mode::record, {}, 0});
}

void RandomContext::replay(std::string_view name, std::uint64_t index,
                           std::span<const std::uint64_t> tape) {
    std::vector<std::uint64_t> values(tape.begin(), tape.end());
    tableOf(name, index).tapes.insert_or_assign(index, Tape{Mode::replay, std::move(values), 0});
}

void RandomContext::stopTape(std::string_view name, std::uint64_t index) {
    tableOf(name, index).tapes.erase(index);
}

std::span<const std::uint64_t> RandomContext::tape(std::string_view name, std::uint64_t index) {
    const FamilyTable& table = tableOf(name, index);
    const auto taped = table.tapes.find(index);
    if (taped == table.tapes.end()) return {};
    return taped->second.values;
}

void RandomContext::appendStream(Blob& blob, const FamilyTable& table, std::uint64_t index,
                                 std::uint64_t state) {
    const auto taped = table.tapes.find(index);
    static const Tape no_tape;
    const Tape& tape = taped == table.tapes.end() ? no_tape : taped->second;
    appendU32(blob, static_cast<std::uint32_t>(table.name.size()));
    appendBytes(blob, table.name.data(), table.name.size());
    appendU64(blob, index);
    appendU64(blob, state);
    appendU8(blob, static_cast<std::uint8_t>(tape.mode));
    appendU64(blob, tape.cursor);
    appendU64(blob, tape.values.size());
    for (const std::uint64_t value : tape.values) appendU64(blob, value);
}

Blob RandomContext::snapshot() const {
    std::size_t count = 0;
    for (const FamilyTable& table : families_) count += table.dense.size() + table.sparse.size();

    Blob blob;
    appendTag(blob, format_tag);
    appendU64(blob, seed_);
    appendU32(blob, static_cast<std::uint32_t>(count));
    // places_ is sorted by name as unsigned bytes, a shorter name first, and the dense indices
    // stand below the sparse ones.
    for (const auto& [name, place] : places_) {
        const FamilyTable& table = families_[place];
        for (std::size_t i = 0; i < table.dense.size(); ++i) {
            appendStream(blob, table, i, table.dense[i]);
        }
        for (const auto& [index, state] : table.sparse) appendStream(blob, table, index, state);
    }
    return blob;
}

bool RandomContext::restore(BlobView blob) {
    BlobReader in(blob);
    std::uint64_t seed = 0;
    std::uint32_t count = 0;
    if (!in.expectTag(format_tag) || !in.readU64(seed) || !in.readU32(count)) return false;

    RandomContext restored(seed);
    for (std::uint32_t i = 0; i < count; ++i) {
        StoredStream stream;
        if (!readStream(in, stream)) return false;
        FamilyTable& table = restored.families_[restored.family(stream.name).place_];
        if (stream.index < table.dense.size() || table.sparse.contains(stream.index)) return false;
        insertState(table, stream.index, stream.state);
        if (stream.mode != 0 || stream.cursor != 0 || !stream.tape.empty()) {
            table.tapes.emplace(stream.index, Tape{static_cast<Mode>(stream.mode),
                                                   std::move(stream.tape), stream.cursor});
        }
    }
    if (!in.atEnd()) return false;
    *this = std::move(restored);
    return true;
}

}  // namespace Lumenar::Core::Runtime

#include "kelm/core/RandomContext.h"

#include <iterator>
#include <stdexcept>
#include <utility>

#include "kelm/core/Digest.h"
#include "kelm/core/Failures.h"

namespace Lumenar::Core::Runtime {

using namespace Kelm;

namespace {

constexpr BlobTag format_tag("RNDCTX1");

/// A stream of a blob. The name is a view into the blob.
struct StoredStream {
    std::string_view name;
    std::uint64_t index = 0;
    std::uint64_t state = 0;
    std::uint8_t mode = 0;
    std::uint64_t cursor = 0;
    std::vector<std::uint64_t> tape;
};

bool readStream(BlobReader& in, StoredStream& stream) {
    std::uint32_t name_length = 0;
    BlobView name;
    if (!in.readU32(name_length) || !in.readView(name_length, name) || !in.readU64(stream.index) ||
        !in.readU64(stream.state) || !in.readU8(stream.mode) || !in.readU64(stream.cursor) ||
        !in.readSequence(stream.tape)) {
        return false;
    }
    stream.name = {reinterpret_cast<const char*>(name.data()), name.size()};
    return stream.cursor <= stream.tape.size() && stream.mode <= 2;
}

}  // namespace

std::uint64_t RandomContext::deriveStreamState(std::uint64_t seed, std::string_view name,
                                               std::uint64_t index) {
    const std::uint64_t root = splitmixOutput(seed + splitmix_increment);
    return splitmixOutput(splitmixOutput(digest(name) ^ root) ^ index);
}

const RandomContext::Tape& RandomContext::tapeOf(const Run& run, std::uint64_t index) {
    static const Tape none;
    const auto found = run.tapes.find(index);
    return found == run.tapes.end() ? none : found->second;
}

RandomContext::Runs::value_type& RandomContext::runFor(std::string_view name, std::uint64_t index) {
    const auto after = runs_.upper_bound(AddressView{name, index});
    if (after != runs_.begin()) {
        Runs::value_type& run = *std::prev(after);
        if (run.first.name == name && index - run.first.index <= run.second.states.size()) {
            return run;
        }
    }
    return *runs_.emplace_hint(after, Address{std::string(name), index}, Run());
}

RandomContext::Stream RandomContext::streamFor(std::string_view name, std::uint64_t index) {
    const Stream stream(runFor(name, index), index);
    auto& states = stream.run_->second.states;
    if (stream.place() == states.size()) states.push_back(deriveStreamState(seed_, name, index));
    return stream;
}

std::uint64_t RandomContext::next(Stream stream) {
    std::uint64_t& state = stream.run_->second.states[stream.place()];
    state += splitmix_increment;
    return splitmixOutput(state);
}

void RandomContext::advance(Stream stream, std::uint64_t raw) {
    Run& run = stream.run_->second;
    std::uint64_t& state = run.states[stream.place()];
    const std::uint64_t steps = requireReachable(state, raw);
    const auto taped = run.tapes.find(stream.index());
    if (taped == run.tapes.end() || taped->second.mode == Mode::generate) {
        state = raw;
        return;
    }
    Tape& tape = taped->second;
    const std::string& name = stream.run_->first.name;
    for (std::uint64_t step = 0; step < steps; ++step) {
        state += splitmix_increment;
        const std::uint64_t value = splitmixOutput(state);
        if (tape.mode == Mode::record) {
            tape.values.push_back(value);
            continue;
        }
        if (tape.cursor >= tape.values.size()) {
            throw ReplayExhausted(ReplayExhausted::stream(name));
        }
        if (tape.values[tape.cursor++] != value) {
            throw std::runtime_error("RandomContext replay differs from generated stream: " + name);
        }
    }
    if (state != raw) throw std::logic_error("RandomContext raw batch accounting failed");
}

void RandomContext::refuseUnreachable() {
    throw std::logic_error("RandomContext raw state is not a reachable batch");
}

void RandomContext::setTape(std::string_view name, std::uint64_t index, Tape tape) {
    streamFor(name, index).run_->second.tapes.insert_or_assign(index, std::move(tape));
}

void RandomContext::record(std::string_view name, std::uint64_t index) {
    setTape(name, index, Tape{Mode::record, {}, 0});
}

void RandomContext::replay(std::string_view name, std::uint64_t index,
                           std::span<const std::uint64_t> tape) {
    setTape(name, index, Tape{Mode::replay, {tape.begin(), tape.end()}, 0});
}

void RandomContext::stopTape(std::string_view name, std::uint64_t index) {
    streamFor(name, index).run_->second.tapes.erase(index);
}

bool RandomContext::keepOnly(std::string_view name, std::uint64_t first, std::uint64_t count) {
    std::vector<std::uint64_t> kept;
    const auto begin = runs_.lower_bound(AddressView{name, 0});
    auto end = begin;
    for (; end != runs_.end() && end->first.name == name; ++end) {
        const Run& run = end->second;
        if (!run.tapes.empty()) return false;
        for (std::uint64_t i = 0; i < run.states.size(); ++i) {
            if (end->first.index + i - first < count) kept.push_back(run.states[i]);
        }
    }
    if (kept.size() != count) return false;
    runs_.erase(begin, end);
    Run& run = runFor(name, first).second;
    run.states.assign(kept.begin(), kept.end());
    return true;
}

Blob RandomContext::snapshot() const {
    std::size_t count = 0;
    for (const auto& [first, run] : runs_) count += run.states.size();

    Blob blob;
    appendTag(blob, format_tag);
    appendU64(blob, seed_);
    appendU32(blob, static_cast<std::uint32_t>(count));
    for (const auto& [first, run] : runs_) {
        std::uint64_t index = first.index;
        for (const std::uint64_t state : run.states) {
            const Tape& tape = tapeOf(run, index);
            appendU32(blob, static_cast<std::uint32_t>(first.name.size()));
            appendBytes(blob, first.name.data(), first.name.size());
            appendU64(blob, index);
            appendU64(blob, state);
            appendU8(blob, static_cast<std::uint8_t>(tape.mode));
            appendU64(blob, tape.cursor);
            appendSequence(blob, tape.values);
            ++index;
        }
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
        StoredStream stored;
        if (!readStream(in, stored)) return false;
        Stream stream(restored.runFor(stored.name, stored.index), stored.index);
        Run& run = stream.run_->second;
        if (stream.place() != run.states.size()) return false;  // a stream twice
        run.states.push_back(stored.state);
        if (stored.mode != 0 || stored.cursor != 0 || !stored.tape.empty()) {
            run.tapes.emplace(stored.index, Tape{static_cast<Mode>(stored.mode),
                                                 std::move(stored.tape), stored.cursor});
        }
    }
    if (!in.atEnd()) return false;
    *this = std::move(restored);
    return true;
}

}  // namespace Lumenar::Core::Runtime

#include "kelm/runtime/CheckpointSummary.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/runtime/Checkpoint.h"

namespace Lumenar::Core::Kelm {

namespace {

using Fault = CheckpointSummary::Fault;

constexpr std::uint64_t state_bytes = 40;
constexpr std::uint64_t candidate_bytes = 24;
constexpr std::uint64_t spike_bytes = 16;
constexpr std::uint64_t profile_bytes = 40;
constexpr std::uint64_t phase_bytes = 16;
constexpr std::uint64_t channel_bytes = 41;
constexpr std::uint64_t observation_bytes = 48;
constexpr std::uint64_t intervention_bytes = 81;

/// Walks through the bytes and notes what it finds. Each step returns false at a fault.
class Examination {
public:
    explicit Examination(BlobView bytes) : bytes_(bytes), in_(bytes) {}

    CheckpointSummary run() && {
        (void)(readHead() && readNestedParts() && readRecords() && readPredictionAndEnd());
        return std::move(summary_);
    }

private:
    std::uint64_t offset() const { return bytes_.size() - in_.remaining(); }

    void begin(std::string_view part) {
        summary_.fault_part = part;
        part_offset_ = offset();
    }
    void end() {
        summary_.parts.push_back({summary_.fault_part, part_offset_, offset() - part_offset_});
        summary_.fault_part = {};
    }
    bool fail(Fault fault, std::uint64_t offset) {
        summary_.fault = fault;
        summary_.fault_offset = offset;
        return false;
    }
    bool cutShort() { return fail(Fault::cut_short, bytes_.size()); }
    bool damaged() { return fail(Fault::damaged, offset()); }

    bool number(std::uint64_t& value) { return in_.readU64(value) || cutShort(); }
    bool skip(std::uint64_t length) {
        BlobView skipped;
        return in_.readView(length, skipped) || cutShort();
    }
    bool count(std::uint64_t item_bytes, std::uint64_t& count) {
        return in_.readCount(item_bytes, count) || cutShort();
    }
    bool skipSequence(std::uint64_t item_bytes) {
        std::uint64_t items = 0;
        return count(item_bytes, items) && skip(items * item_bytes);
    }
    bool skipCause() {
        bool present = false;
        if (in_.remaining() == 0) return cutShort();
        if (!in_.readFlag(present)) return damaged();
        return !present || skip(8);
    }
    bool text(std::string& text) {
        BlobView view;
        if (!in_.readNested(view)) return cutShort();
        text.assign(view.begin(), view.end());
        return true;
    }

    bool readHead() {
        begin("magic");
        const BlobTag& magic = Checkpoint::magic;
        for (std::size_t i = 0; i < sizeof magic.bytes; ++i) {
            if (i == bytes_.size()) return cutShort();
            if (bytes_[i] != static_cast<std::uint8_t>(magic.bytes[i])) {
                return fail(Fault::no_checkpoint, i);
            }
        }
        if (!skip(sizeof magic.bytes)) return false;
        end();
        begin("engine version");
        if (!text(summary_.engine_version)) return false;
        if (summary_.engine_version != engine_version) {
            return fail(Fault::other_version, part_offset_);
        }
        end();
        begin("label");
        if (!text(summary_.label)) return false;
        end();
        begin("config id, seed");
        if (!number(summary_.config_id) || !number(summary_.seed)) return false;
        end();
        begin("position");
        if (!in_.readI64(summary_.position)) return cutShort();
        end();
        return true;
    }

    /// A nested blob and its tag. Empty where the runtime lacks the part.
    bool nested(std::string_view part, const BlobTag& tag, BlobView& inner) {
        begin(part);
        if (!in_.readNested(inner)) return cutShort();
        BlobReader reader(inner);
        if (!inner.empty() && !reader.expectTag(tag)) {
            return fail(Fault::damaged, offset() - inner.size());
        }
        return true;
    }

    bool readNestedParts() {
        BlobView engine, plasticity, learning, oscillators;
        if (!nested("engine", BlobTag("KELMWEN3"), engine)) return false;
        BlobReader reader(engine);
        if (!readEngine(reader)) return fail(Fault::damaged, offset() - reader.remaining());
        end();
        if (!nested("plasticity", BlobTag("KELMPLS1"), plasticity)) return false;
        end();
        if (!nested("learning", BlobTag("KELMLRN1"), learning)) return false;
        end();
        if (!nested("oscillators", BlobTag("KELMOSC2"), oscillators)) return false;
        end();
        summary_.has_plasticity = !plasticity.empty();
        summary_.has_oscillators = !oscillators.empty();
        return true;
    }

    /// Up to the number of synapses.
    bool readEngine(BlobReader& in) {
        BlobView skipped, graph;
        if (!in.expectTag(BlobTag("KELMWEN3")) || !in.readCount(state_bytes, summary_.neurons) ||
            !in.readView(summary_.neurons * state_bytes, skipped) || !in.readNested(skipped)) {
            return false;
        }
        if (summary_.neurons > in.remaining() / candidate_bytes) return false;
        if (!in.readView(summary_.neurons * candidate_bytes, skipped) ||
            !in.readCount(spike_bytes, summary_.spikes) ||
            !in.readView(summary_.spikes * spike_bytes, skipped) ||
            !in.readView(profile_bytes, skipped) || !in.readNested(graph)) {
            return false;
        }
        BlobReader graph_in(graph);
        constexpr std::uint64_t before_edges = 8 + 1 + 8 + 1 + 1;
        return graph_in.expectTag(BlobTag("KELMSYN1")) &&
               graph_in.readView(before_edges, skipped) && graph_in.readU64(summary_.synapses);
    }

    bool readRecords() {
        std::uint64_t items = 0;
        begin("phase log");
        if (!count(24, items)) return false;
        for (; items > 0; --items) {
            if (!skip(16) || !skipSequence(phase_bytes)) return false;
        }
        end();
        begin("spikes");
        if (!count(29, summary_.recorded_spikes)) return false;
        for (items = summary_.recorded_spikes; items > 0; --items) {
            if (!skip(20) || !skipSequence(phase_bytes) || !skipCause()) return false;
        }
        end();
        begin("samples");
        if (!count(32, summary_.samples)) return false;
        for (items = summary_.samples; items > 0; --items) {
            if (!skip(8) || !skipSequence(8) || !skipSequence(8) || !skip(8)) return false;
        }
        end();
        begin("causes");
        if (!count(9, summary_.causes)) return false;
        for (items = summary_.causes; items > 0; --items) {
            if (!skip(8) || !skipCause()) return false;
        }
        end();
        begin("channels");
        if (!count(channel_bytes, summary_.input_channels) ||
            !skip(summary_.input_channels * channel_bytes)) {
            return false;
        }
        end();
        return true;
    }

    bool readPredictionAndEnd() {
        begin("prediction");
        if (!count(8, summary_.error_channels)) return false;
        if (summary_.error_channels > 0) {
            return skip(summary_.error_channels * 8) && readPredictionFields() && readEnd();
        }
        // A runtime whose prediction has no channels writes these fields too, and no byte says so.
        // Only one of the two readings leads to the end.
        Examination with_fields(*this);
        end();
        if (readEnd()) return true;
        if (!with_fields.readPredictionFields() || !with_fields.readEnd()) return false;
        summary_ = std::move(with_fields.summary_);
        return true;
    }

    bool readPredictionFields() {
        if (!skipSequence(observation_bytes) || !skip(16)) return false;
        end();
        return true;
    }

    bool readEnd() {
        begin("gains, switches");
        if (!skip(intervention_bytes)) return false;
        end();
        begin("intervention log");
        if (!skipSequence(8)) return false;
        end();
        begin("commit count");
        if (!number(summary_.commit_count)) return false;
        end();
        if (in_.atEnd()) return true;
        begin("extension");
        std::uint64_t tag = 0;
        std::uint64_t items = 0;
        if (!number(tag)) return false;
        if (tag != Checkpoint::extension_tag) return fail(Fault::damaged, part_offset_);
        if (!count(32, items)) return false;
        if (items != summary_.samples) return fail(Fault::damaged, part_offset_ + 8);
        for (; items > 0; --items) {
            if (!skipSequence(8) || !skipSequence(8) || !skipSequence(8) || !skipSequence(8)) {
                return false;
            }
        }
        const BlobView rest = bytes_.subspan(offset());
        const auto& taken_tag = Checkpoint::taken_tag.bytes;
        const std::size_t tag_bytes = std::min(rest.size(), sizeof taken_tag);
        if (!std::equal(taken_tag, taken_tag + tag_bytes, rest.begin())) return damaged();
        end();
        return in_.atEnd() || readTakenSpikes();
    }

    /// The tag is known to be right, as far as there are bytes.
    bool readTakenSpikes() {
        begin("taken spikes");
        if (!skip(sizeof Checkpoint::taken_tag.bytes)) return false;
        if (!number(summary_.taken_spikes)) return false;
        if (summary_.taken_spikes == 0) return fail(Fault::damaged, part_offset_ + 8);
        if (!skip(8) || !skipSequence(spike_bytes)) return false;
        if (!in_.atEnd()) return damaged();
        end();
        return true;
    }

    BlobView bytes_;
    BlobReader in_;
    std::uint64_t part_offset_ = 0;
    CheckpointSummary summary_;
};

std::string quoted(const std::string& text) { return "'" + text + "'"; }

/// Collects the differences of a checkpoint and a runtime.
class Differences {
public:
    void add(const std::string& text) {
        if (!text_.empty()) text_ += "; ";
        text_ += text;
    }
    void compare(const char* things, std::uint64_t found, std::uint64_t expected) {
        if (found != expected) add(RefusedCheckpoint::count(things, found, expected));
    }
    void compareParts(const char* part, bool found, bool expected) {
        if (found != expected) add(RefusedCheckpoint::part(part, found));
    }
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

/// The nested blob of a part of a checkpoint without a fault.
BlobView stateOf(BlobView bytes, const CheckpointSummary& summary, std::string_view name) {
    for (const CheckpointSummary::Part& part : summary.parts) {
        if (part.name == name) return bytes.subspan(part.offset + 8, part.bytes - 8);
    }
    return {};
}

/// The part whose state the runtime cannot read. The engine's cannot be read without a change, so
/// it is named where all others can be.
const char* unreadablePart(BlobView bytes, const CheckpointSummary& summary,
                           const KelmRuntime& runtime) {
    const auto state = [&](std::string_view name) { return stateOf(bytes, summary, name); };
    if (runtime.plasticity() && !runtime.plasticity()->read(state("plasticity"))) {
        return "plasticity";
    }
    if (runtime.learningControl() && !runtime.learningControl()->read(state("learning"))) {
        return "learning control";
    }
    if (runtime.oscillators() && !runtime.oscillators()->read(state("oscillators"))) {
        return "oscillators";
    }
    return "engine, channels or prediction";
}

}  // namespace

std::string CheckpointSummary::faultText() const {
    switch (fault) {
        case Fault::none:
            return {};
        case Fault::no_checkpoint:
            return RefusedCheckpoint::no_checkpoint;
        case Fault::cut_short:
            return RefusedCheckpoint::cutShort(fault_offset, std::string(fault_part));
        case Fault::damaged:
            return RefusedCheckpoint::damaged(fault_offset, std::string(fault_part));
        case Fault::other_version:
            return IncompatibleCheckpoint::version(
                engine_version, std::string(Lumenar::Core::Kelm::engine_version));
    }
    return {};
}

CheckpointSummary examineCheckpoint(BlobView bytes) { return Examination(bytes).run(); }

std::string checkpointRefusal(BlobView bytes, const KelmRuntime& runtime) {
    const CheckpointSummary summary = examineCheckpoint(bytes);
    if (summary.fault != Fault::none) return summary.faultText();

    Differences differences;
    const SynapseGraph& graph = runtime.graph();
    const InputChannelBank* channels = runtime.inputChannels();
    const PredictionBank* prediction = runtime.prediction();
    differences.compareParts("plasticity", summary.has_plasticity, runtime.plasticity() != nullptr);
    differences.compareParts("oscillators", summary.has_oscillators,
                             runtime.oscillators() != nullptr);
    if (summary.recorded_spikes + summary.samples + summary.causes > 0) {
        differences.compareParts("records", true, runtime.recorder() != nullptr);
    }
    differences.compare("input channels", summary.input_channels, channels ? channels->size() : 0);
    differences.compare("error channels", summary.error_channels,
                        prediction ? prediction->channels().size() : 0);
    differences.compare("neurons", summary.neurons, graph.nodeCount());
    differences.compare("synapses", summary.synapses, graph.networkEdgeCount());
    if (summary.config_id != runtime.configId()) {
        differences.add(RefusedCheckpoint::configId(summary.config_id, runtime.configId()));
    }
    if (summary.seed != runtime.seed()) {
        differences.add(RefusedCheckpoint::seed(summary.seed, runtime.seed()));
    }
    if (summary.label != runtime.label()) {
        differences.add(RefusedCheckpoint::label(quoted(summary.label), quoted(runtime.label())));
    }
    if (!differences.text().empty()) return differences.text();
    const std::string text = RefusedCheckpoint::state(unreadablePart(bytes, summary, runtime));
    return runtime.ranks() == nullptr ? text
                                      : text + ", or another rank has other bytes or refuses them";
}

void restoreCheckpoint(KelmRuntime& runtime, BlobView bytes) {
    if (!runtime.restore(bytes)) throw RefusedCheckpoint(checkpointRefusal(bytes, runtime));
}

}  // namespace Lumenar::Core::Kelm

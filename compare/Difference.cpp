#include "compare/Difference.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <utility>

namespace Lumenar::Core::Kelm::Compare {

namespace {

#define KELM_FIELD(Record, member) \
    Field { #member, offsetof(Record, member), sizeof(std::declval <Record>().member) }
#define KELM_RECORD_FIELD(Record, member, fields) \
    Field { #member, offsetof(Record, member), sizeof(std::declval <Record>().member), fields }

constexpr Field state_fields[] = {
    KELM_FIELD(Kernel::State, membrane),     KELM_FIELD(Kernel::State, adaptation),
    KELM_FIELD(Kernel::State, last_update),  KELM_FIELD(Kernel::State, refractory_until),
    KELM_FIELD(Kernel::State, hazard_bound),
};
constexpr Field candidate_fields[] = {
    KELM_FIELD(CandidateSlot, time),
    KELM_FIELD(CandidateSlot, rate),
    KELM_FIELD(CandidateSlot, event_id),
};
constexpr Field spike_fields[] = {KELM_FIELD(SpikeRecord, time), KELM_FIELD(SpikeRecord, neuron)};
constexpr Field profile_fields[] = {
    KELM_FIELD(WindowProfile, windows),  KELM_FIELD(WindowProfile, deliveries),
    KELM_FIELD(WindowProfile, updates),  KELM_FIELD(WindowProfile, candidates),
    KELM_FIELD(WindowProfile, accepted),
};
constexpr Field neuron_fields[] = {
    KELM_FIELD(Kernel::Neuron, tau_membrane),      KELM_FIELD(Kernel::Neuron, tau_adaptation),
    KELM_FIELD(Kernel::Neuron, refractory_period), KELM_FIELD(Kernel::Neuron, adaptation_increment),
    KELM_FIELD(Kernel::Neuron, input_coupling),    KELM_FIELD(Kernel::Neuron, reset_value),
    KELM_FIELD(Kernel::Neuron, trace_epsilon),     KELM_FIELD(Kernel::Neuron, hard_refractory),
    KELM_FIELD(Kernel::Neuron, non_leaky),         KELM_FIELD(Kernel::Neuron, gap),
};
constexpr Field firing_fields[] = {
    KELM_FIELD(Kernel::Firing, base_rate),  KELM_FIELD(Kernel::Firing, gain),
    KELM_FIELD(Kernel::Firing, threshold),  KELM_FIELD(Kernel::Firing, adaptation_weight),
    KELM_FIELD(Kernel::Firing, rate_scale), KELM_FIELD(Kernel::Firing, max_rate),
    KELM_FIELD(Kernel::Firing, spare_flag), KELM_FIELD(Kernel::Firing, gap),
};
constexpr Field drive_fields[] = {
    KELM_FIELD(PhaseDrive, origin),     KELM_FIELD(PhaseDrive, base), KELM_FIELD(PhaseDrive, bound),
    KELM_FIELD(PhaseDrive, term_count), KELM_FIELD(PhaseDrive, gap),  KELM_FIELD(PhaseDrive, terms),
};
constexpr Field work_fields[] = {
    KELM_FIELD(WindowWork, neuron),
    KELM_RECORD_FIELD(WindowWork, state, state_fields),
    KELM_RECORD_FIELD(WindowWork, parameters, neuron_fields),
    KELM_RECORD_FIELD(WindowWork, firing, firing_fields),
    KELM_FIELD(WindowWork, rng),
    KELM_FIELD(WindowWork, first_event),
    KELM_FIELD(WindowWork, event_count),
    KELM_FIELD(WindowWork, pending_time),
    KELM_FIELD(WindowWork, pending_bound),
    KELM_RECORD_FIELD(WindowWork, drive, drive_fields),
};
constexpr Field event_fields[] = {
    KELM_FIELD(Kernel::WindowEvent, time),
    KELM_FIELD(Kernel::WindowEvent, value),
    KELM_FIELD(Kernel::WindowEvent, wake_only),
    KELM_FIELD(Kernel::WindowEvent, gap),
};
constexpr Field result_fields[] = {
    KELM_RECORD_FIELD(Kernel::WindowResult, state, state_fields),
    KELM_FIELD(Kernel::WindowResult, rng),
    KELM_FIELD(Kernel::WindowResult, spike_count),
    KELM_FIELD(Kernel::WindowResult, count_gap),
    KELM_FIELD(Kernel::WindowResult, spike_times),
    KELM_FIELD(Kernel::WindowResult, next_candidate),
    KELM_FIELD(Kernel::WindowResult, next_bound),
    KELM_FIELD(Kernel::WindowResult, updates),
    KELM_FIELD(Kernel::WindowResult, candidates),
    KELM_FIELD(Kernel::WindowResult, accepted),
    KELM_FIELD(Kernel::WindowResult, spike_overflow),
    KELM_FIELD(Kernel::WindowResult, bound_violation),
    KELM_FIELD(Kernel::WindowResult, gap),
};

#undef KELM_RECORD_FIELD
#undef KELM_FIELD

std::uint64_t wordAt(std::span<const std::byte> bytes, std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    if (offset < bytes.size()) {
        std::memcpy(&value, bytes.data() + offset, std::min(width, bytes.size() - offset));
    }
    return value;
}

/// The word of a record that holds a given byte.
struct Word {
    std::string name;
    std::size_t offset;
    std::size_t width;
};

Word wordOf(std::span<const Field> fields, std::size_t byte) {
    for (const Field& field : fields) {
        if (byte - field.offset >= field.bytes) continue;
        if (!field.inner.empty()) {
            Word word = wordOf(field.inner, byte - field.offset);
            return {std::string(".") + field.name + word.name, word.offset + field.offset,
                    word.width};
        }
        Word word{std::string(".") + field.name, field.offset,
                  std::min<std::size_t>(8, field.bytes)};
        if (field.bytes > 8) {
            const std::size_t index = (byte - field.offset) / 8;
            word.name += '[' + std::to_string(index) + ']';
            word.offset += 8 * index;
        }
        return word;
    }
    return {" at byte " + std::to_string(byte / 8 * 8), byte / 8 * 8, 8};
}

}  // namespace

std::span<const Field> fieldsOf(const Kernel::State*) { return state_fields; }
std::span<const Field> fieldsOf(const CandidateSlot*) { return candidate_fields; }
std::span<const Field> fieldsOf(const SpikeRecord*) { return spike_fields; }
std::span<const Field> fieldsOf(const WindowProfile*) { return profile_fields; }
std::span<const Field> fieldsOf(const WindowWork*) { return work_fields; }
std::span<const Field> fieldsOf(const Kernel::WindowEvent*) { return event_fields; }
std::span<const Field> fieldsOf(const Kernel::WindowResult*) { return result_fields; }
std::span<const Field> fieldsOf(const std::uint64_t*) { return {}; }

std::string Difference::text() const {
    std::ostringstream line;
    line << field;
    if (neuron) line << " of neuron " << *neuron;
    line << std::hex << ": 0x" << left << " vs 0x" << right;
    return line.str();
}

std::optional<PlacedDifference> differenceOfBytes(const std::string& list,
                                                  std::span<const std::byte> a,
                                                  std::span<const std::byte> b,
                                                  std::size_t record_bytes,
                                                  std::span<const Field> fields) {
    const std::size_t shared = std::min(a.size(), b.size());
    const auto at = static_cast<std::size_t>(
        std::mismatch(a.begin(), a.begin() + static_cast<std::ptrdiff_t>(shared), b.begin()).first -
        a.begin());
    if (at == shared) {
        if (a.size() == b.size()) return std::nullopt;
        return PlacedDifference{
            shared / record_bytes,
            {list + " count", std::nullopt, a.size() / record_bytes, b.size() / record_bytes}};
    }
    const std::size_t record = at / record_bytes;
    const Word word = wordOf(fields, at % record_bytes);
    const std::size_t offset = record * record_bytes + word.offset;
    return PlacedDifference{record,
                            {list + word.name, std::nullopt, wordAt(a, offset, word.width),
                             wordAt(b, offset, word.width)}};
}

}  // namespace Lumenar::Core::Kelm::Compare

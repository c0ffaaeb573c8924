#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <type_traits>

#include "kelm/engine/SpikeRecord.h"
#include "kelm/events/Event.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

/// What must be equal on all ranks. Ranks send it byte for byte, and an older or newer kelm must be
/// able to read it, so the layout stays as it is.
struct RankBuild {
    std::uint64_t byte_order = 0x0102030405060708;
    char version[40] = {};  ///< of kelm, padded with zeros
    std::uint32_t pointer_bytes = sizeof(void*);
    std::uint32_t spike_bytes = sizeof(SpikeRecord);
    std::uint32_t event_bytes = sizeof(Event);
    std::uint32_t result_bytes = sizeof(Kernel::WindowResult);
    std::uint64_t model = 0;          ///< the caller's fingerprint
    std::uint64_t message_bytes = 0;  ///< see MpiRankGroup
};
static_assert(std::is_trivially_copyable_v<RankBuild> && std::is_standard_layout_v<RankBuild>);
static_assert(sizeof(RankBuild) == 80);
static_assert(offsetof(RankBuild, version) == 8);
static_assert(offsetof(RankBuild, pointer_bytes) == 48);
static_assert(offsetof(RankBuild, model) == 64);
static_assert(offsetof(RankBuild, message_bytes) == 72);

RankBuild thisBuild(std::uint64_t model, std::uint64_t message_bytes);

/// Names the first rank that differs from rank 0, and both values. Empty if all are equal.
std::string differenceOf(std::span<const RankBuild> builds);

}  // namespace Lumenar::Core::Kelm

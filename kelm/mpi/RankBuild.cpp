#include "kelm/mpi/RankBuild.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>

#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm {

namespace {

std::string hexadecimal(std::uint64_t value) {
    char digits[17];
    std::snprintf(digits, sizeof digits, "%016" PRIx64, value);
    return digits;
}

/// Names and values, in the order in which they are compared.
std::array<std::pair<const char*, std::string>, 8> valuesOf(const RankBuild& build) {
    return {{{"byte order", hexadecimal(build.byte_order)},
             {"kelm version", std::string(build.version, strnlen(build.version, 40))},
             {"pointer size", std::to_string(build.pointer_bytes)},
             {"spike size", std::to_string(build.spike_bytes)},
             {"event size", std::to_string(build.event_bytes)},
             {"result size", std::to_string(build.result_bytes)},
             {"model fingerprint", hexadecimal(build.model)},
             {"message limit", std::to_string(build.message_bytes)}}};
}

}  // namespace

RankBuild thisBuild(std::uint64_t model, std::uint64_t message_bytes) {
    RankBuild build;
    static_assert(engine_version.size() < sizeof build.version);
    engine_version.copy(build.version, engine_version.size());
    build.model = model;
    build.message_bytes = message_bytes;
    return build;
}

std::string differenceOf(std::span<const RankBuild> builds) {
    const auto expected = valuesOf(builds.front());
    for (std::size_t rank = 1; rank < builds.size(); ++rank) {
        const auto found = valuesOf(builds[rank]);
        for (std::size_t i = 0; i < found.size(); ++i) {
            if (found[i].second == expected[i].second) continue;
            return "rank " + std::to_string(rank) + " has " + found[i].first + " " +
                   found[i].second + ", and rank 0 has " + expected[i].second;
        }
    }
    return {};
}

}  // namespace Lumenar::Core::Kelm

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kelm/core/PortableMath.h"
#include "kelm/core/RandomContext.h"
#include "kelm/core/SplitMix64.h"
#include "kelm/network/Projection.h"

namespace Lumenar::Core::Kelm {

/// The name of a projection's random streams for one use.
inline std::string streamName(const Projection& projection, const char* use) {
    return "wiring/" + projection.name + "/" + use;
}

/// The draws of a wiring from the random stream (name, index) of a seed.
class WiringStream {
public:
    WiringStream() = default;
    WiringStream(std::uint64_t seed, std::string_view name, std::uint64_t index)
        : state_(Runtime::RandomContext::deriveStreamState(seed, name, index)) {}

    std::uint64_t next() {
        state_ += splitmix_increment;
        return splitmixOutput(state_);
    }
    /// Uniform in [0, end), for a positive end, as Wiring describes it.
    std::uint64_t below(std::uint64_t end) {
        std::uint64_t x = next();
        if (x * end < end) {
            const std::uint64_t least = (0 - end) % end;
            while (x * end < least) x = next();
        }
        return upperProduct(x, end);
    }
    /// Uniform in (0, 1], a multiple of 2^-53.
    double unit() { return static_cast<double>((next() >> 11) + 1) * 0x1p-53; }
    /// A standard normal draw, as SynapseValues describes it.
    double normal() {
        for (;;) {
            const double u = unit();
            const double v = 1.7156 * (unit() - 0.5);
            const double x = u - 0.449871;
            const double y = Kernel::magnitude(v) + 0.386595;
            const double q = x * x + y * (0.196 * y - 0.25472 * x);
            if (q < 0.27597) return v / u;
            if (q > 0.27846) continue;
            if (v * v <= (-4.0 * Kernel::kernelLog(u)) * (u * u)) return v / u;
        }
    }

private:
    /// The upper 64 bits of a product of 128 bits.
    static std::uint64_t upperProduct(std::uint64_t a, std::uint64_t b) {
        constexpr std::uint64_t low = 0xffffffff;
        const std::uint64_t ll = (a & low) * (b & low);
        const std::uint64_t lh = (a & low) * (b >> 32);
        const std::uint64_t hl = (a >> 32) * (b & low);
        const std::uint64_t middle = (ll >> 32) + (lh & low) + (hl & low);
        return (a >> 32) * (b >> 32) + (lh >> 32) + (hl >> 32) + (middle >> 32);
    }

    std::uint64_t state_ = 0;
};

}  // namespace Lumenar::Core::Kelm

// The exponential and logarithm of every vector width against those of the kernel, bit by bit.

#include <gtest/gtest.h>

#include <ios>
#include <iterator>
#include <string>
#include <vector>

#include "kelm/core/PortableMath.h"
#include "kelm/lanes/LaneKernels.h"
#include "tests/support/Draws.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;
using Kernel::bitsOf;
using Kernel::fromBits;

constexpr std::size_t arguments_of_a_kind = 1 << 16;

/// Numbers where one of the two functions takes another branch, and the ends of their ranges.
const std::vector<double> borders = {
    0.0, 5e-324, 0x1p-1022, fromBits(0x3e30000000000000), fromBits(0x3fd62e4200000000), 0.5,
    // sqrt(1/2) and sqrt(2), as the reduction of the logarithm rounds them.
    fromBits(0x3fe6a09e00000000), 1.0, fromBits(0x3ff0a2b200000000), fromBits(0x3ff6a09c00000000),
    // ln(2) times 1022, 1023 and 1024.
    708.3964185322641, 709.0895657128241, 709.782712893384,
    // ln(2) times 1074 and 1075.
    744.4400719213812, 745.1332191019411, 0x1p31, 0x1.fffffffffffffp1023, Kernel::infinity(),
    Kernel::quietNan()};

struct Kind {
    const char* fact;
    double (*draw)(Draws& draws);
};

constexpr Kind kinds[] = {
    {"any bits", [](Draws& draws) { return fromBits(draws.next()); }},
    {"exponents of hazards", [](Draws& draws) { return draws.between(-20.0, 20.0); }},
    {"small exponents", [](Draws& draws) { return draws.between(-1.1, 1.1); }},
    {"the whole range", [](Draws& draws) { return draws.between(-747.0, 711.0); }},
    {"uniform draws", [](Draws& draws) { return draws.between(0.0, 1.0); }},
    {"near powers of two",
     [](Draws& draws) {
         const std::uint64_t power = (1 + draws.below(2046)) << 52;
         return fromBits(power + draws.below(1 << 12) - (1 << 11));
     }},
    {"near the borders of a reduction",
     [](Draws& draws) {
         const double border = 0.34657359027997264 * static_cast<double>(draws.below(4200));
         const double x = fromBits(bitsOf(border) + draws.below(64));
         return draws.oneIn(2) ? x : -x;
     }},
    {"around named borders",
     [](Draws& draws) {
         const std::uint64_t bits = bitsOf(borders[draws.below(borders.size())]);
         const std::uint64_t distance = draws.below(draws.oneIn(2) ? 8 : 1 << 20);
         const bool below = bits >= distance && draws.oneIn(2);
         const std::uint64_t sign = draws.oneIn(2) ? 0x8000000000000000 : 0;
         return fromBits((below ? bits - distance : bits + distance) | sign);
     }},
};

TEST(LaneMath, GivesTheBitsOfTheKernelsFunctions) {
    if (Lanes::availableKernels().empty()) GTEST_SKIP() << "no vectors for this processor";
    for (std::size_t k = 0; k < std::size(kinds); ++k) {
        Draws draws(k + 1);
        std::vector<double> arguments(arguments_of_a_kind);
        for (double& argument : arguments) argument = kinds[k].draw(draws);
        std::vector<double> values(arguments.size()), logarithms(arguments.size());
        const auto count = static_cast<std::int64_t>(arguments.size());
        for (const Lanes::LaneKernels* kernels : Lanes::availableKernels()) {
            SCOPED_TRACE(std::string(kernels->name) + ", " + kinds[k].fact);
            kernels->exponentials(arguments.data(), values.data(), count);
            kernels->logarithms(arguments.data(), logarithms.data(), count);
            for (std::size_t i = 0; i < arguments.size(); ++i) {
                const double x = arguments[i];
                ASSERT_TRUE(sameBits(values[i], Kernel::kernelExp(x))) << std::hexfloat << x;
                ASSERT_TRUE(sameBits(logarithms[i], Kernel::kernelLog(x))) << std::hexfloat << x;
            }
        }
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm

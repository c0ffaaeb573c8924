#include "kelm/core/PortableMath.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <vector>

#include "kelm/core/Digest.h"
#include "tests/support/Draws.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm::Kernel {

using Testing::Draws;
using Testing::sameBits;

struct Row {
    std::uint64_t argument, result;
};

void expectRows(double (*function)(double), const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        EXPECT_TRUE(sameBits(function(fromBits(row.argument)), fromBits(row.result)))
            << "at " << std::hexfloat << fromBits(row.argument) << " (0x" << std::hex
            << row.argument << ")";
    }
}

std::vector<double> drawn(Draws& draws, double low, double end) {
    std::vector<double> values(20000);
    for (double& value : values) value = draws.between(low, end);
    return values;
}

std::uint64_t digestOf(double (*function)(double), const std::vector<double>& arguments) {
    std::vector<double> results;
    for (const double x : arguments) results.push_back(function(x));
    return digestImages(std::span<const double>(results));
}

// Digests of 40000 results each, from a second implementation (scripts/reference/kernel.py) with
// the same arguments.
TEST(PortableMath, GivesTheBitsOfAnotherImplementation) {
    Draws draws(1);
    const auto append = [](std::vector<double> to, const std::vector<double>& more) {
        to.insert(to.end(), more.begin(), more.end());
        return to;
    };
    std::vector<double> arguments = drawn(draws, -746.0, 711.0);
    EXPECT_EQ(digestOf(kernelExp, append(arguments, drawn(draws, -2.0, 2.0))), 0x9ecd650c79a4b178U);
    for (double& x : arguments) x = draws.positive();
    EXPECT_EQ(digestOf(kernelLog, append(arguments, drawn(draws, 0.5, 2.0))), 0x3bed365b09673c14U);
    arguments = drawn(draws, -20.0, 20.0);
    EXPECT_EQ(digestOf(kernelSin, append(arguments, drawn(draws, -1e6, 1e6))), 0xcdea33be4a63fe26U);
}

// Rows on both sides of a threshold are from scripts/reference/kernel.py, which searches arguments
// whose result differs if the threshold is moved past them.
TEST(PortableMath, ExpGivesTheseBits) {
    expectRows(
        kernelExp,
        {
            {bitsOf(1.0), 0x4005bf0a8b14576a},    // one unit above the double nearest to e
            {bitsOf(1e-10), 0x3ff000000006df38},  // too small to be reduced: 1 + x
            {bitsOf(710.0), 0x7ff0000000000000},
            {bitsOf(-745.0), 0x0000000000000001},
            {bitsOf(-746.0), 0x0000000000000000},
            {bitsOf(0.0), 0x3ff0000000000000},
            {bitsOf(-0.0), 0x3ff0000000000000},
            {0x7ff0000000000000, 0x7ff0000000000000},
            {0xfff0000000000000, 0x0000000000000000},
            {0x3e2fffffffffffff, 0x3ff0000001000000},  // 1 + x, and the polynomial
            {0x3e30000000000000, 0x3ff0000001000000},
            {0xbe2fffffffffffff, 0x3feffffffe000000},
            {0xbe30000000000000, 0x3feffffffe000000},
            {0x3fd62e4200000000, 0x3ff6a09e0c594ff3},  // not reduced, and k = 1 or -1: all 64
            {0x3fd62e4200000005, 0x3ff6a09e0c594ff4},  // bits of the pattern count
            {0xbfd62e4200000006, 0x3fe6a09ec0a5290b},
            {0x3ff0a2b1ffffffff, 0x4006a09e0d126a08},  // k = 1 or -1, and k computed
            {0x3ff0a2b240246a8a, 0x4006a09e67c86302},
            {0xbff0a2b23fc964d7, 0x3fd6a09e65b6ce2b},
            {0x40862c0000000000, 0x7fe81e9b4b52d0c9},  // scaled by 2^1023 first
            {0x40862e42fefa39ef, 0x7fefffffffffff2a},  // the last finite result
            {0x40862e42fefa39f0, 0x7ff0000000000000},
            {0xc086240000000000, 0x000e6cf6d08897ac},  // subnormal results
            {0xc086280000000000, 0x0008bfe55de02338},
            {0xc0874910d52d3051, 0x0000000000000001},
            {0xc0874910d52d3052, 0x0000000000000000},
        });
}

TEST(PortableMath, LogGivesTheseBits) {
    expectRows(kernelLog,
               {
                   {bitsOf(1.0), 0x0000000000000000},
                   {bitsOf(2.0), 0x3fe62e42fefa39ef},
                   {0x0000000000000001, 0xc0874385446d71c3},  // the smallest subnormal
                   {bitsOf(0.0), 0xfff0000000000000},
                   {bitsOf(-0.0), 0xfff0000000000000},
                   {bitsOf(-1.0), 0x7ff8000000000000},
                   {0x8000000000000001, 0x7ff8000000000000},
                   {0xfff0000000000000, 0x7ff8000000000000},
                   {0x7ff0000000000000, 0x7ff0000000000000},
                   {0x3fe6a09bff5c28f0, 0xbfd62e49cad95b66},  // the exponent goes up by one
                   {0x3fe6a09c00c83fbd, 0xbfd62e49c6d38e55},
                   {0x3ff6a09bfd70a3c3, 0x3fd62e3c2dacdd3c},
                   {0x3ff6a09c017e4b23, 0x3fd62e3c3923cc12},
                   {0x3feffffdc9e26960, 0xbeb1b0ed517ce265},  // the short series begins
                   {0x3feffffe0cf135da, 0xbeaf30ed9598b41b},
                   {0x3fefffffffffffff, 0xbca0000000000000},
                   {0x3ff0000000000001, 0x3cafffffffffffff},
                   {0x3ff00000f91a2b08, 0x3eaf23446e9c1f72},  // and ends
                   {0x3ff0000114d5e793, 0x3eb14d5de3810fb6},
                   {0x4010000080000000, 0x3ff62e437efa37ef},  // the short series with an exponent
                   {0x400ffffe80000000, 0x3ff62e423efa356f},
                   {0x000fffffffffffff, 0xc086232bdd7abcd2},  // subnormal, and normal
                   {0x0010000000000000, 0xc086232bdd7abcd2},
                   {0x7fefffffffffffff, 0x40862e42fefa39ef},
               });
}

TEST(PortableMath, SinGivesTheseBits) {
    expectRows(kernelSin,
               {
                   {0x400921fb54442d18, 0x0000000000000000},  // pi as a double has the sine 0
                   {bitsOf(1000.0), 0x3fea75cc150a20c5},      // off in the eleventh digit
                   {0x3ff921fb54442d18, 0x3ff0000000000000},
                   {0x0000000000000000, 0x0000000000000000},
                   {0x8000000000000000, 0x0000000000000000},
                   {0x3fe921fb54442d18, 0x3fe6a09e667f3bcc},  // sine, and cosine of the complement
                   {0x3fe921fb54442d19, 0x3fe6a09e667f3bce},
                   {0xbfe921fb54442d19, 0xbfe6a09e667f3bce},
                   {0x3ff921fb54442d19, 0x3ff0000000000000},  // folded at a right angle
                   {0xbff921fb54442d18, 0xbff0000000000000},
                   {0x400921fb54442d17, 0x3cc0000000000000},  // a period begins at pi
                   {0x400921fb54442d19, 0xbcc0000000000000},
                   {0xc00921fb54442d18, 0x0000000000000000},
                   {0x4022d97c7f3321d2, 0x0000000000000000},
                   {0x401921fb54442d18, 0x0000000000000000},
                   {0x41cdcd6500000000, 0x3fe1778cb58d9bac},  // 1e9
                   {0xc30c6bf526340000, 0xbfeb35d1d90d2dd6},  // -1e15
               });
}

TEST(PortableMath, ANanComesBackWithItsPayloadAndPeriodsThatCannotBeCountedGiveOne) {
    for (double (*const function)(double) : {kernelExp, kernelLog, kernelSin}) {
        for (const std::uint64_t nan : {0xfff8000000000000U, 0x7ff8dead0000beefU}) {
            EXPECT_EQ(bitsOf(function(fromBits(nan))), nan);
        }
    }
    const double two_pi = fromBits(0x401921fb54442d18);
    for (const double x :
         {0x1p63 * 6.3, 0x1p63 * two_pi, -0x1p63 * two_pi, infinity(), -infinity()}) {
        EXPECT_EQ(bitsOf(kernelSin(x)), bitsOf(quietNan())) << x;
    }
    EXPECT_FALSE(isNan(kernelSin(0x1p63 * 6.2)));
    EXPECT_FALSE(isNan(kernelSin(-0x1p63 * 6.2)));
}

}  // namespace Lumenar::Core::Kelm::Kernel

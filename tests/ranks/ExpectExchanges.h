#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kelm/core/IRankGroup.h"
#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm::Testing {

/// The bytes that rank `sender` sends to `receiver` in an exchange.
inline Blob drawnBytes(std::size_t length, std::uint64_t exchange, std::size_t sender,
                       std::size_t receiver) {
    Draws draws((exchange << 32) + (sender << 16) + receiver);
    Blob bytes(length);
    std::generate(bytes.begin(), bytes.end(),
                  [&] { return static_cast<std::uint8_t>(draws.next()); });
    return bytes;
}

/// Makes `count` calls of random kinds, and expects the bytes of each rank. Lengths are 0 or of any
/// magnitude below `end`. All ranks must give the same arguments.
inline void expectExchanges(IRankGroup& group, std::uint64_t seed, std::uint64_t count,
                            std::size_t end) {
    Draws draws(seed);
    const std::size_t size = group.size();
    const std::size_t own = group.rank();
    std::vector<std::vector<std::size_t>> lengths(size, std::vector<std::size_t>(size));
    for (std::uint64_t i = 0; i < count; ++i) {
        for (auto& of_sender : lengths) {
            for (std::size_t& length : of_sender) {
                length = draws.oneIn(4) ? 0 : draws.below(end) >> draws.below(20);
            }
        }
        const std::uint64_t kind = draws.below(4);
        const bool is_swap = kind == 3;
        // Share and collect send the same bytes to all ranks.
        const auto sent = [&](std::size_t sender, std::size_t receiver) {
            const std::size_t to = is_swap ? receiver : 0;
            return drawnBytes(lengths[sender][to], i, sender, to);
        };
        std::span<const BlobView> received;
        std::vector<Blob> outgoing;
        for (std::size_t r = 0; is_swap && r < size; ++r) outgoing.push_back(sent(own, r));
        if (is_swap) received = group.swap(outgoing);
        if (kind == 2) received = group.collect(sent(own, 0));
        if (kind < 2) received = group.share(sent(own, 0));

        ASSERT_EQ(received.size(), kind == 2 && own != 0 ? 0 : size);
        for (std::size_t r = 0; r < received.size(); ++r) {
            EXPECT_TRUE(std::ranges::equal(received[r], sent(r, own)))
                << "call " << i << " of kind " << kind << ": " << lengths[r][is_swap ? own : 0]
                << " bytes from rank " << r << " to rank " << own;
        }
    }
}

}  // namespace Lumenar::Core::Kelm::Testing

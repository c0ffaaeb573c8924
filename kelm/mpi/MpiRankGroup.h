#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>

#include "kelm/core/IRankGroup.h"

namespace Lumenar::Core::Kelm {

struct MpiCommunicator;

/// What an MpiRankGroup has sent and received since its construction.
struct MpiStatistics {
    std::uint64_t collectives = 0;     ///< a share needs one, or two if it is long
    std::uint64_t messages = 0;        ///< sent from rank to rank
    std::uint64_t sent_bytes = 0;      ///< those of a collective count once
    std::uint64_t received_bytes = 0;  ///< from other ranks, with the unused bytes of slots
};

/// The processes of an MPI communicator as ranks. MPI must be initialised as long as the object
/// exists, and only the thread that has initialised MPI may use it.
///
/// share() is one MPI_Allgather of slots of equal size, which begin with the length of the
/// contribution. If one does not fit, a second collective carries the rest, and the slots grow.
/// collect() and swap() share a byte, then send messages from rank to rank.
///
/// An error of MPI, and with it the loss of a rank, ends the program. So does a lack of memory for
/// what other ranks send.
class MpiRankGroup final : public IRankGroup {
public:
    /// Longest message. A contribution that is longer goes in several.
    static constexpr std::size_t default_message_bytes = std::size_t{1} << 30;
    /// MPI counts bytes as int.
    static constexpr std::size_t max_message_bytes = std::numeric_limits<int>::max();

    /// All processes of the program. See the constructor.
    static MpiRankGroup world(std::uint64_t model = 0,
                              std::size_t message_bytes = default_message_bytes);
    /// All processes of the communicator must construct a group at the same time. The group works
    /// on a copy of the communicator. `model`: a fingerprint of what all ranks simulate.
    ///
    /// Throws std::invalid_argument for a `message_bytes` outside [1, max_message_bytes], before
    /// any exchange. Throws std::runtime_error on all ranks if version or build of kelm, `model` or
    /// `message_bytes` are not equal on all of them. The text names a rank and both values.
    explicit MpiRankGroup(const MpiCommunicator& communicator, std::uint64_t model = 0,
                          std::size_t message_bytes = default_message_bytes);
    ~MpiRankGroup() override;

    std::uint32_t rank() const override;
    std::uint32_t size() const override;
    const MpiStatistics& statistics() const;

private:
    std::span<const BlobView> shareBytes(BlobView own) override;
    std::span<const BlobView> collectBytes(BlobView own) override;
    std::span<const BlobView> swapBytes(std::span<const Blob> outgoing) override;

    class Exchange;
    std::unique_ptr<Exchange> exchange_;
};

}  // namespace Lumenar::Core::Kelm

#include "kelm/mpi/MpiRankGroup.h"

#include <mpi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelm/mpi/MpiCommunicator.h"
#include "kelm/mpi/RankBuild.h"
#include "kelm/mpi/SlotCapacity.h"

namespace Lumenar::Core::Kelm {

namespace {

/// A copy of a communicator.
class CommunicatorCopy {
public:
    explicit CommunicatorCopy(MPI_Comm original) {
        MPI_Comm_dup(original, &handle_);
        // The original may be set to return errors, and no call here reads what it returns.
        MPI_Comm_set_errhandler(handle_, MPI_ERRORS_ARE_FATAL);
    }
    ~CommunicatorCopy() {
        int finalized = 0;
        MPI_Finalized(&finalized);
        if (finalized == 0) MPI_Comm_free(&handle_);
    }
    CommunicatorCopy(const CommunicatorCopy&) = delete;
    CommunicatorCopy& operator=(const CommunicatorCopy&) = delete;

    MPI_Comm handle() const { return handle_; }

private:
    MPI_Comm handle_ = MPI_COMM_NULL;
};

/// Memory to receive into. Unlike a vector it does not clear new bytes.
class ReceiveBuffer {
public:
    /// Room for `bytes` bytes. The content is lost. Frees memory that one long exchange has needed.
    std::uint8_t* prepare(std::size_t bytes) {
        if (bytes > capacity_ || capacity_ / 4 > bytes + kept) {
            data_.reset();
            capacity_ = 0;
            data_ = std::make_unique_for_overwrite<std::uint8_t[]>(bytes);
            capacity_ = bytes;
        }
        return data_.get();
    }

private:
    static constexpr std::size_t kept = 1024 * 1024;

    std::unique_ptr<std::uint8_t[]> data_;
    std::size_t capacity_ = 0;
};

void copyBytes(std::uint8_t* target, BlobView source) {
    if (!source.empty()) std::memcpy(target, source.data(), source.size());
}

/// Calls a function that exchanges. In the middle of it the other ranks wait for this one, so a
/// lack of memory must end them too.
template <class Call>
auto callOrAbort(Call call) {
    try {
        return call();
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "kelm: no memory for what other ranks send\n");
        MPI_Abort(MPI_COMM_WORLD, 1);
        std::abort();
    }
}

}  // namespace

class MpiRankGroup::Exchange {
public:
    Exchange(MPI_Comm original, std::uint64_t model, std::size_t message_bytes)
        : communicator_(original),
          message_bytes_(message_bytes),
          rank_(numberOf(MPI_Comm_rank)),
          size_(numberOf(MPI_Comm_size)),
          capacity_(size_),
          lengths_(size_),
          views_(size_) {
        requireEqualBuilds(thisBuild(model, message_bytes));
    }

    std::uint32_t rank() const { return static_cast<std::uint32_t>(rank_); }
    std::uint32_t size() const { return static_cast<std::uint32_t>(size_); }
    const MpiStatistics& statistics() const { return statistics_; }

    std::span<const BlobView> share(BlobView own) {
        const std::size_t slot = capacity_.slotBytes();
        slots_.resize(size_ * slot);
        const std::size_t length = own.size();
        std::uint8_t* const mine = slots_.data() + rank_ * slot;
        std::memcpy(mine, &length, SlotCapacity::header);
        copyBytes(mine + SlotCapacity::header, own.first(std::min(length, capacity_.bytes())));
        MPI_Allgather(MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, slots_.data(), static_cast<int>(slot),
                      MPI_BYTE, communicator_.handle());
        countCollective(slot, (size_ - 1) * slot);
        for (std::size_t r = 0; r < size_; ++r) {
            const std::uint8_t* const other = slots_.data() + r * slot;
            std::memcpy(&lengths_[r], other, SlotCapacity::header);
            views_[r] = {other + SlotCapacity::header, lengths_[r]};
        }
        const std::size_t longest = *std::max_element(lengths_.begin(), lengths_.end());
        if (longest > capacity_.bytes()) shareRest(own);
        capacity_.adapt(longest);
        return views_;
    }

    std::span<const BlobView> collect(BlobView own) {
        const std::size_t length = own.size();
        MPI_Gather(&length, 1, MPI_UINT64_T, lengths_.data(), 1, MPI_UINT64_T, 0,
                   communicator_.handle());
        countCollective(sizeof length, rank_ == 0 ? (size_ - 1) * sizeof length : 0);
        if (rank_ == 0) {
            startReceives(own);
        } else {
            startSend(own, 0);
        }
        finishMessages();
        if (rank_ != 0) return {};
        return views_;
    }

    std::span<const BlobView> swap(std::span<const Blob> outgoing) {
        std::vector<std::size_t> own_lengths(size_);
        for (std::size_t r = 0; r < size_; ++r) own_lengths[r] = outgoing[r].size();
        MPI_Alltoall(own_lengths.data(), 1, MPI_UINT64_T, lengths_.data(), 1, MPI_UINT64_T,
                     communicator_.handle());
        countCollective(size_ * sizeof(std::size_t), (size_ - 1) * sizeof(std::size_t));
        startReceives(outgoing[rank_]);
        // The next rank first, so that the ranks do not all begin with the same receiver.
        for (std::size_t i = 1; i < size_; ++i) {
            const std::size_t receiver = (rank_ + i) % size_;
            startSend(outgoing[receiver], receiver);
        }
        finishMessages();
        return views_;
    }

private:
    static_assert(sizeof(std::size_t) == 8, "lengths are sent as 64-bit numbers");

    std::size_t numberOf(int (*query)(MPI_Comm, int*)) const {
        int number = 0;
        query(communicator_.handle(), &number);
        return static_cast<std::size_t>(number);
    }

    void requireEqualBuilds(const RankBuild& own) {
        std::vector<RankBuild> builds(size_);
        MPI_Allgather(&own, sizeof own, MPI_BYTE, builds.data(), sizeof own, MPI_BYTE,
                      communicator_.handle());
        const std::string difference = differenceOf(builds);
        if (!difference.empty()) throw std::runtime_error(difference);
    }

    /// Completes the contributions that do not fit into the slots, and their views.
    void shareRest(BlobView own) {
        const std::size_t in_slot = capacity_.bytes();
        std::size_t total = 0;
        for (const std::size_t length : lengths_) total += length > in_slot ? length : 0;
        std::uint8_t* const whole = received_.prepare(total);
        std::size_t offset = 0;
        for (std::size_t r = 0; r < size_; ++r) {
            if (lengths_[r] <= in_slot) continue;
            copyBytes(whole + offset, r == rank_ ? own : views_[r].first(in_slot));
            views_[r] = {whole + offset, lengths_[r]};
            offset += lengths_[r];
        }
        if (total <= message_bytes_) {
            gatherRests(whole, in_slot);
        } else {
            broadcastRests(whole, in_slot);
        }
    }

    /// In one collective. Its counts are ints, so it cannot carry more than message_bytes_.
    void gatherRests(std::uint8_t* whole, std::size_t in_slot) {
        counts_.assign(size_, 0);
        displacements_.assign(size_, 0);
        std::size_t offset = 0;
        std::size_t received = 0;
        for (std::size_t r = 0; r < size_; ++r) {
            if (lengths_[r] <= in_slot) continue;
            counts_[r] = static_cast<int>(lengths_[r] - in_slot);
            displacements_[r] = static_cast<int>(offset + in_slot);
            offset += lengths_[r];
            if (r != rank_) received += lengths_[r] - in_slot;
        }
        MPI_Allgatherv(MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, whole, counts_.data(),
                       displacements_.data(), MPI_BYTE, communicator_.handle());
        countCollective(static_cast<std::size_t>(counts_[rank_]), received);
    }

    /// Rank by rank, in pieces.
    void broadcastRests(std::uint8_t* whole, std::size_t in_slot) {
        for (std::size_t r = 0; r < size_; ++r) {
            if (lengths_[r] <= in_slot) continue;
            forEachPiece(lengths_[r] - in_slot, [&](std::size_t offset, int bytes) {
                MPI_Bcast(whole + in_slot + offset, bytes, MPI_BYTE, static_cast<int>(r),
                          communicator_.handle());
                const auto counted = static_cast<std::size_t>(bytes);
                countCollective(r == rank_ ? counted : 0, r == rank_ ? 0 : counted);
            });
            whole += lengths_[r];
        }
    }

    /// Calls piece(offset, bytes) for successive pieces of at most message_bytes_.
    template <class Piece>
    void forEachPiece(std::size_t length, Piece&& piece) const {
        for (std::size_t offset = 0; offset < length; offset += message_bytes_) {
            piece(offset, static_cast<int>(std::min(message_bytes_, length - offset)));
        }
    }

    /// Starts to receive lengths_[r] bytes from each rank r, and copies this rank's own bytes.
    void startReceives(BlobView own) {
        std::size_t total = 0;
        for (const std::size_t length : lengths_) total += length;
        std::uint8_t* target = received_.prepare(total);
        for (std::size_t r = 0; r < size_; ++r) {
            views_[r] = {target, lengths_[r]};
            if (r == rank_) {
                copyBytes(target, own);
            } else {
                // Messages between two ranks arrive in the order in which they are sent.
                forEachPiece(lengths_[r], [&](std::size_t offset, int bytes) {
                    MPI_Irecv(target + offset, bytes, MPI_BYTE, static_cast<int>(r), 0,
                              communicator_.handle(), &requests_.emplace_back());
                });
                statistics_.received_bytes += lengths_[r];
            }
            target += lengths_[r];
        }
    }

    void startSend(BlobView bytes, std::size_t receiver) {
        forEachPiece(bytes.size(), [&](std::size_t offset, int piece) {
            MPI_Isend(bytes.data() + offset, piece, MPI_BYTE, static_cast<int>(receiver), 0,
                      communicator_.handle(), &requests_.emplace_back());
            ++statistics_.messages;
        });
        statistics_.sent_bytes += bytes.size();
    }

    void finishMessages() {
        MPI_Waitall(static_cast<int>(requests_.size()), requests_.data(), MPI_STATUSES_IGNORE);
        requests_.clear();
    }

    void countCollective(std::size_t sent, std::size_t received) {
        ++statistics_.collectives;
        statistics_.sent_bytes += sent;
        statistics_.received_bytes += received;
    }

    CommunicatorCopy communicator_;
    std::size_t message_bytes_;
    std::size_t rank_;
    std::size_t size_;
    SlotCapacity capacity_;
    std::vector<std::uint8_t> slots_;   ///< of all ranks
    ReceiveBuffer received_;            ///< contributions that are not in slots
    std::vector<std::size_t> lengths_;  ///< of the contributions, by rank
    std::vector<BlobView> views_;       ///< of the contributions, by rank
    std::vector<int> counts_;           ///< for MPI_Allgatherv
    std::vector<int> displacements_;    ///< for MPI_Allgatherv
    std::vector<MPI_Request> requests_;
    MpiStatistics statistics_;
};

MpiRankGroup MpiRankGroup::world(std::uint64_t model, std::size_t message_bytes) {
    return MpiRankGroup(MpiCommunicator{MPI_COMM_WORLD}, model, message_bytes);
}

MpiRankGroup::MpiRankGroup(const MpiCommunicator& communicator, std::uint64_t model,
                           std::size_t message_bytes) {
    if (message_bytes < 1 || message_bytes > max_message_bytes) {
        throw std::invalid_argument("a message limit must be in [1, 2147483647]");
    }
    exchange_ = callOrAbort(
        [&] { return std::make_unique<Exchange>(communicator.handle, model, message_bytes); });
}

MpiRankGroup::~MpiRankGroup() = default;

std::uint32_t MpiRankGroup::rank() const { return exchange_->rank(); }
std::uint32_t MpiRankGroup::size() const { return exchange_->size(); }
const MpiStatistics& MpiRankGroup::statistics() const { return exchange_->statistics(); }

std::span<const BlobView> MpiRankGroup::shareBytes(BlobView own) {
    return callOrAbort([&] { return exchange_->share(own); });
}

std::span<const BlobView> MpiRankGroup::collectBytes(BlobView own) {
    return callOrAbort([&] { return exchange_->collect(own); });
}

std::span<const BlobView> MpiRankGroup::swapBytes(std::span<const Blob> outgoing) {
    return callOrAbort([&] { return exchange_->swap(outgoing); });
}

}  // namespace Lumenar::Core::Kelm

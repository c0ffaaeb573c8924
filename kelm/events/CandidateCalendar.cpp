#include "kelm/events/CandidateCalendar.h"

namespace Lumenar::Core::Kelm {

namespace {

/// Wake-ups beyond two a neuron that are not worth a sweep.
constexpr std::uint64_t min_sweep = 1024;

}  // namespace

void CandidateCalendar::attach(std::span<CandidateSlot> slots) {
    slots_ = {};
    for (ChunkList<NodeId>& list : ring_) pool_.clear(list);
    for (auto& [era, list] : eras_) pool_.clear(list);
    eras_.clear();
    pending_count_ = 0;
    wake_count_ = 0;
    pending_.assign(slots.size(), 0);
    wake_buckets_.assign(slots.size(), no_bucket);
    if (!slots.empty()) ring_.resize(bucket_count_);
    slots_ = slots;
}

bool CandidateCalendar::insert(NodeId neuron, std::int64_t bucket, std::int64_t cursor) {
    const bool reached = static_cast<std::uint64_t>(bucket - cursor) < bucket_count_;
    if (reached) {
        pool_.append(ring_[slotOf(bucket)], neuron);
    } else {
        pool_.reserveChunks(1);
        pool_.append(eras_[eraOf(bucket)], neuron);
    }
    wake_buckets_[neuron] = bucket;
    ++wake_count_;
    return reached;
}

bool CandidateCalendar::wakeEarlier(NodeId neuron, std::int64_t cursor) {
    if (wake_count_ > 2 * slots_.size() + min_sweep) sweep(cursor);
    return insert(neuron, bucketOf(neuron), cursor);
}

/// Leaves one wake-up of each neuron. One that is woken early again and again can have any number.
void CandidateCalendar::sweep(std::int64_t cursor) {
    // With one chunk in hand no list runs out: it gives back a chunk for each that it fills anew.
    pool_.reserveChunks(1);
    const auto keep = [&](ChunkList<NodeId>& list, auto belongs) {
        ChunkList<NodeId> kept;
        while (!list.isEmpty()) {
            const NodeId neuron = pool_.takeAny(list);
            std::int64_t& bucket = wake_buckets_[neuron];
            if (bucket >= 0 && bucket != no_bucket && belongs(bucket)) {
                pool_.append(kept, neuron);
                bucket = -1 - bucket;  // it has one now
            } else {
                --wake_count_;
            }
        }
        list = kept;
    };
    for (std::uint64_t slot = 0; slot < ring_.size(); ++slot) {
        keep(ring_[slot], [&](std::int64_t bucket) {
            return slotOf(bucket) == slot &&
                   static_cast<std::uint64_t>(bucket - cursor) < bucket_count_;
        });
    }
    for (auto& [era, list] : eras_) {
        keep(list, [&, era = era](std::int64_t bucket) { return eraOf(bucket) == era; });
    }
    for (std::int64_t& bucket : wake_buckets_) {
        if (bucket < 0) bucket = -1 - bucket;
    }
}

}  // namespace Lumenar::Core::Kelm

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "kelm/core/LargePages.h"
#include "kelm/core/Prefetch.h"

namespace Lumenar::Core::Kelm {

/// Records in chunks, in no meaningful order. Only the pool that filled a list can empty it.
template <class Record>
struct ChunkList {
    static constexpr std::uint32_t chunk_records = 16;

    struct Chunk {
        alignas(64) Record records[chunk_records];  ///< none lies across two cache lines
        Chunk* next = nullptr;

        void prefetch() const {
            for (std::size_t byte = 0; byte < sizeof(Chunk); byte += 64) {
                prefetchLine(reinterpret_cast<const char*>(this) + byte);
            }
        }
    };

    Chunk* head = nullptr;          ///< all chunks behind the head are full
    std::uint32_t head_count = 0;   ///< records in the head
    std::uint32_t chunk_count = 0;  ///< the head included

    bool isEmpty() const { return head == nullptr; }
    std::size_t size() const {
        return isEmpty() ? 0 : (chunk_count - std::size_t{1}) * chunk_records + head_count;
    }

    /// Calls visit(records) for the records of each chunk. Chunks lie anywhere in memory, so the
    /// next one is prefetched.
    template <class Visit>
    void forEachChunk(Visit visit) const {
        std::uint32_t count = head_count;
        for (const Chunk* chunk = head; chunk != nullptr; chunk = chunk->next) {
            if (chunk->next != nullptr) chunk->next->prefetch();
            visit(std::span<const Record>(chunk->records, count));
            count = chunk_records;
        }
    }
    /// Calls visit(record) for each record.
    template <class Visit>
    void forEach(Visit visit) const {
        forEachChunk([&](std::span<const Record> records) {
            for (const Record& record : records) visit(record);
        });
    }
};

/// Storage of records in chunks. Lists share it: the chunks of an emptied list are used again.
/// The pool keeps the largest number of chunks that were in use at one time.
template <class Record>
class ChunkPool {
public:
    using List = ChunkList<Record>;
    using Chunk = typename List::Chunk;

    /// Makes room for `count` chunks beyond those in use. May throw std::bad_alloc.
    void reserveChunks(std::size_t count) {
        if (free_count_ < count) addBlock(count - free_count_);
    }

    /// Adds a copy of `record` to `list` and returns the copy. May throw std::bad_alloc, with the
    /// list as it was, unless a chunk is reserved.
    Record& append(List& list, const Record& record) {
        if (list.head == nullptr || list.head_count == List::chunk_records) addChunk(list);
        return list.head->records[list.head_count++] = record;
    }

    /// Takes one record out of a list that is not empty.
    Record takeAny(List& list) {
        const Record record = list.head->records[--list.head_count];
        if (list.head_count == 0) {
            Chunk* emptied = list.head;
            list.head = emptied->next;
            --list.chunk_count;
            list.head_count = list.head == nullptr ? 0 : List::chunk_records;
            release(emptied);
        }
        return record;
    }

    /// Empties the list.
    void clear(List& list) noexcept {
        while (list.head != nullptr) {
            Chunk* chunk = list.head;
            list.head = chunk->next;
            release(chunk);
        }
        list.head_count = 0;
        list.chunk_count = 0;
    }

private:
    void addChunk(List& list) {
        reserveChunks(1);
        Chunk* chunk = takeFree();
        chunk->next = list.head;
        list.head = chunk;
        list.head_count = 0;
        ++list.chunk_count;
        // The chunk that is filled next.
        if (free_ != nullptr) free_->prefetch();
    }
    /// Prefers a chunk that was used before, which may still be in the caches.
    Chunk* takeFree() {
        --free_count_;
        if (free_ == nullptr) return &blocks_.back().emplace_back();
        Chunk* chunk = free_;
        free_ = chunk->next;
        return chunk;
    }
    /// Adds a block of at least `min_chunks` chunks.
    void addBlock(std::size_t min_chunks) {
        LargeArray<Chunk> block;
        block.reserve(std::max(min_chunks, next_block_chunks_));
        const std::size_t room = block.capacity();
        blocks_.reserve(blocks_.size() + 1);
        // Only the last block may have chunks that were never used.
        while (!blocks_.empty() && blocks_.back().size() < blocks_.back().capacity()) {
            --free_count_;
            release(&blocks_.back().emplace_back());
        }
        blocks_.push_back(std::move(block));
        free_count_ += room;
        next_block_chunks_ = std::min(2 * next_block_chunks_, max_block_chunks);
    }
    void release(Chunk* chunk) noexcept {
        chunk->next = free_;
        free_ = chunk;
        ++free_count_;
    }

    static constexpr std::size_t max_block_chunks = LargePageAllocator<Chunk>::page_count;

    /// The storage of a block does not move. The last block has room for chunks not used yet.
    std::vector<LargeArray<Chunk>> blocks_;
    std::size_t next_block_chunks_ = 4;  ///< small at first, because many pools stay small
    Chunk* free_ = nullptr;
    std::size_t free_count_ = 0;  ///< chunks in the free list, and room in the last block
};

}  // namespace Lumenar::Core::Kelm

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "kelm/events/Event.h"

namespace Lumenar::Core::Kelm {

/// A run of events of one calendar slot. Only the pool that filled it can read or empty it.
struct EventList;

/// Storage of events in chunks that lists share: a slot that was once full gives its memory to
/// the others when it has been emptied. Holds the most that was ever in use at one time.
class EventPool {
public:
    static constexpr std::uint32_t chunk_events = 15;

    struct Chunk {
        Event events[chunk_events];
        Chunk* next = nullptr;
    };

    /// Makes room for `count` chunks beyond those in use. May throw std::bad_alloc.
    void reserveChunks(std::size_t count) {
        while (free_count_ < count) addBlock();
    }

    /// Adds a copy of `event` to `list`. May throw std::bad_alloc, with the list as it was, unless
    /// a chunk is reserved.
    void append(EventList& list, const Event& event);

    /// Calls visit(event) for each event of the list, in no meaningful order.
    template <class Visit>
    static void forEach(const EventList& list, Visit visit);

    /// Takes one event out of a list that is not empty.
    Event takeAny(EventList& list);

    /// Empties the list.
    void clear(EventList& list) noexcept;

private:
    void addBlock();
    void release(Chunk* chunk) noexcept {
        chunk->next = free_;
        free_ = chunk;
        ++free_count_;
    }

    std::vector<std::unique_ptr<Chunk[]>> blocks_;
    std::size_t next_block_chunks_ = 4;  ///< small at first: many stores are small
    Chunk* free_ = nullptr;
    std::size_t free_count_ = 0;
};

struct EventList {
    EventPool::Chunk* head = nullptr;  ///< all chunks behind the head are full
    std::uint32_t head_count = 0;      ///< events in the head

    bool isEmpty() const { return head == nullptr; }
};

template <class Visit>
void EventPool::forEach(const EventList& list, Visit visit) {
    std::uint32_t count = list.head_count;
    for (const Chunk* chunk = list.head; chunk != nullptr; chunk = chunk->next) {
        for (std::uint32_t i = 0; i < count; ++i) visit(chunk->events[i]);
        count = chunk_events;
    }
}

inline void EventPool::append(EventList& list, const Event& event) {
    if (list.head == nullptr || list.head_count == chunk_events) {
        reserveChunks(1);
        Chunk* chunk = free_;
        free_ = chunk->next;
        --free_count_;
        chunk->next = list.head;
        list.head = chunk;
        list.head_count = 0;
    }
    list.head->events[list.head_count++] = event;
}

inline Event EventPool::takeAny(EventList& list) {
    const Event event = list.head->events[--list.head_count];
    if (list.head_count == 0) {
        Chunk* emptied = list.head;
        list.head = emptied->next;
        list.head_count = list.head == nullptr ? 0 : chunk_events;
        release(emptied);
    }
    return event;
}

inline void EventPool::clear(EventList& list) noexcept {
    while (list.head != nullptr) {
        Chunk* chunk = list.head;
        list.head = chunk->next;
        release(chunk);
    }
    list.head_count = 0;
}

inline void EventPool::addBlock() {
    blocks_.reserve(blocks_.size() + 1);
    const std::size_t count = next_block_chunks_;
    blocks_.push_back(std::make_unique<Chunk[]>(count));
    for (std::size_t i = count; i-- > 0;) release(&blocks_.back()[i]);
    if (next_block_chunks_ < 256) next_block_chunks_ *= 2;
}

}  // namespace Lumenar::Core::Kelm

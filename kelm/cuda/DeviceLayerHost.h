#pragma once

// Part of DeviceLayer.h: the device operations for a host compiler. What stands here only runs a
// launch's threads; whether and how a device is emulated is decided by what the program links.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <numeric>

#include "kelm/core/Prefetch.h"

// A kernel becomes the body of the loop over its threads: called out of line, every thread would
// copy the arguments.
#define KELM_KERNEL [[gnu::always_inline]] static inline void
#define KELM_DEVICE

namespace Lumenar::Core::Kelm::Device {

/// Index of the device thread that this host thread is playing.
extern constinit thread_local std::uint64_t emulated_thread_index;

inline std::uint64_t threadIndex() { return emulated_thread_index; }

/// Threads of neighbouring indices mostly run one after the other.
inline constexpr std::uint64_t lookahead = 24;
inline void prefetch(const void* address) { prefetchLine(address); }

inline std::uint64_t fetchAdd(std::uint64_t* counter, std::uint64_t amount) {
    return std::atomic_ref<std::uint64_t>(*counter).fetch_add(amount, std::memory_order_relaxed);
}

/// What the device threads that one host thread plays have added to a few counters: the host
/// threads meet at a counter once a launch, not once a device thread.
class PendingSums {
public:
    void add(std::uint64_t* counter, std::uint64_t amount) {
        Sum& sum = sums_[reinterpret_cast<std::uintptr_t>(counter) / sizeof(*counter) % size];
        if (sum.counter != counter) {
            flush(sum);
            sum.counter = counter;
        }
        sum.amount += amount;
    }
    void flushAll() {
        for (Sum& sum : sums_) flush(sum);
    }

private:
    static constexpr std::size_t size = 8;

    struct Sum {
        std::uint64_t* counter = nullptr;
        std::uint64_t amount = 0;
    };

    static void flush(Sum& sum) {
        if (sum.counter != nullptr) fetchAdd(sum.counter, sum.amount);
        sum = {};
    }

    Sum sums_[size];
};
extern constinit thread_local PendingSums pending_sums;

inline void accumulate(std::uint64_t* counter, std::uint64_t amount) {
    pending_sums.add(counter, amount);
}

inline void setFlag(std::uint32_t* flag) {
    std::atomic_ref<std::uint32_t>(*flag).store(1, std::memory_order_relaxed);
}

/// Runs the threads [first, last) of a launch, each standing at order[i] if there is an order.
using ThreadRange = void (*)(const void* launch, std::uint64_t first, std::uint64_t last,
                             const std::uint64_t* order);

/// Calls `range` until every one of `thread_count` threads has run, on any host threads.
void runThreads(ThreadRange range, const void* launch, std::uint64_t thread_count);

/// A sort or a scan is about to run: throws std::runtime_error where the device fails it.
void beginLibraryCall();

/// The kernel is a template argument so that it is inlined into the loop over its threads.
template <auto kernel, class... Arguments>
void launch(std::uint32_t blocks, std::uint32_t block_size, const Arguments&... arguments) {
    const auto run_one = [=] { kernel(arguments...); };
    const ThreadRange range = [](const void* launched, std::uint64_t first, std::uint64_t last,
                                 const std::uint64_t* order) {
        // A copy of its own, which no thread's stores can reach: it stays in registers.
        const auto run = *static_cast<const decltype(run_one)*>(launched);
        for (std::uint64_t i = first; i < last; ++i) {
            emulated_thread_index = order == nullptr ? i : order[i];
            run();
        }
        pending_sums.flushAll();
    };
    runThreads(range, &run_one, static_cast<std::uint64_t>(blocks) * block_size);
}

/// The temporary memory of one library call, as the library of a device takes it. The calls below
/// compute their result in it and then copy the result to its place.
template <class T, class Memory>
class LibraryCall {
public:
    LibraryCall(std::uint64_t count, Memory& memory)
        : memory_(memory), bytes_(count * sizeof(T)), block_(memory.allocate(bytes_)) {}
    LibraryCall(const LibraryCall&) = delete;
    LibraryCall& operator=(const LibraryCall&) = delete;
    ~LibraryCall() { memory_.deallocate(block_, bytes_); }

    /// The elements. Throws std::runtime_error if the device fails the call.
    T* begin() const {
        beginLibraryCall();
        return reinterpret_cast<T*>(block_);
    }

private:
    Memory& memory_;
    std::size_t bytes_;
    char* block_;
};

template <class T, class Less, class Memory>
void sort(T* first, std::uint64_t count, Less less, Memory& memory) {
    const LibraryCall<T, Memory> call(count, memory);
    T* const sorted = call.begin();
    std::copy(first, first + count, sorted);
    std::sort(sorted, sorted + count, less);
    std::copy(sorted, sorted + count, first);
}

template <class Memory>
void exclusiveScan(const std::uint64_t* in, std::uint64_t count, std::uint64_t* out,
                   Memory& memory) {
    const LibraryCall<std::uint64_t, Memory> call(count, memory);
    std::uint64_t* const sums = call.begin();
    std::exclusive_scan(in, in + count, sums, std::uint64_t{0});
    std::copy(sums, sums + count, out);
}

}  // namespace Lumenar::Core::Kelm::Device

#pragma once

// Part of DeviceLayer.h: the device operations for a host compiler. This file only loops over the
// threads of a launch; the program's library decides whether and how a device is emulated.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <numeric>

// A kernel becomes the body of the loop over its threads. Called out of line, every thread would
// copy the arguments.
#define KELM_KERNEL [[gnu::always_inline]] static inline void
#define KELM_DEVICE

namespace Lumenar::Core::Kelm::Device {

/// Index of the device thread that this host thread runs.
extern constinit thread_local std::uint64_t emulated_thread_index;

inline std::uint64_t threadIndex() { return emulated_thread_index; }

inline std::uint64_t fetchAdd(std::uint64_t* counter, std::uint64_t amount) {
    return std::atomic_ref<std::uint64_t>(*counter).fetch_add(amount, std::memory_order_relaxed);
}

inline void setFlag(std::uint32_t* flag) {
    std::atomic_ref<std::uint32_t>(*flag).store(1, std::memory_order_relaxed);
}

/// Runs the threads [first, last) of a launch. With an `order`, thread order[i] runs in place of
/// thread i.
using ThreadRange = void (*)(const void* launch, std::uint64_t first, std::uint64_t last,
                             const std::uint64_t* order);

/// Calls `range`, on one or several host threads, until each of `thread_count` threads has run.
void runThreads(ThreadRange range, const void* launch, std::uint64_t thread_count);

/// Begins a library call. Throws std::runtime_error if the device fails it.
void beginLibraryCall();

/// The kernel is a template argument, so that the compiler inlines it into the loop over its
/// threads.
template <auto kernel, class... Arguments>
void launch(std::uint32_t blocks, std::uint32_t block_size, const Arguments&... arguments) {
    static_assert(((sizeof(Arguments) <= max_argument_bytes) && ...));
    const auto run_one = [=] { kernel(arguments...); };
    const ThreadRange range = [](const void* launched, std::uint64_t first, std::uint64_t last,
                                 const std::uint64_t* order) {
        // A local copy: no thread's stores can alias it, so the arguments stay in registers.
        const auto run = *static_cast<const decltype(run_one)*>(launched);
        for (std::uint64_t i = first; i < last; ++i) {
            emulated_thread_index = order == nullptr ? i : order[i];
            run();
        }
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

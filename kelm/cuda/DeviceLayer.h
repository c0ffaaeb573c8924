#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

// The few device operations that the unit LookaheadCuda is written against. Under nvcc they are
// the CUDA runtime and Thrust (DeviceLayerCuda.h). Under a host compiler they are functions that
// the program is linked to (DeviceLayerHost.h): the emulated device, or the layer that reports no
// device. The link of the program fixes the layer.
//
// All work is ordered: an operation sees the finished effect of the operations before it. A copy
// returns when the data is in place.

namespace Lumenar::Core::Kelm::Device {

/// Outcome of an operation: 0 is success.
using Status = int;

/// The runtime's text for a status.
const char* statusText(Status status);

Status deviceCount(int& count);
Status currentDevice(int& device);
Status deviceName(int device, std::string& name);

/// One contiguous block, aligned at least to 8 bytes, its contents undefined.
Status allocateBytes(void*& block, std::uint64_t bytes);
Status releaseBlock(void* block);
Status upload(void* device, const void* host, std::uint64_t bytes);
Status download(void* host, const void* device, std::uint64_t bytes);
/// Sets bytes to 0.
Status clear(void* device, std::uint64_t bytes);
/// The status of a failed launch. Reading it resets it to success.
Status lastStatus();
/// Waits for all device work; the status of the first failure in it.
Status synchronise();

/// Allocates `count` elements. A byte count beyond 64 bits becomes the largest one, which no device
/// can allocate.
template <class T>
Status allocate(T*& block, std::uint64_t count) {
    constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
    void* bytes = nullptr;
    const Status status = allocateBytes(bytes, count > most / sizeof(T) ? most : count * sizeof(T));
    block = static_cast<T*>(bytes);
    return status;
}

/// nvcc splits a kernel argument up to this size into scalars. It reads a larger one through its
/// address.
inline constexpr std::size_t max_argument_bytes = 128;

/// Blocks of `block_size` threads that cover `range` thread indices.
constexpr std::uint32_t blocksFor(std::uint64_t range, std::uint32_t block_size) {
    return static_cast<std::uint32_t>((range + block_size - 1) / block_size);
}

}  // namespace Lumenar::Core::Kelm::Device

// Each implementation further gives, in the same namespace:
//
//   KELM_KERNEL name(arguments) {...}           a kernel; its arguments are trivially copyable, by
//                                               value, and of at most max_argument_bytes each
//   KELM_DEVICE                                 marks a helper of kernels
//   std::uint64_t threadIndex()                 the calling thread's index in its launch
//   std::uint64_t fetchAdd(std::uint64_t* counter, std::uint64_t amount)
//                                               atomic; returns the value before
//   void setFlag(std::uint32_t* flag)           atomic; the flag is 1 afterwards
//   void launch<kernel>(blocks, block_size, arguments...)
//                                               starts blocks * block_size threads
//   void sort(T* first, std::uint64_t count, Less less, Memory& memory)
//                                               in place; the order must be total
//   void exclusiveScan(const std::uint64_t* in, std::uint64_t count, std::uint64_t* out,
//                      Memory& memory)          running sums, starting at 0
//
// Sort and scan are library calls. They take their temporary device memory from `memory` (see
// TemporaryMemory). A failed library call throws the library's own exception.

#if defined(__CUDACC__)
#include "kelm/cuda/DeviceLayerCuda.h"
#else
#include "kelm/cuda/DeviceLayerHost.h"
#endif

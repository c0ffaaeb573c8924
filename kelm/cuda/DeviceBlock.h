#pragma once

#include <chrono>
#include <cstdint>
#include <utility>
#include <vector>

#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/DeviceLayer.h"

// Part of the unit LookaheadCuda: device memory that lives for one call, and the time that reports
// give.

namespace Lumenar::Core::Kelm {

namespace {

/// Threads in a block, for every kernel except windowKernel.
constexpr std::uint32_t block_size = 256;

inline double secondsBetween(std::chrono::steady_clock::time_point start,
                             std::chrono::steady_clock::time_point end) {
    const std::int64_t elapsed_ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count();
    return static_cast<double>(elapsed_ns) / 1e9;
}

/// Releases a block. Sets the pointer to null first, since a release that fails must not be
/// repeated.
template <class T>
void releaseChecked(T*& block, const char* what) {
    if (block == nullptr) return;
    checkCuda(Device::releaseBlock(std::exchange(block, nullptr)), what);
}

/// Releases a block where an error must not be reported.
template <class T>
void releaseQuietly(T* block) {
    if (block != nullptr) static_cast<void>(Device::releaseBlock(block));
}

/// A device block that lives for one call. release() reports a failure; the destructor, which also
/// runs when a step has thrown, does not.
template <class T>
class DeviceBlock {
public:
    DeviceBlock(std::uint64_t count, const char* what) : count_(count) {
        checkCuda(Device::allocate(block_, count), what);
    }
    DeviceBlock(const DeviceBlock&) = delete;
    DeviceBlock& operator=(const DeviceBlock&) = delete;
    ~DeviceBlock() { releaseQuietly(block_); }

    T* data() const { return block_; }
    void release(const char* what) { releaseChecked(block_, what); }
    void clear(const char* what) { checkCuda(Device::clear(block_, count_ * sizeof(T)), what); }
    void upload(const std::vector<T>& values, const char* what) {
        checkCuda(Device::upload(block_, values.data(), values.size() * sizeof(T)), what);
    }
    std::vector<T> download(const char* what) const {
        std::vector<T> values(count_);
        checkCuda(Device::download(values.data(), block_, count_ * sizeof(T)), what);
        return values;
    }

private:
    T* block_ = nullptr;
    std::uint64_t count_;
};

}  // namespace

}  // namespace Lumenar::Core::Kelm

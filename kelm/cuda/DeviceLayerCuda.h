#pragma once

// Part of DeviceLayer.h: the device operations on the CUDA runtime and Thrust.

#include <cuda_runtime.h>
#include <thrust/scan.h>
#include <thrust/sort.h>
#include <thrust/system/cuda/execution_policy.h>

#define KELM_KERNEL __global__ void
#define KELM_DEVICE __device__

namespace Lumenar::Core::Kelm::Device {

KELM_DEVICE inline std::uint64_t threadIndex() {
    return static_cast<std::uint64_t>(blockIdx.x) * blockDim.x + threadIdx.x;
}

KELM_DEVICE inline std::uint64_t fetchAdd(std::uint64_t* counter, std::uint64_t amount) {
    static_assert(sizeof(unsigned long long) == sizeof(std::uint64_t));
    return atomicAdd(reinterpret_cast<unsigned long long*>(counter),
                     static_cast<unsigned long long>(amount));
}

KELM_DEVICE inline void setFlag(std::uint32_t* flag) { atomicOr(flag, 1U); }

template <auto kernel, class... Arguments>
void launch(std::uint32_t blocks, std::uint32_t block_size, const Arguments&... arguments) {
    kernel<<<blocks, block_size>>>(arguments...);
}

// par_nosync: the default stream orders library calls with everything around them, and `memory`
// outlives the call, so neither has to wait for the device.

template <class T, class Less, class Memory>
void sort(T* first, std::uint64_t count, Less less, Memory& memory) {
    thrust::sort(thrust::cuda::par_nosync(memory), first, first + count, less);
}

template <class Memory>
void exclusiveScan(const std::uint64_t* in, std::uint64_t count, std::uint64_t* out,
                   Memory& memory) {
    thrust::exclusive_scan(thrust::cuda::par_nosync(memory), in, in + count, out, std::uint64_t{0});
}

inline const char* statusText(Status status) {
    return cudaGetErrorString(static_cast<cudaError_t>(status));
}

/// Returns the status of a runtime call. The runtime also keeps the status of a failed call; it is
/// reset here, or lastStatus would report it for the next launch.
inline Status settled(cudaError_t status) {
    if (status != cudaSuccess) static_cast<void>(cudaGetLastError());
    return status;
}

inline Status deviceCount(int& count) { return settled(cudaGetDeviceCount(&count)); }
inline Status currentDevice(int& device) { return settled(cudaGetDevice(&device)); }
inline Status deviceName(int device, std::string& name) {
    cudaDeviceProp properties;
    const Status status = settled(cudaGetDeviceProperties(&properties, device));
    if (status == cudaSuccess) name = properties.name;
    return status;
}
inline Status allocateBytes(void*& block, std::uint64_t bytes) {
    return settled(cudaMalloc(&block, bytes));
}
inline Status releaseBlock(void* block) { return settled(cudaFree(block)); }
inline Status upload(void* device, const void* host, std::uint64_t bytes) {
    return settled(cudaMemcpy(device, host, bytes, cudaMemcpyHostToDevice));
}
inline Status download(void* host, const void* device, std::uint64_t bytes) {
    return settled(cudaMemcpy(host, device, bytes, cudaMemcpyDeviceToHost));
}
inline Status clear(void* device, std::uint64_t bytes) {
    return settled(cudaMemset(device, 0, bytes));
}
inline Status lastStatus() { return cudaGetLastError(); }
inline Status synchronise() { return settled(cudaDeviceSynchronize()); }

}  // namespace Lumenar::Core::Kelm::Device

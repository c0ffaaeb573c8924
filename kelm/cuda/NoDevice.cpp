// The device layer of a program built without CUDA: there is no device, and every operation fails.

#include <stdexcept>

#include "kelm/cuda/DeviceLayer.h"

namespace Lumenar::Core::Kelm::Device {

namespace {

constexpr Status no_device = 100;

}  // namespace

constinit thread_local std::uint64_t emulated_thread_index = 0;

const char* statusText(Status status) {
    return status == 0 ? "no error" : "this program was built without CUDA";
}

Status deviceCount(int& count) {
    count = 0;
    return no_device;
}
Status currentDevice(int&) { return no_device; }
Status deviceName(int, std::string&) { return no_device; }
Status allocateBytes(void*&, std::uint64_t) { return no_device; }
Status releaseBlock(void*) { return no_device; }
Status upload(void*, const void*, std::uint64_t) { return no_device; }
Status download(void*, const void*, std::uint64_t) { return no_device; }
Status clear(void*, std::uint64_t) { return no_device; }
Status lastStatus() { return no_device; }
Status synchronise() { return no_device; }

void runThreads(ThreadRange, const void*, std::uint64_t) {}
void beginLibraryCall() { throw std::runtime_error(statusText(no_device)); }

}  // namespace Lumenar::Core::Kelm::Device

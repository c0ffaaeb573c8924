#include "kelm/cuda/EmulatedDevice.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "kelm/core/SplitMix64.h"
#include "kelm/cuda/DeviceLayer.h"

namespace Lumenar::Core::Kelm::Device {

constinit thread_local std::uint64_t emulated_thread_index = 0;

namespace {

using Emulation::Counts;

constexpr Status success = 0;
constexpr Status out_of_memory = 2;
constexpr Status no_device = 100;

/// The largest block that the device allocates. It is far below the host's limit, since filling a
/// block touches all of it.
constexpr std::uint64_t max_block_bytes = std::uint64_t{1} << 34;

/// With fewer device threads for each host thread, waking the workers costs more than they save.
constexpr std::uint64_t min_threads_per_worker = 512;

/// Host threads that wait for launches. The first launch that needs them starts them.
class Workers {
public:
    ~Workers() { stop(); }

    void setCount(unsigned count) {
        stop();
        count_ = std::max(count, 1U);
    }

    /// Runs all threads of a launch. The calling thread runs a share itself.
    void run(ThreadRange range, const void* launch, std::uint64_t thread_count,
             const std::uint64_t* order) {
        const auto shares = static_cast<unsigned>(std::min<std::uint64_t>(
            count_, std::max<std::uint64_t>(thread_count / min_threads_per_worker, 1)));
        if (shares == 1) {
            range(launch, 0, thread_count, order);
            return;
        }
        start();
        {
            const std::lock_guard lock(mutex_);
            job_ = {range, launch, thread_count, order, shares};
            running_ = static_cast<unsigned>(threads_.size());
            ++generation_;
        }
        wake_.notify_all();
        runShare(job_, 0);
        const auto finished = [&] { return running_ == 0; };
        if (spinUntil(finished)) return;
        std::unique_lock lock(mutex_);
        done_.wait(lock, finished);
    }

private:
    struct Job {
        ThreadRange range = nullptr;
        const void* launch = nullptr;
        std::uint64_t thread_count = 0;
        const std::uint64_t* order = nullptr;
        unsigned shares = 0;
    };

    static void runShare(const Job& job, unsigned share) {
        if (share >= job.shares) return;
        const std::uint64_t size = (job.thread_count + job.shares - 1) / job.shares;
        const std::uint64_t first = std::min(share * size, job.thread_count);
        const std::uint64_t last = std::min(first + size, job.thread_count);
        job.range(job.launch, first, last, job.order);
    }

    /// Waits without sleeping, since the next launch usually comes sooner than a sleeping thread
    /// wakes.
    template <class Condition>
    static bool spinUntil(Condition condition) {
        for (int i = 0; i < spins; ++i) {
            if (condition()) return true;
#if defined(__x86_64__)
            __builtin_ia32_pause();
#endif
        }
        return condition();
    }

    void start() {
        while (threads_.size() + 1 < count_) {
            const auto share = static_cast<unsigned>(threads_.size() + 1);
            // The present generation counts as seen, because its launch is over.
            threads_.emplace_back([this, share, seen = generation_.load()] { serve(share, seen); });
        }
    }

    void serve(unsigned share, std::uint64_t seen) {
        while (true) {
            const auto called = [&] { return stopping_ || generation_ != seen; };
            spinUntil(called);
            Job job;
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, called);
                if (stopping_) return;
                seen = generation_;
                job = job_;
            }
            runShare(job, share);
            if (--running_ == 0) {
                const std::lock_guard lock(mutex_);
                done_.notify_one();
            }
        }
    }

    void stop() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        for (std::thread& thread : threads_) thread.join();
        threads_.clear();
        stopping_ = false;
    }

    unsigned count_ = std::max(std::thread::hardware_concurrency(), 1U);
    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable done_;
    Job job_;
    std::atomic<std::uint64_t> generation_ = 0;
    std::atomic<unsigned> running_ = 0;
    std::atomic<bool> stopping_ = false;

    static constexpr int spins = 4000;
};

struct Emulator {
    bool present = true;
    std::optional<std::uint64_t> permutation_seed;
    std::vector<std::uint64_t> order;  ///< of the threads of the launch in progress
    std::uint64_t launches = 0;
    std::uint64_t operations = 0;
    Counts counts;
    std::optional<std::uint64_t> failing_operation;
    Status failing_status = success;
    Status last_status = success;
    std::uint64_t live_allocations = 0;
    Workers workers;

    /// Counts an operation, which is one of `calls`, and returns its status.
    Status begin(std::uint64_t Counts::*calls) {
        const std::uint64_t operation = operations++;
        Status status = present ? success : no_device;
        if (failing_operation == operation) {
            failing_operation.reset();
            status = failing_status;
        }
        if (status == success) ++(counts.*calls);
        return status;
    }

    /// A permuted order of the threads, or null. It differs from launch to launch and is the same
    /// each time the program runs.
    const std::uint64_t* permute(std::uint64_t thread_count) {
        if (!permutation_seed) return nullptr;
        order.resize(thread_count);
        std::iota(order.begin(), order.end(), std::uint64_t{0});
        std::uint64_t raw = *permutation_seed + splitmixOutput(launches);
        for (std::uint64_t i = thread_count; i > 1; --i) {
            raw += splitmix_increment;
            std::swap(order[i - 1], order[splitmixOutput(raw) % i]);
        }
        return order.data();
    }
};

Emulator& emulator() {
    static Emulator instance;
    return instance;
}

}  // namespace

const char* statusText(Status status) {
    switch (status) {
        case success:
            return "no error";
        case out_of_memory:
            return "out of memory";
        case no_device:
            return "no CUDA-capable device is detected";
        default:
            return "emulated device failure";
    }
}

Status deviceCount(int& count) {
    count = 0;
    if (const Status status = emulator().begin(&Counts::queries); status != success) return status;
    count = 1;
    return success;
}

Status currentDevice(int& device) {
    if (const Status status = emulator().begin(&Counts::queries); status != success) return status;
    device = 0;
    return success;
}

Status deviceName(int, std::string& name) {
    if (const Status status = emulator().begin(&Counts::queries); status != success) return status;
    name = "host emulation";
    return success;
}

Status allocateBytes(void*& block, std::uint64_t bytes) {
    block = nullptr;
    if (const Status status = emulator().begin(&Counts::allocations); status != success)
        return status;
    if (bytes > max_block_bytes) return out_of_memory;
    // Not zero, as on a device, so that a read before the first write shows.
    block = std::malloc(std::max<std::uint64_t>(bytes, 1));
    if (block == nullptr) return out_of_memory;
    std::memset(block, 0xa5, bytes);
    ++emulator().live_allocations;
    return success;
}

Status releaseBlock(void* block) {
    if (block == nullptr) return success;
    const Status status = emulator().begin(&Counts::releases);
    std::free(block);
    --emulator().live_allocations;
    return status;
}

Status upload(void* device, const void* host, std::uint64_t bytes) {
    if (const Status status = emulator().begin(&Counts::uploads); status != success) return status;
    emulator().counts.uploaded_bytes += bytes;
    if (bytes != 0) std::memcpy(device, host, bytes);
    return success;
}

Status download(void* host, const void* device, std::uint64_t bytes) {
    if (const Status status = emulator().begin(&Counts::downloads); status != success)
        return status;
    emulator().counts.downloaded_bytes += bytes;
    if (bytes != 0) std::memcpy(host, device, bytes);
    return success;
}

Status clear(void* device, std::uint64_t bytes) {
    if (const Status status = emulator().begin(&Counts::clears); status != success) return status;
    emulator().counts.cleared_bytes += bytes;
    if (bytes != 0) std::memset(device, 0, bytes);
    return success;
}

Status lastStatus() { return std::exchange(emulator().last_status, success); }

Status synchronise() { return emulator().begin(&Counts::synchronisations); }

void runThreads(ThreadRange range, const void* launch, std::uint64_t thread_count) {
    Emulator& device = emulator();
    device.last_status = device.begin(&Counts::launches);
    if (device.last_status != success) return;
    device.workers.run(range, launch, thread_count, device.permute(thread_count));
    ++device.launches;
    device.counts.threads += thread_count;
}

void beginLibraryCall() {
    if (const Status status = emulator().begin(&Counts::library_calls); status != success) {
        throw std::runtime_error(statusText(status));
    }
}

namespace Emulation {

void permuteThreads(std::optional<std::uint64_t> seed) {
    emulator().permutation_seed = seed;
    emulator().launches = 0;
}

void failOperation(std::uint64_t n, int status) {
    emulator().failing_operation = emulator().operations + n;
    emulator().failing_status = status;
}

void failNothing() { emulator().failing_operation.reset(); }

std::uint64_t operationCount() { return emulator().operations; }

Counts counts() { return emulator().counts; }

std::uint64_t liveAllocations() { return emulator().live_allocations; }

void setPresent(bool present) { emulator().present = present; }

void setWorkers(unsigned count) { emulator().workers.setCount(count); }

}  // namespace Emulation

}  // namespace Lumenar::Core::Kelm::Device

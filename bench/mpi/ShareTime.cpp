// The time of MpiRankGroup::share for contributions of equal length.
//
//   mpiexec -n 2 kelm-share-time
//
// Prints the fastest of 100 batches. Processor time is that of all ranks together, with the time in
// which they wait for one another.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

#include "kelm/mpi/MpiProcess.h"
#include "kelm/mpi/MpiRankGroup.h"

using namespace Lumenar::Core::Kelm;

namespace {

/// The sum over all ranks.
double sumOf(IRankGroup& group, double value) {
    Blob blob;
    appendF64(blob, value);
    double sum = 0.0;
    for (const BlobView other : group.share(blob)) {
        double term = 0.0;
        std::memcpy(&term, other.data(), sizeof term);
        sum += term;
    }
    return sum;
}

void measure(MpiRankGroup& group, std::size_t bytes, int calls) {
    const Blob own(bytes, 1);
    double wall_s = std::numeric_limits<double>::infinity();
    double processor_s = wall_s;
    // The slots grow in the first batch.
    for (int batch = 0; batch < 100; ++batch) {
        sumOf(group, 0.0);
        const auto start = std::chrono::steady_clock::now();
        const std::clock_t clock = std::clock();
        for (int i = 0; i < calls; ++i) group.share(own);
        const auto used = static_cast<double>(std::clock() - clock) / CLOCKS_PER_SEC;
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
        wall_s = std::min(wall_s, passed.count() / calls);
        processor_s = std::min(processor_s, sumOf(group, used) / calls);
    }
    if (group.rank() != 0) return;
    std::printf("%u ranks, %8zu bytes each: %10.2f us a call, %10.2f us of processor time\n",
                group.size(), bytes, wall_s * 1e6, processor_s * 1e6);
}

}  // namespace

int main() {
    const MpiProcess process;
    MpiRankGroup group = MpiRankGroup::world();
    measure(group, 8, 500);
    measure(group, 1'000, 500);
    measure(group, 30'000, 50);
    measure(group, 1'000'000, 4);
}

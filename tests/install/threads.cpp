// One window of two items, computed by the installed threaded backend and by the reference.
#include <cstring>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/threads/ThreadedCpuBackend.h"

int main() {
    using namespace Lumenar::Core::Kelm;
    const WindowWork work[2] = {{.pending_time = 3, .pending_bound = 10.0}, {.rng = 1}};
    Kernel::WindowResult expected[2], results[2];
    CpuWindowBackend().processWindow(work, {}, 10, 100, {}, {}, expected);
    ThreadedCpuBackend(2, 0).processWindow(work, {}, 10, 100, {}, {}, results);
    return expected[0].candidates == 1 && std::memcmp(results, expected, sizeof results) == 0 ? 0
                                                                                              : 1;
}

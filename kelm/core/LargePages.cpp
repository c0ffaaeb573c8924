#include "kelm/core/LargePages.h"

#ifdef __linux__
#include <sys/mman.h>
#endif

namespace Lumenar::Core::Kelm {

void adviseLargePages([[maybe_unused]] void* address, [[maybe_unused]] std::size_t bytes) noexcept {
#ifdef __linux__
    (void)madvise(address, bytes, MADV_HUGEPAGE);
#endif
}

}  // namespace Lumenar::Core::Kelm

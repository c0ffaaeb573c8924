// A job of one rank on the installed library.
#include "kelm/mpi/MpiProcess.h"
#include "kelm/mpi/MpiRankGroup.h"

int main() {
    using namespace Lumenar::Core::Kelm;
    const MpiProcess process;
    MpiRankGroup group = MpiRankGroup::world();
    const Blob blob = {1, 2, 3};
    const auto received = group.share(blob);
    return group.size() == 1 && received.size() == 1 &&
                   Blob(received[0].begin(), received[0].end()) == blob
               ? 0
               : 1;
}

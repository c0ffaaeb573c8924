// Three ranks, of which the last is lost. The whole job must end.
//
//   mpiexec -n 3 kelm-lose-rank throw|catch|kill FILE
//
// The ranks append what they do to FILE, because mpiexec may drop their last output.

#include <csignal>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "kelm/mpi/MpiProcess.h"
#include "kelm/mpi/MpiRankGroup.h"

using namespace Lumenar::Core::Kelm;

namespace {

void note(const std::string& file, const char* text) {
    std::ofstream(file, std::ios::app) << text << std::flush;
}

void run(std::string_view how, const std::string& file) {
    const MpiProcess process;
    MpiRankGroup group = MpiRankGroup::world();
    for (int i = 0; i < 10; ++i) group.share({});
    if (group.rank() == 2) {
        note(file, "met");
        if (how == "kill") std::raise(SIGKILL);
        throw std::runtime_error("of rank 2");
    }
    group.share({});
    note(file, ", did not wait");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 0;
    const std::string_view how = argv[1];
    const std::string file = argv[2];
    if (how != "catch") {
        run(how, file);
        return 0;
    }
    try {
        run(how, file);
    } catch (const std::runtime_error&) {
        note(file, ", left the scope of MpiProcess");
    }
    return 0;
}

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>

#include "fuzz/Subjects.h"

// Writes real snapshots as seeds of the fuzzers: FOLDER/<reader>/<number>.
int main(int argc, char** argv) {
    using namespace Lumenar::Core::Kelm::Fuzzing;
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    std::map<std::string, int> count;
    for (const Seed& seed : realSnapshots()) {
        const std::filesystem::path folder = std::filesystem::path(argv[1]) / seed.reader;
        std::filesystem::create_directories(folder);
        std::ofstream out(folder / std::to_string(count[seed.reader]++), std::ios::binary);
        out.write(reinterpret_cast<const char*>(seed.bytes.data()),
                  static_cast<std::streamsize>(seed.bytes.size()));
        if (!out.flush()) {
            std::fprintf(stderr, "cannot write to %s\n", folder.c_str());
            return 1;
        }
    }
    return 0;
}

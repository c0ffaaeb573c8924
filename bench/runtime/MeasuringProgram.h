#pragma once

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace Lumenar::Core::Kelm {

/// The main function of a measuring program. Calls run(arguments) without the program's name and
/// prints exceptions, followed by print_usage() for a bad argument. Returns the exit status.
template <class Run, class PrintUsage>
int runMeasuringProgram(const char* name, int argc, char** argv, Run run, PrintUsage print_usage) {
    try {
        run(std::vector<std::string_view>(argv + (argc > 0 ? 1 : 0), argv + argc));
        return EXIT_SUCCESS;
    } catch (const std::invalid_argument& failure) {
        std::fprintf(stderr, "%s: %s\n", name, failure.what());
        print_usage();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s: %s\n", name, failure.what());
    }
    return EXIT_FAILURE;
}

}  // namespace Lumenar::Core::Kelm

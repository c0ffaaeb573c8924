#pragma once

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <type_traits>

namespace Lumenar::Core::Kelm {

/// The report of a measuring process.
template <class Result>
struct Measured {
    Result result;
    std::uint64_t peak_bytes = 0;  ///< peak resident memory of the process
};

/// The child's side of measureInChild. It ends with _exit, so that nothing of the parent is flushed
/// or destroyed twice.
template <class Result, class Measure>
[[noreturn]] void reportTo(int pipe_end, Measure measure) {
    try {
        const Result result = measure();
        const bool written = write(pipe_end, &result, sizeof(result)) == sizeof(result);
        _exit(written ? EXIT_SUCCESS : EXIT_FAILURE);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "a measuring process: %s\n", failure.what());
        _exit(EXIT_FAILURE);
    }
}

/// Calls measure() in a child process and returns its result, which comes as bytes through a pipe.
/// The peak memory is then that of measure() alone.
/// Throws std::runtime_error if the process cannot be made or if measure() throws.
template <class Result, class Measure>
Measured<Result> measureInChild(Measure measure) {
    // A pipe passes so few bytes in one piece.
    static_assert(std::is_trivially_copyable_v<Result> && sizeof(Result) <= 4096);
    int ends[2] = {};
    if (pipe(ends) != 0) throw std::runtime_error("cannot make a pipe to a measuring process");
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("cannot start a measuring process");
    if (child == 0) reportTo<Result>(ends[1], measure);
    close(ends[1]);
    Measured<Result> measured;
    const bool complete =
        read(ends[0], &measured.result, sizeof(measured.result)) == sizeof(measured.result);
    close(ends[0]);
    int status = 0;
    rusage usage = {};
    while (wait4(child, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    if (!complete || status != 0) throw std::runtime_error("a measuring process failed");
    measured.peak_bytes = static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
    return measured;
}

}  // namespace Lumenar::Core::Kelm

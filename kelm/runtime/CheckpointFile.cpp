#include "kelm/runtime/CheckpointFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#ifdef __unix__
#include <fcntl.h>
#include <unistd.h>
#endif

#include "kelm/core/Blob.h"
#include "kelm/core/Failures.h"
#include "kelm/core/IRankGroup.h"
#include "kelm/runtime/CheckpointSummary.h"

namespace Lumenar::Core::Kelm {

namespace {

struct Close {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Close>;

[[noreturn]] void fail(const char* action, const std::string& path, const std::string& reason) {
    throw CheckpointFileError(CheckpointFileError::failed(action, path, reason));
}

bool forceToDisk([[maybe_unused]] std::FILE* file) {
#ifdef __unix__
    return fsync(fileno(file)) == 0;
#else
    return true;
#endif
}

/// Makes a rename in a folder last. Some file systems cannot do this, which is no error.
void forceFolderToDisk([[maybe_unused]] const std::filesystem::path& folder) {
#ifdef __unix__
    const int descriptor = open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return;
    (void)fsync(descriptor);
    (void)close(descriptor);
#endif
}

/// Returns whether all bytes are on the disk; errno has the reason if not.
bool writeAll(File file, BlobView bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size()) return false;
    if (std::fflush(file.get()) != 0 || !forceToDisk(file.get())) return false;
    return std::fclose(file.release()) == 0;
}

void replaceFile(const std::string& path, BlobView bytes) {
    // Behind a symbolic link, the file that it names is replaced.
    std::error_code error;
    std::filesystem::path replaced = std::filesystem::weakly_canonical(path, error);
    if (error) replaced = path;
    const std::string written = replaced.string() + ".new";
    File file(std::fopen(written.c_str(), "wb"));
    if (file == nullptr) fail("write", path, std::strerror(errno));
    if (!writeAll(std::move(file), bytes)) {
        const std::string reason = std::strerror(errno);
        std::filesystem::remove(written, error);
        fail("write", path, reason);
    }
    std::filesystem::rename(written, replaced, error);
    if (error) {
        std::error_code ignored;
        std::filesystem::remove(written, ignored);
        fail("write", path, error.message());
    }
    forceFolderToDisk(replaced.parent_path());
}

Blob readFile(const std::string& path) {
    const File file(std::fopen(path.c_str(), "rb"));
    if (file == nullptr) fail("read", path, std::strerror(errno));
    Blob bytes;
    Blob part(1 << 20);
    while (const std::size_t read = std::fread(part.data(), 1, part.size(), file.get())) {
        bytes.insert(bytes.end(), part.begin(), part.begin() + static_cast<std::ptrdiff_t>(read));
    }
    if (std::ferror(file.get()) != 0) fail("read", path, std::strerror(errno));
    return bytes;
}

}  // namespace

void saveCheckpoint(KelmRuntime& runtime, const std::string& path) {
    IRankGroup* const ranks = runtime.ranks();
    onEachRank(ranks, [&] {
        const Blob bytes = runtime.checkpoint();
        if (ranks == nullptr || ranks->rank() == 0) replaceFile(path, bytes);
    });
}

void loadCheckpoint(KelmRuntime& runtime, const std::string& path) {
    const Blob bytes = onEachRank(runtime.ranks(), [&] { return readFile(path); });
    restoreCheckpoint(runtime, bytes);
}

}  // namespace Lumenar::Core::Kelm

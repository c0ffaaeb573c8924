#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

#include "kelm/engine/SpikeRecord.h"

// A spike file is an array in the format .npy, version 1.0:
//
//   magic         8 bytes: 0x93, "NUMPY", 1, 0
//   header size   u16, 118
//   header        118 bytes: the text "{'descr': [('time', '<i8'), ('neuron', '<u8')],
//                 'fortran_order': False, 'shape': (", the number of spikes in 20 columns, the text
//                 ",), }", spaces and a line feed
//   spikes        time i64 in ns, neuron u64
//
// The data may be longer than the header says: a reader takes the number in the header.

namespace Lumenar::Core::Kelm {

/// A file of spikes that grows while a run goes on: append what KelmRuntime::takeSpikes returns. On
/// several ranks, let one of them append what networkLog returns before all of them take.
/// numpy.load(path, mmap_mode="r") reads it, also while it grows.
///
/// A reader sees the spikes of the last flush. A flush writes their number after their data, so the
/// file stays readable if the program is killed. This is not promised if the machine fails.
///
/// All functions but the destructor throw SpikeFileError, which names the file and the reason. A
/// reader then still sees the last flush, and the call may be repeated. Used by one thread at a
/// time.
class SpikeFile {
public:
    /// Creates an empty file. Replaces an existing one.
    static SpikeFile create(const std::string& path);
    /// Opens an existing file and removes all but the first `spikes` spikes. After a restore, pass
    /// KelmRuntime::takenSpikes(). Refuses, with nothing removed, a file that is no spike file or
    /// that holds fewer spikes.
    static SpikeFile resume(const std::string& path, std::uint64_t spikes);

    SpikeFile(SpikeFile&&) = default;
    SpikeFile& operator=(SpikeFile&&) = delete;
    /// Flushes, and ignores errors.
    ~SpikeFile();

    /// Writes spikes after the last ones.
    void append(std::span<const SpikeRecord> spikes);
    /// Writes the number of spikes, so that readers see all of them.
    void flush();
    /// The number of spikes, with those not yet flushed.
    std::uint64_t size() const { return size_; }

private:
    struct Close {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };

    SpikeFile(const std::string& path, const char* mode);
    void write(std::uint64_t offset, const void* bytes, std::size_t length);
    void writeHeader(std::uint64_t spikes);
    [[noreturn]] void fail(const char* action) const;

    std::string path_;
    std::unique_ptr<std::FILE, Close> file_;
    std::uint64_t size_ = 0;
    std::uint64_t flushed_ = 0;
};

}  // namespace Lumenar::Core::Kelm

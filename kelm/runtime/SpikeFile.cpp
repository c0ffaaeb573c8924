#include "kelm/runtime/SpikeFile.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string_view>
#include <system_error>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr std::string_view before_count(
    "\x93NUMPY\x01\0\x76\0{'descr': [('time', '<i8'), ('neuron', '<u8')], "
    "'fortran_order': False, 'shape': (",
    92);
constexpr std::size_t count_columns = 20;  // of the largest number
constexpr std::string_view behind_count(",), }          \n", 16);

using Header = std::array<char, before_count.size() + count_columns + behind_count.size()>;
static_assert(sizeof(Header) == 128, "data starts at a multiple of 64 bytes");

Header headerOf(std::uint64_t spikes) {
    Header header;
    const std::string count = std::to_string(spikes);
    char* at = header.data();
    at += before_count.copy(at, before_count.size());
    std::memset(at, ' ', count_columns);
    at += count_columns;
    count.copy(at - count.size(), count.size());
    behind_count.copy(at, behind_count.size());
    return header;
}

/// Whether `header` differs from that of a spike file in more than the number of spikes.
bool isForeign(Header header) {
    std::memset(header.data() + before_count.size(), ' ', count_columns - 1);
    header[before_count.size() + count_columns - 1] = '0';
    return header != headerOf(0);
}

}  // namespace

SpikeFile::SpikeFile(const std::string& path, const char* mode)
    : path_(path), file_(std::fopen(path.c_str(), mode)) {
    if (file_ == nullptr) fail("open");
    // Without a buffer a failed write leaves nothing behind that a later one would write.
    std::setvbuf(file_.get(), nullptr, _IONBF, 0);
}

SpikeFile SpikeFile::create(const std::string& path) {
    SpikeFile file(path, "w+b");
    file.writeHeader(0);
    return file;
}

SpikeFile SpikeFile::resume(const std::string& path, std::uint64_t spikes) {
    SpikeFile file(path, "r+b");
    Header header;
    const std::size_t read = std::fread(header.data(), 1, sizeof(Header), file.file_.get());
    if (std::ferror(file.file_.get()) != 0) file.fail("read");
    if (read != sizeof(Header) || isForeign(header)) {
        throw SpikeFileError(SpikeFileError::otherKind(path));
    }
    std::error_code error;
    const std::uintmax_t bytes = std::filesystem::file_size(path, error);
    if (!error) {
        const std::uint64_t found = (bytes - sizeof(Header)) / sizeof(SpikeRecord);
        if (found < spikes) throw SpikeFileError(SpikeFileError::shorter(path, found, spikes));
        // The number comes first, so that the file is readable at each moment.
        file.writeHeader(spikes);
        std::filesystem::resize_file(path, sizeof(Header) + spikes * sizeof(SpikeRecord), error);
    }
    if (error) throw SpikeFileError(SpikeFileError::failed("resume", path, error.message()));
    file.size_ = file.flushed_ = spikes;
    return file;
}

SpikeFile::~SpikeFile() {
    if (file_ == nullptr) return;
    try {
        flush();
    } catch (const SpikeFileError&) {
        // A reader sees the flush before.
    }
}

void SpikeFile::append(std::span<const SpikeRecord> spikes) {
    write(sizeof(Header) + size_ * sizeof(SpikeRecord), spikes.data(), spikes.size_bytes());
    size_ += spikes.size();
}

void SpikeFile::flush() {
    if (flushed_ == size_) return;
    writeHeader(size_);
    flushed_ = size_;
}

void SpikeFile::writeHeader(std::uint64_t spikes) {
    const Header header = headerOf(spikes);
    write(0, header.data(), sizeof(Header));
}

void SpikeFile::write(std::uint64_t offset, const void* bytes, std::size_t length) {
    if (length == 0) return;
    if (offset > static_cast<std::uint64_t>(std::numeric_limits<long>::max())) {
        errno = EFBIG;
        fail("write");
    }
    if (std::fseek(file_.get(), static_cast<long>(offset), SEEK_SET) != 0 ||
        std::fwrite(bytes, 1, length, file_.get()) != length) {
        fail("write");
    }
}

void SpikeFile::fail(const char* action) const {
    throw SpikeFileError(
        SpikeFileError::failed(action, path_, std::generic_category().message(errno)));
}

}  // namespace Lumenar::Core::Kelm

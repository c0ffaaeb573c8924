#include "kelm/runtime/SpikeFile.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// A path in a folder of its own, which is removed at the end.
class SpikeFileTest : public testing::Test {
protected:
    SpikeFileTest() { std::filesystem::create_directory(folder); }
    ~SpikeFileTest() override { std::filesystem::remove_all(folder); }

    std::string content() const {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void fill(const std::string& bytes) const {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    }
    /// The bytes of a file of these spikes, written by hand.
    static std::string fileOf(const std::string& count, const std::vector<SpikeRecord>& spikes) {
        std::string bytes = "\x93NUMPY\x01";
        bytes += '\0';
        bytes += "\x76";
        bytes += '\0';
        bytes +=
            "{'descr': [('time', '<i8'), ('neuron', '<u8')], 'fortran_order': False, "
            "'shape': (";
        bytes += std::string(20 - count.size(), ' ') + count + ",), }          \n";
        for (const SpikeRecord& spike : spikes) {
            for (const std::uint64_t word :
                 {static_cast<std::uint64_t>(spike.time), std::uint64_t{spike.neuron}}) {
                for (int i = 0; i < 8; ++i) bytes += static_cast<char>(word >> (8 * i) & 0xff);
            }
        }
        return bytes;
    }

    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() /
        ("kelm-spike-file-" +
         std::string(testing::UnitTest::GetInstance()->current_test_info()->name()));
    const std::string path = (folder / "spikes.npy").string();
    const std::vector<SpikeRecord> spikes = {
        {1, 2}, {1, 300}, {0x0102030405060708, 7}, {last_model_time, 1}};
};

TEST_F(SpikeFileTest, IsWholeAfterEachFlush) {
    fill("something that was there");
    std::optional<SpikeFile> file(SpikeFile::create(path));
    EXPECT_EQ(content(), fileOf("0", {}));
    file->append({spikes.data(), 2});
    EXPECT_EQ(content(), fileOf("0", {spikes[0], spikes[1]})) << "the number comes last";
    file->flush();
    EXPECT_EQ(content(), fileOf("2", {spikes[0], spikes[1]}));
    file->append({});
    file->append({spikes.data() + 2, 2});
    EXPECT_EQ(file->size(), 4U);
    SpikeFile moved(std::move(*file));
    file.reset();
    EXPECT_EQ(content(), fileOf("2", spikes));
    { const SpikeFile last(std::move(moved)); }
    EXPECT_EQ(content(), fileOf("4", spikes));
    ASSERT_EQ(content().size(), 128U + 4 * 16);
}

TEST_F(SpikeFileTest, GoesOnAtAnyNumberOfSpikesThatItHolds) {
    // A program that was killed has written a part of a spike, and no number.
    fill(fileOf("2", spikes) + "part");
    {
        SpikeFile file = SpikeFile::resume(path, 3);
        EXPECT_EQ(file.size(), 3U);
        EXPECT_EQ(content(), fileOf("3", {spikes[0], spikes[1], spikes[2]}));
        file.append({spikes.data() + 3, 1});
    }
    EXPECT_EQ(content(), fileOf("4", spikes));
    { const SpikeFile file = SpikeFile::resume(path, 4); }
    EXPECT_EQ(content(), fileOf("4", spikes));
    SpikeFile::resume(path, 0);
    EXPECT_EQ(content(), fileOf("0", {}));
}

TEST_F(SpikeFileTest, NamesTheFileAndTheReasonOfARefusal) {
    const auto refuses = [&](std::uint64_t count, const std::string& text) {
        const std::string before = content();
        expectThrows<SpikeFileError>([&] { SpikeFile::resume(path, count); }, text);
        EXPECT_EQ(content(), before);
    };
    refuses(0, "cannot open spike file '" + path + "': No such file or directory");
    fill(fileOf("3", {spikes[0], spikes[1]}) + "part of one");
    refuses(3, "spike file '" + path + "' holds 2 spikes, fewer than 3");
    const std::string kind = "'" + path + "' is no spike file";
    std::string other = fileOf("2", spikes);
    other[26] = 'T';
    for (const std::string& bytes :
         {std::string(), fileOf("2", {}).substr(0, 127), other, fileOf("2", spikes).substr(1)}) {
        fill(bytes);
        refuses(0, kind);
    }
    const std::string nowhere = (folder / "missing" / "spikes.npy").string();
    expectThrows<SpikeFileError>(
        [&] { SpikeFile::create(nowhere); },
        "cannot open spike file '" + nowhere + "': No such file or directory");
}

// A device that is always full.
TEST(SpikeFileFailure, OfTheSystemIsReportedAtOnce) {
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no device that is always full";
    expectThrows<SpikeFileError>([] { SpikeFile::create("/dev/full"); },
                                 "cannot write spike file '/dev/full': No space left on device");
}

TEST_F(SpikeFileTest, IsAnArrayForNumPy) {
    const std::string python = "/usr/bin/python3 -c ";
    if (std::system((python + "'import numpy' 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "no NumPy";
    }
    SpikeFile file = SpikeFile::create(path);
    file.append(spikes);
    file.flush();
    file.append(spikes);
    const std::string check =
        "'import numpy, sys\n"
        "a = numpy.load(sys.argv[1], mmap_mode=\"r\")\n"
        "assert a.dtype == [(\"time\", \"<i8\"), (\"neuron\", \"<u8\")], a.dtype\n"
        "assert a.shape == (4,), a.shape\n"
        "assert a[\"time\"].tolist() == [1, 1, 0x0102030405060708, 2**63 - 1]\n"
        "assert a[\"neuron\"].tolist() == [2, 300, 7, 1]\n"
        "assert (numpy.load(sys.argv[1]) == a).all()' ";
    EXPECT_EQ(std::system((python + check + path).c_str()), 0);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm

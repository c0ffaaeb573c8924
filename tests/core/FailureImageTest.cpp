#include "kelm/core/FailureImage.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

struct OtherError : std::exception {
    const char* what() const noexcept override { return "other"; }
};

/// Expects that `thrown` comes out of its image as an `Expected` with this text.
template <class Expected, class Thrown>
void expectComesAs(const Thrown& thrown, const std::string& text) {
    const Blob image = failureImage(std::make_exception_ptr(thrown));
    expectThrows<Expected>([&] { throwFailure(image); }, text);
}

TEST(FailureImage, KeepsClassAndText) {
    expectComesAs<TimeOverflow>(TimeOverflow("late"), "late");
    expectComesAs<SynapseRoutingViolation>(SynapseRoutingViolation("far"), "far");
    expectComesAs<Runtime::ReplayExhausted>(Runtime::ReplayExhausted("end"), "end");
    expectComesAs<InvalidSynapse>(InvalidSynapse("no detail"), "no detail");
    expectComesAs<std::bad_alloc>(std::bad_alloc(), "std::bad_alloc");
    expectComesAs<std::out_of_range>(std::out_of_range("a"), "a");
    expectComesAs<std::invalid_argument>(std::invalid_argument(""), "");
    expectComesAs<std::logic_error>(std::logic_error("c"), "c");
    expectComesAs<std::runtime_error>(std::runtime_error("d"), "d");
}

TEST(FailureImage, OfAnUnknownClassIsOfTheNearestBase) {
    struct Derived : RefusedCall {
        using RefusedCall::RefusedCall;
    };
    expectComesAs<RefusedCall>(Derived("derived"), "derived");
    expectComesAs<std::logic_error>(std::domain_error("domain"), "domain");
    expectComesAs<std::bad_alloc>(std::bad_array_new_length(), "std::bad_alloc");
    expectComesAs<std::runtime_error>(OtherError(), "other");
    expectComesAs<std::runtime_error>(42, "an exception that is no std::exception");
}

TEST(FailureImage, KeepsTheDetail) {
    const FailureDetail detail = {"synapse", std::uint64_t{1} << 40, "delay", "5 ns", "at least 7"};
    const Blob image =
        failureImage(std::make_exception_ptr(withDetail(InvalidSynapse("text"), detail)));
    try {
        throwFailure(image);
    } catch (const InvalidSynapse& failure) {
        ASSERT_NE(failure.detail(), nullptr);
        EXPECT_EQ(failure.detail()->text(), detail.text());
    }
}

TEST(FailureImage, RefusesForgedBytes) {
    const Blob sound = failureImage(std::make_exception_ptr(
        withDetail(InvalidSynapse("text"), {"synapse", 3, "delay", "5 ns", "more"})));
    Blob longer = sound;
    longer.push_back(0);
    std::vector<Blob> forged = {longer, withValueAt(sound, 0, std::uint64_t{0}),
                                withValueAt(sound, 8, std::uint32_t{33}),
                                withValueAt(sound, 12, ~std::uint64_t{0})};
    for (std::size_t size = 0; size < sound.size(); ++size) {
        forged.emplace_back(sound.begin(), sound.begin() + static_cast<std::ptrdiff_t>(size));
    }
    for (const Blob& image : forged) {
        expectThrows<std::runtime_error>([&] { throwFailure(image); },
                                         "a failure of another process cannot be read");
    }
}

// A class that is missing in the list would come out as its base.
TEST(FailureImage, ListsEveryClassOfFailures) {
    const std::string folder = KELM_CORE_FOLDER;
    std::ifstream header(folder + "/Failures.h");
    std::ostringstream source;
    source << std::ifstream(folder + "/FailureImage.cpp").rdbuf();
    std::size_t classes = 0;
    for (std::string line; std::getline(header, line);) {
        if (!line.starts_with("class ")) continue;
        const std::string name = line.substr(6, line.find(' ', 6) - 6);
        EXPECT_NE(source.str().find(name + ','), std::string::npos) << name;
        ++classes;
    }
    EXPECT_GE(classes, 28U);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm

#include "compare/Grammar.h"
#include "fuzz/Fuzzing.h"
#include "fuzz/Mutation.h"
#include "fuzz/Subjects.h"
#include "kelm/core/RandomContext.h"

using namespace Lumenar::Core::Kelm;
using namespace Lumenar::Core::Kelm::Fuzzing;
using Lumenar::Core::Runtime::RandomContext;

namespace {

/// Finds every stream of a snapshot in the context that wrote it, and advances it.
void walkStreams(RandomContext& context, RandomContext& twin) {
    const Blob blob = context.snapshot();
    BlobReader in(BlobView(blob).subspan(16));
    std::uint32_t count = 0;
    require(in.readU32(count), "a snapshot has a count");
    for (; count != 0; --count) {
        std::uint32_t length = 0;
        BlobView bytes;
        std::uint64_t index = 0, state = 0, cursor = 0;
        std::uint8_t mode = 0;
        std::vector<std::uint64_t> tape;
        require(in.readU32(length) && in.readView(length, bytes) && in.readU64(index) &&
                    in.readU64(state) && in.readU8(mode) && in.readU64(cursor) &&
                    in.readSequence(tape),
                "a snapshot ends behind its streams");
        require(mode <= 2 && cursor <= tape.size(), "a cursor lies on its tape");
        const std::string name(bytes.begin(), bytes.end());
        const RandomContext::Stream stream = context.streamFor(name, index);
        require(stream.state() == state, "a stream has its state");
        require(stream.tape().size() == tape.size(), "a stream has its tape");
        const std::uint64_t ahead = state + 3 * splitmix_increment;
        if (!sameFor(context, twin, [&](RandomContext& c) { c.advanceTo(name, index, ahead); })) {
            continue;
        }
        require(stream.state() == ahead, "a stream arrives");
        if (mode == 1) {
            require(stream.tape().size() == tape.size() + 3, "a recording grows");
        }
    }
    require(in.atEnd(), "a snapshot ends behind its streams");
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned int seed) {
    return mutateBy(Compare::random_grammar, data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    RandomContext context(1);
    RandomContext twin(2);
    static const Blob past = longestPast(RandomContext(1), "RandomContext");
    if (!acceptedByTwins(context, twin, past, {data, size})) return 0;
    walkStreams(context, twin);
    sameFor(context, twin, [](RandomContext& c) {
        c.next(c.streamFor("spontaneous", 1));
        c.record("spontaneous", 0);
        c.advanceTo("spontaneous", 0, c.rawState("spontaneous", 0) + 2 * splitmix_increment);
        c.replay("stimulus", 0, c.streamFor("spontaneous", 0).tape());
        c.stopTape("spontaneous", 0);
        c.advanceTo("stimulus", 0, c.rawState("stimulus", 0) + splitmix_increment);
    });
    requireRestorable(context, RandomContext(3));
    return 0;
}

#include "kelm/runtime/Checkpoint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/BlobLayout.h"
#include "tests/support/ComposedModel.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

constexpr const char* sequences[] = {"phase log", "spikes",       "samples",         "causes",
                                     "channels",  "observations", "intervention log"};

/// A small model with every part on, and its checkpoint in the middle of the run.
struct Subject {
    ComposedModel model;
    Blob bytes;
    BlobLayout layout;

    /// Whether every field holds something, and something is still to happen, in so few bytes that
    /// each of them can be tried.
    bool isFull() const {
        if (bytes.size() > 10'000) return false;
        CpuWindowBackend cpu;
        const auto twin = model.build(cpu);
        if (!twin->restore(bytes)) return false;
        const std::uint64_t spikes = twin->profile().accepted;
        const std::size_t samples = twin->recorder()->samples().size();
        const auto journal = twin->learningControl()->journal();
        const bool learned = std::any_of(journal.begin(), journal.end(), [](const auto& entry) {
            return entry.kind == JournalKind::update && entry.delta != 0.0;
        });
        const auto log = twin->phaseLog();
        const bool in_phase = std::any_of(log.begin(), log.end(),
                                          [](const auto& entry) { return !entry.phases.empty(); });
        twin->run();
        return learned && in_phase && spikes > 5 && twin->profile().accepted > spikes + 2 &&
               twin->recorder()->samples().size() > samples &&
               std::all_of(std::begin(sequences), std::end(sequences),
                           [&](const char* field) { return layout.number(bytes, field) != 0; });
    }
};

/// The first small model whose checkpoint is full.
const Subject& fullSubject() {
    static const Subject subject = [] {
        for (std::uint64_t seed = 1; seed < 10'000; ++seed) {
            Subject candidate{ComposedModel(seed, {4, 14, 4}), {}, {}};
            CpuWindowBackend cpu;
            const auto writer = candidate.model.build(cpu);
            std::vector<std::string> outcomes;
            const ModelTime middle = candidate.model.network().horizon / 2;
            for (std::size_t step = 0; writer->position() < middle; ++step) {
                if (!candidate.model.performAll(step, step + 1, *writer, outcomes)) break;
            }
            candidate.bytes = writer->checkpoint();
            candidate.layout = BlobLayout::ofCheckpoint(candidate.bytes, true);
            if (candidate.isFull()) return candidate;
        }
        throw std::runtime_error("no small model has a full checkpoint");
    }();
    return subject;
}

class CheckpointTest : public testing::Test {
protected:
    /// Expects a fresh runtime to refuse `forged` and to stay as it was.
    void expectRefused(BlobView forged) {
        const auto fresh = model.build(cpu);
        const Blob before = fresh->checkpoint();
        EXPECT_FALSE(fresh->restore(forged));
        EXPECT_EQ(fresh->checkpoint(), before);
    }

    std::size_t begin(std::string_view field) const { return layout.field(field).begin; }
    std::size_t end(std::string_view field) const { return layout.field(field).end; }

    CpuWindowBackend cpu;
    const ComposedModel& model = fullSubject().model;
    const Blob& bytes = fullSubject().bytes;
    const BlobLayout& layout = fullSubject().layout;
};

TEST_F(CheckpointTest, IsWrittenAgainByTheRuntimeThatReadIt) {
    const auto fresh = model.build(cpu);
    ASSERT_TRUE(fresh->restore(bytes));
    EXPECT_EQ(firstCheckpointDifference(fresh->checkpoint(), bytes, true), "");
    EXPECT_EQ(fresh->phaseLog().size(), layout.number(bytes, "phase log"));
    EXPECT_EQ(fresh->recorder()->spikes().size(), layout.number(bytes, "spikes"));
    EXPECT_EQ(fresh->recorder()->causes().size(), layout.number(bytes, "causes"));
    EXPECT_EQ(fresh->commitCount(), layout.number(bytes, "commit count"));
    EXPECT_EQ(fresh->position(), static_cast<ModelTime>(layout.number(bytes, "position")));
}

TEST_F(CheckpointTest, HeadIsWrittenAsTold) {
    const std::string text(bytes.begin(), bytes.begin() + 36);
    EXPECT_EQ(text.substr(0, 8), "KELMV1\r\n");
    EXPECT_EQ(layout.number(bytes, "engine version"), 12);
    EXPECT_EQ(text.substr(16, 12), "2.0.0-beta.1");
    EXPECT_EQ(layout.number(bytes, "label"), model.build(cpu)->label().size());
    EXPECT_EQ(layout.number(bytes, "seed"), model.network().run_seed);
    // The tag's letters read RECSTATE from the most significant byte on.
    const std::string tag(bytes.begin() + static_cast<std::ptrdiff_t>(begin("extension tag")),
                          bytes.begin() + static_cast<std::ptrdiff_t>(end("extension tag")));
    EXPECT_EQ(tag, "ETATSCER");
}

TEST_F(CheckpointTest, IsRefusedCutShortAnywhereButBehindTheCommitCount) {
    const auto fresh = model.build(cpu);
    const Blob before = fresh->checkpoint();
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        if (length == end("commit count")) continue;
        ASSERT_FALSE(fresh->restore(BlobView(bytes).first(length))) << layout.place(length);
    }
    Blob longer = bytes;
    longer.push_back(0);
    EXPECT_FALSE(fresh->restore(longer));
    EXPECT_EQ(fresh->checkpoint(), before);
}

TEST_F(CheckpointTest, WithoutItsExtensionLeavesTheSamplesWithoutIt) {
    const auto whole = model.build(cpu);
    const auto cut = model.build(cpu);
    ASSERT_TRUE(whole->restore(bytes));
    ASSERT_TRUE(cut->restore(BlobView(bytes).first(end("commit count"))));
    const auto expected = whole->recorder()->samples();
    const auto samples = cut->recorder()->samples();
    ASSERT_EQ(samples.size(), expected.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        EXPECT_EQ(samples[i].membrane, expected[i].membrane);
        EXPECT_EQ(samples[i].oscillator_phases, expected[i].oscillator_phases);
        EXPECT_FALSE(expected[i].adaptation.empty());
        EXPECT_TRUE(samples[i].adaptation.empty());
        EXPECT_TRUE(samples[i].refractory_left.empty());
        EXPECT_TRUE(samples[i].next_candidate.empty());
    }
    // All else is in force: only the extension differs from now on.
    const Blob again = cut->checkpoint();
    EXPECT_TRUE(std::equal(again.begin(),
                           again.begin() + static_cast<std::ptrdiff_t>(end("commit count")),
                           bytes.begin()));
}

TEST_F(CheckpointTest, OfAnotherVersionIsThrownOut) {
    const auto fresh = model.build(cpu);
    const Blob before = fresh->checkpoint();
    for (const std::string version : {"2.0.0-beta.2", "2.0.0-beta.10", "2.0.0-beta.", ""}) {
        Blob forged(bytes.begin(), bytes.begin() + 8);
        appendU64(forged, version.size());
        appendBytes(forged, version.data(), version.size());
        forged.insert(forged.end(),
                      bytes.begin() + static_cast<std::ptrdiff_t>(end("engine version")),
                      bytes.end());
        expectThrows<IncompatibleCheckpoint>(
            [&] { EXPECT_FALSE(fresh->restore(forged)); },
            "checkpoint engine_version '" + version + "' is incompatible with '2.0.0-beta.1'");
    }
    EXPECT_EQ(fresh->checkpoint(), before);
}

TEST_F(CheckpointTest, UnderAnotherIdentityIsRefused) {
    Blob forged = bytes;
    forged[7] = '\r';
    expectRefused(forged);
    forged = bytes;
    forged[begin("label") + 8] ^= 1;
    expectRefused(forged);
    for (const char* field : {"config id", "seed"}) {
        expectRefused(withNumberAt(bytes, begin(field), layout.number(bytes, field) + 1));
    }
}

TEST_F(CheckpointTest, IsRefusedWithACountThatItsBytesCannotHold) {
    for (const char* field :
         {"engine version", "label", "engine", "plasticity", "learning", "oscillators", "phase log",
          "spikes", "samples", "causes", "channels", "prediction count", "observations",
          "intervention log", "extension"}) {
        SCOPED_TRACE(field);
        const std::uint64_t count = layout.number(bytes, field);
        for (const std::uint64_t forged :
             {count + 1, count - 1, std::uint64_t{1} << 40, std::uint64_t{1} << 60,
              (std::uint64_t{1} << 63) + count, ~std::uint64_t{0}}) {
            try {
                expectRefused(withNumberAt(bytes, begin(field), forged));
            } catch (const IncompatibleCheckpoint&) {
                EXPECT_STREQ(field, "engine version");  // it has taken in what follows
            }
        }
    }
    expectRefused(withNumberAt(bytes, begin("extension tag"), 0x4554415453434552));
}

TEST_F(CheckpointTest, GapsAndFlagsComeBackAsZeroAndOne) {
    Blob dirty = bytes;
    const BlobLayout::Field& log = layout.field("phase log");
    // The first entry with a phase: time, neuron, count, then images with a gap at 4.
    std::size_t entry = log.begin + 8;
    while (numberAt(bytes, entry + 16) == 0) entry += 24;
    ASSERT_LT(entry, log.end);
    dirty[entry + 24 + 4] = 0xff;
    const BlobLayout::Field& switches = layout.field("switches");
    for (std::size_t i = switches.begin; i < switches.end; ++i) {
        if (dirty[i] == 1) dirty[i] = 0x40;
    }
    // The second channel: count, an item of 41 bytes, gain.
    const std::size_t connected = begin("channels") + 8 + 41 + 8;
    ASSERT_EQ(dirty[connected], 1);
    dirty[connected] = 0x80;
    const auto fresh = model.build(cpu);
    ASSERT_TRUE(fresh->restore(dirty));
    EXPECT_EQ(firstCheckpointDifference(fresh->checkpoint(), bytes, true), "");
}

TEST_F(CheckpointTest, WithAChannelThatCannotBeIsRefused) {
    const auto nan = std::bit_cast<std::uint64_t>(std::numeric_limits<double>::quiet_NaN());
    const auto negative = std::bit_cast<std::uint64_t>(-1.0);
    for (const Blob& forged : {
             withNumberAt(bytes, begin("channels") + 8, nan),
             withNumberAt(bytes, begin("precisions"), negative),
             withNumberAt(bytes, begin("observations") + 8, 1000),
         }) {
        EXPECT_FALSE(model.build(cpu)->restore(forged));
    }
}

TEST_F(CheckpointTest, BringsBackGainsThatTheNextWindowThenRefuses) {
    const std::size_t gain = begin("gains") + 8 * InterventionState::oscillators;
    const auto fresh = model.build(cpu);
    ASSERT_TRUE(fresh->restore(withNumberAt(bytes, gain, std::bit_cast<std::uint64_t>(-0.5))));
    EXPECT_EQ(fresh->interventions().mechanism_gain[InterventionState::oscillators], -0.5);
    const ModelTime position = fresh->position();
    expectThrows<InvalidPhaseModulation>([&] { fresh->run(); },
                                         "oscillator gain must be finite and >= 0");
    EXPECT_EQ(fresh->position(), position);
}

TEST_F(CheckpointTest, BringsBackAMomentSoEarlyThatNoTimeSpansTheWayFromIt) {
    const std::size_t engine = begin("engine") + 8;
    const BlobView stored = layout.nested(bytes, "engine");
    const BlobLayout fields = BlobLayout::ofEngine(stored);
    const std::uint64_t next = fields.number(stored, "observer cursor");
    ASSERT_LT(next, fields.number(stored, "observations"));
    const std::size_t time = engine + fields.field("observations").begin + 8 + 64 * next;
    const std::size_t refractory_until = engine + fields.field("states").begin + 24;
    const std::uint64_t end = numberAt(bytes, refractory_until) + 1024;

    const auto fresh = model.build(cpu);
    const Blob forged =
        withNumberAt(withNumberAt(bytes, time, std::uint64_t{1} << 63), refractory_until, end);
    ASSERT_TRUE(fresh->restore(forged));
    const std::size_t samples = fresh->recorder()->samples().size();
    fresh->run();
    ASSERT_GT(fresh->recorder()->samples().size(), samples);
    const RecordedSample& sample = fresh->recorder()->samples()[samples];
    EXPECT_EQ(sample.time, first_model_time);
    EXPECT_EQ(sample.refractory_left[0], static_cast<double>((std::uint64_t{1} << 63) + end));
}

/// Whether `failure` is one that the parts of a run tell of.
bool isDocumented(const std::exception& failure) {
    return dynamic_cast<const WindowEngineError*>(&failure) != nullptr ||
           dynamic_cast<const LookaheadViolation*>(&failure) != nullptr ||
           dynamic_cast<const SynapseRoutingViolation*>(&failure) != nullptr ||
           dynamic_cast<const TimeOverflow*>(&failure) != nullptr ||
           dynamic_cast<const InvalidOscillator*>(&failure) != nullptr ||
           dynamic_cast<const InvalidPhaseModulation*>(&failure) != nullptr ||
           dynamic_cast<const InvalidPlasticity*>(&failure) != nullptr ||
           dynamic_cast<const InvalidLearningControl*>(&failure) != nullptr ||
           dynamic_cast<const InvalidSynapse*>(&failure) != nullptr ||
           dynamic_cast<const BrokenCausalTrace*>(&failure) != nullptr ||
           dynamic_cast<const Runtime::ReplayExhausted*>(&failure) != nullptr ||
           std::string(failure.what()).starts_with("RandomContext ");
}

TEST_F(CheckpointTest, WithAnyByteChangedIsRefusedOrRuns) {
    Draws draws(3);
    std::uint64_t refused = 0;
    std::uint64_t ended = 0;
    std::set<std::string_view> accepted_in;
    for (const BlobLayout::Field& field : layout.fields()) {
        for (std::size_t offset = field.begin; offset < field.end; ++offset) {
            const std::uint8_t masks[] = {0x01, 0x80, static_cast<std::uint8_t>(draws.next() | 2)};
            for (const std::uint8_t mask : masks) {
                SCOPED_TRACE(layout.place(offset) + ", mask " + std::to_string(mask));
                Blob changed = bytes;
                changed[offset] ^= mask;
                const auto twin = model.build(cpu);
                try {
                    if (!twin->restore(changed)) {
                        ++refused;
                        continue;
                    }
                } catch (const IncompatibleCheckpoint&) {
                    ASSERT_EQ(field.name, "engine version");
                    continue;
                }
                accepted_in.insert(field.name);
                try {
                    twin->run();
                    const auto reader = model.build(cpu);
                    ASSERT_TRUE(reader->restore(twin->checkpoint()))
                        << "a run from it ends in what nobody reads";
                } catch (const std::exception& failure) {
                    ++ended;
                    ASSERT_TRUE(isDocumented(failure)) << failure.what();
                }
            }
        }
    }
    EXPECT_GT(refused, 300);
    EXPECT_GT(ended, 10);
    EXPECT_GT(accepted_in.size(), 15);
}

/// One plain network under any choice of parts.
struct Parts {
    bool plasticity = false;
    bool phase = false;
    bool recorder = false;
    bool channels = false;
    bool prediction = false;
};

std::unique_ptr<KelmRuntime> runtimeWith(const Parts& parts, IWindowBackend& backend) {
    Synapse synapse;
    synapse.target = 1;
    synapse.weight = 0.5F;
    synapse.delay = 1'000'000;
    Kernel::Firing firing;
    firing.base_rate = 1000.0;
    PlasticityConfig plasticity;
    plasticity.enabled = parts.plasticity;
    plasticity.excitatory.kind = PlasticityRuleKind::pair;
    plasticity.excitatory.a_potentiation = 0.1;
    PhaseConfig phase;
    phase.oscillators = {{3, 40.0, 0.0, 1.0}};
    phase.bindings.resize(2);
    RecorderConfig recorder;
    recorder.sample_interval = 3'000'000;
    InputChannelSpec channel;
    channel.name = "in";
    channel.targets = {0};
    PredictionConfig prediction;
    prediction.channels.push_back({"error", {1}, 1.0, 0.5, 1.0});
    return std::unique_ptr<KelmRuntime>(new KelmRuntime(makeKelmRuntime(
        SynapseGraph(2, std::nullopt, {synapse}), Kernel::Neuron(), firing, 9, 20'000'000, &backend,
        nullptr, plasticity, parts.phase ? std::optional(phase) : std::nullopt,
        parts.recorder ? std::optional(recorder) : std::nullopt,
        parts.channels ? std::vector{channel} : std::vector<InputChannelSpec>(),
        parts.prediction ? std::optional(prediction) : std::nullopt)));
}

TEST(CheckpointParts, OfABareRuntimeHaveNoLength) {
    CpuWindowBackend cpu;
    const auto bare = runtimeWith({}, cpu);
    bare->run(10'000'000);
    const Blob bytes = bare->checkpoint();
    const BlobLayout layout = BlobLayout::ofCheckpoint(bytes, false);
    for (const char* field :
         {"plasticity", "learning", "oscillators", "phase log", "spikes", "samples", "causes",
          "channels", "prediction count", "intervention log", "extension"}) {
        EXPECT_EQ(layout.number(bytes, field), 0) << field;
    }
    EXPECT_EQ(layout.number(bytes, "position"), 10'000'000);
    EXPECT_GT(layout.number(bytes, "commit count"), 0);
    const auto twin = runtimeWith({}, cpu);
    ASSERT_TRUE(twin->restore(bytes));
    EXPECT_EQ(firstDifference(*bare, *twin), "");
}

TEST(CheckpointParts, MustBeTheReadersParts) {
    struct Case {
        const char* part;
        Parts parts;
        bool bare_reader_takes;   ///< a file with this part
        bool bare_file_is_taken;  ///< by a reader with this part
    };
    for (const Case& c : {
             Case{"plasticity", {.plasticity = true}, false, false},
             Case{"phase", {.phase = true}, false, false},
             // A file does not tell an empty recorder from none.
             Case{"recorder", {.recorder = true}, false, true},
             Case{"channels", {.channels = true}, false, false},
             Case{"prediction", {.prediction = true}, false, false},
         }) {
        SCOPED_TRACE(c.part);
        CpuWindowBackend cpu;
        const auto bare = runtimeWith({}, cpu);
        const auto with = runtimeWith(c.parts, cpu);
        const Blob fresh_bare = bare->checkpoint();
        const Blob fresh_with = with->checkpoint();
        const auto bare_writer = runtimeWith({}, cpu);
        const auto with_writer = runtimeWith(c.parts, cpu);
        bare_writer->run(10'000'000);
        with_writer->run(10'000'000);
        EXPECT_EQ(bare->restore(with_writer->checkpoint()), c.bare_reader_takes);
        if (!c.bare_reader_takes) {
            EXPECT_EQ(bare->checkpoint(), fresh_bare);
        }
        EXPECT_EQ(with->restore(bare_writer->checkpoint()), c.bare_file_is_taken);
        if (!c.bare_file_is_taken) {
            EXPECT_EQ(with->checkpoint(), fresh_with);
        }
    }
}

TEST(CheckpointParts, OfAnUnusedRecorderAreNone) {
    CpuWindowBackend cpu;
    const auto watched = runtimeWith({.recorder = true}, cpu);
    const auto bare = runtimeWith({}, cpu);
    EXPECT_TRUE(bare->restore(watched->checkpoint()));
    bare->run();
    EXPECT_EQ(bare->recorder(), nullptr);
}

TEST(CheckpointParts, OfEqualCausesAreEqualWhateverTheirHistory) {
    CpuWindowBackend cpu;
    RecorderConfig config;
    config.causal = true;
    const auto build = [&] {
        return std::unique_ptr<KelmRuntime>(new KelmRuntime(
            makeKelmRuntime(SynapseGraph(1, 1000, {}), Kernel::Neuron(), Kernel::Firing(), 1, 10,
                            &cpu, nullptr, {}, std::nullopt, config)));
    };
    const auto ascending = build();
    const auto descending = build();
    for (std::uint64_t id = 0; id < 500; ++id) ascending->recorder()->noteCause(id, {});
    for (std::uint64_t id = 500; id-- > 0;) descending->recorder()->noteCause(id, {});
    EXPECT_EQ(ascending->checkpoint(), descending->checkpoint());
}

}  // namespace

}  // namespace Lumenar::Core::Kelm

#include "kelm/core/FailureImage.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "kelm/core/FailureDetail.h"
#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr BlobTag format_tag("KELMFAIL");

template <class... Classes>
struct ClassList {};

/// All classes that an image can name, a derived class before its bases.
using Classes =
    ClassList<TimeOverflow, WindowEngineError, InvalidSynapse, SynapseRoutingViolation,
              InvalidLookahead, LookaheadViolation, InvalidShardLayout, InvalidThreadCount,
              InvalidLearningControl, InvalidRecorder, InvalidModel, UnknownBackend,
              InvalidSpikeTrain, RefusedCall, BrokenCausalTrace, InvalidPrediction,
              InvalidIntervention, InvalidModality, InvalidPhaseModulation, IncompatibleCheckpoint,
              RefusedCheckpoint, CheckpointFileError, SpikeFileError, InvalidMoment, InvalidProbe,
              InvalidOscillator, InvalidPlasticity, Runtime::ReplayExhausted, std::bad_alloc,
              std::out_of_range, std::invalid_argument, std::logic_error, std::runtime_error>;

/// The index of the first class of the list that `failure` is of; the last class is the fallback.
template <class... Listed>
std::uint32_t classOf(const std::exception& failure, ClassList<Listed...>) {
    std::uint32_t index = 0;
    (void)((dynamic_cast<const Listed*>(&failure) != nullptr || (++index, false)) || ...);
    return std::min<std::uint32_t>(index, sizeof...(Listed) - 1);
}

struct Failure {
    std::uint32_t class_index = 0;
    std::string text;
    bool has_detail = false;
    FailureDetail detail;
};

template <class Class>
[[noreturn]] void throwAs(const Failure& failure) {
    if constexpr (std::is_same_v<Class, std::bad_alloc>) {
        throw std::bad_alloc();
    } else {
        Class thrown(failure.text);
        if constexpr (std::is_base_of_v<DetailedFailure, Class>) {
            if (failure.has_detail) thrown.setDetail(failure.detail);
        }
        throw thrown;
    }
}

/// Returns only if the list has no class of this index.
template <class... Listed>
void throwListed(const Failure& failure, ClassList<Listed...>) {
    std::uint32_t index = 0;
    ((index++ == failure.class_index ? throwAs<Listed>(failure) : void()), ...);
}

void appendText(Blob& blob, std::string_view text) {
    appendU64(blob, text.size());
    appendBytes(blob, text.data(), text.size());
}

bool readText(BlobReader& in, std::string& text) {
    BlobView bytes;
    if (!in.readNested(bytes)) return false;
    text.assign(bytes.begin(), bytes.end());
    return true;
}

Blob imageOf(std::uint32_t class_index, std::string_view text, const FailureDetail* detail) {
    Blob image;
    appendTag(image, format_tag);
    appendU32(image, class_index);
    appendText(image, text);
    appendFlag(image, detail != nullptr);
    if (detail != nullptr) {
        appendText(image, detail->item);
        appendText(image, detail->field);
        appendText(image, detail->value);
        appendText(image, detail->bound);
        appendU64(image, detail->index);
    }
    return image;
}

bool readImage(BlobView image, Failure& failure) {
    BlobReader in(image);
    if (!in.expectTag(format_tag) || !in.readU32(failure.class_index) ||
        !readText(in, failure.text) || !in.readFlag(failure.has_detail)) {
        return false;
    }
    FailureDetail& detail = failure.detail;
    if (failure.has_detail &&
        (!readText(in, detail.item) || !readText(in, detail.field) || !readText(in, detail.value) ||
         !readText(in, detail.bound) || !in.readU64(detail.index))) {
        return false;
    }
    return in.atEnd();
}

}  // namespace

Blob failureImage(std::exception_ptr failure) {
    try {
        std::rethrow_exception(std::move(failure));
    } catch (const std::exception& caught) {
        return imageOf(classOf(caught, Classes()), caught.what(), detailOf(caught));
    } catch (...) {
        return imageOf(classOf({}, Classes()), "an exception that is no std::exception", nullptr);
    }
}

void throwFailure(BlobView image) {
    Failure failure;
    if (readImage(image, failure)) throwListed(failure, Classes());
    throw std::runtime_error("a failure of another process cannot be read");
}

}  // namespace Lumenar::Core::Kelm

#pragma once

#include <exception>

#include "kelm/core/Blob.h"
#include "kelm/core/FailureImage.h"
#include "kelm/core/IRankGroup.h"

namespace Lumenar::Core::Kelm {

/// Calls task(), which makes no collective call. If it throws on some rank, all ranks throw what
/// the lowest one has thrown. Without ranks it only calls the task.
template <class Task>
void onEachRank(IRankGroup* ranks, Task task) {
    if (ranks == nullptr) return task();
    Blob image;
    try {
        task();
    } catch (...) {
        image = failureImage(std::current_exception());
    }
    for (const BlobView from : ranks->share(image)) {
        if (!from.empty()) throwFailure(from);
    }
}

}  // namespace Lumenar::Core::Kelm

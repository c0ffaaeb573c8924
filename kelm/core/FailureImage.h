#pragma once

#include <exception>

#include "kelm/core/Blob.h"

// A failure as bytes, so that other processes can throw what one of them has thrown.
//
//   tag      8 bytes "KELMFAIL"
//   class    u32, an index into the list in FailureImage.cpp
//   text     nested bytes: what()
//   detail   flag; if 1: item, field, value, bound: nested bytes; index u64
//
// Only processes of one version of kelm exchange these bytes.

namespace Lumenar::Core::Kelm {

/// The class, text and detail of an exception. Of a class that is neither in Failures.h nor one of
/// std::bad_alloc, std::out_of_range, std::invalid_argument, std::logic_error and
/// std::runtime_error, the nearest base class among these, or else std::runtime_error.
/// `failure` must not be null.
Blob failureImage(std::exception_ptr failure);

/// Throws the exception of an image. Throws std::runtime_error for bytes that failureImage does not
/// write.
[[noreturn]] void throwFailure(BlobView image);

}  // namespace Lumenar::Core::Kelm

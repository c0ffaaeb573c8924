#pragma once

// What the unit LookaheadCuda shows to its tests beyond its public headers. Not installed.

namespace Lumenar::Core::Kelm {

/// Throws WindowEngineError "CUDA <what>: <the runtime's text>" unless `status` is 0.
void checkCuda(int status, const char* what);

}  // namespace Lumenar::Core::Kelm

#pragma once

#include <functional>
#include <memory>

#include "kelm/engine/IWindowBackend.h"
#include "kelm/network/SynapseGraph.h"
#include "kelm/runtime/KelmRuntime.h"
#include "kelm/runtime/RuntimeOptions.h"

namespace Lumenar::Core::Kelm {

/// Makes a runtime that owns its backend and refuses what cannot be meant.
///
/// The model is checked with validate(). Errors are refused; warnings() has the rest. The config id
/// is the model's fingerprint, so a checkpoint of another model is refused. Samples of the recorder
/// need no memory before they are taken. Calls at the wrong time throw RefusedCall, with nothing
/// changed:
/// - a run backwards, past the horizon, or to the horizon if it is open and was not named;
/// - an input that arrives before earliestInput();
/// - in a callback of setProgress: a run, a restore, a reseed and setProgress;
/// - in a commit listener: these, a checkpoint and a fork;
/// - after a run that threw, but for a callback of setProgress: a run, an input, a checkpoint, a
/// restore, a fork and a reseed.
///
/// Throws InvalidModel for no backend, for populations beside a neuron or firing of the options,
/// and for populations whose sizes do not add up to the network; then WindowEngineError for a graph
/// without dMin(), and InvalidModel for errors of the model, in this order. Then throws what
/// makeKelmRuntime throws. `options.backend` and `options.threads` are not read.
std::unique_ptr<KelmRuntime> makeRuntime(SynapseGraph network, RuntimeOptions options,
                                         std::unique_ptr<IWindowBackend> backend);

/// The same with a backend of `make_backend`, which makes those of its forks, too. It must give a
/// backend at each call.
std::unique_ptr<KelmRuntime> makeRuntime(
    SynapseGraph network, RuntimeOptions options,
    std::function<std::unique_ptr<IWindowBackend>()> make_backend);

}  // namespace Lumenar::Core::Kelm

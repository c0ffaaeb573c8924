#include <exception>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "kelm/kelm.h"
#include "python/src/Binding.h"
#include "python/src/BusyError.h"

namespace Lumenar::Core::Kelm::Python {

namespace {

constexpr const char* after_failure =
    "to go on, make a new simulation and restore the last checkpoint: Simulation.load(net, path)";

/// Raises the class `name` of kelm.errors.
bool raise(const char* name, const std::string& text) {
    const py::object type = py::module_::import("kelm.errors").attr(name);
    // Names of files need not be UTF-8.
    PyErr_SetObject(type.ptr(), textOf(text).ptr());
    return true;
}

/// Raises `name` if `failure` is of the class. False otherwise.
template <class Failure>
bool raiseIf(const std::exception& failure, const char* name) {
    const auto* found = dynamic_cast<const Failure*>(&failure);
    if (found == nullptr) return false;
    if constexpr (std::is_base_of_v<DetailedFailure, Failure>) {
        if (const FailureDetail* detail = found->detail()) {
            return raise(name, std::string(found->what()) + " (" + detail->text() + ")");
        }
    }
    return raise(name, found->what());
}

/// Raises `name` if `failure` is of exactly this class, which pybind11 derives classes from.
template <class Failure>
bool raiseIfExactly(const std::exception& failure, const char* name) {
    return typeid(failure) == typeid(Failure) && raise(name, failure.what());
}

/// Tells how to go on after a failure.
bool raiseRefusedCall(const std::exception& failure) {
    const auto* found = dynamic_cast<const RefusedCall*>(&failure);
    if (found == nullptr) return false;
    const std::string text = found->what();
    return raise("RefusedCall",
                 text == RefusedCall::after_failure ? text + "; " + after_failure : text);
}

bool raiseAsPython(const std::exception& failure) {
#define KELM_RAISE(Failure) raiseIf<Failure>(failure, #Failure)
    return KELM_RAISE(BusyError) || KELM_RAISE(TimeOverflow) || KELM_RAISE(WindowEngineError) ||
           KELM_RAISE(InvalidSynapse) || KELM_RAISE(SynapseRoutingViolation) ||
           KELM_RAISE(InvalidLookahead) || KELM_RAISE(LookaheadViolation) ||
           KELM_RAISE(InvalidShardLayout) || KELM_RAISE(InvalidThreadCount) ||
           KELM_RAISE(InvalidLearningControl) || KELM_RAISE(InvalidRecorder) ||
           KELM_RAISE(InvalidModel) || KELM_RAISE(UnknownBackend) ||
           KELM_RAISE(InvalidSpikeTrain) || raiseRefusedCall(failure) ||
           KELM_RAISE(BrokenCausalTrace) || KELM_RAISE(InvalidPrediction) ||
           KELM_RAISE(InvalidIntervention) || KELM_RAISE(InvalidModality) ||
           KELM_RAISE(InvalidPhaseModulation) || KELM_RAISE(IncompatibleCheckpoint) ||
           KELM_RAISE(RefusedCheckpoint) || KELM_RAISE(CheckpointFileError) ||
           KELM_RAISE(SpikeFileError) || KELM_RAISE(InvalidMoment) || KELM_RAISE(InvalidProbe) ||
           KELM_RAISE(InvalidOscillator) || KELM_RAISE(InvalidPlasticity) ||
           KELM_RAISE(ReplayExhausted) ||
           raiseIfExactly<std::invalid_argument>(failure, "ArgumentError") ||
           raiseIfExactly<std::out_of_range>(failure, "RangeError") ||
           raiseIfExactly<std::logic_error>(failure, "EngineError") ||
           raiseIfExactly<std::runtime_error>(failure, "EngineError");
#undef KELM_RAISE
}

}  // namespace

void bindErrors(py::module_& module) {
    module.attr("after_failure") = after_failure;
    py::register_exception_translator([](std::exception_ptr failure) {
        if (!failure) return;
        try {
            std::rethrow_exception(failure);
        } catch (const std::exception& found) {
            if (!raiseAsPython(found)) throw;
        }
    });
}

}  // namespace Lumenar::Core::Kelm::Python

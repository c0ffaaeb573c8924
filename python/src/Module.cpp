#include <string>

#include "kelm/kelm.h"
#include "python/src/Binding.h"

namespace Lumenar::Core::Kelm::Python {

PYBIND11_MODULE(_kelm, module) {
    module.doc() = "The compiled part of the package kelm. Private: its functions do not check.";
    module.attr("engine_version") = std::string(engine_version);
    module.attr("open_horizon") = open_horizon;
    bindErrors(module);
    bindNetwork(module);
    bindSettings(module);
    bindSimulation(module);
    module.def("available_backends", &availableBackends);
}

}  // namespace Lumenar::Core::Kelm::Python

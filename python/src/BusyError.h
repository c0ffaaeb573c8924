#pragma once

#include <stdexcept>

namespace Lumenar::Core::Kelm::Python {

/// A call on a simulation while another call is on.
class BusyError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    static constexpr const char* busy =
        "the simulation is running, in another thread or below this call: wait for the run to end, "
        "or end it by request_stop()";
};

}  // namespace Lumenar::Core::Kelm::Python

#include <string_view>
#include <vector>

#include "gate/GateDriver.h"

int main(int argc, char** argv) {
    const std::vector<std::string_view> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    return Lumenar::Core::Kelm::runGate(arguments);
}

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/IShardTeam.h"

namespace Lumenar::Core::Kelm::Testing {

/// A team whose tasks run one after the other on the calling thread, each time in another order. It
/// divides everything into as many parts as it can.
class PermutedTeam final : public IShardTeam {
public:
    explicit PermutedTeam(std::size_t parts) : parts_(parts) {}

    std::size_t shardsFor(std::size_t neurons) const override {
        return std::clamp<std::size_t>(neurons, 1, parts_);
    }
    std::size_t threshold() const override { return 0; }
    IWindowBackend& backend() override { return backend_; }
    void run(std::size_t count, const std::function<void(std::size_t)>& task) override {
        ++runs_;
        for (std::size_t i = 0; i < count; ++i) {
            task(runs_ % 2 == 0 ? (i + runs_) % count : count - 1 - i);
        }
    }

private:
    CpuWindowBackend backend_;
    std::size_t parts_;
    std::size_t runs_ = 0;
};

}  // namespace Lumenar::Core::Kelm::Testing

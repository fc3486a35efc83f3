#pragma once

#include "QLModel/DiskImageBackingProbe.h"

#include <map>

namespace ql {

// Answers from a fixed table: device name → backing; any other device is not image-backed.
class FakeDiskImageBackingProbe final : public DiskImageBackingProbe {
public:
    FakeDiskImageBackingProbe() = default;
    explicit FakeDiskImageBackingProbe(std::map<std::string, DiskImageBacking> backings)
        : backings(std::move(backings)) {}

    std::optional<DiskImageBacking> backing(const std::string& device) override {
        auto found = backings.find(device);
        if (found == backings.end()) return std::nullopt;
        return found->second;
    }

    std::map<std::string, DiskImageBacking> backings;
};

}  // namespace ql

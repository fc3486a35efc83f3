#pragma once

#include "QLModel/VolumeEncryptionProbe.h"

#include <map>

namespace ql {

// Answers from a fixed table; any other device is not encrypted.
class FakeVolumeEncryptionProbe final : public VolumeEncryptionProbe {
public:
    FakeVolumeEncryptionProbe() = default;
    explicit FakeVolumeEncryptionProbe(std::map<std::string, VolumeEncryptionState> states)
        : states(std::move(states)) {}

    VolumeEncryptionState encryptionState(const std::string& device) override {
        auto found = states.find(device);
        if (found != states.end()) return found->second;
        VolumeEncryptionState plain;
        plain.bsdDevice = device;
        return plain;
    }

    std::map<std::string, VolumeEncryptionState> states;
};

}  // namespace ql

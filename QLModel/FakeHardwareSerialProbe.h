#pragma once

#include "QLModel/HardwareSerialProbe.h"

#include <map>
#include <mutex>

namespace ql {

// Answers from a fixed table: device name → serial; any other device has none.
class FakeHardwareSerialProbe final : public HardwareSerialProbe {
public:
    FakeHardwareSerialProbe() = default;
    explicit FakeHardwareSerialProbe(std::map<std::string, HardwareSerial> serials) : serials(std::move(serials)) {}

    std::optional<HardwareSerial> serial(const std::string& device) override {
        auto found = serials.find(device);
        if (found == serials.end()) return std::nullopt;
        return found->second;
    }

    std::map<std::string, HardwareSerial> serials;
};

}  // namespace ql

#pragma once

#include "QLModel/HardwareSerial.h"

#include <optional>
#include <string>

namespace ql {

// Reads the serial number of the physical device behind a device name. Never fails: every
// failure is "no serial", explained on standard error by the live implementation. Safe to call
// from any thread.
class HardwareSerialProbe {
public:
    virtual ~HardwareSerialProbe() = default;
    virtual std::optional<HardwareSerial> serial(const std::string& device) = 0;
};

}  // namespace ql

#pragma once

#include "QLModel/JsonCoder.h"

#include <string>

namespace ql {

// The normalised serial number of a physical device. In JSON {"value": "..."}.
// (The probe that reads it from the platform is a separate type.)
struct HardwareSerial {
    std::string value;
    friend bool operator==(const HardwareSerial&, const HardwareSerial&) = default;
};

template <>
struct JsonCoder<HardwareSerial> {
    static Json encode(const HardwareSerial& value);
    static tl::expected<HardwareSerial, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql

template <>
struct std::hash<ql::HardwareSerial> {
    std::size_t operator()(const ql::HardwareSerial& serial) const noexcept {
        return std::hash<std::string>{}(serial.value);
    }
};

#pragma once

#include "QLModel/FilesystemFamily.h"
#include "QLModel/HardwareSerial.h"
#include "QLModel/JsonCoder.h"
#include "QLModel/PartitionMapType.h"

#include <cstdint>
#include <optional>

namespace ql {

// Facts recorded when a binding was made and checked at every resolution, so that a key that now
// points at a different disk is caught. JSON keys are the field names; `hardwareSerial` is
// omitted when absent.
struct VolumeInvariants {
    // Size of the partition (or whole disk / container) that holds the volume, in bytes.
    std::uint64_t partitionSizeBytes = 0;
    PartitionMapType partitionMapType = PartitionMapType::unknown;
    FilesystemFamily filesystemFamily = FilesystemFamily::other;
    // Serial number of the physical device, when one could be read.
    std::optional<HardwareSerial> hardwareSerial;

    friend bool operator==(const VolumeInvariants&, const VolumeInvariants&) = default;
};

template <>
struct JsonCoder<VolumeInvariants> {
    static Json encode(const VolumeInvariants& value);
    static tl::expected<VolumeInvariants, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql

template <>
struct std::hash<ql::VolumeInvariants> {
    std::size_t operator()(const ql::VolumeInvariants& invariants) const noexcept;
};

#pragma once

#include "QLModel/JsonCoder.h"

#include <optional>
#include <string_view>

namespace ql {

// How a disk is partitioned. JSON value = the case name.
enum class PartitionMapType {
    gpt,
    mbr,
    apm,
    wholeDisk,  // no partition map: the filesystem or container covers the whole disk
    network,
    diskImage,
    unknown,
};

std::string_view caseName(PartitionMapType type);
std::optional<PartitionMapType> partitionMapTypeNamed(std::string_view name);

template <>
struct JsonCoder<PartitionMapType> {
    static Json encode(PartitionMapType value);
    static tl::expected<PartitionMapType, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql

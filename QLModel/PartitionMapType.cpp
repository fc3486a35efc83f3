#include "QLModel/PartitionMapType.h"

namespace ql {
namespace {

constexpr std::array<std::string_view, 7> kNames{"gpt", "mbr", "apm", "wholeDisk", "network", "diskImage", "unknown"};

}  // namespace

std::string_view caseName(PartitionMapType type) { return kNames[static_cast<std::size_t>(type)]; }

std::optional<PartitionMapType> partitionMapTypeNamed(std::string_view name) {
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (kNames[i] == name) return static_cast<PartitionMapType>(i);
    }
    return std::nullopt;
}

Json JsonCoder<PartitionMapType>::encode(PartitionMapType value) { return std::string(caseName(value)); }

tl::expected<PartitionMapType, ModelDecodeError> JsonCoder<PartitionMapType>::decode(const Json& json,
                                                                                     const std::string& path) {
    return decodeNamedCase<PartitionMapType>(json, path, kNames);
}

}  // namespace ql

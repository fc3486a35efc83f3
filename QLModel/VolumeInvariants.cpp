#include "QLModel/VolumeInvariants.h"

#include "QLModel/JsonObjectReader.h"
#include "QLModel/ModelHash.h"

namespace ql {

Json JsonCoder<VolumeInvariants>::encode(const VolumeInvariants& value) {
    Json out{{"partitionSizeBytes", value.partitionSizeBytes},
             {"partitionMapType", toJson(value.partitionMapType)},
             {"filesystemFamily", toJson(value.filesystemFamily)}};
    if (value.hardwareSerial) out["hardwareSerial"] = toJson(*value.hardwareSerial);
    return out;
}

tl::expected<VolumeInvariants, ModelDecodeError> JsonCoder<VolumeInvariants>::decode(const Json& json,
                                                                                     const std::string& path) {
    JsonObjectReader r(json, path);
    VolumeInvariants value{
        r.required<std::uint64_t>("partitionSizeBytes"),
        r.required<PartitionMapType>("partitionMapType"),
        r.required<FilesystemFamily>("filesystemFamily"),
        r.optional<HardwareSerial>("hardwareSerial"),
    };
    if (!r.ok()) return tl::unexpected(r.error());
    return value;
}

}  // namespace ql

std::size_t std::hash<ql::VolumeInvariants>::operator()(const ql::VolumeInvariants& v) const noexcept {
    return ql::hashValues(v.partitionSizeBytes, v.partitionMapType, v.filesystemFamily, v.hardwareSerial);
}

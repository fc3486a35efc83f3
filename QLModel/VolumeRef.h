#pragma once

#include "QLModel/JsonCoder.h"
#include "QLModel/ModelDate.h"
#include "QLModel/VolumeInvariants.h"
#include "QLModel/VolumeKey.h"
#include "QLModel/VolumeTarget.h"

#include <optional>
#include <string>

namespace ql {

// A stored reference to a volume (or a folder inside one): the durable key, which part of the
// keyed object is meant, the facts that must still hold, and display facts.
//
// Equality is memberwise, `displayName` and `lastResolvedAt` included; callers that mean "the
// same volume" compare with `sameVolume` (key and target only).
//
// JSON keys are the field names; `subpath` and `lastResolvedAt` are omitted when absent, and
// `lastResolvedAt` is ISO 8601 with whole seconds.
struct VolumeRef {
    VolumeKey key;
    VolumeTarget target;
    VolumeInvariants invariants;
    // The volume name last seen, for display only; never used to find the volume.
    std::string displayName;
    // A folder inside the volume, relative to the volume root, when the endpoint is a folder.
    std::optional<std::string> subpath;
    // When the reference was last resolved successfully.
    std::optional<ModelDate> lastResolvedAt;

    bool sameVolume(const VolumeRef& other) const { return key == other.key && target == other.target; }
    bool isNetworkShare() const { return key.isNetworkShare(); }
    bool isDiskImage() const { return key.isDiskImage(); }

    friend bool operator==(const VolumeRef&, const VolumeRef&) = default;
};

template <>
struct JsonCoder<VolumeRef> {
    static Json encode(const VolumeRef& value);
    static tl::expected<VolumeRef, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql

template <>
struct std::hash<ql::VolumeRef> {
    std::size_t operator()(const ql::VolumeRef& ref) const noexcept;
};

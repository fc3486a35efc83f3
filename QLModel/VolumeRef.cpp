#include "QLModel/VolumeRef.h"

#include "QLModel/JsonObjectReader.h"
#include "QLModel/ModelHash.h"

namespace ql {

Json JsonCoder<VolumeRef>::encode(const VolumeRef& value) {
    Json out{{"key", toJson(value.key)},
             {"target", toJson(value.target)},
             {"invariants", toJson(value.invariants)},
             {"displayName", value.displayName}};
    if (value.subpath) out["subpath"] = *value.subpath;
    if (value.lastResolvedAt) out["lastResolvedAt"] = toJson(*value.lastResolvedAt);
    return out;
}

tl::expected<VolumeRef, ModelDecodeError> JsonCoder<VolumeRef>::decode(const Json& json, const std::string& path) {
    JsonObjectReader r(json, path);
    VolumeRef value{
        r.required<VolumeKey>("key"),
        r.required<VolumeTarget>("target"),
        r.required<VolumeInvariants>("invariants"),
        r.required<std::string>("displayName"),
        r.optional<std::string>("subpath"),
        r.optional<ModelDate>("lastResolvedAt"),
    };
    if (!r.ok()) return tl::unexpected(r.error());
    return value;
}

}  // namespace ql

std::size_t std::hash<ql::VolumeRef>::operator()(const ql::VolumeRef& ref) const noexcept {
    std::size_t seed = ql::hashValues(ref.key, ref.target, ref.invariants, ref.displayName, ref.subpath);
    if (ref.lastResolvedAt) ql::hashCombine(seed, ref.lastResolvedAt->time_since_epoch().count());
    return seed;
}

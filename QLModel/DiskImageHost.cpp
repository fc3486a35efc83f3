#include "QLModel/DiskImageHost.h"

#include "QLModel/JsonObjectReader.h"
#include "QLModel/ModelHash.h"

namespace ql {

std::string_view DiskImageHost::caseName() const {
    return kind() == Kind::networkShare ? "networkShare" : "localVolume";
}

std::string DiskImageHost::description() const {
    if (auto share = as<NetworkShare>()) return "networkShare(" + share->url + ")";
    return "localVolume(" + as<LocalVolume>()->volumeUUID.text() + ")";
}

Json JsonCoder<DiskImageHost>::encode(const DiskImageHost& value) {
    if (auto share = value.as<DiskImageHost::NetworkShare>()) return taggedCase("networkShare", Json{{"url", share->url}});
    return taggedCase("localVolume", Json{{"volumeUUID", toJson(value.as<DiskImageHost::LocalVolume>()->volumeUUID)}});
}

tl::expected<DiskImageHost, ModelDecodeError> JsonCoder<DiskImageHost>::decode(const Json& json,
                                                                               const std::string& path) {
    auto tagged = readTaggedCase(json, path);
    if (!tagged) return tl::unexpected(std::move(tagged.error()));
    JsonObjectReader r(*tagged->payload, tagged->path);
    DiskImageHost host;
    if (tagged->name == "networkShare") {
        host = DiskImageHost::networkShare(r.required<std::string>("url"));
    } else if (tagged->name == "localVolume") {
        host = DiskImageHost::localVolume(r.required<Uuid>("volumeUUID"));
    } else {
        return tl::unexpected(ModelDecodeError::unknownCase(path, tagged->name));
    }
    if (!r.ok()) return tl::unexpected(r.error());
    return host;
}

}  // namespace ql

std::size_t std::hash<ql::DiskImageHost>::operator()(const ql::DiskImageHost& host) const noexcept {
    if (auto share = host.as<ql::DiskImageHost::NetworkShare>()) return ql::hashValues(0, share->url);
    return ql::hashValues(1, host.as<ql::DiskImageHost::LocalVolume>()->volumeUUID);
}

#include "QLModel/VolumeTarget.h"

#include "QLModel/JsonObjectReader.h"
#include "QLModel/ModelHash.h"

namespace ql {

std::string_view VolumeTarget::caseName() const {
    switch (kind()) {
        case Kind::wholeFilesystem: return "wholeFilesystem";
        case Kind::apfsVolumeGroup: return "apfsVolumeGroup";
        case Kind::apfsVolumeByRole: return "apfsVolumeByRole";
    }
    return "wholeFilesystem";
}

std::string VolumeTarget::description() const {
    if (auto r = role()) return "apfsVolumeByRole(" + r->description() + ")";
    return std::string(caseName());
}

Json JsonCoder<VolumeTarget>::encode(const VolumeTarget& value) {
    if (auto r = value.role()) return taggedCase("apfsVolumeByRole", Json{{"_0", toJson(*r)}});
    return taggedCase(value.caseName());
}

tl::expected<VolumeTarget, ModelDecodeError> JsonCoder<VolumeTarget>::decode(const Json& json, const std::string& path) {
    auto tagged = readTaggedCase(json, path);
    if (!tagged) return tl::unexpected(std::move(tagged.error()));
    if (tagged->name == "wholeFilesystem") return VolumeTarget::wholeFilesystem();
    if (tagged->name == "apfsVolumeGroup") return VolumeTarget::apfsVolumeGroup();
    if (tagged->name == "apfsVolumeByRole") {
        JsonObjectReader r(*tagged->payload, tagged->path);
        auto role = r.required<APFSVolumeRole>("_0");
        if (!r.ok()) return tl::unexpected(r.error());
        return VolumeTarget::apfsVolumeByRole(std::move(role));
    }
    return tl::unexpected(ModelDecodeError::unknownCase(path, tagged->name));
}

}  // namespace ql

std::size_t std::hash<ql::VolumeTarget>::operator()(const ql::VolumeTarget& target) const noexcept {
    if (auto role = target.role()) return ql::hashValues(target.value.index(), *role);
    return target.value.index();
}

#include "QLModel/APFSVolumeRole.h"

#include "QLModel/JsonObjectReader.h"
#include "QLModel/ModelHash.h"

#include <array>
#include <cctype>

namespace ql {
namespace {

constexpr std::array<std::string_view, 6> kNames{"system", "data", "preboot", "recovery", "vm", "other"};

}  // namespace

std::string_view APFSVolumeRole::caseName() const { return kNames[static_cast<std::size_t>(kind_)]; }

std::string APFSVolumeRole::description() const {
    if (kind_ == Kind::other) return "other(" + otherName_ + ")";
    return std::string(caseName());
}

Json JsonCoder<APFSVolumeRole>::encode(const APFSVolumeRole& value) {
    if (value.kind() == APFSVolumeRole::Kind::other) return taggedCase("other", Json{{"_0", value.otherName()}});
    return taggedCase(value.caseName());
}

tl::expected<APFSVolumeRole, ModelDecodeError> JsonCoder<APFSVolumeRole>::decode(const Json& json,
                                                                                 const std::string& path) {
    auto tagged = readTaggedCase(json, path);
    if (!tagged) return tl::unexpected(std::move(tagged.error()));
    const auto& name = tagged->name;
    if (name == "system") return APFSVolumeRole::system();
    if (name == "data") return APFSVolumeRole::data();
    if (name == "preboot") return APFSVolumeRole::preboot();
    if (name == "recovery") return APFSVolumeRole::recovery();
    if (name == "vm") return APFSVolumeRole::vm();
    if (name == "other") {
        JsonObjectReader r(*tagged->payload, tagged->path);
        auto role = r.required<std::string>("_0");
        if (!r.ok()) return tl::unexpected(r.error());
        return APFSVolumeRole::other(std::move(role));
    }
    return tl::unexpected(ModelDecodeError::unknownCase(path, name));
}

APFSVolumeRole APFSVolumeRole::named(const std::string& name) {
    std::string lower(name);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (lower == "system") return system();
    if (lower == "data") return data();
    if (lower == "preboot") return preboot();
    if (lower == "recovery") return recovery();
    if (lower == "vm") return vm();
    return other(name);
}

}  // namespace ql

std::size_t std::hash<ql::APFSVolumeRole>::operator()(const ql::APFSVolumeRole& role) const noexcept {
    return ql::hashValues(static_cast<int>(role.kind()), role.otherName());
}

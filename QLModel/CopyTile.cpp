#include "QLModel/CopyTile.h"

#include "QLModel/JsonObjectReader.h"

#include <array>

namespace ql {
namespace {

constexpr std::array<std::string_view, 4> kMethodNames{"smartUpdate", "eraseThenCopy", "copyNewer", "copyDifferent"};
constexpr std::array<std::string_view, 4> kMethodLabels{"Smart Update", "Erase, then copy", "Copy Newer",
                                                        "Copy Different"};
constexpr std::array<std::string_view, 7> kActionNames{"none",    "restartFromTarget", "setTargetAsStartupDisk",
                                                       "restart", "shutdown",          "sleep",
                                                       "quitQuillo"};

}  // namespace

std::string_view caseName(CopyTile::DuringCopyMethod method) { return kMethodNames[static_cast<std::size_t>(method)]; }
std::string_view label(CopyTile::DuringCopyMethod method) { return kMethodLabels[static_cast<std::size_t>(method)]; }
std::string_view caseName(CopyTile::OnSuccessAction action) { return kActionNames[static_cast<std::size_t>(action)]; }

Json JsonCoder<CopyTile::CopyScript>::encode(const CopyTile::CopyScript& value) { return Json{{"name", value.name}}; }

tl::expected<CopyTile::CopyScript, ModelDecodeError> JsonCoder<CopyTile::CopyScript>::decode(const Json& json,
                                                                                             const std::string& path) {
    JsonObjectReader r(json, path);
    CopyTile::CopyScript script{r.required<std::string>("name")};
    if (!r.ok()) return tl::unexpected(r.error());
    return script;
}

tl::expected<CopyTile::DuringCopyMethod, ModelDecodeError> JsonCoder<CopyTile::DuringCopyMethod>::decode(
    const Json& json, const std::string& path) {
    return decodeNamedCase<CopyTile::DuringCopyMethod>(json, path, kMethodNames);
}

Json JsonCoder<CopyTile::AdvancedHooks>::encode(const CopyTile::AdvancedHooks& value) {
    Json out = Json::object();
    if (value.beforeCopyScriptPath) out["beforeCopyScriptPath"] = *value.beforeCopyScriptPath;
    if (value.afterCopyScriptPath) out["afterCopyScriptPath"] = *value.afterCopyScriptPath;
    return out;
}

tl::expected<CopyTile::AdvancedHooks, ModelDecodeError> JsonCoder<CopyTile::AdvancedHooks>::decode(
    const Json& json, const std::string& path) {
    JsonObjectReader r(json, path);
    CopyTile::AdvancedHooks hooks{r.optional<std::string>("beforeCopyScriptPath"),
                                  r.optional<std::string>("afterCopyScriptPath")};
    if (!r.ok()) return tl::unexpected(r.error());
    return hooks;
}

tl::expected<CopyTile::OnSuccessAction, ModelDecodeError> JsonCoder<CopyTile::OnSuccessAction>::decode(
    const Json& json, const std::string& path) {
    return decodeNamedCase<CopyTile::OnSuccessAction>(json, path, kActionNames);
}

Json JsonCoder<CopyTile>::encode(const CopyTile& value) {
    Json out{{"id", toJson(value.id)},
             {"displayName", value.displayName},
             {"source", toJson(value.source)},
             {"destination", toJson(value.destination)},
             {"copyScript", toJson(value.copyScript)},
             {"duringCopy", toJson(value.duringCopy)},
             {"advanced", toJson(value.advanced)},
             {"onSuccess", toJson(value.onSuccess)},
             {"asBootable", value.asBootable}};
    if (value.schedule) out["schedule"] = toJson(*value.schedule);
    return out;
}

tl::expected<CopyTile, ModelDecodeError> JsonCoder<CopyTile>::decode(const Json& json, const std::string& path) {
    JsonObjectReader r(json, path);
    CopyTile tile{
        r.required<Uuid>("id"),
        r.required<std::string>("displayName"),
        r.required<Source>("source"),
        r.required<VolumeRef>("destination"),
        r.required<CopyTile::CopyScript>("copyScript"),
        r.required<CopyTile::DuringCopyMethod>("duringCopy"),
        r.required<CopyTile::AdvancedHooks>("advanced"),
        r.required<CopyTile::OnSuccessAction>("onSuccess"),
        r.optional<Schedule>("schedule"),
        r.required<bool>("asBootable"),
    };
    if (!r.ok()) return tl::unexpected(r.error());
    return tile;
}

}  // namespace ql

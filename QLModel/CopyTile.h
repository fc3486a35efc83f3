#pragma once

#include "QLModel/JsonCoder.h"
#include "QLModel/Schedule.h"
#include "QLModel/Source.h"
#include "QLModel/VolumeRef.h"

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// One configured copy job (a "copy job" to users): what is copied where, with which copy rule
// and method, what happens afterwards, and when it runs by itself.
//
// JSON keys are the field names; `schedule` and the hook paths are omitted when absent. Every
// other field is required, and a missing or mistyped one fails the whole record.
struct CopyTile {
    // The copy rule document the job uses, by name.
    struct CopyScript {
        std::string name;
        friend bool operator==(const CopyScript&, const CopyScript&) = default;
    };

    // How existing files on the destination are treated. JSON value = the case name.
    enum class DuringCopyMethod {
        smartUpdate,    // copy new and changed files, remove what the source no longer has
        eraseThenCopy,  // erase the destination, then copy everything (the only bootable method)
        copyNewer,      // copy only files that are newer on the source
        copyDifferent,  // copy only files that differ from the destination's
    };

    // Shell scripts run before and after the copy (absolute paths).
    struct AdvancedHooks {
        std::optional<std::string> beforeCopyScriptPath;
        std::optional<std::string> afterCopyScriptPath;
        friend bool operator==(const AdvancedHooks&, const AdvancedHooks&) = default;
    };

    // What to do after a successful run. JSON value = the case name.
    enum class OnSuccessAction {
        none,
        restartFromTarget,
        setTargetAsStartupDisk,
        restart,
        shutdown,
        sleep,
        quitQuillo,
    };

    Uuid id;
    std::string displayName;
    Source source;
    VolumeRef destination;
    CopyScript copyScript;
    DuringCopyMethod duringCopy = DuringCopyMethod::smartUpdate;
    AdvancedHooks advanced;
    OnSuccessAction onSuccess = OnSuccessAction::none;
    // Absent: the job runs only when started by hand.
    std::optional<Schedule> schedule;
    bool asBootable = false;

    friend bool operator==(const CopyTile&, const CopyTile&) = default;
};

std::string_view caseName(CopyTile::DuringCopyMethod method);
// "Smart Update", "Erase, then copy", "Copy Newer", "Copy Different".
std::string_view label(CopyTile::DuringCopyMethod method);
std::string_view caseName(CopyTile::OnSuccessAction action);

template <>
struct JsonCoder<CopyTile::CopyScript> {
    static Json encode(const CopyTile::CopyScript& value);
    static tl::expected<CopyTile::CopyScript, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<CopyTile::DuringCopyMethod> {
    static Json encode(CopyTile::DuringCopyMethod value) { return std::string(caseName(value)); }
    static tl::expected<CopyTile::DuringCopyMethod, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<CopyTile::AdvancedHooks> {
    static Json encode(const CopyTile::AdvancedHooks& value);
    static tl::expected<CopyTile::AdvancedHooks, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<CopyTile::OnSuccessAction> {
    static Json encode(CopyTile::OnSuccessAction value) { return std::string(caseName(value)); }
    static tl::expected<CopyTile::OnSuccessAction, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<CopyTile> {
    static Json encode(const CopyTile& value);
    static tl::expected<CopyTile, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql

#pragma once

#include "QLModel/CurrentVolumeState.h"
#include "QLSupport/Uuid.h"

#include <optional>
#include <string>

namespace ql {

// What resolving one end of a copy produced: where to read or write, and the live volume behind
// it. For an APFS volume group `mount` is the group's system-side mount and `browsableMount` the
// user-visible (Data) volume's, when it is mounted.
struct PickedEndpoint {
    // Where to read or write; empty when the volume is not mounted.
    std::string mount;
    std::optional<std::string> browsableMount;
    // The live state the resolver found (absent for a share that was found only by its mount).
    std::optional<CurrentVolumeState> picked;
    // The device of the picked volume ("vdb1", "disk4s2"), or the share's URL.
    std::string bsdDevice;
    bool isAPFSGroup = false;
    std::optional<Uuid> dataVolumeUUID;
    std::optional<std::string> dataVolumeBSD;
    // The name shown to the user, already in typographic quotes (“Backup”).
    std::string quotedName;
    bool isNetworkShare = false;

    // The mount the engine's path is composed against: the browsable one when there is one.
    const std::string& baseMount() const { return browsableMount ? *browsableMount : mount; }
    bool isMounted() const { return !mount.empty(); }
};

}  // namespace ql

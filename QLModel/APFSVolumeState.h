#pragma once

#include "QLModel/APFSVolumeRole.h"
#include "QLModel/FilesystemFamily.h"
#include "QLSupport/Uuid.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ql {

// What was found for one APFS volume inside a container.
struct APFSVolumeState {
    std::string bsdDevice;
    Uuid volumeUUID;
    std::string name;
    APFSVolumeRole role;
    std::optional<std::string> mountPoint;  // a local path
    std::uint64_t usedBytes = 0;
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
    FilesystemFamily format = FilesystemFamily::apfs;
    std::optional<Uuid> groupUUID;

    friend bool operator==(const APFSVolumeState&, const APFSVolumeState&) = default;
};

}  // namespace ql

#pragma once

#include "QLModel/FilesystemFamily.h"
#include "QLSupport/Uuid.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ql {

// What was found for a single non-APFS volume (or a network share).
struct PlainVolumeState {
    std::string bsdDevice;
    std::string name;
    std::optional<Uuid> volumeUUID;
    std::optional<std::string> mountPoint;  // a local path
    std::uint64_t usedBytes = 0;
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
    FilesystemFamily format = FilesystemFamily::other;

    friend bool operator==(const PlainVolumeState&, const PlainVolumeState&) = default;
};

}  // namespace ql

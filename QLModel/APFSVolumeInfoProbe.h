#pragma once

#include "QLSupport/Uuid.h"

#include <asio.hpp>

#include <optional>
#include <string>

namespace ql {

// What is known about one device as an APFS volume.
struct APFSVolumeInfo {
    std::optional<Uuid> groupUUID;
    std::optional<std::string> role;  // "System", "Data", ... as the platform names it
    std::optional<Uuid> volumeUUID;
    std::optional<std::string> mediumType;
    bool isAPFS = false;
    friend bool operator==(const APFSVolumeInfo&, const APFSVolumeInfo&) = default;
};

// Reads a device's APFS volume facts; absent when the device can't be read.
class APFSVolumeInfoProbe {
public:
    virtual ~APFSVolumeInfoProbe() = default;
    virtual asio::awaitable<std::optional<APFSVolumeInfo>> volumeInfo(std::string device) = 0;
};

}  // namespace ql

#pragma once

#include "QLSupport/Uuid.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// One volume of an APFS container, from the APFS listing.
struct ProbeAPFSContainerVolume {
    std::string deviceIdentifier;     // "DeviceIdentifier"
    std::optional<Uuid> volumeUUID;   // "APFSVolumeUUID"
    std::optional<std::string> name;  // "Name"
    std::vector<std::string> roles;   // "Roles"
    std::optional<Uuid> groupID;      // "APFSVolumeGroupID"
    std::uint64_t capacityInUse = 0;  // "CapacityInUse"

    friend bool operator==(const ProbeAPFSContainerVolume&, const ProbeAPFSContainerVolume&) = default;
};

// One APFS container, from the APFS listing (an element of "Containers").
struct ProbeAPFSContainerDetail {
    std::string containerReference;                 // "ContainerReference"
    std::optional<Uuid> containerUUID;              // "APFSContainerUUID"
    std::vector<std::string> physicalStores;        // "PhysicalStores": device names
    std::vector<ProbeAPFSContainerVolume> volumes;  // "Volumes"
    std::uint64_t capacityCeiling = 0;              // "CapacityCeiling"
    std::uint64_t capacityFree = 0;                 // "CapacityFree"

    friend bool operator==(const ProbeAPFSContainerDetail&, const ProbeAPFSContainerDetail&) = default;
};

}  // namespace ql

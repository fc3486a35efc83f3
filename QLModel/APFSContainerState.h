#pragma once

#include "QLModel/APFSVolumeState.h"
#include "QLSupport/Uuid.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace ql {

// The volume group (a system volume with its data volume and siblings) found in a container.
struct APFSVolumeGroupState {
    Uuid groupUUID;
    friend bool operator==(const APFSVolumeGroupState&, const APFSVolumeGroupState&) = default;
};

// What was found for an APFS container: its UUID, its volume group when it has one, every
// volume it holds, and its capacity.
struct APFSContainerState {
    Uuid containerUUID;
    std::optional<APFSVolumeGroupState> volumeGroup;
    std::vector<APFSVolumeState> allVolumes;
    std::uint64_t capacityCeiling = 0;
    std::uint64_t capacityFree = 0;

    friend bool operator==(const APFSContainerState&, const APFSContainerState&) = default;
};

}  // namespace ql

#pragma once

#include "QLModel/APFSContainerState.h"
#include "QLModel/PlainVolumeState.h"
#include "QLSupport/Iso8601.h"
#include "QLSupport/Uuid.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ql {

// What the resolver found for a volume reference: the live device and the facts read from it.
struct CurrentVolumeState {
    // Device node name of the resolved object: a partition, a container's physical store, a
    // whole disk, or for a network share its share URL.
    std::string bsdDevice;
    // The partition's unique GUID, when on a GPT disk.
    std::optional<Uuid> partitionGUID;
    // Present when the object is an APFS container.
    std::optional<APFSContainerState> containerState;
    // Present when the object is a single non-APFS volume.
    std::optional<PlainVolumeState> standaloneVolume;
    // Size reported for the device.
    std::uint64_t partitionSizeBytes = 0;
    // Whether the volume holds a backup store of the platform's own backup facility.
    bool hasTimeMachine = false;
    // When this state was read.
    SystemTime observedAt{};
    // Registry identifier of the whole disk, to recognise one physical disk across events.
    std::optional<std::uint64_t> wholeDiskRegistryID;
    // For image-backed devices: the whole disk that holds the image, and its device.
    std::optional<std::uint64_t> hostWholeDiskRegistryID;
    std::optional<std::string> hostBSDDevice;
    // Number of physical stores under the container (1 for a plain partition).
    std::int64_t physicalStoreCount = 1;

    friend bool operator==(const CurrentVolumeState&, const CurrentVolumeState&) = default;
};

}  // namespace ql

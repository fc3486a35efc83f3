#pragma once

#include "QLSupport/Uuid.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// The facts of one device, as describing it reports them (property-list key in quotes).
struct ProbeInfo {
    std::string deviceIdentifier;           // "DeviceIdentifier"
    std::optional<std::string> volumeName;  // "VolumeName"
    std::optional<std::string> mountPoint;  // "MountPoint"
    std::uint64_t totalSize = 0;            // "TotalSize"
    std::optional<Uuid> diskUUID;           // "DiskUUID": the partition's unique GUID
    std::optional<Uuid> volumeUUID;         // "VolumeUUID"
    bool partitionMapPartition = false;     // "PartitionMapPartition"
    // Not part of the description: set from the disk listing (the scheme of the parent disk).
    // The Linux probe knows the scheme and sets them itself.
    bool mbrPartition = false;
    bool apmPartition = false;
    std::optional<std::string> content;                 // "Content": content name or type GUID
    std::optional<std::string> filesystemPersonality;   // "FilesystemPersonality"
    std::optional<std::string> apfsContainerReference;  // "APFSContainerReference"
    std::optional<Uuid> apfsContainerUUID;              // "ContainerInfo" → "APFSContainerUUID"
    std::vector<std::string> apfsPhysicalStores;        // "APFSPhysicalStores": device names
    std::vector<std::string> apfsVolumeRole;            // "APFSVolumeRole"
    std::optional<Uuid> apfsVolumeGroupUUID;            // "APFSVolumeGroupID"
    std::uint64_t volumeUsedSpace = 0;                  // "VolumeUsedSpace"
    std::uint64_t volumeFreeSpace = 0;                  // "VolumeFreeSpace"
    // Whether the device is a whole disk rather than a partition or volume ("WholeDisk"), and the
    // whole disk it belongs to ("ParentWholeDisk"). Absent when the description does not say.
    std::optional<bool> wholeDisk;
    std::optional<std::string> parentWholeDisk;
    // "MediaType" of the disk tool ("Generic", ...); on Linux "Rotational" or "Solid State".
    std::optional<std::string> mediaType;
    // Not in the disk tool's output: the registry identifier of the whole disk (on Linux the
    // disk's sequence number, which the kernel never reuses until it restarts).
    std::optional<std::uint64_t> wholeDiskRegistryID;

    friend bool operator==(const ProbeInfo&, const ProbeInfo&) = default;
};

}  // namespace ql

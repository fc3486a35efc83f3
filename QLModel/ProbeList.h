#pragma once

#include "QLSupport/Uuid.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// One partition of a disk, as the disk listing reports it.
struct ProbePartition {
    std::string deviceIdentifier;        // "DeviceIdentifier"
    std::optional<std::string> content;  // "Content": a content name or a partition-type GUID
    std::uint64_t size = 0;              // "Size", bytes
    std::optional<Uuid> diskUUID;        // "DiskUUID": the partition's unique GUID
    std::optional<Uuid> volumeUUID;      // "VolumeUUID"

    friend bool operator==(const ProbePartition&, const ProbePartition&) = default;
};

// One APFS volume of a container disk, as the disk listing reports it.
struct ProbeAPFSVolume {
    std::string deviceIdentifier;           // "DeviceIdentifier"
    std::optional<std::string> name;        // "VolumeName"
    std::uint64_t size = 0;                 // "Size"
    std::optional<std::string> mountPoint;  // "MountPoint"

    friend bool operator==(const ProbeAPFSVolume&, const ProbeAPFSVolume&) = default;
};

// One whole disk of the listing with what it holds.
struct ProbeDisk {
    std::string deviceIdentifier;                 // "DeviceIdentifier"
    std::optional<std::string> content;           // "Content": the partition scheme or a content name
    std::vector<ProbePartition> partitions;       // "Partitions"
    std::vector<ProbeAPFSVolume> apfsVolumes;     // "APFSVolumes"
    std::vector<std::string> apfsPhysicalStores;  // "APFSPhysicalStores": device names

    friend bool operator==(const ProbeDisk&, const ProbeDisk&) = default;
};

// Every disk and partition attached to the machine ("AllDisksAndPartitions").
struct ProbeList {
    std::vector<ProbeDisk> allDisksAndPartitions;

    friend bool operator==(const ProbeList&, const ProbeList&) = default;
};

}  // namespace ql

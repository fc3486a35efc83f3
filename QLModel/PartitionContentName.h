#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// On GUID-partitioned disks the platform reports a partition's type as a GUID; elsewhere it
// reports a content name ("Apple_APFS", "Microsoft Basic Data", ...). Code that classifies
// partitions first maps a type GUID to its content name with `fromTypeGUID`.
struct PartitionContentName {
    // What an individual APFS volume (not a partition) reports as its content; tells a volume
    // from a container.
    static constexpr std::string_view apfsVolumeContentGUID = "41504653-0000-11AA-AA11-00306543ECAC";

    // Maps a partition-type GUID (compared after upper-casing) to its content name; any other
    // value comes back unchanged. Empty or absent input gives absent output. Both the APFS type
    // GUID and its byte-swapped spelling, which some tools report, name an APFS container.
    static std::optional<std::string> fromTypeGUID(std::optional<std::string_view> value);
};

}  // namespace ql

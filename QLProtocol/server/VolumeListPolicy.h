#pragma once

#include "QLProtocol/server/ListedVolume.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// Which mounted volumes the client is shown. Left out, each with the word the decision is
// logged with:
//
//   systemVolume        mounts under "/System/Volumes/" other than the Data volume
//   simulator           simulator volumes under "/Library/Developer/CoreSimulator/"
//   virtualInterface    devices whose media is a "Virtual Interface"
//   systemPartition     recovery and kernel-dump partitions ("Apple_APFS_Recovery",
//                       "Apple_KernelCoreDump"), EFI system partitions, and on Linux the boot
//                       partition mounted at "/boot" and below
//   replicationVolume   volumes the replication tool created ("ASRDataVolume_" prefix)
//   backupVolume        Time Machine volumes named "Backups of " …
//   applicationImage    read-only application images (squashfs)
struct VolumeListPolicy {
    // Why the volume is left out, or nothing when it is listed.
    static std::optional<std::string_view> exclusion(const ListedVolume& volume);

    // The listed volumes, in order.
    static std::vector<ListedVolume> filter(std::vector<ListedVolume> volumes);

    // "[ListVolumes] returning 2 volume(s): Root filesystem, Backup" without the tag.
    static std::string logText(const std::vector<ListedVolume>& volumes);
};

}  // namespace ql

#pragma once

#include "QLProtocol/proto/volumes.pb.h"

#include <string>

namespace ql {

// One mounted volume as a volume lister found it: the summary sent to clients, and the facts
// that decide whether it is listed at all but are not part of the summary.
struct ListedVolume {
    ql4::transport::v1::VolumeSummary summary;
    // The kernel's (or the disk tool's) filesystem type name: "ext4", "btrfs", "cifs", "apfs".
    std::string fsType;
    // The device's media name ("Virtual Interface", "Disk Image") when the platform reports one.
    std::string mediaName;
    // The partition's content: a content name or a partition-type GUID in upper case.
    std::string content;
};

}  // namespace ql

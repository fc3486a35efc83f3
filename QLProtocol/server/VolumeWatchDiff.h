#pragma once

#include "QLProtocol/proto/volumes.pb.h"

#include <string>
#include <vector>

namespace ql {

// The volume events between two listings of the mounted volumes. A volume is the same volume in
// both when its identity matches: its volume UUID when it has one, else its share URL, else its
// device, else its mount point. Events come in this order: every volume that went away
// (`disappeared`, in the old listing's order), then the new listing's volumes that are new
// (`appeared`) or whose summary differs (`changed`). Space figures (used and free bytes) change
// all the time and never make a volume `changed` by themselves.
struct VolumeWatchDiff {
    static std::string identity(const ql4::transport::v1::VolumeSummary& volume);

    static std::vector<ql4::transport::v1::VolumeEvent> between(
        const std::vector<ql4::transport::v1::VolumeSummary>& before,
        const std::vector<ql4::transport::v1::VolumeSummary>& after);
};

}  // namespace ql

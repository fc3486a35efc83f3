#include "QLProtocol/runners/BootablePolicy.h"

namespace ql {

bool BootablePolicy::replicates(const Facts& f) {
    return f.modeIsEraseThenCopy && f.intent && !f.sourceIsFolder && !f.destinationIsFolder &&
           f.sourceIsAPFSVolumeGroup && f.sourceIsBootedSystem && !f.sourceSnapshotUnsealed &&
           !f.destinationIsNetworkShare && f.destinationIsAPFS && f.destinationIsPhysical;
}

bool BootablePolicy::keepsBootable(const KeptFacts& f) {
    return f.modeIsSmartUpdate && !f.sourceIsFolder && !f.destinationIsFolder && f.sourceIsAPFSVolumeGroup &&
           f.destinationIsAPFS && f.destinationIsAPFSVolumeGroup && f.destinationIsPhysical &&
           !f.osBuildsKnownMismatched;
}

std::string BootablePolicy::partitionSchemeRefusal(const std::string& displayName) {
    return displayName +
           " isn't partitioned in a way that can hold a bootable copy, and making one would erase the whole "
           "drive—including any other volumes on it. Choose a different destination, or reformat this drive using "
           "GUID Partition Map to make bootable copies to it.";
}

}  // namespace ql

#pragma once

#include <string>

namespace ql {

// The two rules that decide when a copy is a block-level replication and when an update keeps a
// bootable destination bootable, and the refusal for a disk that cannot hold a bootable copy.
// Pure: callers fill the facts from their probes (the server for its runs, the client to label
// jobs).
struct BootablePolicy {
    struct Facts {
        bool modeIsEraseThenCopy = false;
        bool intent = false;  // the user asked for a bootable copy
        bool sourceIsFolder = false;
        bool destinationIsFolder = false;
        bool sourceIsAPFSVolumeGroup = false;
        bool sourceIsBootedSystem = false;
        bool sourceSnapshotUnsealed = false;
        bool destinationIsNetworkShare = false;
        bool destinationIsAPFS = false;
        bool destinationIsPhysical = false;
        friend bool operator==(const Facts&, const Facts&) = default;
    };

    struct KeptFacts {
        bool modeIsSmartUpdate = false;
        bool sourceIsFolder = false;
        bool destinationIsFolder = false;
        bool sourceIsAPFSVolumeGroup = false;
        bool destinationIsAPFS = false;
        bool destinationIsAPFSVolumeGroup = false;
        bool destinationIsPhysical = false;
        bool osBuildsKnownMismatched = false;
        friend bool operator==(const KeptFacts&, const KeptFacts&) = default;
    };

    // True exactly when the run must be a block-level replication: only the running system's
    // own volume group, erased and replicated onto a physical APFS destination, qualifies.
    static bool replicates(const Facts& facts);

    // True exactly when a Smart Update leaves a bootable destination bootable.
    static bool keepsBootable(const KeptFacts& facts);

    // The refusal for a destination whose disk cannot hold a bootable copy; the caller adds any
    // quotation marks around the name.
    static std::string partitionSchemeRefusal(const std::string& displayName);
};

}  // namespace ql

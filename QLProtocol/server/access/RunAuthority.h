#pragma once

#include <cstdint>
#include <string>

namespace ql {

// The rights one run uses, fixed by the copy service when the run is submitted (from the job's
// stored owner and approval, never from anything the client sent).
//
// A run with `ownerRightsOnly` does everything that touches files as its owner: the engine runs
// with the owner's uid and groups, its destination folder is created as the owner, and the
// steps that need the server's own reach (mounting, snapshots, ownership settings, disk images,
// erasing) refuse. Any other run has the server's full reach: jobs of root (or of the server's
// own user), and jobs an administrator approved.
struct RunAuthority {
    std::uint32_t ownerUid = 0;
    bool ownerRightsOnly = false;

    static RunAuthority fullReach(std::uint32_t ownerUid) { return {ownerUid, false}; }
    static RunAuthority ownerRights(std::uint32_t ownerUid) { return {ownerUid, true}; }

    std::string describe() const;

    friend bool operator==(const RunAuthority&, const RunAuthority&) = default;
};

}  // namespace ql

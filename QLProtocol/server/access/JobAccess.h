#pragma once

#include "QLProtocol/proto/tiles.pb.h"
#include "QLProtocol/server/access/RunAuthority.h"
#include "QLProtocol/transport/CallContext.h"

#include <cstdint>

namespace ql {

// Who may see and use which jobs, and with what rights their runs go.
//
// The server serves every local user over one socket. A caller who is root, or the user the
// server itself runs as (a user-mode server belongs to its user), administers the server: it
// sees every job and run. Anyone else sees only the jobs it created; someone else's job answers
// exactly as a job that doesn't exist would, so its existence isn't revealed.
class JobAccess {
public:
    explicit JobAccess(std::uint32_t serverUid);
    // The server's own effective uid.
    static JobAccess forThisProcess();

    bool administers(const CallContext& caller) const;
    bool mayUse(const CallContext& caller, std::uint32_t ownerUid) const;
    bool mayUse(const CallContext& caller, const ql4::transport::v1::CopyTile& tile) const {
        return mayUse(caller, tile.owner_uid());
    }

    // A root server lowers a job's runs to its owner's rights unless the owner is root (or the
    // server's own user) or an administrator approved the job. A server that isn't root has no
    // more than its user's rights to begin with.
    RunAuthority authorityFor(const ql4::transport::v1::CopyTile& tile) const;

    std::uint32_t serverUid() const { return serverUid_; }

private:
    std::uint32_t serverUid_;
};

}  // namespace ql

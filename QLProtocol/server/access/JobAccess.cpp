#include "QLProtocol/server/access/JobAccess.h"

#include <fmt/format.h>
#include <unistd.h>

namespace ql {

std::string RunAuthority::describe() const {
    return ownerRightsOnly ? fmt::format("owner uid {} (the owner's rights only)", ownerUid)
                           : fmt::format("owner uid {} (the server's full reach)", ownerUid);
}

JobAccess::JobAccess(std::uint32_t serverUid) : serverUid_(serverUid) {}

JobAccess JobAccess::forThisProcess() { return JobAccess(static_cast<std::uint32_t>(::geteuid())); }

bool JobAccess::administers(const CallContext& caller) const { return caller.isRoot() || caller.uid == serverUid_; }

bool JobAccess::mayUse(const CallContext& caller, std::uint32_t ownerUid) const {
    return administers(caller) || caller.uid == ownerUid;
}

RunAuthority JobAccess::authorityFor(const ql4::transport::v1::CopyTile& tile) const {
    const auto owner = tile.owner_uid();
    const bool lowered = serverUid_ == 0 && owner != 0 && !tile.approved_as_administrator();
    return lowered ? RunAuthority::ownerRights(owner) : RunAuthority::fullReach(owner);
}

}  // namespace ql

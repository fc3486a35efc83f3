#pragma once

#include "QLProtocol/proto/tiles.pb.h"
#include "QLProtocol/server/access/CopyAccessCheck.h"
#include "QLProtocol/server/access/JobAccess.h"
#include "QLProtocol/server/approval/AdministratorApproval.h"
#include "QLProtocol/transport/CallContext.h"
#include "QLSupport/BlockingPool.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <memory>
#include <optional>
#include <string>

namespace ql {

// Decides, for the tile service, who a new or changed job belongs to and with what reach it
// may run, before anything is stored:
//
// - a new job belongs to the caller (`owner_uid` from the connection's credentials; whatever
//   the client put there is overwritten), and an existing job keeps its owner;
// - "as administrator" is granted only when the system's authorization service approves the
//   calling process; it is then stamped on the job (`approved_as_administrator`) and survives
//   edits that keep the job's source, destination, rule and mode; any such change clears it;
// - a job that will run with only its owner's rights is refused up front when the owner can't
//   read its source or write its destination (the sentences of `CopyAccessCheck`). Where a
//   side's path can't be known yet (the volume isn't mounted) the check waits for the run.
class TileAdmission {
public:
    using Tile = ql4::transport::v1::CopyTile;

    struct Collaborators {
        JobAccess access = JobAccess::forThisProcess();
        std::shared_ptr<AdministratorApproval> approval;  // null: "as administrator" is refused
        std::shared_ptr<OwnerAccessProbe> ownerAccess;    // null: no pre-check here
        std::shared_ptr<BlockingPool> pool;               // required with an access check
    };

    // The folders a job's two sides name on this machine now, where they can be known.
    struct EndpointPaths {
        std::optional<std::string> source;
        std::optional<std::string> destination;
    };

    explicit TileAdmission(Collaborators collaborators);

    const JobAccess& access() const { return deps_.access; }

    // Stamps owner and approval on a job about to be created; the sentence when it is refused.
    asio::awaitable<tl::expected<void, std::string>> admitNew(CallContext caller, Tile& tile, bool asAdministrator,
                                                              EndpointPaths paths);
    // The same for an edit of `stored` into `incoming`.
    asio::awaitable<tl::expected<void, std::string>> admitChange(CallContext caller, Tile stored, Tile& incoming,
                                                                 bool asAdministrator, EndpointPaths paths);

    // Whether an approval given for `stored` still holds for `incoming`: same source, destination,
    // copy rule and mode.
    static bool approvalCarriesOver(const Tile& stored, const Tile& incoming);

    static constexpr const char* kApprovalDenied =
        "An administrator didn’t approve this copy, so Quillo changed nothing. Ask an administrator to set up this "
        "copy.";
    static constexpr const char* kNoReachBeyondUser =
        "This copy server runs with your own rights only, so it can’t copy as administrator. Ask an administrator to "
        "set up Quillo’s system copy server.";

private:
    // Asks the authorization service; the refusal sentence when it doesn't approve.
    asio::awaitable<tl::expected<void, std::string>> approve(CallContext caller, std::string tileID);
    asio::awaitable<tl::expected<void, std::string>> precheck(std::uint32_t ownerUid, std::string tileID,
                                                              EndpointPaths paths);

    // An approval means something only for a job whose owner doesn't administer the server.
    bool ownerLacksFullReach(std::uint32_t ownerUid) const;

    Collaborators deps_;
};

}  // namespace ql

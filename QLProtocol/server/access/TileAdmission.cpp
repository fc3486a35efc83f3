#include "QLProtocol/server/access/TileAdmission.h"

#include "QLSupport/Log.h"

#include <google/protobuf/util/message_differencer.h>

namespace ql {

namespace {

constexpr const char* kTag = "access";

// The parts of a binding that say which folder of which volume it means; the rest (device
// hints, display names, sizes) is refreshed by enrichment and doesn't change what is copied.
bool sameEndpoint(const ql4::transport::v1::VolumeBinding& a, const ql4::transport::v1::VolumeBinding& b) {
    return a.volume_uuid() == b.volume_uuid() && a.partition_guid() == b.partition_guid() &&
           a.subpath() == b.subpath() && a.network_url() == b.network_url() &&
           google::protobuf::util::MessageDifferencer::Equals(a.disk_image(), b.disk_image());
}

}  // namespace

TileAdmission::TileAdmission(Collaborators collaborators) : deps_(std::move(collaborators)) {}

bool TileAdmission::ownerLacksFullReach(std::uint32_t ownerUid) const {
    CallContext owner;
    owner.uid = ownerUid;
    return !deps_.access.administers(owner);
}

bool TileAdmission::approvalCarriesOver(const Tile& stored, const Tile& incoming) {
    return sameEndpoint(stored.source(), incoming.source()) &&
           sameEndpoint(stored.destination(), incoming.destination()) &&
           stored.copy_rule_filename() == incoming.copy_rule_filename() &&
           stored.copy_script() == incoming.copy_script() && stored.copy_mode() == incoming.copy_mode();
}

asio::awaitable<tl::expected<void, std::string>> TileAdmission::admitNew(CallContext caller, Tile& tile,
                                                                         bool asAdministrator, EndpointPaths paths) {
    tile.set_owner_uid(caller.uid);
    tile.set_approved_as_administrator(false);
    if (asAdministrator) {
        auto approved = co_await approve(caller, tile.id());
        if (!approved) co_return approved;
        tile.set_approved_as_administrator(ownerLacksFullReach(tile.owner_uid()));
        co_return tl::expected<void, std::string>{};
    }
    if (!deps_.access.authorityFor(tile).ownerRightsOnly) co_return tl::expected<void, std::string>{};
    co_return co_await precheck(tile.owner_uid(), tile.id(), std::move(paths));
}

asio::awaitable<tl::expected<void, std::string>> TileAdmission::admitChange(CallContext caller, Tile stored,
                                                                            Tile& incoming, bool asAdministrator,
                                                                            EndpointPaths paths) {
    incoming.set_owner_uid(stored.owner_uid());
    const bool carriesOver = approvalCarriesOver(stored, incoming);
    incoming.set_approved_as_administrator(stored.approved_as_administrator() && carriesOver);
    if (stored.approved_as_administrator() && !carriesOver) {
        Log::f(kTag, "tile {}: source, destination, rule or mode changed — the administrator's approval is cleared",
               stored.id());
    }
    if (asAdministrator && !incoming.approved_as_administrator()) {
        auto approved = co_await approve(caller, stored.id());
        if (!approved) co_return approved;
        incoming.set_approved_as_administrator(ownerLacksFullReach(incoming.owner_uid()));
        co_return tl::expected<void, std::string>{};
    }
    if (carriesOver || !deps_.access.authorityFor(incoming).ownerRightsOnly) co_return tl::expected<void, std::string>{};
    co_return co_await precheck(incoming.owner_uid(), incoming.id(), std::move(paths));
}

asio::awaitable<tl::expected<void, std::string>> TileAdmission::approve(CallContext caller, std::string tileID) {
    using Result = tl::expected<void, std::string>;
    if (deps_.access.administers(caller)) {
        Log::f(kTag, "tile {}: \"as administrator\" asked by an administrator ({}) — nothing to approve", tileID,
               caller.describe());
        co_return Result{};
    }
    if (deps_.access.serverUid() != 0) {
        Log::f(kTag, "tile {}: \"as administrator\" refused — this server runs as uid {}", tileID,
               deps_.access.serverUid());
        co_return Result(tl::unexpect, kNoReachBeyondUser);
    }
    if (!deps_.approval) {
        Log::f(kTag, "tile {}: \"as administrator\" refused — no authorization service is configured", tileID);
        co_return Result(tl::unexpect, kApprovalDenied);
    }
    auto approval = deps_.approval;
    ApprovalSubject subject{caller.uid, caller.pid, caller.processStartTime};
    auto verdict = co_await approval->check(subject, copyAsAdministratorAction(), true);
    switch (verdict.kind) {
        case ApprovalVerdict::Kind::approved:
            Log::f(kTag, "tile {}: an administrator approved copying as administrator for {}", tileID,
                   caller.describe());
            co_return Result{};
        case ApprovalVerdict::Kind::denied:
            Log::f(kTag, "tile {}: copying as administrator denied for {} ({})", tileID, caller.describe(),
                   verdict.detail);
            co_return Result(tl::unexpect, kApprovalDenied);
        case ApprovalVerdict::Kind::unavailable:
            Log::f(kTag, "tile {}: approval unavailable for {} ({})", tileID, caller.describe(), verdict.detail);
            co_return Result(tl::unexpect, verdict.detail.empty() ? std::string(kApprovalDenied) : verdict.detail);
    }
    co_return Result(tl::unexpect, kApprovalDenied);
}

asio::awaitable<tl::expected<void, std::string>> TileAdmission::precheck(std::uint32_t ownerUid, std::string tileID,
                                                                         EndpointPaths paths) {
    using Result = tl::expected<void, std::string>;
    if (!deps_.ownerAccess || !deps_.pool) co_return Result{};
    if (!paths.source || !paths.destination) {
        Log::f(kTag, "tile {}: a side isn't mounted here — the access check waits for the run", tileID);
        co_return Result{};
    }
    auto probe = deps_.ownerAccess;
    auto work = [probe, ownerUid, source = *paths.source, destination = *paths.destination] {
        return CopyAccessCheck(*probe).check(ownerUid, source, destination);
    };
    co_return co_await deps_.pool->run(std::move(work));
}

}  // namespace ql

#include "QLProtocol/runners/LiveCopyServiceProvider.h"

#include "QLProtocol/server/RunIdText.h"
#include "QLProtocol/server/access/ApprovedRequest.h"
#include "QLSupport/Iso8601.h"
#include "QLSupport/Log.h"
#include "QLSupport/Uuid.h"

#include <optional>
#include <stdexcept>

namespace ql {

namespace {

// A UUID field must be empty (none) or 16 bytes.
std::optional<HandlerError> malformedUUID(const std::string& field, const std::string& bytes) {
    if (bytes.empty()) return std::nullopt;
    auto decoded = UUIDCodec::decode(bytes);
    if (decoded) return std::nullopt;
    return HandlerError::failed("malformed " + field + ": " + decoded.error().message());
}

// A run id must be present and 16 bytes.
tl::expected<std::string, HandlerError> runIDOf(const wire::RunId& id) {
    if (id.value().empty()) return tl::unexpected(HandlerError::failed("malformed run_id: the request names no run"));
    auto decoded = UUIDCodec::decode(id.value());
    if (!decoded) return tl::unexpected(HandlerError::failed("malformed run_id: " + decoded.error().message()));
    return id.value();
}

std::string noSuchJob(const std::string& id) { return "There is no copy job with the id " + id + "."; }

// What the job manager answers for a run it doesn't know, given to a caller who may not see
// the run either.
wire::RunControlResponse runNotFound(std::string_view verb) {
    wire::RunControlResponse response;
    response.set_ok(false);
    response.set_error_message(verb == "cancel" ? "run not found or already terminated" : "run not found or not running");
    return response;
}

std::optional<HandlerError> validate(const wire::CopyRequest& request) {
    if (request.tile_id().empty()) return HandlerError::failed("the copy request names no job (tile_id is empty)");
    if (auto bad = malformedUUID("source_volume_uuid", request.source_volume_uuid())) return bad;
    if (auto bad = malformedUUID("destination_volume_uuid", request.destination_volume_uuid())) return bad;
    if (auto bad = malformedUUID("destination_volume_group_uuid", request.destination_volume_group_uuid())) return bad;
    return std::nullopt;
}

}  // namespace

LiveCopyServiceProvider::LiveCopyServiceProvider(Collaborators collaborators) : deps_(std::move(collaborators)) {
    if (!deps_.jobManager) throw std::invalid_argument("the copy service needs a job manager");
    if (!deps_.authorizer) deps_.authorizer = std::make_shared<NoOpCopyAuthorizer>();
}

StreamResult<wire::ClonerEvent> LiveCopyServiceProvider::runCloner(CallContext caller, wire::CopyRequest request) {
    return submit(caller, std::move(request), JobManager::RunKind::copy);
}

StreamResult<wire::ClonerEvent> LiveCopyServiceProvider::previewRun(CallContext caller, wire::CopyRequest request) {
    return submit(caller, std::move(request), JobManager::RunKind::preview);
}

StreamResult<wire::ClonerEvent> LiveCopyServiceProvider::submit(CallContext caller, wire::CopyRequest request,
                                                                JobManager::RunKind kind) {
    if (auto bad = validate(request)) {
        Log::f("copy-service", "{} refused for tile '{}': {}", caseName(kind), request.tile_id(), bad->message);
        co_return tl::unexpected(*bad);
    }
    RunAuthority authority = RunAuthority::fullReach(0);
    if (deps_.jobs) {
        auto lookup = deps_.jobs;
        auto tile = co_await lookup(request.tile_id());
        if (!tile || !deps_.access.mayUse(caller, *tile)) {
            Log::f("copy-service", "{} refused for tile '{}': no such job for {}", caseName(kind), request.tile_id(),
                   caller.describe());
            co_return tl::unexpected(HandlerError::failed(noSuchJob(request.tile_id())));
        }
        authority = deps_.access.authorityFor(*tile);
        if (!authority.ownerRightsOnly && !deps_.access.administers(caller)) {
            if (auto pinned = ApprovedRequest::pin(request, *tile); !pinned) {
                Log::f("copy-service", "{} refused for tile '{}': {}", caseName(kind), request.tile_id(),
                       pinned.error());
                co_return tl::unexpected(HandlerError::failed(pinned.error()));
            }
        }
    }
    auto authorizer = deps_.authorizer;
    const bool allowed = co_await authorizer->authorizes(request);
    if (!allowed) {
        Log::f("copy-service", "{} for tile {} not authorized — refused, nothing queued", caseName(kind),
               request.tile_id());
        auto [producer, consumer] = EventStream<wire::ClonerEvent>::make();
        wire::ClonerEvent failed;
        failed.set_timestamp_unix_nanos(toUnixNanos(std::chrono::system_clock::now()));
        failed.mutable_failed()->set_error_message(kAuthorizationRequired);
        failed.mutable_failed()->set_failed_phase("authorization");
        producer.push(std::move(failed));
        producer.finish();
        co_return std::move(consumer);
    }
    auto manager = deps_.jobManager;
    auto submission = co_await manager->enqueue(std::move(request), kind, nullptr, authority);
    co_return std::move(submission.events);
}

asio::awaitable<bool> LiveCopyServiceProvider::mayControl(const CallContext& caller, const std::string& runID) {
    if (deps_.access.administers(caller)) co_return true;
    auto manager = deps_.jobManager;
    auto owner = co_await manager->ownerOf(runID);
    const bool allowed = owner && *owner == caller.uid;
    if (owner && !allowed) {
        Log::f("copy-service", "runID={} belongs to uid {}, not to {} — answered as missing", RunIdText::hex(runID),
               *owner, caller.describe());
    }
    co_return allowed;
}

StreamResult<wire::ClonerEvent> LiveCopyServiceProvider::joinRun(CallContext caller, wire::JoinRunRequest request) {
    auto id = runIDOf(request.run_id());
    if (!id) co_return tl::unexpected(id.error());
    auto manager = deps_.jobManager;
    // Someone else's run is joined as one that doesn't exist (no co_await inside a conditional
    // expression: see the note on g++ 12 and temporaries in ARCHITECTURE.md).
    tl::expected<JobManager::Events::Consumer, JobManager::SubscribeError> joined =
        tl::unexpected(JobManager::SubscribeError::unknownRunID);
    const bool visible = co_await mayControl(caller, *id);
    if (visible) joined = co_await manager->subscribe(*id);
    if (!joined) {
        Log::f("subscribe", "JoinRun runID={} — no such run", RunIdText::hex(*id));
        co_return tl::unexpected(HandlerError::failed("no run with id " + RunIdText::uuid(*id) +
                                                      " (it never existed, or ended long enough ago to be forgotten)"));
    }
    co_return std::move(*joined);
}

UnaryResult<wire::RunControlResponse> LiveCopyServiceProvider::cancelRun(CallContext caller, wire::RunControlRequest request) {
    auto id = runIDOf(request.run_id());
    if (!id) co_return tl::unexpected(id.error());
    if (!co_await mayControl(caller, *id)) co_return runNotFound("cancel");
    auto manager = deps_.jobManager;
    co_return co_await manager->cancel(*id);
}

UnaryResult<wire::RunControlResponse> LiveCopyServiceProvider::pauseRun(CallContext caller, wire::RunControlRequest request) {
    auto id = runIDOf(request.run_id());
    if (!id) co_return tl::unexpected(id.error());
    if (!co_await mayControl(caller, *id)) co_return runNotFound("pause");
    auto manager = deps_.jobManager;
    co_return co_await manager->pause(*id);
}

UnaryResult<wire::RunControlResponse> LiveCopyServiceProvider::resumeRun(CallContext caller, wire::RunControlRequest request) {
    auto id = runIDOf(request.run_id());
    if (!id) co_return tl::unexpected(id.error());
    if (!co_await mayControl(caller, *id)) co_return runNotFound("resume");
    auto manager = deps_.jobManager;
    co_return co_await manager->resume(*id);
}

UnaryResult<wire::ListActiveRunsResponse> LiveCopyServiceProvider::listActiveRuns(CallContext caller, wire::ListActiveRunsRequest) {
    auto manager = deps_.jobManager;
    std::optional<std::uint32_t> ownedBy;
    if (!deps_.access.administers(caller)) ownedBy = caller.uid;
    auto runs = co_await manager->listActive(ownedBy);
    wire::ListActiveRunsResponse response;
    for (auto& run : runs) *response.add_runs() = std::move(run);
    co_return response;
}

UnaryResult<wire::UnlockResultResponse> LiveCopyServiceProvider::reportUnlockResult(CallContext caller,
                                                                                  wire::UnlockResultRequest request) {
    auto id = runIDOf(request.run_id());
    if (!id) co_return tl::unexpected(id.error());
    wire::UnlockResultResponse response;
    if (!co_await mayControl(caller, *id)) {
        response.set_ok(false);
        co_return response;
    }
    if (auto mailbox = deps_.unlockResults) {
        const bool taken = co_await mailbox->post(std::move(request));
        response.set_ok(taken);
    } else {
        Log::f("unlock", "ReportUnlockResult runID={} — no run here waits for an answer", RunIdText::hex(*id));
        response.set_ok(false);
    }
    co_return response;
}

StreamResult<wire::ClonerEvent> LiveCopyServiceProvider::probeImageDestination(CallContext, wire::ImageProbeRequest) {
    co_return tl::unexpected(HandlerError::failed("this version can't examine disk images"));
}

StreamResult<wire::ClonerEvent> LiveCopyServiceProvider::createImageDestination(CallContext, wire::ImageCreateRequest) {
    co_return tl::unexpected(HandlerError::failed("this version can't create disk images"));
}

}  // namespace ql

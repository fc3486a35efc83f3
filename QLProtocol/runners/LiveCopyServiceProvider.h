#pragma once

#include "QLProtocol/server/CopyAuthorizer.h"
#include "QLProtocol/server/JobManager.h"
#include "QLProtocol/server/UnlockResultMailbox.h"
#include "QLProtocol/server/access/JobAccess.h"
#include "QLProtocol/transport/CopyService.h"

#include <functional>
#include <memory>
#include <optional>

namespace ql {

// The server half of the copy service: checks each incoming copy request, hands it to the job
// manager and relays the run's events; joins, controls and lists runs.
//
//   RunCloner, PreviewRun   refused copies get one `failed` event ("authorization required:
//                           unlock Quillo or approve this copy", phase "authorization") and
//                           nothing is queued; otherwise the run's stream (a job that already
//                           has a run of the same kind queued or running is attached to it)
//   JoinRun                 the run's replay and live events
//   CancelRun, PauseRun,    the job manager's answer
//   ResumeRun
//   ListActiveRuns          queued and running runs, in the order they were enqueued
//   ReportUnlockResult      handed to the unlock mailbox
//   ProbeImageDestination,  refused: this server has no disk-image coordinator
//   CreateImageDestination
//
// Runs are private like jobs: a caller who doesn't administer the server may start runs only
// of its own jobs and sees, joins and controls only its own runs; anyone else's answers as a
// run or job that doesn't exist. Each run gets its `RunAuthority` from the stored job (its
// owner, and whether an administrator approved it); a request for an approved job is pinned to
// what was approved (`ApprovedRequest`).
//
// Malformed requests (a run id or volume UUID that is not 16 bytes, a copy without a job id) are
// refused with a handler error naming the field. The other methods answer "… is not available
// on this server" until the server has what they need.
class LiveCopyServiceProvider final : public CopyServiceProvider {
public:
    // The stored job with this id, if there is one.
    using JobLookup = std::function<asio::awaitable<std::optional<ql4::transport::v1::CopyTile>>(std::string id)>;

    struct Collaborators {
        std::shared_ptr<JobManager> jobManager;             // required
        // Where runs find their job's owner and approval. Null: every job is taken as root's,
        // for servers (and tests) that keep no job store.
        JobLookup jobs;
        JobAccess access = JobAccess::forThisProcess();
        std::shared_ptr<CopyAuthorizer> authorizer;         // null: every copy is allowed
        std::shared_ptr<UnlockResultMailbox> unlockResults;  // null: answers are not taken
    };

    explicit LiveCopyServiceProvider(Collaborators collaborators);

    StreamResult<wire::ClonerEvent> runCloner(CallContext caller, wire::CopyRequest request) override;
    StreamResult<wire::ClonerEvent> previewRun(CallContext caller, wire::CopyRequest request) override;
    StreamResult<wire::ClonerEvent> joinRun(CallContext caller, wire::JoinRunRequest request) override;
    UnaryResult<wire::RunControlResponse> cancelRun(CallContext caller, wire::RunControlRequest request) override;
    UnaryResult<wire::RunControlResponse> pauseRun(CallContext caller, wire::RunControlRequest request) override;
    UnaryResult<wire::RunControlResponse> resumeRun(CallContext caller, wire::RunControlRequest request) override;
    UnaryResult<wire::ListActiveRunsResponse> listActiveRuns(CallContext caller, wire::ListActiveRunsRequest request) override;
    UnaryResult<wire::UnlockResultResponse> reportUnlockResult(CallContext caller, wire::UnlockResultRequest request) override;
    StreamResult<wire::ClonerEvent> probeImageDestination(CallContext caller, wire::ImageProbeRequest request) override;
    StreamResult<wire::ClonerEvent> createImageDestination(CallContext caller, wire::ImageCreateRequest request) override;

    static constexpr const char* kAuthorizationRequired = "authorization required: unlock Quillo or approve this copy";

private:
    StreamResult<wire::ClonerEvent> submit(CallContext caller, wire::CopyRequest request, JobManager::RunKind kind);
    // Whether the caller may see and control this run (an unknown run: no).
    asio::awaitable<bool> mayControl(const CallContext& caller, const std::string& runID);

    Collaborators deps_;
};

}  // namespace ql

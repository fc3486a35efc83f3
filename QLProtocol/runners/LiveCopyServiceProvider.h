#pragma once

#include "QLProtocol/server/CopyAuthorizer.h"
#include "QLProtocol/server/JobManager.h"
#include "QLProtocol/server/UnlockResultMailbox.h"
#include "QLProtocol/transport/CopyService.h"

#include <memory>

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
// Malformed requests (a run id or volume UUID that is not 16 bytes, a copy without a job id) are
// refused with a handler error naming the field. The other methods answer "… is not available
// on this server" until the server has what they need.
class LiveCopyServiceProvider final : public CopyServiceProvider {
public:
    struct Collaborators {
        std::shared_ptr<JobManager> jobManager;             // required
        std::shared_ptr<CopyAuthorizer> authorizer;         // null: every copy is allowed
        std::shared_ptr<UnlockResultMailbox> unlockResults;  // null: answers are not taken
    };

    explicit LiveCopyServiceProvider(Collaborators collaborators);

    StreamResult<wire::ClonerEvent> runCloner(wire::CopyRequest request) override;
    StreamResult<wire::ClonerEvent> previewRun(wire::CopyRequest request) override;
    StreamResult<wire::ClonerEvent> joinRun(wire::JoinRunRequest request) override;
    UnaryResult<wire::RunControlResponse> cancelRun(wire::RunControlRequest request) override;
    UnaryResult<wire::RunControlResponse> pauseRun(wire::RunControlRequest request) override;
    UnaryResult<wire::RunControlResponse> resumeRun(wire::RunControlRequest request) override;
    UnaryResult<wire::ListActiveRunsResponse> listActiveRuns(wire::ListActiveRunsRequest request) override;
    UnaryResult<wire::UnlockResultResponse> reportUnlockResult(wire::UnlockResultRequest request) override;
    StreamResult<wire::ClonerEvent> probeImageDestination(wire::ImageProbeRequest request) override;
    StreamResult<wire::ClonerEvent> createImageDestination(wire::ImageCreateRequest request) override;

    static constexpr const char* kAuthorizationRequired = "authorization required: unlock Quillo or approve this copy";

private:
    StreamResult<wire::ClonerEvent> submit(wire::CopyRequest request, JobManager::RunKind kind);

    Collaborators deps_;
};

}  // namespace ql

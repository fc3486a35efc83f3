#pragma once

#include "QLProtocol/proto/services.pb.h"
#include "QLProtocol/transport/ServiceClient.h"
#include "QLProtocol/transport/ServiceMethod.h"
#include "QLProtocol/transport/ServiceServer.h"

#include <string_view>

namespace ql {

// ql4.transport.v1.CopyService: runs, previews, run control, disk-image destinations and the
// hand-shakes of a run with the user session.
//
// The provider interface: override the methods this server offers (see ServiceMethod.h for the
// contract); every other method answers "/ql4.transport.v1.CopyService/<Method> is not
// available on this server", so this class itself is the provider of a server that offers none.
class CopyServiceProvider {
public:
    virtual ~CopyServiceProvider() = default;

    virtual StreamResult<wire::ClonerEvent> runCloner(CallContext, wire::CopyRequest) { return notAvailable; }
    virtual StreamResult<wire::ClonerEvent> previewRun(CallContext, wire::CopyRequest) { return notAvailable; }
    virtual StreamResult<wire::ClonerEvent> joinRun(CallContext, wire::JoinRunRequest) { return notAvailable; }
    virtual UnaryResult<wire::RunControlResponse> cancelRun(CallContext, wire::RunControlRequest) { return notAvailable; }
    virtual UnaryResult<wire::RunControlResponse> pauseRun(CallContext, wire::RunControlRequest) { return notAvailable; }
    virtual UnaryResult<wire::RunControlResponse> resumeRun(CallContext, wire::RunControlRequest) { return notAvailable; }
    virtual UnaryResult<wire::ListActiveRunsResponse> listActiveRuns(CallContext, wire::ListActiveRunsRequest) { return notAvailable; }
    virtual UnaryResult<wire::StatImageDestinationResponse> statImageDestination(CallContext, wire::StatImageDestinationRequest) { return notAvailable; }
    virtual StreamResult<wire::ClonerEvent> probeImageDestination(CallContext, wire::ImageProbeRequest) { return notAvailable; }
    virtual StreamResult<wire::ClonerEvent> createImageDestination(CallContext, wire::ImageCreateRequest) { return notAvailable; }
    virtual UnaryResult<wire::GetPreviewStatusResponse> getPreviewStatus(CallContext, wire::GetPreviewStatusRequest) { return notAvailable; }
    virtual UnaryResult<wire::ListActivePreviewsResponse> listActivePreviews(CallContext, wire::ListActivePreviewsRequest) { return notAvailable; }
    virtual UnaryResult<wire::ListPreviewChildrenResponse> listPreviewChildren(CallContext, wire::ListPreviewChildrenRequest) { return notAvailable; }
    virtual UnaryResult<wire::UnlockResultResponse> reportUnlockResult(CallContext, wire::UnlockResultRequest) { return notAvailable; }
    virtual UnaryResult<wire::ImagePassphraseResponse> provideImagePassphrase(CallContext, wire::ImagePassphraseRequest) { return notAvailable; }
    virtual UnaryResult<wire::ClaimPowerActionResponse> claimPowerAction(CallContext, wire::ClaimPowerActionRequest) { return notAvailable; }
    virtual UnaryResult<wire::ClaimImagePasswordResponse> claimImagePassword(CallContext, wire::ClaimImagePasswordRequest) { return notAvailable; }
};

// The method table: one line per method.
struct CopyService {
    using Provider = CopyServiceProvider;
    static constexpr std::string_view fullName = "ql4.transport.v1.CopyService";
    using Methods = MethodTable<
        Method<"RunCloner", &Provider::runCloner>,
        Method<"PreviewRun", &Provider::previewRun>,
        Method<"JoinRun", &Provider::joinRun>,
        Method<"CancelRun", &Provider::cancelRun>,
        Method<"PauseRun", &Provider::pauseRun>,
        Method<"ResumeRun", &Provider::resumeRun>,
        Method<"ListActiveRuns", &Provider::listActiveRuns>,
        Method<"StatImageDestination", &Provider::statImageDestination>,
        Method<"ProbeImageDestination", &Provider::probeImageDestination>,
        Method<"CreateImageDestination", &Provider::createImageDestination>,
        Method<"GetPreviewStatus", &Provider::getPreviewStatus>,
        Method<"ListActivePreviews", &Provider::listActivePreviews>,
        Method<"ListPreviewChildren", &Provider::listPreviewChildren>,
        Method<"ReportUnlockResult", &Provider::reportUnlockResult>,
        Method<"ProvideImagePassphrase", &Provider::provideImagePassphrase>,
        Method<"ClaimPowerAction", &Provider::claimPowerAction>,
        Method<"ClaimImagePassword", &Provider::claimImagePassword>>;
};

using CopyServiceClient = ServiceClient<CopyService>;
using CopyServiceServer = ServiceServer<CopyService>;

extern template class ServiceServer<CopyService>;

}  // namespace ql

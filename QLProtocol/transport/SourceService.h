#pragma once

#include "QLProtocol/proto/services.pb.h"
#include "QLProtocol/transport/ServiceClient.h"
#include "QLProtocol/transport/ServiceMethod.h"
#include "QLProtocol/transport/ServiceServer.h"

#include <string_view>

namespace ql {

// ql4.transport.v1.SourceService: volumes and their snapshots, and browsing a source.
//
// The provider interface: override the methods this server offers (see ServiceMethod.h for the
// contract); every other method answers "/ql4.transport.v1.SourceService/<Method> is not
// available on this server", so this class itself is the provider of a server that offers none.
class SourceServiceProvider {
public:
    virtual ~SourceServiceProvider() = default;

    virtual UnaryResult<wire::ListVolumesResponse> listVolumes(CallContext, wire::ListVolumesRequest) { return notAvailable; }
    virtual StreamResult<wire::VolumeEvent> watchVolumes(CallContext, wire::WatchVolumesRequest) { return notAvailable; }
    virtual UnaryResult<wire::GetVolumeInfoResponse> getVolumeInfo(CallContext, wire::GetVolumeInfoRequest) { return notAvailable; }
    virtual UnaryResult<wire::GetCurrentEventIdResponse> getCurrentEventId(CallContext, wire::GetCurrentEventIdRequest) { return notAvailable; }
    virtual UnaryResult<wire::CreateSnapshotResponse> createSnapshot(CallContext, wire::CreateSnapshotRequest) { return notAvailable; }
    virtual UnaryResult<wire::MountSnapshotResponse> mountSnapshot(CallContext, wire::MountSnapshotRequest) { return notAvailable; }
    virtual UnaryResult<wire::UnmountSnapshotResponse> unmountSnapshot(CallContext, wire::UnmountSnapshotRequest) { return notAvailable; }
    virtual UnaryResult<wire::DeleteLocalSnapshotResponse> deleteLocalSnapshot(CallContext, wire::DeleteLocalSnapshotRequest) { return notAvailable; }
    virtual UnaryResult<wire::EnumerateDirectoryResponse> enumerateDirectory(CallContext, wire::EnumerateDirectoryRequest) { return notAvailable; }
    virtual UnaryResult<wire::StatPathResponse> statPath(CallContext, wire::StatPathRequest) { return notAvailable; }
};

// The method table: one line per method.
struct SourceService {
    using Provider = SourceServiceProvider;
    static constexpr std::string_view fullName = "ql4.transport.v1.SourceService";
    using Methods = MethodTable<
        Method<"ListVolumes", &Provider::listVolumes>,
        Method<"WatchVolumes", &Provider::watchVolumes>,
        Method<"GetVolumeInfo", &Provider::getVolumeInfo>,
        Method<"GetCurrentEventId", &Provider::getCurrentEventId>,
        Method<"CreateSnapshot", &Provider::createSnapshot>,
        Method<"MountSnapshot", &Provider::mountSnapshot>,
        Method<"UnmountSnapshot", &Provider::unmountSnapshot>,
        Method<"DeleteLocalSnapshot", &Provider::deleteLocalSnapshot>,
        Method<"EnumerateDirectory", &Provider::enumerateDirectory>,
        Method<"StatPath", &Provider::statPath>>;
};

using SourceServiceClient = ServiceClient<SourceService>;
using SourceServiceServer = ServiceServer<SourceService>;

extern template class ServiceServer<SourceService>;

}  // namespace ql

#pragma once

#include "QLProtocol/proto/services.pb.h"
#include "QLProtocol/transport/ServiceClient.h"
#include "QLProtocol/transport/ServiceMethod.h"
#include "QLProtocol/transport/ServiceServer.h"

#include <string_view>

namespace ql {

// ql4.transport.v1.DestinationService: destination preparation: erasing, ownership and the cryptex
// copy of a bootable copy.
//
// The provider interface: override the methods this server offers (see ServiceMethod.h for the
// contract); every other method answers "/ql4.transport.v1.DestinationService/<Method> is not
// available on this server", so this class itself is the provider of a server that offers none.
class DestinationServiceProvider {
public:
    virtual ~DestinationServiceProvider() = default;

    virtual UnaryResult<wire::EraseVolumeResponse> eraseVolume(CallContext, wire::EraseVolumeRequest) { return notAvailable; }
    virtual UnaryResult<wire::SetVolumeOwnershipResponse> setVolumeOwnership(CallContext, wire::SetVolumeOwnershipRequest) { return notAvailable; }
    virtual UnaryResult<wire::CopyCryptexesResponse> copyCryptexesToDestination(CallContext, wire::CopyCryptexesRequest) { return notAvailable; }
};

// The method table: one line per method.
struct DestinationService {
    using Provider = DestinationServiceProvider;
    static constexpr std::string_view fullName = "ql4.transport.v1.DestinationService";
    using Methods = MethodTable<
        Method<"EraseVolume", &Provider::eraseVolume>,
        Method<"SetVolumeOwnership", &Provider::setVolumeOwnership>,
        Method<"CopyCryptexesToDestination", &Provider::copyCryptexesToDestination>>;
};

using DestinationServiceClient = ServiceClient<DestinationService>;
using DestinationServiceServer = ServiceServer<DestinationService>;

extern template class ServiceServer<DestinationService>;

}  // namespace ql

#pragma once

#include "QLProtocol/proto/services.pb.h"
#include "QLProtocol/transport/ServiceClient.h"
#include "QLProtocol/transport/ServiceMethod.h"
#include "QLProtocol/transport/ServiceServer.h"

#include <string_view>

namespace ql {

// ql4.transport.v1.LockService: the copy lock and copy authorisation.
//
// The provider interface: override the methods this server offers (see ServiceMethod.h for the
// contract); every other method answers "/ql4.transport.v1.LockService/<Method> is not
// available on this server", so this class itself is the provider of a server that offers none.
class LockServiceProvider {
public:
    virtual ~LockServiceProvider() = default;

    virtual UnaryResult<wire::LockStatusResponse> getLockStatus(CallContext, wire::LockStatusRequest) { return notAvailable; }
    virtual UnaryResult<wire::UnlockResponse> unlock(CallContext, wire::UnlockRequest) { return notAvailable; }
    virtual UnaryResult<wire::LockResponse> lock(CallContext, wire::LockRequest) { return notAvailable; }
    virtual UnaryResult<wire::AuthorizeCopyResponse> authorizeCopy(CallContext, wire::AuthorizeCopyRequest) { return notAvailable; }
};

// The method table: one line per method.
struct LockService {
    using Provider = LockServiceProvider;
    static constexpr std::string_view fullName = "ql4.transport.v1.LockService";
    using Methods = MethodTable<
        Method<"GetLockStatus", &Provider::getLockStatus>,
        Method<"Unlock", &Provider::unlock>,
        Method<"Lock", &Provider::lock>,
        Method<"AuthorizeCopy", &Provider::authorizeCopy>>;
};

using LockServiceClient = ServiceClient<LockService>;
using LockServiceServer = ServiceServer<LockService>;

extern template class ServiceServer<LockService>;

}  // namespace ql

#pragma once

#include "QLProtocol/proto/services.pb.h"
#include "QLProtocol/transport/ServiceClient.h"
#include "QLProtocol/transport/ServiceMethod.h"
#include "QLProtocol/transport/ServiceServer.h"

#include <string_view>

namespace ql {

// ql4.transport.v1.SystemService: ping, shutdown and diagnostics of the server process.
//
// The provider interface: override the methods this server offers (see ServiceMethod.h for the
// contract); every other method answers "/ql4.transport.v1.SystemService/<Method> is not
// available on this server", so this class itself is the provider of a server that offers none.
class SystemServiceProvider {
public:
    virtual ~SystemServiceProvider() = default;

    virtual UnaryResult<wire::PingResponse> ping(CallContext, wire::PingRequest) { return notAvailable; }
    virtual UnaryResult<wire::ShutdownResponse> shutdown(CallContext, wire::ShutdownRequest) { return notAvailable; }
    virtual UnaryResult<wire::CollectGeneralDiagnosticResponse> collectGeneralDiagnostic(CallContext, wire::CollectGeneralDiagnosticRequest) { return notAvailable; }
};

// The method table: one line per method.
struct SystemService {
    using Provider = SystemServiceProvider;
    static constexpr std::string_view fullName = "ql4.transport.v1.SystemService";
    using Methods = MethodTable<
        Method<"Ping", &Provider::ping>,
        Method<"Shutdown", &Provider::shutdown>,
        Method<"CollectGeneralDiagnostic", &Provider::collectGeneralDiagnostic>>;
};

using SystemServiceClient = ServiceClient<SystemService>;
using SystemServiceServer = ServiceServer<SystemService>;

extern template class ServiceServer<SystemService>;

}  // namespace ql

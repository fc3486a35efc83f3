#include "QLProtocol/server/DeferredActionExecutor.h"

#include "QLSupport/Log.h"

namespace ql {

asio::awaitable<void> NoOpDeferredActionExecutor::eject(ql4::transport::v1::VolumeRef volume) {
    Log::f("deferred-action stub", "eject {} — no-op executor", volume.display_name());
    co_return;
}

asio::awaitable<void> NoOpDeferredActionExecutor::disconnect(std::string volumeUUID, std::string mountPath) {
    (void)volumeUUID;
    Log::f("deferred-action stub", "disconnect {} — no-op executor", mountPath);
    co_return;
}

asio::awaitable<void> NoOpDeferredActionExecutor::power(PowerAction action) {
    Log::f("deferred-action stub", "power {} — no-op executor", caseName(action));
    co_return;
}

}  // namespace ql

#include "server-main/LiveSystemServiceProvider.h"

#include "QLSupport/Iso8601.h"
#include "QLSupport/Log.h"

#include <sys/stat.h>

namespace ql {

LiveSystemServiceProvider::LiveSystemServiceProvider(std::shared_ptr<const Clock> clock, std::int64_t buildStamp,
                                                     bool fullDiskAccess, Hooks hooks)
    : clock_(std::move(clock)), buildStamp_(buildStamp), fullDiskAccess_(fullDiskAccess), hooks_(std::move(hooks)) {}

std::int64_t LiveSystemServiceProvider::buildStampOf(const std::string& executable) {
    struct stat info {};
    if (::stat(executable.c_str(), &info) != 0) return 0;
    return static_cast<std::int64_t>(info.st_mtime);
}

UnaryResult<wire::PingResponse> LiveSystemServiceProvider::ping(CallContext, wire::PingRequest request) {
    wire::PingResponse response;
    response.set_nonce(request.nonce());
    response.set_server_timestamp_unix_nanos(toUnixNanos(clock_->now()));
    response.set_fda_granted(fullDiskAccess_);
    response.set_daemon_binary_stamp_unix(buildStamp_);
    co_return response;
}

UnaryResult<wire::ShutdownResponse> LiveSystemServiceProvider::shutdown(CallContext caller,
                                                                        wire::ShutdownRequest request) {
    const int active = hooks_.activeRuns ? co_await hooks_.activeRuns() : 0;
    wire::ShutdownResponse response;
    response.set_active_runs(active);
    if (request.force() && !hooks_.access.administers(caller)) {
        Log::f("SystemService", "Shutdown force asked by {}, who doesn't administer this server — not forced",
               caller.describe());
        request.set_force(false);
    }
    const bool will = request.force() || active == 0;
    response.set_will_shutdown(will);
    Log::f("SystemService", "Shutdown force={} active_runs={} → {}", request.force(), active,
           will ? "shutting down" : "refused (runs are active)");
    if (will && hooks_.requestShutdown) hooks_.requestShutdown(request.force());
    co_return response;
}

UnaryResult<wire::CollectGeneralDiagnosticResponse> LiveSystemServiceProvider::collectGeneralDiagnostic(
    CallContext, wire::CollectGeneralDiagnosticRequest) {
    wire::CollectGeneralDiagnosticResponse response;
    if (!hooks_.collectGeneralDiagnostic) {
        response.set_error(kNoDiagnostics);
        co_return response;
    }
    auto collected = co_await hooks_.collectGeneralDiagnostic();
    if (collected) {
        response.set_sidecar_path(*collected);
    } else {
        response.set_error(collected.error());
    }
    co_return response;
}

}  // namespace ql

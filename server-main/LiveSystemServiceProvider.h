#pragma once

#include "QLProtocol/server/access/JobAccess.h"
#include "QLProtocol/transport/SystemService.h"
#include "QLSupport/Clock.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace ql {

// The server process's own service: `Ping` (the nonce back, the time, whether the server has
// Full Disk Access, and the build stamp of the running executable, which a client compares with
// the one it ships to tell a stale server), `Shutdown` and the general diagnostic.
//
// `Shutdown` without `force` is refused while runs are active (the answer says how many); with
// `force`, or with nothing running, the server is asked to shut down once the answer is on its
// way. Diagnostics are collected by the diagnostics bundle; a server without one answers
// "general diagnostic collection is not available".
class LiveSystemServiceProvider final : public SystemServiceProvider {
public:
    struct Hooks {
        // How many runs are queued or running.
        std::function<asio::awaitable<int>()> activeRuns;
        // Starts shutting the server down (returns at once); `force` cancels active runs.
        std::function<void(bool force)> requestShutdown;
        // Who administers this server: only they may force a shutdown that cancels runs.
        JobAccess access = JobAccess::forThisProcess();
        // The general diagnostic's file, or nothing when this server cannot collect one.
        std::function<asio::awaitable<tl::expected<std::string, std::string>>()> collectGeneralDiagnostic;
    };

    LiveSystemServiceProvider(std::shared_ptr<const Clock> clock, std::int64_t buildStamp, bool fullDiskAccess,
                              Hooks hooks);

    UnaryResult<wire::PingResponse> ping(CallContext, wire::PingRequest request) override;
    // Someone who doesn't administer the server may restart it only while nothing runs: their
    // `force` is not honoured, so nobody's copies end because another user asked.
    UnaryResult<wire::ShutdownResponse> shutdown(CallContext caller, wire::ShutdownRequest request) override;
    UnaryResult<wire::CollectGeneralDiagnosticResponse> collectGeneralDiagnostic(
        CallContext, wire::CollectGeneralDiagnosticRequest request) override;

    static constexpr const char* kNoDiagnostics = "general diagnostic collection is not available";

    // The build stamp of an executable: its modification time in Unix seconds (0 when it can't
    // be read).
    static std::int64_t buildStampOf(const std::string& executable);

private:
    std::shared_ptr<const Clock> clock_;
    std::int64_t buildStamp_;
    bool fullDiskAccess_;
    Hooks hooks_;
};

}  // namespace ql

#pragma once

#include "QLProtocol/server/approval/AdministratorApproval.h"
#include "QLModel/VolumeResolverEnvironment.h"
#include "QLProtocol/runners/QlcopyJobRunner.h"
#include "QLProtocol/server/ServerPaths.h"
#include "QLProtocol/server/VolumeEventSource.h"
#include "server-main/ServerOptions.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace ql {

class BlockingPool;
class CopyTileStore;
class JobManager;
class LiveAttestationListener;
class LiveRunFinishedNotifier;
class MultiplexHandler;
class ShellRunner;
class UDSServer;
class VolumeResolver;

// The copy server, wired together: the job store, the run table with its runner factories, the
// services, and the socket. `start` follows the server's start-up order — load the job store,
// run the start-up sweeps this build has, listen — and `shutdown` drains: nothing new begins,
// queued runs end, running runs are cancelled when asked to and waited for, and the socket
// closes.
class ServerAssembly {
public:
    // What tests replace: the disk probes behind the resolver (to describe temporary folders as
    // volumes), the volume-host lookup and the owner setting.
    struct Overrides {
        std::function<VolumeResolverEnvironment()> resolverEnvironment;
        VolumeHost::Lookup volumeHost;
        std::shared_ptr<VolumeOwnership> ownership;
        // Volume appearance for healing job bindings; the platform's watch when not given.
        std::function<std::shared_ptr<VolumeEventSource>()> volumeEvents;
        // Who approves copies "as administrator"; the platform's authorization service when
        // not given.
        std::shared_ptr<AdministratorApproval> approval;
    };

    ServerAssembly(asio::io_context& io, ServerOptions options, std::filesystem::path serverExecutable,
                   Overrides overrides = {});
    ~ServerAssembly();
    ServerAssembly(const ServerAssembly&) = delete;
    ServerAssembly& operator=(const ServerAssembly&) = delete;

    // The error is a sentence for the log (a state folder that can't be made, a socket that is
    // taken, no engine).
    asio::awaitable<tl::expected<void, std::string>> start();

    // Starts shutting down from any thread (a signal, the Shutdown request); `onFinished` runs
    // once, when the server has drained and stopped listening. Later requests change nothing.
    void requestShutdown(bool cancelRuns, std::string why);
    void setOnFinished(std::function<void()> onFinished);

    // Drains and stops; what `requestShutdown` runs.
    asio::awaitable<void> shutdown(bool cancelRuns, std::string why);

    const std::string& socketPath() const { return socketPath_; }
    const ServerPaths& paths() const { return paths_; }
    const std::string& enginePath() const { return enginePath_; }
    bool runningAsRoot() const { return runningAsRoot_; }

private:
    struct Parts;

    asio::io_context& io_;
    ServerOptions options_;
    std::filesystem::path serverExecutable_;
    Overrides overrides_;
    ServerPaths paths_;
    std::string socketPath_;
    std::string enginePath_;
    bool runningAsRoot_ = false;
    std::unique_ptr<Parts> parts_;

    std::mutex mutex_;
    bool shutdownRequested_ = false;
    bool finished_ = false;
    std::function<void()> onFinished_;
};

}  // namespace ql

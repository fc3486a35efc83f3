#include "server-main/ServerAssembly.h"

#include "QLModel/EngineStateFormat.h"
#include "QLModel/LiveHardwareSerialProbe.h"
#include "QLModel/LiveVolumeProbe.h"
#include "QLModel/VolumeResolver.h"
#include "QLProtocol/runners/DispatchingJobRunnerFactory.h"
#include "QLProtocol/runners/LiveCopyServiceProvider.h"
#include "QLProtocol/runners/LiveVolumeOwnership.h"
#include "QLProtocol/runners/NoOpMountCoordinator.h"
#include "QLProtocol/runners/NoOpOnSuccessExecutor.h"
#include "QLProtocol/runners/NoOpShareConnectHandshake.h"
#include "QLProtocol/runners/QlcopyJobRunnerFactory.h"
#include "QLProtocol/server/CopyTileStore.h"
#include "QLProtocol/server/DeferredPathsSink.h"
#include "QLProtocol/server/JobManager.h"
#include "QLProtocol/server/LiveRunRecordSink.h"
#include "QLProtocol/server/LiveSourceServiceProvider.h"
#include "QLProtocol/server/LiveTileServiceProvider.h"
#include "QLProtocol/server/VolumeEventSource.h"
#include "QLProtocol/server/RunFinishedNotifier.h"
#include "QLProtocol/server/RunIdText.h"
#include "QLProtocol/server/TileStateBroker.h"
#include "QLProtocol/server/access/JobAccess.h"
#include "QLProtocol/server/access/TileAdmission.h"
#include "QLSupport/OwnerAccess.h"
#include "QLProtocol/transport/AttestationSessions.h"
#include "QLProtocol/transport/CopyService.h"
#include "QLProtocol/transport/DestinationService.h"
#include "QLProtocol/transport/LiveAttestationListener.h"
#include "QLProtocol/transport/LockService.h"
#include "QLProtocol/transport/MultiplexHandler.h"
#include "QLProtocol/transport/SocketPath.h"
#include "QLProtocol/transport/SourceService.h"
#include "QLProtocol/transport/SystemService.h"
#include "QLProtocol/transport/TileService.h"
#include "QLProtocol/transport/UDSServer.h"
#include "QLSupport/BlockingPool.h"
#include "QLSupport/Clock.h"
#include "QLSupport/Log.h"
#include "QLSupport/ShellRunner.h"
#include "server-main/FullDiskAccess.h"
#include "server-main/LiveSystemServiceProvider.h"
#include "server-main/ServerPlatform.h"
#include "QLProtocol/runners/UnavailableJobRunnerFactory.h"

#include <unistd.h>

#include <fmt/format.h>

namespace ql {

namespace fs = std::filesystem;

namespace {
constexpr const char* kTag = "qlcopyserver";

ServerPaths pathsFor(const ServerOptions& options) { return ServerPaths::forPlatform(options.stateRoot); }

asio::awaitable<void> materializeTileState(std::shared_ptr<TileStateBroker> broker, std::string tileID,
                                           std::uint32_t engineUid) {
    co_await broker->materialize(std::move(tileID), engineUid);
}

asio::awaitable<void> captureTileState(std::shared_ptr<TileStateBroker> broker, std::string tileID,
                                       std::uint32_t engineUid) {
    co_await broker->capture(std::move(tileID), engineUid);
}

asio::awaitable<std::optional<ql4::transport::v1::CopyTile>> lookUpJob(CopyTileStore* store, std::string id) {
    co_return co_await store->get(std::move(id));
}

asio::awaitable<int> countActiveRuns(std::weak_ptr<JobManager> weakManager) {
    auto manager = weakManager.lock();
    if (!manager) co_return 0;
    auto active = co_await manager->listActive();
    co_return static_cast<int>(active.size());
}
}  // namespace

// Everything the running server holds, in the order it is built (and the reverse of the order it
// goes away in).
struct ServerAssembly::Parts {
    std::shared_ptr<BlockingPool> pool;
    std::shared_ptr<LiveClock> clock;
    std::shared_ptr<ShellRunner> shell;
    std::unique_ptr<CopyTileStore> store;
    std::unique_ptr<LiveRunFinishedNotifier> notifier;
    std::shared_ptr<LiveRunRecordSink> runRecords;
    std::shared_ptr<VolumeProbe> probe;
    std::shared_ptr<VolumeResolver> resolver;
    std::shared_ptr<AdministratorApproval> approval;
    std::shared_ptr<OwnerAccessProbe> ownerAccess;
    std::shared_ptr<JobManager> jobManager;
    std::shared_ptr<LiveTileServiceProvider> tiles;
    std::shared_ptr<LiveSourceServiceProvider> sources;
    std::shared_ptr<AttestationSessions> sessions;
    std::shared_ptr<MultiplexHandler> handler;
    std::shared_ptr<UDSServer> server;
    std::shared_ptr<LiveAttestationListener> attestation;
};

ServerAssembly::ServerAssembly(asio::io_context& io, ServerOptions options, fs::path serverExecutable,
                               Overrides overrides)
    : io_(io),
      options_(std::move(options)),
      serverExecutable_(std::move(serverExecutable)),
      overrides_(std::move(overrides)),
      paths_(pathsFor(options_)),
      runningAsRoot_(::geteuid() == 0) {
    if (options_.socketPath) {
        socketPath_ = *options_.socketPath;
    } else if (options_.stateRoot) {
        socketPath_ = (*options_.stateRoot / SocketPath::fileName).string();
    } else {
        socketPath_ = SocketPath::serverDefault();
    }
}

ServerAssembly::~ServerAssembly() {
    if (parts_ && parts_->server) parts_->server->stop();
    if (parts_ && parts_->attestation) parts_->attestation->stop();
}

void ServerAssembly::setOnFinished(std::function<void()> onFinished) {
    std::lock_guard lock(mutex_);
    onFinished_ = std::move(onFinished);
}

asio::awaitable<tl::expected<void, std::string>> ServerAssembly::start() {
    using Result = tl::expected<void, std::string>;
    Log::f(kTag, "starting ({} mode) — state {}, logs {}, socket {}", runningAsRoot_ ? "root" : "user",
           paths_.stateDirectory().string(), paths_.logDirectory().string(), socketPath_);
    if (auto made = paths_.ensureStateDirectory(); !made) co_return Result(tl::unexpect, made.error());
    if (auto made = paths_.ensureLogDirectory(); !made) co_return Result(tl::unexpect, made.error());
    if (auto parent = fs::path(socketPath_).parent_path(); !parent.empty()) {
        std::error_code ec;
        fs::create_directories(parent, ec);
    }

    auto engine = options_.resolveEngine(serverExecutable_);
    if (!engine) {
        std::string tried;
        for (const auto& candidate : ServerOptions::engineCandidates(serverExecutable_)) {
            tried += (tried.empty() ? "" : ", ") + candidate;
        }
        co_return Result(tl::unexpect, "the copy engine qlcopy was not found (looked at " + tried +
                                           "); give its path with --engine");
    }
    enginePath_ = *engine;
    Log::f(kTag, "copy engine {}", enginePath_);

    auto parts = std::make_unique<Parts>();
    const auto executor = io_.get_executor();
    parts->pool = std::make_shared<BlockingPool>(4);
    parts->clock = std::make_shared<LiveClock>();
    parts->shell = std::make_shared<LiveShellRunner>(*parts->pool);

    // 1. The job store.
    parts->store = std::make_unique<CopyTileStore>(executor, paths_.tilesFile(), *parts->pool, *parts->clock);
    co_await parts->store->load();
    {
        auto tiles = co_await parts->store->list();
        Log::f(kTag, "job store loaded: {} job(s) from {}", tiles.size(), paths_.tilesFile().string());
    }

    // 2. The start-up sweeps. Snapshots, disk-image attachments and booked wakes are not made by
    // this build, so a previous instance cannot have left any behind.
    Log::line(kTag, "start-up sweeps: none needed (this build makes no snapshots, disk-image attachments or wakes)");

    // 3. The run table and its runners.
    auto notifierOptions = LiveRunFinishedNotifier::defaultOptions();
    notifierOptions.systemBus = runningAsRoot_;
    parts->notifier = std::make_unique<LiveRunFinishedNotifier>(*parts->shell, notifierOptions);
    LiveRunRecordSink::Options sinkOptions;
    sinkOptions.retentionCap = options_.runRecordRetention;
    parts->runRecords = std::make_shared<LiveRunRecordSink>(executor, *parts->store, paths_.logDirectory(),
                                                            *parts->pool, *parts->notifier, sinkOptions);

    VolumeResolverEnvironment resolverEnvironment;
    if (overrides_.resolverEnvironment) {
        resolverEnvironment = overrides_.resolverEnvironment();
    } else {
        parts->probe = makeLiveVolumeProbe(*parts->shell, *parts->pool);
        resolverEnvironment =
            VolumeResolverEnvironment::live(parts->probe, std::make_shared<LiveHardwareSerialProbe>());
    }
    parts->resolver = std::make_shared<VolumeResolver>(executor, std::move(resolverEnvironment));

    auto environment = std::make_shared<QlcopyJobRunner::Environment>();
    environment->binary = enginePath_;
    environment->resolver = parts->resolver;
    if (overrides_.volumeHost) environment->volumeHost = overrides_.volumeHost;
    // Each job's scan state lives in the job store; around a run the broker writes it where the
    // engine reads it and stores what the engine left, so the next run can scan incrementally.
    const auto stateFolder = paths_.fsEventsStateDirectory();
    auto stateBroker = std::make_shared<LiveTileStateBroker>(*parts->store, stateFolder, kEngineStateFormat);
    environment->statePathFor = [stateFolder, stateBroker](const ql4::transport::v1::CopyRequest& request,
                                                           const ql4::transport::v1::RunId& runID,
                                                           std::uint32_t engineUid) {
        std::error_code ec;
        fs::create_directories(stateFolder, ec);
        const auto name = request.tile_id().empty() ? "run-" + RunIdText::hex(runID.value()) : request.tile_id();
        return stateBroker->stateFile(name, engineUid).string();
    };
    environment->materializeTileState = [stateBroker](std::string tileID, std::string, std::uint32_t engineUid) {
        return materializeTileState(stateBroker, std::move(tileID), engineUid);
    };
    environment->captureTileState = [stateBroker](std::string tileID, std::string, std::uint32_t engineUid) {
        return captureTileState(stateBroker, std::move(tileID), engineUid);
    };
    parts->ownerAccess = std::make_shared<LiveOwnerAccessProbe>();
    environment->ownerAccess = parts->ownerAccess;
    environment->shell = parts->shell;
    environment->mountCoordinator = std::make_shared<NoOpMountCoordinator>();
    environment->ownership =
        overrides_.ownership ? overrides_.ownership : std::make_shared<LiveVolumeOwnership>(*parts->shell);
    ServerPlatform::configureRunners(*environment, *parts->shell);
    environment->shareConnect = std::make_shared<NoOpShareConnectHandshake>();
    environment->onSuccessExecutor = std::make_shared<NoOpOnSuccessExecutor>();
    environment->killGrace = options_.engineKillGrace;
    environment->validationTimeout = options_.copyRuleCheckTimeout;

    auto qlcopyFactory = std::make_shared<QlcopyJobRunnerFactory>(executor, environment);
    auto dispatch = std::make_shared<DispatchingJobRunnerFactory>(
        qlcopyFactory, std::make_shared<UnavailableJobRunnerFactory>(UnavailableJobRunnerFactory::kReplicationMessage),
        std::make_shared<UnavailableJobRunnerFactory>(UnavailableJobRunnerFactory::kEraseThenCopyMessage));

    JobManager::Collaborators collaborators;
    collaborators.factory = dispatch;
    collaborators.clock = parts->clock;
    collaborators.runRecordSink = parts->runRecords;
    collaborators.deferredPathsSink = std::make_shared<LiveDeferredPathsSink>(*parts->store);
    JobManager::Settings settings;
    settings.eventBufferCap = options_.eventBufferCap;
    settings.runLogLineCap = options_.runLogLineCap;
    parts->jobManager = JobManager::create(executor, std::move(collaborators), settings);

    // 4. The services.
    parts->handler = std::make_shared<MultiplexHandler>();
    // Jobs and runs are private to the user who made them; a root server lowers a user's runs
    // to that user's rights unless an administrator approved the job.
    const auto access = JobAccess::forThisProcess();
    LiveCopyServiceProvider::Collaborators copyCollaborators;
    copyCollaborators.jobManager = parts->jobManager;
    copyCollaborators.access = access;
    copyCollaborators.jobs = [store = parts->store.get()](std::string id) { return lookUpJob(store, std::move(id)); };
    parts->handler->add(
        std::make_shared<CopyServiceServer>(std::make_shared<LiveCopyServiceProvider>(copyCollaborators)));
    LiveSystemServiceProvider::Hooks hooks;
    std::weak_ptr<JobManager> weakManager = parts->jobManager;
    hooks.activeRuns = [weakManager] { return countActiveRuns(weakManager); };
    hooks.requestShutdown = [this](bool force) {
        requestShutdown(force, force ? "Shutdown request (force)" : "Shutdown request");
    };
    parts->handler->add(std::make_shared<SystemServiceServer>(std::make_shared<LiveSystemServiceProvider>(
        parts->clock, LiveSystemServiceProvider::buildStampOf(serverExecutable_.string()), FullDiskAccess::granted(),
        std::move(hooks))));
    parts->approval = overrides_.approval ? overrides_.approval
                                          : std::shared_ptr<AdministratorApproval>(
                                                makeLiveAdministratorApproval(*parts->pool));
    TileAdmission::Collaborators admission{access, parts->approval, parts->ownerAccess, parts->pool};
    parts->tiles = std::make_shared<LiveTileServiceProvider>(
        executor, *parts->store, *parts->resolver,
        LiveTileServiceProvider::Options{nullptr, parts->clock, std::make_shared<TileAdmission>(admission)});
    std::shared_ptr<VolumeEventSource> volumeEvents;
    if (overrides_.volumeEvents) {
        volumeEvents = overrides_.volumeEvents();
    } else {
        volumeEvents = std::make_shared<LiveVolumeEventSource>();
    }
    co_await parts->tiles->start(volumeEvents);
    parts->handler->add(std::make_shared<TileServiceServer>(parts->tiles));
    parts->sources = LiveSourceServiceProvider::live(executor, parts->resolver, parts->pool);
    parts->handler->add(std::make_shared<SourceServiceServer>(parts->sources));
    // Services whose providers later parts of the server bring answer "not available" until then.
    parts->handler->add(std::make_shared<DestinationServiceServer>(std::make_shared<DestinationServiceProvider>()));
    parts->handler->add(std::make_shared<LockServiceServer>(std::make_shared<LockServiceProvider>()));

    // 5. Listen.
    AttestationSessions::Options sessionOptions;
    sessionOptions.mode = AttestationSessions::defaultMode(runningAsRoot_);
    if (options_.attestationMode) {
        if (auto mode = AttestationSessions::parseMode(*options_.attestationMode)) sessionOptions.mode = *mode;
    }
    parts->sessions = std::make_shared<AttestationSessions>(executor, sessionOptions, parts->clock);
    UDSServer::Options serverOptions;
    serverOptions.socketPath = socketPath_;
    serverOptions.sessions = parts->sessions;
    parts->server = std::make_shared<UDSServer>(executor, serverOptions, parts->handler);
    if (auto started = parts->server->start(); !started) co_return Result(tl::unexpect, started.error());

    std::vector<std::string> clients = options_.clientExecutables;
    if (clients.empty()) {
        const auto folder = serverExecutable_.parent_path();
        clients = {(folder / "quillo").string(), (folder.parent_path() / "app" / "cli" / "quillo").string()};
    }
    LiveAttestationListener::Options attestationOptions;
    attestationOptions.socketPath = SocketPath::attestationPath(socketPath_);
    attestationOptions.policy = AttestationPeerPolicy::forServer(clients, ::geteuid());
    parts->attestation = std::make_shared<LiveAttestationListener>(executor, attestationOptions, parts->sessions);
    if (auto started = parts->attestation->start(); !started) {
        Log::f(kTag, "attestation listener not started: {}", started.error());
    }
    Log::f(kTag, "listening on {} (attestation {})", socketPath_, AttestationSessions::modeName(sessionOptions.mode));
    parts_ = std::move(parts);
    co_return Result();
}

void ServerAssembly::requestShutdown(bool cancelRuns, std::string why) {
    {
        std::lock_guard lock(mutex_);
        if (shutdownRequested_) return;
        shutdownRequested_ = true;
    }
    asio::co_spawn(io_, shutdown(cancelRuns, std::move(why)), asio::detached);
}

asio::awaitable<void> ServerAssembly::shutdown(bool cancelRuns, std::string why) {
    Log::f(kTag, "shutting down ({}{})", why, cancelRuns ? ", cancelling active runs" : "");
    // Let the answer to a Shutdown request reach its client before connections close.
    asio::steady_timer settle(io_);
    settle.expires_after(std::chrono::milliseconds(100));
    co_await settle.async_wait(asio::use_awaitable);

    if (parts_ && parts_->jobManager) {
        auto manager = parts_->jobManager;
        if (cancelRuns) {
            auto active = co_await manager->listActive();
            for (const auto& run : active) {
                auto id = run.run_id().value();
                co_await manager->cancel(std::move(id));
            }
        }
        co_await manager->drain();
        Log::line(kTag, "every run has ended");
    }
    if (parts_ && parts_->tiles) co_await parts_->tiles->stop();
    if (parts_ && parts_->sources) co_await parts_->sources->shutdown();
    if (parts_ && parts_->server) parts_->server->stop();
    if (parts_ && parts_->attestation) parts_->attestation->stop();
    Log::line(kTag, "stopped listening; goodbye");

    std::function<void()> done;
    {
        std::lock_guard lock(mutex_);
        if (finished_) co_return;
        finished_ = true;
        done = onFinished_;
    }
    if (done) done();
}

}  // namespace ql

#pragma once

#include "QLModel/VolumeRef.h"
#include "QLModel/VolumeResolver.h"
#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/runners/CancelReason.h"
#include "QLProtocol/runners/ConsoleUser.h"
#include "QLProtocol/runners/DestinationRecoverySnapshot.h"
#include "QLProtocol/runners/EndpointSide.h"
#include "QLProtocol/runners/KeybagProvenance.h"
#include "QLProtocol/runners/MountCoordinator.h"
#include "QLProtocol/runners/OnSuccessExecutor.h"
#include "QLProtocol/runners/PickedEndpoint.h"
#include "QLProtocol/runners/QlcopyInvocation.h"
#include "QLProtocol/runners/RunnerError.h"
#include "QLProtocol/runners/ShareConnectHandshake.h"
#include "QLProtocol/runners/SourceSnapshotCoordinator.h"
#include "QLProtocol/runners/VolumeHost.h"
#include "QLProtocol/runners/VolumeOwnership.h"
#include "QLProtocol/server/JobRunner.h"
#include "QLProtocol/server/PauseState.h"
#include "QLProtocol/server/access/RunAuthority.h"
#include "QLSupport/Actor.h"
#include "QLProtocol/runners/LineAccumulator.h"
#include "QLSupport/OwnerAccess.h"
#include "QLSupport/PosixSpawnedProcess.h"
#include "QLSupport/ShellRunner.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ql {

// Runs one file-level copy: every Smart Update, Copy Newer and Copy Different run and every
// preview. It prepares both ends (resolve, mount, ownership, source snapshot), runs the copy
// engine `qlcopy` with its one command line, relays the engine's events, and then always
// tears down what it set up in a fixed post-copy sequence before it emits exactly one terminal
// event.
//
// An actor: everything it does runs on its strand. The engine's event pipe is read there too,
// whole lines at a time, so every engine event is handled in order and between any two of them
// a cancel or a pause can take effect. Cancel sends SIGINT and, if the engine is still there
// eight seconds later, SIGKILL; pause stops the engine with SIGSTOP at the next event (at once
// when the engine has gone quiet), resume continues it with SIGCONT.
//
// A run with its owner's rights only (`Options::authority`) does everything that touches files
// as the owner: the copy-rule check and the engine run with the owner's uid and groups, the
// owner's access to both folders is checked first, a missing destination folder is created as
// the owner, and the steps that need the server's own reach (mounting, volume ownership
// settings, snapshots) are refused or skipped with a log line.
class QlcopyJobRunner final : public JobRunner, public Actor, public std::enable_shared_from_this<QlcopyJobRunner> {
public:
    using CancelReason = ql::CancelReason;
    using RunnerError = ql::RunnerError;
    using PickedEndpoint = ql::PickedEndpoint;
    using CopyRequest = ql4::transport::v1::CopyRequest;
    using RunId = ql4::transport::v1::RunId;
    using Event = ql4::transport::v1::ClonerEvent;

    // The tile-state hand-over around a run: before it, the job's stored file-system-event state
    // is written where the engine reads it; after it, what the engine left is stored again.
    // `engineUid` is the user the engine runs as (0: root).
    using TileStateHook =
        std::function<asio::awaitable<void>(std::string tileID, std::string statePath, std::uint32_t engineUid)>;

    // What every runner of a server shares; the factory holds one and hands it to each runner.
    struct Environment {
        // The engine executable.
        std::string binary;
        std::shared_ptr<VolumeResolver> resolver;
        VolumeHost::Lookup volumeHost = LiveVolumeHost::lookup;
        // The engine's state file for a run whose engine runs as `engineUid`.
        std::function<std::string(const CopyRequest&, const RunId&, std::uint32_t engineUid)> statePathFor;
        TileStateHook materializeTileState;
        TileStateHook captureTileState;
        // Runs the engine's copy-rule check and the platform tools of the preparation.
        std::shared_ptr<ShellRunner> shell;
        std::shared_ptr<MountCoordinator> mountCoordinator;
        std::shared_ptr<VolumeOwnership> ownership;
        std::shared_ptr<SourceSnapshotCoordinator> snapshotCoordinator;  // null: no snapshots
        std::shared_ptr<DestinationRecoverySnapshot> recoverySnapshot;   // null: none taken
        std::shared_ptr<ShareConnectHandshake> shareConnect;
        std::shared_ptr<OnSuccessExecutor> onSuccessExecutor;
        // Access checks and folder creation with a job owner's rights; null: the live probe.
        std::shared_ptr<OwnerAccessProbe> ownerAccess;
        // The keybag the engine watches; null or nothing: nothing is said about it.
        std::function<std::optional<KeybagProvenance>()> keybagSentinel;
        std::function<std::optional<ConsoleUser>()> consoleUser = ConsoleUser::current;
        // The system's firmlink list (macOS); a missing file means no firmlinks.
        std::string firmlinksPath = "/usr/share/firmlinks";

        // How long the engine may take to answer the copy-rule check.
        std::chrono::milliseconds validationTimeout{std::chrono::seconds(20)};
        // Between SIGINT and SIGKILL when cancelling.
        std::chrono::milliseconds killGrace{std::chrono::seconds(8)};
        // An engine that has written nothing for this long is paused at once, not at its next
        // event.
        std::chrono::milliseconds quietPauseAfter{std::chrono::seconds(1)};
        // A requested pause is carried out by then even without another event.
        std::chrono::milliseconds pauseDeadline{std::chrono::seconds(2)};
        // After the engine exited, how long its event pipe may stay open.
        std::chrono::milliseconds pipeDrainLimit{std::chrono::seconds(2)};
        // How often the engine's exit is looked for.
        std::chrono::milliseconds exitPollInterval{std::chrono::milliseconds(50)};
    };

    // What a particular caller (the erase-then-copy runner) adds to one run.
    struct Options {
        // Called with the destination's mount path after a successful copy (volume icon,
        // indexing state).
        std::function<asio::awaitable<void>(std::string mountPath)> postCopyRestore;
        bool destinationFreshlyErased = false;
        // The startup-disk flag step, when configured.
        std::function<asio::awaitable<void>(std::string destinationMount)> startupDiskFlag;
        // Whose run this is and whether it may use the server's full reach.
        RunAuthority authority;
    };

    QlcopyJobRunner(const Executor& executor, std::shared_ptr<const Environment> environment, CopyRequest request,
                    RunId runID, Options options);
    ~QlcopyJobRunner() override;

    // JobRunner.
    Events::Consumer run() override;
    asio::awaitable<void> cancel() override;
    asio::awaitable<bool> pause() override;
    asio::awaitable<bool> resume() override;

    // Stops the run for a reason: a watcher's reason ends it as failed with the reason's sentence.
    asio::awaitable<void> cancel(CancelReason reason);

    // The runner's log tag.
    static constexpr const char* kTag = "QlcopyJobRunner";

    // The firmlink scaffold named in the system's firmlink list (one "path<TAB>target" per line):
    // the first column of every line, without its leading "/".
    static std::vector<std::string> firmlinkEntries(std::string_view listText);

private:
    struct Prepared;
    struct Stop;
    struct EngineTerminal;

    asio::awaitable<void> runOnStrand();
    asio::awaitable<void> cancelOnStrand(CancelReason reason);
    asio::awaitable<void> listenerGoneOnStrand();
    asio::awaitable<bool> pauseOnStrand();
    asio::awaitable<bool> resumeOnStrand();

    // The steps before the engine.
    asio::awaitable<tl::expected<Prepared, Stop>> prepare();
    asio::awaitable<tl::expected<PickedEndpoint, RunnerError>> pick(EndpointSide side, VolumeRef ref,
                                                                    std::string label);
    tl::expected<std::string, RunnerError> composePath(EndpointSide side, const VolumeRef& ref,
                                                       const PickedEndpoint& endpoint);
    asio::awaitable<void> enableOwnership(Prepared& prepared);
    asio::awaitable<tl::expected<void, Stop>> takeSnapshots(Prepared& prepared);
    std::optional<Stop> checkpoint(std::string_view step);
    Stop fail(const RunnerError& error);

    // The engine.
    asio::awaitable<void> runEngine(const Prepared& prepared);
    asio::awaitable<void> readEvents(std::shared_ptr<asio::posix::stream_descriptor> pipe);
    asio::awaitable<void> readDiagnostics(std::shared_ptr<asio::posix::stream_descriptor> pipe, bool keep);
    asio::awaitable<void> awaitExit(std::shared_ptr<asio::posix::stream_descriptor> pipe);
    void handleLine(const std::string& line);
    void stopEngineForPause(std::string_view why);
    asio::awaitable<void> killAfterGrace(std::uint64_t generation);
    asio::awaitable<void> pauseDeadline(std::uint64_t generation);
    Event selectTerminal(bool& synthesized);

    // After the engine (or instead of it).
    asio::awaitable<void> postCopy(Event terminal, bool synthesized);

    void emit(Event event);
    void logStep(std::string text, bool toClient = true);
    void logWarning(std::string text);
    void beginPhase(std::string phase);
    void endPhase(bool succeeded);
    void beginStep(std::string step);
    void endStep(bool succeeded, std::string error = {});
    std::string sideKey(EndpointSide side) const;
    std::string exitText() const;

    std::shared_ptr<const Environment> env_;
    Options options_;
    CopyRequest request_;
    RunId runID_;
    std::string runIDText_;
    Events::Producer out_;
    bool started_ = false;

    std::string statePath_;
    // The owner's credentials for a run with its owner's rights only.
    std::optional<UserCredentials> runAs_;
    std::uint32_t engineUid() const { return options_.authority.ownerRightsOnly ? options_.authority.ownerUid : 0; }
    // Refuses the run when its owner can't read the source or write the destination.
    std::optional<RunnerError> ownerAccessRefusal(const std::string& source, const std::string& destination) const;
    const OwnerAccessProbe& ownerAccess() const;
    std::optional<bool> sourcePriorEnabled_;
    std::optional<bool> destinationPriorEnabled_;
    bool sourceOwnershipChanged_ = false;
    bool destinationOwnershipChanged_ = false;
    std::string sourceOwnershipMount_;
    std::string destinationOwnershipMount_;
    std::optional<RunnerError> spawnError_;
    std::shared_ptr<PosixSpawnedProcess> spawnedChild_;
    std::shared_ptr<CommandControl> preparationCommandControl_;
    std::optional<SourceSnapshotCoordinator::Handle> acquiredSnapshotLease_;
    bool emittedTerminal_ = false;
    std::optional<Event> capturedSummary_;
    std::optional<Event> lastProgress_;
    std::unique_ptr<EngineTerminal> engineTerminal_;
    bool isCancelled_ = false;
    CancelReason cancelReason_ = CancelReason::userRequested();
    PauseState pauseState_ = PauseState::running;
    std::uint64_t pauseGeneration_ = 0;
    bool didConnectSourceShare_ = false;
    bool didConnectDestinationShare_ = false;
    bool awaitingInterruptedVerdict_ = false;
    std::optional<int> terminatedSignal_;
    std::optional<PosixSpawnedProcess::ExitStatus> exitStatus_;
    bool eventsEnded_ = false;
    MonotonicTime lastEventAt_{};
    std::string diagnosticsTail_;
    LineAccumulator lines_;
    std::string sourceShareURL_;
    std::string destinationShareURL_;
    std::string destinationMount_;
    bool destinationIsLocal_ = false;
    bool copySucceeded_ = false;

    std::string currentPhase_;
    std::string currentStep_;
};

}  // namespace ql

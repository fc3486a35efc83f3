#pragma once

#include "QLProtocol/proto/identity.pb.h"
#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/server/CopyAuthorizer.h"
#include "QLProtocol/server/DeferredActionExecutor.h"
#include "QLProtocol/server/DeferredPathsSink.h"
#include "QLProtocol/server/JobRunner.h"
#include "QLProtocol/server/JobRunnerFactory.h"
#include "QLProtocol/server/PowerAction.h"
#include "QLProtocol/server/PowerAssertionFactory.h"
#include "QLProtocol/server/PreviewWriter.h"
#include "QLProtocol/server/RunLog.h"
#include "QLProtocol/server/RunRecordSink.h"
#include "QLProtocol/server/UnlockResultMailbox.h"
#include "QLProtocol/server/access/RunAuthority.h"
#include "QLSupport/Actor.h"
#include "QLSupport/Clock.h"
#include "QLSupport/EventStream.h"
#include "QLSupport/Uuid.h"

#include <tl/expected.hpp>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ql {

// The copy server's run table. Every copy, preview and disk-image probe becomes a run here: it
// gets a run id, waits in the queue while a running run holds one of its drives, is handed to a
// runner built by the runner factory, and has its events fanned out to every subscriber with a
// replay buffer for late joiners. When a run ends, its record goes to the run-record sink, a
// preview's items to the preview store, its power assertion is released, and the actions that
// wait for the drives (ejects, disconnects, a power action) run once nothing needs them.
//
// Run ids are the 16 raw bytes of a UUID (`std::string` here, as on the wire).
//
// Create it with `create` (its tasks keep it alive through a shared pointer).
class JobManager : public Actor, public std::enable_shared_from_this<JobManager> {
public:
    using Events = EventStream<ql4::transport::v1::ClonerEvent>;

    enum class RunKind { copy, preview, probe };
    enum class SubscribeError { unknownRunID };
    enum class ActiveState { queued, running };

    struct Settings {
        // Most state events kept per run for late joiners (oldest dropped first).
        std::size_t eventBufferCap = 1000;
        // Most lines kept per run log (the middle is dropped first).
        std::size_t runLogLineCap = 2000;
        // How long a terminated run stays replayable, and how many terminated runs are kept.
        Duration replayRetention = std::chrono::minutes(10);
        std::size_t replayKeepMax = 64;
        // Preview items written to the preview store per batch.
        std::size_t previewBatchSize = 256;
    };

    struct Collaborators {
        std::shared_ptr<JobRunnerFactory> factory;                 // required
        std::shared_ptr<Clock> clock;                              // required
        std::shared_ptr<RunRecordSink> runRecordSink;              // null: records are dropped
        std::shared_ptr<DeferredPathsSink> deferredPathsSink;      // null: deferred paths are dropped
        std::shared_ptr<DeferredActionExecutor> deferredExecutor;  // null: the logging no-op executor
        std::shared_ptr<PowerAssertionFactory> powerAssertions;    // null: no assertions
        std::shared_ptr<PreviewWriter> previewStore;               // null: previews are not stored
        std::shared_ptr<UnlockResultMailbox> unlockResults;        // null: no mailbox
    };

    // What `enqueue` hands back: the run the caller is attached to (a new one, or the job's run
    // that was already queued or running) and the caller's event stream.
    struct Submission {
        std::string runID;
        bool attached = false;
        Events::Consumer events;
    };

    // An eject that waits until no run uses the volume (or any member of its group).
    struct PendingEject {
        std::set<std::string> groupKey;     // volume UUIDs of the group; empty for a lone volume
        std::set<std::string> memberUUIDs;  // every volume UUID the eject takes away
        std::string volumeUUID;
        ql4::transport::v1::VolumeRef volume;
    };

    using RunWillStart = std::function<asio::awaitable<void>(std::string tileID, std::string runID)>;
    using RunFullyEnded = std::function<asio::awaitable<void>(std::string tileID)>;

    static std::shared_ptr<JobManager> create(const Executor& executor, Collaborators collaborators,
                                              Settings settings);
    JobManager(const Executor& executor, Collaborators collaborators, Settings settings);

    // Told before a run's runner is built (tile id, run id as UUID text), and when a run's
    // terminal chain has drained (tile id). Set them before the first run.
    void setOnRunWillStart(RunWillStart callback) { onRunWillStart_ = std::move(callback); }
    void setOnRunFullyEnded(RunFullyEnded callback) { onRunFullyEnded_ = std::move(callback); }

    // Registers a run for the request, or attaches the caller to the job's run of the same kind
    // that is already queued or running. `runnerFactory` replaces the manager's factory for this
    // run (probe runs bring their own runner). `authority` is whose run it is and with what
    // rights its runner works; the default is a run of root's with the server's full reach.
    asio::awaitable<Submission> enqueue(ql4::transport::v1::CopyRequest request, RunKind kind,
                                        std::shared_ptr<JobRunnerFactory> runnerFactory = nullptr,
                                        RunAuthority authority = {});

    // Joins a run: its buffered state events, then its latest progress, then live events. A run
    // whose terminal was already delivered is replayed and the stream ends.
    asio::awaitable<tl::expected<Events::Consumer, SubscribeError>> subscribe(std::string runID);

    asio::awaitable<ql4::transport::v1::RunControlResponse> cancel(std::string runID);
    asio::awaitable<ql4::transport::v1::RunControlResponse> pause(std::string runID);
    asio::awaitable<ql4::transport::v1::RunControlResponse> resume(std::string runID);

    // Queued and running runs, in the order they were enqueued; only those of `ownedBy` when
    // given.
    asio::awaitable<std::vector<ql4::transport::v1::ActiveRun>> listActive(
        std::optional<std::uint32_t> ownedBy = std::nullopt);
    // Whose run it is, while the manager still knows the run.
    asio::awaitable<std::optional<std::uint32_t>> ownerOf(std::string runID);
    asio::awaitable<bool> hasActiveRuns();
    // A run that has not terminated names the volume as its source, destination or destination
    // group.
    asio::awaitable<bool> isVolumeInUse(std::string volumeUUID);

    // The server is shutting down: nothing begins any more, queued runs end cancelled, and this
    // returns once no run is running.
    asio::awaitable<void> drain();

    // Actions that wait for the drives (asked for by runners' on-success handling).
    asio::awaitable<void> deferEject(PendingEject eject);
    asio::awaitable<void> deferDisconnect(std::string volumeUUID, std::string mountPath);
    asio::awaitable<void> deferPowerAction(PowerAction action);

    static constexpr const char* kNoTerminalMessage = "Run ended without a recognized terminal event";

private:
    enum class State { queued, running, terminated };

    struct Subscriber {
        Uuid id;
        Events::Producer producer;
    };

    struct Run {
        std::string id;  // 16 raw bytes
        std::uint64_t sequence = 0;
        ql4::transport::v1::CopyRequest request;
        RunKind kind = RunKind::copy;
        std::shared_ptr<JobRunnerFactory> factory;
        RunAuthority authority;
        std::string tileID;
        std::string sourceVolumeUUID;
        std::string destinationVolumeUUID;
        std::string destinationGroupUUID;
        bool isPreview = false;
        bool isProbe = false;
        bool isCatchup = false;
        bool isOneTimeOSUpdate = false;
        bool asBootable = false;
        bool isEraseClass = false;
        std::shared_ptr<JobRunner> runner;
        State state = State::queued;
        bool terminalSeen = false;
        bool cancelRequested = false;
        std::deque<ql4::transport::v1::ClonerEvent> stateEvents;
        std::optional<ql4::transport::v1::ClonerEvent> latestProgress;
        std::vector<Subscriber> subscribers;
        std::unique_ptr<PowerAssertion> powerAssertion;
        // The last `queued` event sent: position and blocking job.
        std::optional<std::pair<int, std::string>> lastQueued;
        // The run log and what the record needs besides it.
        RunLog log;
        SystemTime enqueuedAt;
        std::optional<SystemTime> beganAt;
        std::uint64_t beganSequence = 0;
        std::int64_t bytesCopied = 0;
        MonotonicTime terminalAt;
        MonotonicTime terminatedAt;
        // Preview items waiting to be written, and whether the store has this preview.
        std::vector<ql4::transport::v1::PreviewItem> previewBuffer;
        bool previewBegun = false;
        bool previewWriteFailed = false;

        Run(std::string label, std::size_t logCap) : log(std::move(label), logCap) {}
        std::vector<const std::string*> drives() const;
    };
    using RunPtr = std::shared_ptr<Run>;

    asio::awaitable<Submission> enqueueOnStrand(ql4::transport::v1::CopyRequest request, RunKind kind,
                                                std::shared_ptr<JobRunnerFactory> runnerFactory,
                                                RunAuthority authority);
    asio::awaitable<tl::expected<Events::Consumer, SubscribeError>> subscribeOnStrand(std::string runID);
    asio::awaitable<ql4::transport::v1::RunControlResponse> cancelOnStrand(std::string runID);
    asio::awaitable<ql4::transport::v1::RunControlResponse> pauseOrResumeOnStrand(std::string runID, bool pause);
    asio::awaitable<std::vector<ql4::transport::v1::ActiveRun>> listActiveOnStrand(std::optional<std::uint32_t> ownedBy);
    asio::awaitable<std::optional<std::uint32_t>> ownerOfOnStrand(std::string runID);
    asio::awaitable<bool> hasActiveRunsOnStrand();
    asio::awaitable<bool> isVolumeInUseOnStrand(std::string volumeUUID);
    asio::awaitable<void> drainOnStrand();
    asio::awaitable<void> deferEjectOnStrand(PendingEject eject);
    asio::awaitable<void> deferDisconnectOnStrand(std::string volumeUUID, std::string mountPath);
    asio::awaitable<void> deferPowerActionOnStrand(PowerAction action);

    // The queue: begins every run whose drives are free, then tells the runs still waiting
    // where they stand (only when that changed).
    void pump();
    void begin(const RunPtr& run);
    // The running run that holds a drive `run` needs (the one that began first), if any.
    RunPtr blockerOf(const Run& run) const;

    // Stamps a payload with the run id and the time, logs it, buffers it, queues preview items
    // and sends it to every subscriber; a terminal payload finishes the subscribers' streams.
    // Returns the stamped event.
    ql4::transport::v1::ClonerEvent forward(Run& run, ql4::transport::v1::ClonerEvent payload);

    asio::awaitable<void> drive(std::shared_ptr<JobManager> self, RunPtr run);
    asio::awaitable<void> endQueued(std::shared_ptr<JobManager> self, RunPtr run);
    // Everything after the terminal event has been delivered.
    asio::awaitable<void> terminalChain(std::shared_ptr<JobManager> self, RunPtr run,
                                        ql4::transport::v1::ClonerEvent terminal);
    asio::awaitable<void> flushPreview(RunPtr run);
    asio::awaitable<void> runDeferredActions();

    bool driveInUse(const std::string& volumeUUID) const;
    bool anyRunning() const;
    bool anyActive() const;
    void wakeDrainWaiters();
    asio::awaitable<void> waitUntilNothingRuns();
    // Forgets terminated runs older than the retention time, and the oldest beyond the cap.
    void forgetExpiredRuns();

    RunPtr find(const std::string& runID) const;

    Collaborators deps_;
    Settings settings_;
    RunWillStart onRunWillStart_;
    RunFullyEnded onRunFullyEnded_;

    std::map<std::string, RunPtr> runs_;
    std::vector<std::string> pendingQueue_;
    std::deque<std::string> terminatedOrder_;
    std::uint64_t nextSequence_ = 0;
    std::uint64_t nextBeginSequence_ = 0;

    std::vector<PendingEject> pendingEjects_;
    std::optional<PowerAction> pendingPower_;
    std::vector<std::pair<std::string, std::string>> pendingDisconnects_;
    bool runningDeferredActions_ = false;

    bool isDraining_ = false;
    std::vector<std::function<void()>> drainWaiters_;
};

std::string_view caseName(JobManager::RunKind kind);

}  // namespace ql

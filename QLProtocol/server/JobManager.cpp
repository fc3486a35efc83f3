#include "QLProtocol/server/JobManager.h"

#include "QLProtocol/server/RunIdText.h"
#include "QLProtocol/server/RunRecordBuilder.h"
#include "QLSupport/Iso8601.h"
#include "QLSupport/Log.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace ql {
namespace v1 = ql4::transport::v1;

namespace {

constexpr const char* kTag = "JobManager";

// The text an event stream ends with when its producer was dropped without finishing it: for
// the run that is a runner that ended without a terminal event, not a runner error.
constexpr const char* kProducerVanished = "the producer went away without finishing the stream";

bool isTerminal(const v1::ClonerEvent& event) {
    switch (event.payload_case()) {
        case v1::ClonerEvent::kCompleted:
        case v1::ClonerEvent::kFailed:
        case v1::ClonerEvent::kCancelled: return true;
        default: return false;
    }
}

v1::ClonerEvent cancelledPayload() {
    v1::ClonerEvent event;
    event.mutable_cancelled();
    return event;
}

v1::ClonerEvent failedPayload(const std::string& message, SystemTime at) {
    v1::ClonerEvent event;
    event.mutable_failed()->set_error_message(message);
    event.mutable_failed()->set_failed_at_unix_nanos(toUnixNanos(at));
    return event;
}

v1::RunControlResponse controlResponse(bool ok, std::string message = {}) {
    v1::RunControlResponse response;
    response.set_ok(ok);
    response.set_error_message(std::move(message));
    return response;
}

std::optional<std::string> subpathOf(const v1::VolumeRef& ref) {
    if (!ref.subpath().empty()) return ref.subpath();
    return std::nullopt;
}

}  // namespace

std::string_view caseName(JobManager::RunKind kind) {
    switch (kind) {
        case JobManager::RunKind::copy: return "copy";
        case JobManager::RunKind::preview: return "preview";
        case JobManager::RunKind::probe: return "probe";
    }
    return "copy";
}

std::vector<const std::string*> JobManager::Run::drives() const {
    std::vector<const std::string*> out;
    for (const auto* uuid : {&sourceVolumeUUID, &destinationVolumeUUID, &destinationGroupUUID})
        if (!uuid->empty()) out.push_back(uuid);
    return out;
}

std::shared_ptr<JobManager> JobManager::create(const Executor& executor, Collaborators collaborators,
                                               Settings settings) {
    return std::make_shared<JobManager>(executor, std::move(collaborators), settings);
}

JobManager::JobManager(const Executor& executor, Collaborators collaborators, Settings settings)
    : Actor(executor), deps_(std::move(collaborators)), settings_(settings) {
    if (!deps_.factory) throw std::invalid_argument("JobManager needs a runner factory");
    if (!deps_.clock) throw std::invalid_argument("JobManager needs a clock");
    if (!deps_.deferredExecutor) deps_.deferredExecutor = std::make_shared<NoOpDeferredActionExecutor>();
    if (!deps_.powerAssertions) deps_.powerAssertions = std::make_shared<NoOpPowerAssertionFactory>();
    settings_.eventBufferCap = std::max<std::size_t>(settings_.eventBufferCap, 1);
}

// ---- public operations: each runs on the strand ----

asio::awaitable<JobManager::Submission> JobManager::enqueue(v1::CopyRequest request, RunKind kind,
                                                            std::shared_ptr<JobRunnerFactory> runnerFactory,
                                                            RunAuthority authority) {
    return serialized(enqueueOnStrand(std::move(request), kind, std::move(runnerFactory), authority));
}

asio::awaitable<tl::expected<JobManager::Events::Consumer, JobManager::SubscribeError>> JobManager::subscribe(
    std::string runID) {
    return serialized(subscribeOnStrand(std::move(runID)));
}

asio::awaitable<v1::RunControlResponse> JobManager::cancel(std::string runID) {
    return serialized(cancelOnStrand(std::move(runID)));
}

asio::awaitable<v1::RunControlResponse> JobManager::pause(std::string runID) {
    return serialized(pauseOrResumeOnStrand(std::move(runID), true));
}

asio::awaitable<v1::RunControlResponse> JobManager::resume(std::string runID) {
    return serialized(pauseOrResumeOnStrand(std::move(runID), false));
}

asio::awaitable<std::vector<v1::ActiveRun>> JobManager::listActive(std::optional<std::uint32_t> ownedBy) {
    return serialized(listActiveOnStrand(ownedBy));
}

asio::awaitable<std::optional<std::uint32_t>> JobManager::ownerOf(std::string runID) {
    return serialized(ownerOfOnStrand(std::move(runID)));
}

asio::awaitable<bool> JobManager::hasActiveRuns() { return serialized(hasActiveRunsOnStrand()); }

asio::awaitable<bool> JobManager::isVolumeInUse(std::string volumeUUID) {
    return serialized(isVolumeInUseOnStrand(std::move(volumeUUID)));
}

asio::awaitable<void> JobManager::drain() { return serialized(drainOnStrand()); }

asio::awaitable<void> JobManager::deferEject(PendingEject eject) {
    return serialized(deferEjectOnStrand(std::move(eject)));
}

asio::awaitable<void> JobManager::deferDisconnect(std::string volumeUUID, std::string mountPath) {
    return serialized(deferDisconnectOnStrand(std::move(volumeUUID), std::move(mountPath)));
}

asio::awaitable<void> JobManager::deferPowerAction(PowerAction action) {
    return serialized(deferPowerActionOnStrand(action));
}

// ---- enqueue, subscribe ----

asio::awaitable<JobManager::Submission> JobManager::enqueueOnStrand(v1::CopyRequest request, RunKind kind,
                                                                    std::shared_ptr<JobRunnerFactory> runnerFactory,
                                                                    RunAuthority authority) {
    forgetExpiredRuns();
    const bool isPreview = kind == RunKind::preview;
    if (isPreview) request.set_preview(true);

    // Attach instead of duplicating: checked and decided in this one step, with no suspension in
    // between, so two submissions for the same job can never both make a run.
    for (const auto& [id, existing] : runs_) {
        if (existing->tileID != request.tile_id() || existing->kind != kind) continue;
        if (existing->state == State::terminated || existing->terminalSeen) continue;
        Log::f("submit", "tile {} already has an active/queued run — attaching (no duplicate)", request.tile_id());
        auto [producer, consumer] = Events::make();
        for (const auto& event : existing->stateEvents) producer.push(event);
        if (existing->latestProgress) producer.push(*existing->latestProgress);
        existing->subscribers.push_back(Subscriber{Uuid::mint(), producer});
        co_return Submission{id, true, std::move(consumer)};
    }

    const Uuid uuid = Uuid::mint();
    const std::string id = UUIDCodec::encode(uuid);
    auto run = std::make_shared<Run>("[run " + RunIdText::hex(id).substr(0, 8) + "]", settings_.runLogLineCap);
    run->id = id;
    run->sequence = ++nextSequence_;
    run->kind = kind;
    run->factory = runnerFactory ? std::move(runnerFactory) : deps_.factory;
    run->authority = authority;
    run->tileID = request.tile_id();
    run->sourceVolumeUUID = request.source_volume_uuid();
    run->destinationVolumeUUID = request.destination_volume_uuid();
    run->destinationGroupUUID = request.destination_volume_group_uuid();
    run->isPreview = isPreview;
    run->isProbe = kind == RunKind::probe;
    run->isCatchup = request.is_catchup();
    run->isOneTimeOSUpdate = request.one_time_os_update();
    run->asBootable = request.as_bootable();
    run->isEraseClass = request.during_copy() == v1::DCM_ERASE_THEN_COPY && !request.preview() &&
                        !request.dry_run() && !request.is_catchup();
    run->enqueuedAt = deps_.clock->now();
    run->request = std::move(request);
    runs_.emplace(id, run);
    pendingQueue_.push_back(id);

    auto [producer, consumer] = Events::make();
    run->subscribers.push_back(Subscriber{Uuid::mint(), producer});

    const int position = static_cast<int>(pendingQueue_.size());
    auto blocker = blockerOf(*run);
    const std::string blockingTile = blocker ? blocker->tileID : std::string();
    run->lastQueued = std::make_pair(position, blockingTile);
    v1::ClonerEvent queued;
    queued.mutable_queued()->set_position_in_queue(position);
    queued.mutable_queued()->set_blocking_tile_id(blockingTile);
    forward(*run, std::move(queued));
    Log::f(kTag, "enqueued runID={} tile={} kind={} position={}{} as {}", RunIdText::hex(id), run->tileID,
           caseName(kind), position, blockingTile.empty() ? std::string() : " blockedBy=" + blockingTile,
           authority.describe());

    if (isDraining_) {
        // Nothing begins while the server shuts down: the run ends at once.
        Log::f(kTag, "draining — runID={} will not begin; cancelling it", RunIdText::hex(id));
        pendingQueue_.erase(std::remove(pendingQueue_.begin(), pendingQueue_.end(), id), pendingQueue_.end());
        spawnDetached(endQueued(shared_from_this(), run), kTag);
    } else {
        pump();
    }
    co_return Submission{id, false, std::move(consumer)};
}

asio::awaitable<tl::expected<JobManager::Events::Consumer, JobManager::SubscribeError>> JobManager::subscribeOnStrand(
    std::string runID) {
    forgetExpiredRuns();
    auto run = find(runID);
    if (!run) co_return tl::unexpected(SubscribeError::unknownRunID);
    auto [producer, consumer] = Events::make();
    if (run->terminalSeen) {
        Log::f("subscribe", "join AFTER terminal — replay-only runID={} preview={} events={}", RunIdText::hex(runID),
               run->isPreview ? "true" : "false", run->stateEvents.size());
        for (const auto& event : run->stateEvents) producer.push(event);
        producer.finish();
        co_return std::move(consumer);
    }
    for (const auto& event : run->stateEvents) producer.push(event);
    if (run->latestProgress) producer.push(*run->latestProgress);
    run->subscribers.push_back(Subscriber{Uuid::mint(), producer});
    co_return std::move(consumer);
}

// ---- control ----

asio::awaitable<v1::RunControlResponse> JobManager::cancelOnStrand(std::string runID) {
    auto run = find(runID);
    const std::string hex = RunIdText::hex(runID);
    if (!run || run->terminalSeen || run->state == State::terminated) {
        Log::f("cancel", "CancelRun runID={} NO MATCH (run not found or already terminated)", hex);
        co_return controlResponse(false, "run not found or already terminated");
    }
    Log::f("cancel", "CancelRun runID={} dispatched to runner", hex);
    if (run->state == State::queued) {
        auto it = std::find(pendingQueue_.begin(), pendingQueue_.end(), runID);
        if (it != pendingQueue_.end()) {
            pendingQueue_.erase(it);
            co_await endQueued(shared_from_this(), run);
        }
        co_return controlResponse(true);
    }
    run->cancelRequested = true;
    if (run->runner) {
        auto runner = run->runner;
        co_await runner->cancel();
    }
    co_return controlResponse(true);
}

asio::awaitable<v1::RunControlResponse> JobManager::pauseOrResumeOnStrand(std::string runID, bool pause) {
    const char* tag = pause ? "pause" : "resume";
    const char* method = pause ? "PauseRun" : "ResumeRun";
    auto run = find(runID);
    const std::string hex = RunIdText::hex(runID);
    if (!run || run->state != State::running || run->terminalSeen || !run->runner) {
        Log::f(tag, "{} runID={} NO MATCH (run not found or not running)", method, hex);
        co_return controlResponse(false, "run not found or not running");
    }
    auto runner = run->runner;
    bool accepted = false;
    if (pause)
        accepted = co_await runner->pause();
    else
        accepted = co_await runner->resume();
    Log::f(tag, "{} runID={} dispatched to runner — {}", method, hex, accepted ? "accepted" : "declined");
    if (!accepted)
        co_return controlResponse(false, pause ? "the run can't be paused right now" : "the run isn't paused");
    co_return controlResponse(true);
}

// ---- queries ----

asio::awaitable<std::vector<v1::ActiveRun>> JobManager::listActiveOnStrand(std::optional<std::uint32_t> ownedBy) {
    forgetExpiredRuns();
    std::vector<RunPtr> active;
    for (const auto& [id, run] : runs_) {
        if (ownedBy && run->authority.ownerUid != *ownedBy) continue;
        if (run->state != State::terminated) active.push_back(run);
    }
    std::sort(active.begin(), active.end(), [](const RunPtr& a, const RunPtr& b) { return a->sequence < b->sequence; });
    std::vector<v1::ActiveRun> out;
    for (const auto& run : active) {
        v1::ActiveRun entry;
        entry.set_tile_id(run->tileID);
        entry.mutable_run_id()->set_value(run->id);
        entry.set_state(run->state == State::queued ? v1::ActiveRun::STATE_QUEUED : v1::ActiveRun::STATE_RUNNING);
        entry.set_is_catchup(run->isCatchup);
        entry.set_one_time_os_update(run->isOneTimeOSUpdate);
        entry.set_as_bootable(run->asBootable);
        entry.set_is_probe(run->isProbe);
        out.push_back(std::move(entry));
    }
    co_return out;
}

asio::awaitable<std::optional<std::uint32_t>> JobManager::ownerOfOnStrand(std::string runID) {
    forgetExpiredRuns();
    auto run = find(runID);
    if (!run) co_return std::nullopt;
    co_return run->authority.ownerUid;
}

asio::awaitable<bool> JobManager::hasActiveRunsOnStrand() { co_return anyActive(); }

asio::awaitable<bool> JobManager::isVolumeInUseOnStrand(std::string volumeUUID) { co_return driveInUse(volumeUUID); }

// ---- draining ----

asio::awaitable<void> JobManager::drainOnStrand() {
    isDraining_ = true;
    std::vector<RunPtr> queued;
    for (const auto& id : pendingQueue_)
        if (auto run = find(id)) queued.push_back(run);
    pendingQueue_.clear();
    std::size_t running = 0;
    for (const auto& [id, run] : runs_)
        if (run->state == State::running) ++running;
    Log::f(kTag, "draining: cancelling {} queued run(s), waiting for {} running", queued.size(), running);
    for (const auto& run : queued) co_await endQueued(shared_from_this(), run);
    co_await waitUntilNothingRuns();
    Log::line(kTag, "drained: no run is running");
}

void JobManager::wakeDrainWaiters() {
    if (anyRunning()) return;
    auto waiters = std::move(drainWaiters_);
    drainWaiters_.clear();
    for (auto& wake : waiters) wake();
}

asio::awaitable<void> JobManager::waitUntilNothingRuns() {
    if (!anyRunning()) co_return;
    co_await asio::async_initiate<const asio::use_awaitable_t<>&, void()>(
        [this](auto handler) {
            auto h = std::make_shared<decltype(handler)>(std::move(handler));
            drainWaiters_.push_back([h] {
                auto executor = asio::get_associated_executor(*h);
                asio::post(executor, [h] { (*h)(); });
            });
        },
        asio::use_awaitable);
}

// ---- deferred actions ----

asio::awaitable<void> JobManager::deferEjectOnStrand(PendingEject eject) {
    if (eject.memberUUIDs.empty() && !eject.volumeUUID.empty()) eject.memberUUIDs.insert(eject.volumeUUID);
    for (const auto& pending : pendingEjects_) {
        const bool sameGroup = !eject.groupKey.empty() && pending.groupKey == eject.groupKey;
        const bool sameVolume = !eject.volumeUUID.empty() && pending.volumeUUID == eject.volumeUUID;
        if (sameGroup || sameVolume) {
            Log::f(kTag, "eject of {} already pending — not queued twice", eject.volume.display_name());
            co_return;
        }
    }
    Log::f(kTag, "eject of {} deferred until no run uses it", eject.volume.display_name());
    pendingEjects_.push_back(std::move(eject));
    co_await runDeferredActions();
}

asio::awaitable<void> JobManager::deferDisconnectOnStrand(std::string volumeUUID, std::string mountPath) {
    for (const auto& [uuid, path] : pendingDisconnects_)
        if (uuid == volumeUUID && path == mountPath) co_return;
    Log::f(kTag, "disconnect of {} deferred until every run has ended", mountPath);
    pendingDisconnects_.emplace_back(std::move(volumeUUID), std::move(mountPath));
    co_await runDeferredActions();
}

asio::awaitable<void> JobManager::deferPowerActionOnStrand(PowerAction action) {
    // One power action at most; the strongest asked for wins (shut down > restart > sleep).
    if (!pendingPower_ || static_cast<int>(action) > static_cast<int>(*pendingPower_)) pendingPower_ = action;
    Log::f(kTag, "power action {} deferred until every run has ended", caseName(*pendingPower_));
    co_await runDeferredActions();
}

asio::awaitable<void> JobManager::runDeferredActions() {
    // One pass at a time: a pass suspends at each action, and the next terminal chain would
    // otherwise start the same actions again.
    if (runningDeferredActions_) co_return;
    runningDeferredActions_ = true;
    auto executor = deps_.deferredExecutor;
    try {
        for (;;) {
            auto it = std::find_if(pendingEjects_.begin(), pendingEjects_.end(), [this](const PendingEject& e) {
                return std::none_of(e.memberUUIDs.begin(), e.memberUUIDs.end(),
                                    [this](const std::string& uuid) { return driveInUse(uuid); }) &&
                       !driveInUse(e.volumeUUID);
            });
            if (it == pendingEjects_.end()) break;
            auto volume = it->volume;
            pendingEjects_.erase(it);
            co_await executor->eject(std::move(volume));
        }
        while (!anyActive() && !pendingDisconnects_.empty()) {
            auto [uuid, path] = pendingDisconnects_.front();
            pendingDisconnects_.erase(pendingDisconnects_.begin());
            co_await executor->disconnect(std::move(uuid), std::move(path));
        }
        if (!anyActive() && pendingPower_) {
            auto action = *pendingPower_;
            pendingPower_.reset();
            co_await executor->power(action);
        }
    } catch (const std::exception& e) {
        Log::f(kTag, "deferred action failed: {}", e.what());
    }
    runningDeferredActions_ = false;
}

// ---- the queue ----

JobManager::RunPtr JobManager::blockerOf(const Run& run) const {
    const auto mine = run.drives();
    if (mine.empty()) return nullptr;
    RunPtr best;
    for (const auto& [id, other] : runs_) {
        if (other->state != State::running || other->id == run.id) continue;
        const auto theirs = other->drives();
        bool shares = false;
        for (const auto* a : mine)
            for (const auto* b : theirs)
                if (*a == *b) shares = true;
        if (shares && (!best || other->beganSequence < best->beganSequence)) best = other;
    }
    return best;
}

void JobManager::pump() {
    if (isDraining_) return;
    for (std::size_t i = 0; i < pendingQueue_.size();) {
        auto run = find(pendingQueue_[i]);
        if (!run) {
            pendingQueue_.erase(pendingQueue_.begin() + static_cast<std::ptrdiff_t>(i));
            continue;
        }
        if (blockerOf(*run)) {
            ++i;
            continue;
        }
        pendingQueue_.erase(pendingQueue_.begin() + static_cast<std::ptrdiff_t>(i));
        begin(run);
    }
    for (std::size_t i = 0; i < pendingQueue_.size(); ++i) {
        auto run = find(pendingQueue_[i]);
        const int position = static_cast<int>(i) + 1;
        auto blocker = blockerOf(*run);
        auto standing = std::make_pair(position, blocker ? blocker->tileID : std::string());
        if (run->lastQueued == standing) continue;
        run->lastQueued = standing;
        v1::ClonerEvent queued;
        queued.mutable_queued()->set_position_in_queue(position);
        queued.mutable_queued()->set_blocking_tile_id(standing.second);
        forward(*run, std::move(queued));
    }
}

void JobManager::begin(const RunPtr& run) {
    run->state = State::running;
    run->beganSequence = ++nextBeginSequence_;
    run->beganAt = deps_.clock->now();
    Log::f(kTag, "begin enqueued runID={}", RunIdText::hex(run->id));
    v1::ClonerEvent started;
    started.mutable_started();
    forward(*run, std::move(started));
    spawnDetached(drive(shared_from_this(), run), kTag);
}

// ---- forwarding ----

v1::ClonerEvent JobManager::forward(Run& run, v1::ClonerEvent event) {
    event.set_timestamp_unix_nanos(toUnixNanos(deps_.clock->now()));
    event.mutable_run_id()->set_value(run.id);
    run.log.appendEvent(event);
    if (event.has_progress()) {
        run.bytesCopied = event.progress().bytes_copied();
        run.latestProgress = event;
    } else {
        run.stateEvents.push_back(event);
        while (run.stateEvents.size() > settings_.eventBufferCap) run.stateEvents.pop_front();
    }
    if (event.has_completed()) run.bytesCopied = event.completed().bytes_copied();
    if (event.has_preview_item() && run.isPreview && deps_.previewStore && !run.previewWriteFailed)
        run.previewBuffer.push_back(event.preview_item());

    const bool terminal = isTerminal(event);
    std::erase_if(run.subscribers, [&event](const Subscriber& s) { return !s.producer.push(event); });
    if (terminal) {
        run.terminalSeen = true;
        run.terminalAt = deps_.clock->monotonicNow();
        for (const auto& s : run.subscribers) s.producer.finish();
        run.subscribers.clear();
    }
    return event;
}

// ---- one run from begin to end ----

asio::awaitable<void> JobManager::drive(std::shared_ptr<JobManager> self, RunPtr run) {
    const std::string runText = RunIdText::uuid(run->id);
    if (onRunWillStart_) {
        try {
            auto hook = onRunWillStart_;
            co_await hook(run->tileID, runText);
        } catch (const std::exception& e) {
            Log::f(kTag, "onRunWillStart failed for runID={}: {}", RunIdText::hex(run->id), e.what());
        }
    }
    const std::string jobName = run->request.tile_name().empty() ? run->tileID : run->request.tile_name();
    run->powerAssertion = deps_.powerAssertions->take("copy job " + jobName + " running");

    if (run->isPreview && deps_.previewStore && !run->cancelRequested) {
        auto store = deps_.previewStore;
        try {
            co_await store->beginGather(runText, run->tileID, toUnixNanos(run->beganAt.value_or(run->enqueuedAt)));
            run->previewBegun = true;
        } catch (const std::exception& e) {
            Log::f("preview-store", "could not begin preview {}: {}", runText, e.what());
            run->previewWriteFailed = true;
        }
    }

    std::optional<v1::ClonerEvent> terminal;
    if (run->cancelRequested) {
        // Cancelled while it was being started: no runner was built.
        terminal = forward(*run, cancelledPayload());
        co_await terminalChain(std::move(self), run, std::move(*terminal));
        co_return;
    }

    std::optional<std::string> startError;
    std::shared_ptr<JobRunner> runner;
    Events::Consumer events;
    try {
        v1::RunId runID;
        runID.set_value(run->id);
        runner = run->factory->makeRunner(run->request, runID, run->authority);
        if (!runner) throw std::runtime_error("no runner could be made for this request");
        run->runner = runner;
        events = runner->run();
    } catch (const std::exception& e) {
        startError = e.what();
    }

    if (!startError) {
        for (;;) {
            auto next = co_await events.next();
            if (!next) break;
            if (next->payload_case() == v1::ClonerEvent::kStarted || next->payload_case() == v1::ClonerEvent::kQueued) {
                // The job manager alone says when a run is queued or started.
                continue;
            }
            if (isTerminal(*next)) {
                terminal = forward(*run, std::move(*next));
                break;
            }
            forward(*run, std::move(*next));
            if (run->previewBuffer.size() >= settings_.previewBatchSize) co_await flushPreview(run);
        }
        if (!terminal) {
            auto failure = events.failure();
            if (failure && failure->message != kProducerVanished)
                startError = failure->message;
            else
                startError = kNoTerminalMessage;
        }
        events.cancel();
    }
    if (!terminal) terminal = forward(*run, failedPayload(*startError, deps_.clock->now()));
    co_await terminalChain(std::move(self), run, std::move(*terminal));
}

asio::awaitable<void> JobManager::endQueued(std::shared_ptr<JobManager> self, RunPtr run) {
    auto terminal = forward(*run, cancelledPayload());
    co_await terminalChain(std::move(self), run, std::move(terminal));
}

asio::awaitable<void> JobManager::flushPreview(RunPtr run) {
    if (run->previewBuffer.empty() || !run->previewBegun || run->previewWriteFailed) {
        run->previewBuffer.clear();
        co_return;
    }
    auto batch = std::move(run->previewBuffer);
    run->previewBuffer.clear();
    auto store = deps_.previewStore;
    const std::string previewID = RunIdText::uuid(run->id);
    std::optional<std::string> writeError;
    try {
        co_await store->appendItems(previewID, std::move(batch));
    } catch (const std::exception& e) {
        writeError = e.what();
    }
    if (!writeError) co_return;
    // A failed batch was rolled back by the store; the preview can no longer be complete.
    Log::f("preview-store", "writing items of preview {} failed: {} — marking it failed", previewID, *writeError);
    run->previewWriteFailed = true;
    try {
        co_await store->fail(previewID, toUnixNanos(deps_.clock->now()), *writeError);
    } catch (const std::exception& e) {
        Log::f("preview-store", "marking preview {} failed did not work either: {}", previewID, e.what());
    }
}

asio::awaitable<void> JobManager::terminalChain(std::shared_ptr<JobManager> self, RunPtr run, v1::ClonerEvent terminal) {
    (void)self;
    const std::string hex = RunIdText::hex(run->id);
    const std::string runText = RunIdText::uuid(run->id);
    const SystemTime endedAt = deps_.clock->now();

    // The record of the run for the job's history. Previews and probes change nothing, so they
    // are not runs of the job and stay out of its history.
    if (!run->isPreview && !run->isProbe) {
        RunRecordBuilder::Facts facts;
        facts.runID = runText;
        facts.tileID = run->tileID;
        facts.startedAt = run->beganAt.value_or(run->enqueuedAt);
        facts.endedAt = endedAt;
        facts.isCatchup = run->isCatchup;
        facts.isOneTimeOSUpdate = run->isOneTimeOSUpdate;
        facts.asBootable = run->asBootable;
        facts.duringCopy = run->request.during_copy();
        facts.sourceDisplayName = run->request.source().display_name();
        facts.destinationDisplayName = run->request.destination().display_name();
        facts.sourceSubpath = subpathOf(run->request.source());
        facts.destinationSubpath = subpathOf(run->request.destination());
        facts.bytesCopied = run->bytesCopied;
        std::string logText = run->log.text();
        auto record = RunRecordBuilder::build(facts, terminal, logText);
        Log::f(kTag, "runID={} tile={} ended: {}", hex, run->tileID, record.summary());
        if (auto sink = deps_.runRecordSink) {
            try {
                co_await sink->record(std::move(record), std::move(logText));
            } catch (const std::exception& e) {
                Log::f(kTag, "run record for runID={} was not kept: {}", hex, e.what());
            }
        }
        if (terminal.has_completed() && terminal.completed().deferred_paths_size() > 0 && deps_.deferredPathsSink) {
            auto sink = deps_.deferredPathsSink;
            std::vector<std::string> paths(terminal.completed().deferred_paths().begin(),
                                           terminal.completed().deferred_paths().end());
            try {
                co_await sink->record(run->tileID, std::move(paths), endedAt);
            } catch (const std::exception& e) {
                Log::f(kTag, "deferred paths of runID={} were not kept: {}", hex, e.what());
            }
        }
    }

    // A preview's last items and its end.
    if (run->isPreview && deps_.previewStore && run->previewBegun) {
        co_await flushPreview(run);
        if (!run->previewWriteFailed) {
            auto store = deps_.previewStore;
            const auto finishedAt = toUnixNanos(deps_.clock->now());
            try {
                if (terminal.has_completed()) {
                    co_await store->finish(runText, finishedAt, terminal.completed().preview_destination_absent());
                } else if (terminal.has_cancelled()) {
                    co_await store->cancel(runText, finishedAt);
                } else {
                    const std::string message = terminal.failed().error_message();
                    co_await store->fail(runText, finishedAt, message);
                }
            } catch (const std::exception& e) {
                Log::f("preview-store", "finishing preview {} failed: {}", runText, e.what());
            }
        }
    }

    run->powerAssertion.reset();
    run->state = State::terminated;
    run->terminatedAt = deps_.clock->monotonicNow();
    terminatedOrder_.push_back(run->id);
    if (auto mailbox = deps_.unlockResults) co_await mailbox->stop(run->id);
    if (onRunFullyEnded_) {
        try {
            auto hook = onRunFullyEnded_;
            co_await hook(run->tileID);
        } catch (const std::exception& e) {
            Log::f(kTag, "onRunFullyEnded failed for runID={}: {}", hex, e.what());
        }
    }
    const double waited =
        std::chrono::duration<double>(deps_.clock->monotonicNow() - run->terminalAt).count();
    Log::f(kTag, "terminal chain drained runID={} waited={:.3f}", hex, waited);
    wakeDrainWaiters();
    co_await runDeferredActions();
    forgetExpiredRuns();
    pump();
}

// ---- bookkeeping ----

bool JobManager::driveInUse(const std::string& volumeUUID) const {
    if (volumeUUID.empty()) return false;
    for (const auto& [id, run] : runs_) {
        if (run->state == State::terminated) continue;
        for (const auto* drive : run->drives())
            if (*drive == volumeUUID) return true;
    }
    return false;
}

bool JobManager::anyRunning() const {
    return std::any_of(runs_.begin(), runs_.end(), [](const auto& e) { return e.second->state == State::running; });
}

bool JobManager::anyActive() const {
    return std::any_of(runs_.begin(), runs_.end(), [](const auto& e) { return e.second->state != State::terminated; });
}

void JobManager::forgetExpiredRuns() {
    const auto now = deps_.clock->monotonicNow();
    while (!terminatedOrder_.empty()) {
        auto run = find(terminatedOrder_.front());
        const bool tooMany = terminatedOrder_.size() > settings_.replayKeepMax;
        if (run && !tooMany && now - run->terminatedAt < settings_.replayRetention) break;
        runs_.erase(terminatedOrder_.front());
        terminatedOrder_.pop_front();
    }
}

JobManager::RunPtr JobManager::find(const std::string& runID) const {
    auto it = runs_.find(runID);
    return it == runs_.end() ? nullptr : it->second;
}

}  // namespace ql

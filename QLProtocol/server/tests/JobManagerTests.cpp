#include "QLProtocol/server/JobManager.h"
#include "QLProtocol/server/RunIdText.h"
#include "QLProtocol/server/tests/JobManagerTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ql::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Kind = JobManager::RunKind;
using namespace std::chrono_literals;

// The callbacks' body: a plain coroutine, so that no capturing lambda is itself a coroutine.
asio::awaitable<void> note(std::shared_ptr<std::vector<std::string>> into, std::string text) {
    into->push_back(std::move(text));
    co_return;
}

std::vector<std::pair<int, std::string>> queuedStandings(const Collected& c) {
    std::vector<std::pair<int, std::string>> out;
    for (const auto& e : c.events)
        if (e.has_queued()) out.emplace_back(e.queued().position_in_queue(), e.queued().blocking_tile_id());
    return out;
}

TEST(JobManager, RunsOnDisjointDrivesBeginAtOnce) {
    JobManagerHarness h;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    auto b = h.submit(copyRequest("B", 't', 'y'));
    EXPECT_THAT(a.events->kinds(), ElementsAre("queued", "started"));
    EXPECT_THAT(b.events->kinds(), ElementsAre("queued", "started"));
    EXPECT_EQ(queuedStandings(*a.events), (std::vector<std::pair<int, std::string>>{{1, ""}}));
    ASSERT_EQ(h.factory->count(), 2u);
    auto active = h.await(h.manager->listActive());
    ASSERT_EQ(active.size(), 2u);
    EXPECT_EQ(active[0].tile_id(), "A");
    EXPECT_EQ(active[0].state(), v1::ActiveRun::STATE_RUNNING);
    EXPECT_EQ(active[1].state(), v1::ActiveRun::STATE_RUNNING);
    EXPECT_EQ(*h.assertions->live, 2);
    EXPECT_EQ(h.assertions->reasons[0], "copy job Job A running");
}

// Which pairs of runs share a drive: any non-empty UUID in common among source, destination and
// destination group, whichever role it plays in each run.
TEST(JobManager, DriveSharingRule) {
    struct Case {
        const char* name;
        char src1, dst1, grp1, src2, dst2, grp2;
        bool blocks;
    };
    const Case cases[] = {
        {"same destination", 's', 'x', 0, 't', 'x', 0, true},
        {"same source", 's', 'x', 0, 's', 'y', 0, true},
        {"one's source is the other's destination", 's', 'x', 0, 'x', 'y', 0, true},
        {"destination is the other's group", 's', 'x', 0, 't', 'y', 'x', true},
        {"same destination group", 's', 'x', 'g', 't', 'y', 'g', true},
        {"nothing in common", 's', 'x', 'g', 't', 'y', 'h', false},
        {"empty UUIDs never match", 0, 0, 0, 0, 0, 0, false},
        {"empty source against empty source", 0, 'x', 0, 0, 'y', 0, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        JobManagerHarness h;
        auto first = h.submit(copyRequest("A", c.src1, c.dst1, c.grp1));
        auto second = h.submit(copyRequest("B", c.src2, c.dst2, c.grp2));
        if (c.blocks) {
            EXPECT_THAT(second.events->kinds(), ElementsAre("queued"));
            EXPECT_EQ(queuedStandings(*second.events), (std::vector<std::pair<int, std::string>>{{1, "A"}}));
        } else {
            EXPECT_THAT(second.events->kinds(), ElementsAre("queued", "started"));
        }
    }
}

TEST(JobManager, SharedDestinationQueuesBehindTheHolderAndBeginsWhenItEnds) {
    JobManagerHarness h;
    LogCapture logs;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    auto b = h.submit(copyRequest("B", 't', 'x'));
    EXPECT_EQ(h.factory->count(), 1u) << "no runner is built for a queued run";
    auto active = h.await(h.manager->listActive());
    ASSERT_EQ(active.size(), 2u);
    EXPECT_EQ(active[1].tile_id(), "B");
    EXPECT_EQ(active[1].state(), v1::ActiveRun::STATE_QUEUED);
    EXPECT_TRUE(h.await(h.manager->isVolumeInUse(vol('x'))));

    h.factory->runnerFor("A")->complete(10);
    h.settle();
    EXPECT_THAT(b.events->kinds(), ElementsAre("queued", "started"));
    ASSERT_TRUE(h.factory->runnerFor("B"));
    EXPECT_TRUE(h.factory->runnerFor("B")->started);
    EXPECT_TRUE(logs.contains("[JobManager] begin enqueued runID=" + RunIdText::hex(b.runID)));
    // A's record was written before B began: the drive is handed over only after the chain.
    EXPECT_EQ(h.sink->records.size(), 1u);
}

TEST(JobManager, QueuedIsReemittedOnlyWhenPositionOrBlockerChanges) {
    JobManagerHarness h;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    auto b = h.submit(copyRequest("B", 't', 'x'));
    auto c = h.submit(copyRequest("C", 'u', 'x'));
    auto d = h.submit(copyRequest("D", 'v', 'y'));  // free drives: begins and changes nothing for the others
    EXPECT_EQ(queuedStandings(*c.events), (std::vector<std::pair<int, std::string>>{{2, "A"}}));

    auto response = h.await(h.manager->cancel(b.runID));
    EXPECT_TRUE(response.ok());
    EXPECT_EQ(queuedStandings(*c.events), (std::vector<std::pair<int, std::string>>{{2, "A"}, {1, "A"}}));

    h.factory->runnerFor("A")->complete();
    h.settle();
    EXPECT_THAT(c.events->kinds(), ElementsAre("queued", "queued", "started"));
    EXPECT_THAT(d.events->kinds(), ElementsAre("queued", "started"));
}

TEST(JobManager, SecondSubmissionForAQueuedJobAttaches) {
    JobManagerHarness h;
    LogCapture logs;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    auto b1 = h.submit(copyRequest("B", 't', 'x'));
    auto b2 = h.submit(copyRequest("B", 't', 'x'));
    EXPECT_TRUE(b2.attached);
    EXPECT_EQ(b2.runID, b1.runID);
    EXPECT_TRUE(logs.contains("[submit] tile B already has an active/queued run — attaching (no duplicate)"));
    auto active = h.await(h.manager->listActive());
    EXPECT_EQ(active.size(), 2u);
    EXPECT_THAT(b2.events->kinds(), ElementsAre("queued")) << "the attached caller sees what happened so far";

    h.factory->runnerFor("A")->complete();
    h.settle();
    h.factory->runnerFor("B")->log("hello");
    h.factory->runnerFor("B")->complete();
    h.settle();
    EXPECT_EQ(h.factory->count(), 2u);
    EXPECT_THAT(b1.events->kinds(), ElementsAre("queued", "started", "log", "completed"));
    EXPECT_THAT(b2.events->kinds(), ElementsAre("queued", "started", "log", "completed"));
    EXPECT_TRUE(b2.events->ended);
}

TEST(JobManager, PreviewsAndProbesAttachOnlyToRunsOfTheirOwnKind) {
    JobManagerHarness h;
    auto copy = h.submit(copyRequest("A", 's', 'x'));
    auto preview = h.submit(copyRequest("A", 's', 'x'), Kind::preview);
    EXPECT_FALSE(preview.attached);
    EXPECT_NE(preview.runID, copy.runID);
    EXPECT_THAT(preview.events->kinds(), ElementsAre("queued")) << "the preview waits for the job's own copy";
    auto preview2 = h.submit(copyRequest("A", 's', 'x'), Kind::preview);
    EXPECT_TRUE(preview2.attached);
    EXPECT_EQ(preview2.runID, preview.runID);
    auto probe = h.submit(copyRequest("A", '\0', '\0'), Kind::probe);
    EXPECT_FALSE(probe.attached);
    auto active = h.await(h.manager->listActive());
    ASSERT_EQ(active.size(), 3u);
    EXPECT_TRUE(active[2].is_probe());
}

TEST(JobManager, LateJoinerGetsStateEventsThenLatestProgressThenLiveEvents) {
    JobManagerHarness h;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    auto runner = h.factory->runnerFor("A");
    runner->phase("copyFiles");
    runner->progress(100);
    runner->log("one");
    runner->progress(200);
    runner->progress(300);
    h.settle();

    auto joined = h.await(h.manager->subscribe(a.runID));
    ASSERT_TRUE(joined.has_value());
    auto late = h.follow(std::move(*joined));
    EXPECT_THAT(late->kinds(), ElementsAre("queued", "started", "phase_start", "log", "progress"));
    EXPECT_EQ(late->events.back().progress().bytes_copied(), 300);

    runner->log("two");
    runner->complete(300);
    h.settle();
    EXPECT_THAT(late->kinds(), ElementsAre("queued", "started", "phase_start", "log", "progress", "log", "completed"));
    EXPECT_TRUE(late->ended);
    // The first subscriber saw every progress sample.
    EXPECT_EQ(a.events->count("progress"), 3u);
    for (const auto& e : late->events) {
        EXPECT_EQ(e.run_id().value(), a.runID);
        EXPECT_NE(e.timestamp_unix_nanos(), 0);
    }
}

TEST(JobManager, JoinAfterTheTerminalReplaysAndEnds) {
    JobManagerHarness h;
    LogCapture logs;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    h.factory->runnerFor("A")->log("working");
    h.factory->runnerFor("A")->complete(5);
    h.settle();

    auto joined = h.await(h.manager->subscribe(a.runID));
    ASSERT_TRUE(joined.has_value());
    auto replay = h.follow(std::move(*joined));
    EXPECT_TRUE(replay->ended);
    EXPECT_THAT(replay->kinds(), ElementsAre("queued", "started", "log", "completed"));
    EXPECT_TRUE(logs.contains("[subscribe] join AFTER terminal — replay-only runID=" + RunIdText::hex(a.runID) +
                              " preview=false events=4"));

    auto unknown = h.await(h.manager->subscribe(std::string(16, '\x01')));
    ASSERT_FALSE(unknown.has_value());
    EXPECT_EQ(unknown.error(), JobManager::SubscribeError::unknownRunID);
}

TEST(JobManager, TerminatedRunsAreForgottenAfterTenMinutesOrBeyondSixtyFour) {
    JobManagerHarness h;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    h.factory->runnerFor("A")->complete();
    h.settle();
    h.time->advance(9min);
    EXPECT_TRUE(h.await(h.manager->subscribe(a.runID)).has_value());
    h.time->advance(61s);
    EXPECT_FALSE(h.await(h.manager->subscribe(a.runID)).has_value());

    std::vector<std::string> ids;
    for (int i = 0; i < 65; ++i) {
        auto run = h.submit(copyRequest("T" + std::to_string(i), '\0', '\0'));
        h.factory->runnerFor("T" + std::to_string(i))->complete();
        h.settle();
        ids.push_back(run.runID);
    }
    EXPECT_FALSE(h.await(h.manager->subscribe(ids.front())).has_value()) << "the 65th terminated run pushes out the first";
    EXPECT_TRUE(h.await(h.manager->subscribe(ids[1])).has_value());
    EXPECT_TRUE(h.await(h.manager->subscribe(ids.back())).has_value());
}

TEST(JobManager, RunsThatEndBadlyGetOneFailedTerminal) {
    struct Case {
        const char* name;
        std::function<void(JobManagerHarness&)> setUp;
        std::function<void(FakeJobRunner&)> end;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"stream ends without a terminal", nullptr, [](FakeJobRunner& r) { r.endWithoutTerminal(); },
         JobManager::kNoTerminalMessage},
        {"runner drops its stream", nullptr, [](FakeJobRunner& r) { r.vanish(); }, JobManager::kNoTerminalMessage},
        {"stream ends with an error", nullptr, [](FakeJobRunner& r) { r.endWithError("engine crashed"); },
         "engine crashed"},
        {"runner throws when started", [](JobManagerHarness& h) {
             h.factory->configure = [](FakeJobRunner& r) { r.throwOnRun = "could not spawn the engine"; };
         }, nullptr, "could not spawn the engine"},
        {"factory throws", [](JobManagerHarness& h) { h.factory->throwOnMake = true; }, nullptr,
         "the runner could not be built"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        JobManagerHarness h;
        if (c.setUp) c.setUp(h);
        auto a = h.submit(copyRequest("A", 's', 'x'));
        if (c.end) {
            auto runner = h.factory->runnerFor("A");
            runner->log("before the end");
            c.end(*runner);
        }
        h.settle();
        ASSERT_TRUE(a.events->ended);
        ASSERT_EQ(a.events->count("failed"), 1u);
        EXPECT_EQ(a.events->events.back().failed().error_message(), c.message);
        ASSERT_EQ(h.sink->records.size(), 1u);
        EXPECT_EQ(h.sink->records[0].outcome(), v1::RunRecord::OUTCOME_FAILED);
        EXPECT_EQ(*h.assertions->live, 0);
        EXPECT_FALSE(h.await(h.manager->hasActiveRuns()));
    }
}

TEST(JobManager, RunnersCannotEmitQueuedOrStartedThemselves) {
    JobManagerHarness h;
    h.factory->configure = [](FakeJobRunner& r) {
        v1::ClonerEvent started;
        started.mutable_started();
        r.scripted.push_back(started);
    };
    auto a = h.submit(copyRequest("A", 's', 'x'));
    h.factory->runnerFor("A")->complete();
    h.settle();
    EXPECT_THAT(a.events->kinds(), ElementsAre("queued", "started", "completed"));
}

TEST(JobManager, CancellingAQueuedRunEndsItWithoutStarted) {
    JobManagerHarness h;
    LogCapture logs;
    auto ended = std::make_shared<std::vector<std::string>>();
    h.manager->setOnRunFullyEnded([ended](std::string tile) { return note(ended, std::move(tile)); });
    auto a = h.submit(copyRequest("A", 's', 'x'));
    auto b = h.submit(copyRequest("B", 't', 'x'));
    auto response = h.await(h.manager->cancel(b.runID));
    EXPECT_TRUE(response.ok());
    EXPECT_THAT(b.events->kinds(), ElementsAre("queued", "cancelled"));
    EXPECT_TRUE(b.events->ended);
    EXPECT_TRUE(logs.contains("[cancel] CancelRun runID=" + RunIdText::hex(b.runID) + " dispatched to runner"));
    ASSERT_EQ(h.sink->records.size(), 1u);
    EXPECT_EQ(h.sink->records[0].tile_id(), "B");
    EXPECT_EQ(h.sink->records[0].outcome(), v1::RunRecord::OUTCOME_CANCELLED);
    EXPECT_EQ(h.sink->records[0].summary(), "Cancelled by user");
    EXPECT_THAT(*ended, ElementsAre("B"));
    EXPECT_EQ(h.factory->count(), 1u);

    auto again = h.await(h.manager->cancel(b.runID));
    EXPECT_FALSE(again.ok());
    EXPECT_EQ(again.error_message(), "run not found or already terminated");
    EXPECT_TRUE(logs.contains("[cancel] CancelRun runID=" + RunIdText::hex(b.runID) +
                              " NO MATCH (run not found or already terminated)"));
}

TEST(JobManager, CancellingARunningRunAsksItsRunner) {
    JobManagerHarness h;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    auto runner = h.factory->runnerFor("A");
    runner->endOnCancel = false;
    auto response = h.await(h.manager->cancel(a.runID));
    EXPECT_TRUE(response.ok());
    EXPECT_EQ(runner->cancels, 1);
    EXPECT_FALSE(a.events->ended) << "the terminal comes from the runner";
    runner->cancelled();
    h.settle();
    EXPECT_THAT(a.events->kinds(), ElementsAre("queued", "started", "cancelled"));
}

TEST(JobManager, PauseAndResumeReachOnlyRunningRuns) {
    JobManagerHarness h;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    auto b = h.submit(copyRequest("B", 't', 'x'));
    auto paused = h.await(h.manager->pause(a.runID));
    EXPECT_TRUE(paused.ok());
    auto resumed = h.await(h.manager->resume(a.runID));
    EXPECT_TRUE(resumed.ok());
    EXPECT_EQ(h.factory->runnerFor("A")->pauses, 1);
    EXPECT_EQ(h.factory->runnerFor("A")->resumes, 1);
    EXPECT_THAT(a.events->kinds(), ElementsAre("queued", "started", "pause_requested", "resumed"));

    for (const auto& id : {b.runID, std::string(16, '\x02')}) {
        auto p = h.await(h.manager->pause(id));
        EXPECT_FALSE(p.ok());
        EXPECT_EQ(p.error_message(), "run not found or not running");
        auto r = h.await(h.manager->resume(id));
        EXPECT_EQ(r.error_message(), "run not found or not running");
    }
    h.factory->runnerFor("A")->acceptPause = false;
    auto declined = h.await(h.manager->pause(a.runID));
    EXPECT_FALSE(declined.ok());
}

TEST(JobManager, ASlowSubscriberHoldsUpNobody) {
    JobManagerHarness h;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    // A second subscriber that never reads.
    auto idle = h.await(h.manager->subscribe(a.runID));
    ASSERT_TRUE(idle.has_value());
    auto runner = h.factory->runnerFor("A");
    for (int i = 0; i < 5000; ++i) ASSERT_TRUE(runner->emit([i] {
        v1::ClonerEvent e;
        e.mutable_progress()->set_bytes_copied(i);
        return e;
    }()));
    runner->complete(5000);
    h.settle();
    EXPECT_EQ(a.events->count("progress"), 5000u);
    EXPECT_TRUE(a.events->ended);
    EXPECT_EQ(h.sink->records.size(), 1u) << "the run ended although one subscriber read nothing";
    // A subscriber that went away is dropped without disturbing the others.
    idle->cancel();
}

TEST(JobManager, TerminalChainRecordsThenReleasesThenRunsDeferredActions) {
    JobManagerHarness h;
    LogCapture logs;
    h.manager->setOnRunFullyEnded([order = h.order](std::string tile) { return note(order, "ended " + tile); });
    auto a = h.submit(copyRequest("A", 's', 'x'));
    auto b = h.submit(copyRequest("B", 't', 'y'));
    JobManager::PendingEject eject;
    eject.volumeUUID = vol('x');
    eject.volume.set_display_name("X");
    h.awaitVoid(h.manager->deferEject(eject));
    h.awaitVoid(h.manager->deferEject(eject));  // a second request for the same volume is ignored
    h.awaitVoid(h.manager->deferDisconnect(vol('y'), "/Volumes/share"));
    h.awaitVoid(h.manager->deferPowerAction(PowerAction::sleep));
    h.awaitVoid(h.manager->deferPowerAction(PowerAction::restart));
    EXPECT_TRUE(h.order->empty()) << "nothing runs while the drives are in use";

    v1::ClonerEvent done;
    done.mutable_completed()->set_bytes_copied(42);
    done.mutable_completed()->add_deferred_paths("/locked/file");
    done.mutable_completed()->set_deferred_count(1);
    h.factory->runnerFor("A")->emit(done);
    h.factory->runnerFor("A")->end();
    h.settle();
    EXPECT_THAT(*h.order, ElementsAre("record A", "ended A", "eject X"));
    EXPECT_EQ(*h.assertions->live, 1);
    ASSERT_EQ(h.deferredPaths->recorded.size(), 1u);
    EXPECT_THAT(h.deferredPaths->recorded[0].second, ElementsAre("/locked/file"));
    EXPECT_TRUE(logs.contains("[JobManager] terminal chain drained runID=" + RunIdText::hex(a.runID) + " waited="));

    h.factory->runnerFor("B")->complete();
    h.settle();
    EXPECT_THAT(*h.order, ElementsAre("record A", "ended A", "eject X", "record B", "ended B",
                                      "disconnect /Volumes/share", "power restart"));
    EXPECT_EQ(*h.assertions->live, 0);
    EXPECT_EQ(h.sink->records[0].summary(),
              "Copied 42 bytes in 0.0s; 1 locked file skipped and deferred to an automatic follow-up run");
}

TEST(JobManager, PreviewItemsReachThePreviewStoreInOrderAndPreviewsStayOutOfHistory) {
    JobManager::Settings settings;
    settings.previewBatchSize = 2;
    JobManagerHarness h(settings);
    auto p = h.submit(copyRequest("A", 's', 'x'), Kind::preview);
    auto runner = h.factory->runnerFor("A");
    EXPECT_TRUE(runner->request.preview());
    for (const char* path : {"/a", "/b", "/c"}) runner->previewItem(path, "add");
    v1::ClonerEvent done;
    done.mutable_completed()->set_preview_destination_absent(true);
    runner->emit(done);
    runner->end();
    h.settle();
    EXPECT_THAT(h.previews->calls, ElementsAre("begin A", "append /a /b", "append /c", "finish absent"));
    EXPECT_TRUE(h.sink->records.empty());
    EXPECT_EQ(p.events->count("preview_item"), 3u);

    // A cancelled preview is marked cancelled; a failed write marks it failed.
    auto q = h.submit(copyRequest("B", 't', 'y'), Kind::preview);
    h.await(h.manager->cancel(q.runID));
    h.settle();
    EXPECT_EQ(h.previews->calls.back(), "cancel");

    h.previews->failAppends = true;
    auto r = h.submit(copyRequest("C", 'u', 'z'), Kind::preview);
    for (const char* path : {"/a", "/b", "/c"}) h.factory->runnerFor("C")->previewItem(path, "add");
    h.factory->runnerFor("C")->complete();
    h.settle();
    EXPECT_EQ(h.previews->calls.back(), "fail sqlite step: disk I/O error");
    EXPECT_TRUE(r.events->ended);
}

TEST(JobManager, DrainCancelsQueuedRunsAndWaitsForRunningOnes) {
    JobManagerHarness h;
    auto a = h.submit(copyRequest("A", 's', 'x'));
    auto b = h.submit(copyRequest("B", 't', 'x'));
    bool drained = false;
    asio::co_spawn(h.io, h.manager->drain(), [&](std::exception_ptr) { drained = true; });
    h.settle();
    EXPECT_THAT(b.events->kinds(), ElementsAre("queued", "cancelled"));
    EXPECT_FALSE(drained);
    auto c = h.submit(copyRequest("C", 'u', 'z'));
    EXPECT_THAT(c.events->kinds(), ElementsAre("queued", "cancelled")) << "nothing begins while draining";
    h.factory->runnerFor("A")->complete();
    h.settle();
    EXPECT_TRUE(drained);
    EXPECT_EQ(h.factory->count(), 1u);
}

TEST(JobManager, RecordCarriesTheRunsFacts) {
    JobManagerHarness h;
    auto request = copyRequest("A", 's', 'x');
    request.set_is_catchup(true);
    request.set_as_bootable(true);
    request.set_during_copy(v1::DCM_COPY_NEWER);
    request.mutable_destination()->set_subpath("Backups/Mac");
    auto a = h.submit(request);
    h.time->advance(125s);
    h.factory->runnerFor("A")->fail("The destination is full.", "copyFiles");
    h.settle();
    ASSERT_EQ(h.sink->records.size(), 1u);
    const auto& r = h.sink->records[0];
    EXPECT_EQ(r.id(), RunIdText::uuid(a.runID));
    EXPECT_EQ(r.outcome(), v1::RunRecord::OUTCOME_FAILED);
    EXPECT_EQ(r.summary(), "Failed in copyFiles: The destination is full.");
    EXPECT_TRUE(r.is_catchup());
    EXPECT_TRUE(r.as_bootable());
    EXPECT_EQ(r.copy_mode(), v1::COPY_MODE_COPY_NEWER);
    EXPECT_EQ(r.destination_display_name(), "Destination A");
    EXPECT_EQ(r.ran_destination_subpath(), "Backups/Mac");
    EXPECT_FALSE(r.has_ran_source_subpath());
    EXPECT_EQ(r.ended_at_unix_nanos() - r.started_at_unix_nanos(), 125'000'000'000);
    EXPECT_THAT(h.sink->logs[0], HasSubstr("] queued at position 1\n"));
    EXPECT_THAT(h.sink->logs[0], HasSubstr("] started\n"));
    EXPECT_THAT(h.sink->logs[0], HasSubstr("] failed: The destination is full.\n"));
    EXPECT_EQ(r.log_content(), h.sink->logs[0]);
}

}  // namespace
}  // namespace ql::testing

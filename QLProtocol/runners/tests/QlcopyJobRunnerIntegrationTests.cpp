// The file-copy runner against engines that are shell scripts writing NDJSON to descriptor 3,
// over real temporary folders, with a resolver over a fake disk probe.

#include "QlcopyJobRunnerTestWorld.h"

#include "QLSupport/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

namespace ql::testing {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using Collected = QlcopyJobRunnerWorld::Collected;

constexpr const char* kProgress =
    R"(printf '%s\n' '{"type":"progress","files_completed":1,"scout_total_files":2,"bytes_copied":10,"scout_total_bytes":20,"current_copy_path":"a.txt"}' >&3)";
constexpr const char* kSummary =
    R"(printf '%s\n' '{"type":"summary","items_copied":2,"bytes_copied":20,"items_evaluated":3,"bytes_evaluated":30,"elapsed_s":0.5}' >&3)";

asio::awaitable<void> cancelRun(std::shared_ptr<QlcopyJobRunner> runner,
                                CancelReason reason = CancelReason::userRequested()) {
    co_await runner->cancel(std::move(reason));
}
asio::awaitable<bool> pauseRun(std::shared_ptr<QlcopyJobRunner> runner) { co_return co_await runner->pause(); }
asio::awaitable<void> pauseThenGoOn(std::shared_ptr<QlcopyJobRunner> runner) { co_await runner->pause(); }
asio::awaitable<bool> resumeRun(std::shared_ptr<QlcopyJobRunner> runner) { co_return co_await runner->resume(); }

// The lines of the post-copy sequence, in order, as the server log has them.
std::vector<std::string> postCopyLines(const LogCapture& capture) {
    std::vector<std::string> out;
    for (const auto& line : capture.lines()) {
        auto at = line.find("post-copy: ");
        if (at == std::string::npos) continue;
        auto text = line.substr(at);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        out.push_back(text);
    }
    return out;
}

class QlcopyJobRunnerIntegration : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(world.sourceMount / "Documents" / "a.txt", "alpha");
        writeFile(world.sourceMount / "Documents" / "b.txt", "beta");
    }

    std::string engine(const std::string& body) { return world.engineScript(body); }

    Collected runToEnd(std::shared_ptr<QlcopyJobRunner> runner,
                       std::function<void(const wire::ClonerEvent&)> onEvent = {}) {
        auto future = world.collect(runner->run(), std::move(onEvent));
        return QlcopyJobRunnerWorld::wait(future);
    }

    bool engineStarted() const { return fs::exists(world.markers / "pid"); }

    // The engine's pid as the runner logged it ("qlcopy pid N").
    std::optional<pid_t> enginePidFromLog() const {
        for (const auto& line : capture.lines()) {
            auto at = line.find("qlcopy pid ");
            if (at != std::string::npos) return static_cast<pid_t>(std::stol(line.substr(at + 11)));
        }
        return std::nullopt;
    }

    QlcopyJobRunnerWorld world;
    IoThreads threads{world.io};
    LogCapture capture;
};

TEST_F(QlcopyJobRunnerIntegration, aRunRelaysTheEngineAndEndsWithItsSummary) {
    auto env = world.environment(engine(std::string(kProgress) + "\n" + kSummary + "\nexit 0\n"));
    auto collected = runToEnd(world.runner(env, world.request()));

    ASSERT_EQ(collected.terminals().size(), 1u);
    ASSERT_TRUE(collected.events.back().has_completed()) << collected.events.back().DebugString();
    const auto& completed = collected.events.back().completed();
    EXPECT_EQ(completed.items_copied(), 2);
    EXPECT_EQ(completed.bytes_copied(), 20);
    EXPECT_EQ(completed.items_evaluated(), 3);
    EXPECT_FALSE(completed.preview_destination_absent());
    EXPECT_TRUE(collected.has(wire::ClonerEvent::kProgress));
    EXPECT_FALSE(collected.failure);

    EXPECT_THAT(collected.checklist(),
                ElementsAre("phase_start prepare", "step_start prepare/resolve", "step_end prepare/resolve",
                            "step_start prepare/mount", "step_end prepare/mount", "step_start prepare/ownership",
                            "step_end prepare/ownership", "phase_end prepare", "phase_start snapshot",
                            "step_start snapshot/snapshot", "step_end snapshot/snapshot", "phase_end snapshot",
                            "phase_start files", "step_start files/copyFile", "step_end files/copyFile",
                            "phase_end files"));

    // The engine got the composed paths, last, after the fixed flags.
    auto args = readFile(world.markers / "args");
    EXPECT_THAT(args, HasSubstr("--progress-fd\n3\n--state\n"));
    EXPECT_THAT(args, HasSubstr("--copy-mode\ndifferent\n--delete\n--clone-families\n"));
    EXPECT_THAT(args, HasSubstr("--console-home\n/home/ann\n"));
    EXPECT_THAT(args, HasSubstr((world.sourceMount / "Documents").string() + "\n" +
                                (world.destinationMount / "Backup of Documents").string() + "\n"));
    // The missing destination folder on the proven volume was created for the first copy.
    EXPECT_TRUE(fs::is_directory(world.destinationMount / "Backup of Documents"));
    EXPECT_THAT(collected.logTexts(), Contains(HasSubstr("created destination folder")));

    EXPECT_THAT(postCopyLines(capture),
                ElementsAre("post-copy: begin (exit=0, cancelled=false, hook=false)",
                            "post-copy: tile-state capture begin", "post-copy: tile-state capture done",
                            "post-copy: snapshot release begin (held=false)", "post-copy: snapshot release done",
                            "post-copy: ownership restore begin (src=enabled dst=enabled)",
                            "post-copy: mount cleanup begin", "post-copy: mount cleanup done",
                            "post-copy: cleanup done", "post-copy: terminal emitted (synthesized=false)"));
}

TEST_F(QlcopyJobRunnerIntegration, aFailureEventOfTheEngineStands) {
    auto env = world.environment(engine(
        R"(printf '%s\n' '{"type":"failure","message":"The destination is full","kind":"copyFiles","path":"/x/y","errno_value":28}' >&3
exit 1
)"));
    auto collected = runToEnd(world.runner(env, world.request()));
    ASSERT_EQ(collected.terminals().size(), 1u);
    ASSERT_TRUE(collected.events.back().has_failed());
    EXPECT_EQ(collected.events.back().failed().error_message(), "The destination is full (path: /x/y) [errno=28]");
    EXPECT_EQ(collected.events.back().failed().failed_errno(), 28);
    EXPECT_THAT(collected.checklist(), Contains("phase_end files failed"));
}

// MARK: - Engines that end without a verdict

struct DyingEngine {
    const char* name;
    const char* ending;
    const char* expected;
};

class EngineEndsWithoutTerminal : public QlcopyJobRunnerIntegration,
                                  public ::testing::WithParamInterface<DyingEngine> {};

TEST_P(EngineEndsWithoutTerminal, yieldsExactlyOneSynthesizedFailure) {
    auto env = world.environment(engine(std::string(kProgress) + "\n" + GetParam().ending + "\n"));
    auto collected = runToEnd(world.runner(env, world.request()));
    ASSERT_EQ(collected.terminals().size(), 1u);
    ASSERT_TRUE(collected.events.back().has_failed());
    const auto& failed = collected.events.back().failed();
    EXPECT_THAT(failed.error_message(), HasSubstr(GetParam().expected));
    EXPECT_THAT(failed.error_message(), HasSubstr("after copying 1 of 2 files"));
    EXPECT_EQ(failed.failed_phase(), "copyFiles");
    EXPECT_EQ(failed.failed_path(), "a.txt");
    EXPECT_TRUE(capture.contains("the engine did not finish its work; substituting failed"));
    EXPECT_THAT(postCopyLines(capture), Contains("post-copy: terminal emitted (synthesized=true)"));
}

INSTANTIATE_TEST_SUITE_P(
    Runner, EngineEndsWithoutTerminal,
    ::testing::Values(DyingEngine{"exitStatus", "exit 7", "it exited with status 7"},
                      DyingEngine{"killedBySignal", "kill -9 $$", "it was stopped by signal 9"},
                      DyingEngine{"garbageThenExit", "printf 'not json\\n' >&3\nexit 0", "it exited with status 0"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(QlcopyJobRunnerIntegration, anUndecodableLineIsForwardedAndTheRunGoesOn) {
    auto env = world.environment(engine("printf 'garbage{\\n' >&3\n" + std::string(kSummary) + "\n"));
    auto collected = runToEnd(world.runner(env, world.request()));
    EXPECT_THAT(collected.logTexts(), Contains("[qlcopy-json-decode-failed] garbage{"));
    ASSERT_TRUE(collected.events.back().has_completed());
}

TEST_F(QlcopyJobRunnerIntegration, anInterruptionNobodyAskedForFailsWithTheSummarysFacts) {
    auto env = world.environment(engine(
        R"(printf '%s\n' '{"type":"terminated","signal":15,"scanner_path":"/s","executor_path":"/e"}' >&3
printf '%s\n' '{"type":"summary","interrupted":true,"items_copied":3,"bytes_copied":300,"errors":0,"first_error_path":"/p","first_error_errno":5}' >&3
exit 143
)"));
    auto collected = runToEnd(world.runner(env, world.request()));
    ASSERT_EQ(collected.terminals().size(), 1u);
    ASSERT_TRUE(collected.events.back().has_failed());
    const auto& failed = collected.events.back().failed();
    EXPECT_EQ(failed.error_message(),
              "The copy was interrupted by signal 15 before it finished, after copying 3 items (300 bytes). Run the "
              "copy again to finish it.");
    EXPECT_EQ(failed.failed_path(), "/p");
    EXPECT_EQ(failed.failed_errno(), 5);
    EXPECT_TRUE(capture.contains("engine reported `terminated` for signal 15"));
}

// MARK: - Cancel

TEST_F(QlcopyJobRunnerIntegration, cancelDuringPreparationNeverStartsTheEngineAndRunsThePostCopySequence) {
    world.probeDelay = std::chrono::milliseconds(300);  // the cancel arrives while the run resolves
    auto env = world.environment(engine(std::string(kSummary) + "\n"));
    auto runner = world.runner(env, world.request());
    auto future = world.collect(runner->run());
    world.await<void>([runner] { return cancelRun(runner); });
    auto collected = QlcopyJobRunnerWorld::wait(future);

    ASSERT_EQ(collected.terminals().size(), 1u);
    EXPECT_TRUE(collected.events.back().has_cancelled());
    EXPECT_FALSE(engineStarted());
    EXPECT_TRUE(capture.contains("[cancel] QlcopyJobRunner cancel(userRequested) received — child not spawned yet "
                                 "(checkpoint will stop the run)"));
    EXPECT_THAT(postCopyLines(capture),
                ElementsAre(HasSubstr("post-copy: begin (exit=none, cancelled=true"),
                            "post-copy: tile-state capture begin", "post-copy: tile-state capture done",
                            "post-copy: snapshot release begin (held=false)", "post-copy: snapshot release done",
                            HasSubstr("post-copy: ownership restore begin"), "post-copy: mount cleanup begin",
                            "post-copy: mount cleanup done", "post-copy: cleanup done",
                            "post-copy: terminal emitted (synthesized=true)"));
}

TEST_F(QlcopyJobRunnerIntegration, cancelJustBeforeTheSpawnNeverStartsTheEngine) {
    auto env = world.environment(engine(std::string(kSummary) + "\n"));
    std::shared_ptr<QlcopyJobRunner> runner;
    // The tile-state hand-over is the last thing before the spawn: the cancel lands there.
    env->materializeTileState = [&runner](std::string, std::string, std::uint32_t) { return cancelRun(runner); };
    runner = world.runner(env, world.request());
    auto collected = runToEnd(runner);
    EXPECT_TRUE(collected.events.back().has_cancelled());
    EXPECT_FALSE(engineStarted());
    EXPECT_TRUE(capture.contains("cancelled before copyFiles (userRequested) — qlcopy never spawned"));
    EXPECT_THAT(collected.checklist(), Contains("phase_end files failed"));
    EXPECT_THAT(postCopyLines(capture), Contains("post-copy: mount cleanup done"));
}

TEST_F(QlcopyJobRunnerIntegration, aWatchersCancelFailsWithItsSentence) {
    auto env = world.environment(engine(std::string(kSummary) + "\n"));
    std::shared_ptr<QlcopyJobRunner> runner;
    env->materializeTileState = [&runner](std::string, std::string, std::uint32_t) {
        return cancelRun(runner, CancelReason::destinationRemoved());
    };
    runner = world.runner(env, world.request());
    auto collected = runToEnd(runner);
    ASSERT_TRUE(collected.events.back().has_failed());
    EXPECT_EQ(collected.events.back().failed().error_message(),
              "The destination was disconnected during the copy. Quillo stopped immediately to protect your data.");
}

TEST_F(QlcopyJobRunnerIntegration, cancelMidCopyKillsAnEngineThatIgnoresSIGINT) {
    auto env = world.environment(engine(std::string("trap '' INT\nwhile :; do\n") + kProgress + "\nsleep 0.1\ndone\n"));
    auto runner = world.runner(env, world.request());
    std::promise<void> firstProgress;
    std::once_flag once;
    auto future = world.collect(runner->run(), [&](const wire::ClonerEvent& e) {
        if (e.has_progress()) std::call_once(once, [&] { firstProgress.set_value(); });
    });
    ASSERT_EQ(firstProgress.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    const auto cancelledAt = std::chrono::steady_clock::now();
    world.await<void>([runner] { return cancelRun(runner); });
    auto collected = QlcopyJobRunnerWorld::wait(future);
    const auto took = std::chrono::steady_clock::now() - cancelledAt;

    ASSERT_EQ(collected.terminals().size(), 1u);
    EXPECT_TRUE(collected.events.back().has_cancelled());
    EXPECT_GE(took, env->killGrace);
    EXPECT_LT(took, env->killGrace + std::chrono::seconds(3));
    EXPECT_TRUE(capture.contains("child spawned; sending SIGINT"));
    EXPECT_TRUE(capture.contains("sending SIGKILL"));
    auto pid = world.enginePid();
    ASSERT_TRUE(pid);
    EXPECT_NE(::kill(*pid, 0), 0) << "the engine is still running";
}

TEST_F(QlcopyJobRunnerIntegration, anEngineThatStopsOnSIGINTEndsCancelled) {
    auto env = world.environment(engine(
        std::string(R"(trap 'printf "%s\n" "{\"type\":\"terminated\",\"signal\":2}" >&3; printf "%s\n" "{\"type\":\"summary\",\"interrupted\":true,\"items_copied\":1}" >&3; exit 130' INT
while :; do
)") + kProgress + "\nsleep 0.1\ndone\n"));
    auto runner = world.runner(env, world.request());
    std::promise<void> firstProgress;
    std::once_flag once;
    auto future = world.collect(runner->run(), [&](const wire::ClonerEvent& e) {
        if (e.has_progress()) std::call_once(once, [&] { firstProgress.set_value(); });
    });
    ASSERT_EQ(firstProgress.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    world.await<void>([runner] { return cancelRun(runner); });
    auto collected = QlcopyJobRunnerWorld::wait(future);
    ASSERT_EQ(collected.terminals().size(), 1u);
    EXPECT_TRUE(collected.events.back().has_cancelled());
    EXPECT_TRUE(capture.contains("waiting for the summary's verdict"));
    EXPECT_FALSE(capture.contains("sending SIGKILL"));
}

// MARK: - Pause

TEST_F(QlcopyJobRunnerIntegration, pauseStopsTheEngineAndResumeContinuesIt) {
    auto env = world.environment(engine(std::string("i=0\nwhile [ $i -lt 25 ]; do\n") + kProgress +
                                        "\nsleep 0.1\ni=$((i+1))\ndone\n" + kSummary + "\n"));
    auto runner = world.runner(env, world.request());
    std::promise<void> firstProgress, paused;
    std::once_flag once;
    std::atomic<int> progressCount{0};
    auto future = world.collect(runner->run(), [&](const wire::ClonerEvent& e) {
        if (e.has_progress()) {
            ++progressCount;
            std::call_once(once, [&] { firstProgress.set_value(); });
        }
        if (e.has_paused()) paused.set_value();
    });
    ASSERT_EQ(firstProgress.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_TRUE(world.await<bool>([runner] { return pauseRun(runner); }));
    ASSERT_EQ(paused.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
    auto pid = world.enginePid();
    ASSERT_TRUE(pid);
    EXPECT_EQ(QlcopyJobRunnerWorld::settledState(*pid, "T"), "T");
    const int before = progressCount.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LE(progressCount.load(), before + 1) << "the engine kept writing while paused";

    EXPECT_TRUE(world.await<bool>([runner] { return resumeRun(runner); }));
    auto collected = QlcopyJobRunnerWorld::wait(future);
    EXPECT_TRUE(collected.events.back().has_completed());
    EXPECT_TRUE(collected.has(wire::ClonerEvent::kPauseRequested));
    EXPECT_TRUE(collected.has(wire::ClonerEvent::kResumed));
    // Nothing to pause once the run has ended.
    EXPECT_FALSE(world.await<bool>([runner] { return pauseRun(runner); }));
}

TEST_F(QlcopyJobRunnerIntegration, aPauseBeforeTheSpawnTakesEffectWhenTheEngineStarts) {
    auto env = world.environment(engine(std::string("sleep 1\n") + kProgress + "\n" + kSummary + "\n"));
    std::shared_ptr<QlcopyJobRunner> runner;
    env->materializeTileState = [&runner](std::string, std::string, std::uint32_t) { return pauseThenGoOn(runner); };
    runner = world.runner(env, world.request());
    std::promise<void> paused;
    std::atomic<int> progressCount{0};
    auto future = world.collect(runner->run(), [&](const wire::ClonerEvent& e) {
        if (e.has_paused()) paused.set_value();
        if (e.has_progress()) ++progressCount;
    });
    ASSERT_EQ(paused.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    auto pid = enginePidFromLog();
    ASSERT_TRUE(pid);
    EXPECT_EQ(QlcopyJobRunnerWorld::settledState(*pid, "T"), "T");
    // Stopped from the start: its first event never comes while it is paused.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(progressCount.load(), 0);
    EXPECT_TRUE(world.await<bool>([runner] { return resumeRun(runner); }));
    auto collected = QlcopyJobRunnerWorld::wait(future);
    EXPECT_TRUE(collected.events.back().has_completed());
    EXPECT_EQ(progressCount.load(), 1);
    EXPECT_TRUE(capture.contains("paused qlcopy (SIGSTOP, requested before the engine started)"));
}

TEST_F(QlcopyJobRunnerIntegration, aQuietEngineIsPausedAtOnce) {
    auto env = world.environment(engine(std::string(kProgress) + "\nsleep 2\n" + kSummary + "\n"));
    auto runner = world.runner(env, world.request());
    std::promise<void> firstProgress, paused;
    std::once_flag once;
    auto future = world.collect(runner->run(), [&](const wire::ClonerEvent& e) {
        if (e.has_progress()) std::call_once(once, [&] { firstProgress.set_value(); });
        if (e.has_paused()) paused.set_value();
    });
    ASSERT_EQ(firstProgress.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    std::this_thread::sleep_for(env->quietPauseAfter + std::chrono::milliseconds(200));
    EXPECT_TRUE(world.await<bool>([runner] { return pauseRun(runner); }));
    EXPECT_EQ(paused.get_future().wait_for(std::chrono::seconds(2)), std::future_status::ready);
    EXPECT_TRUE(capture.contains("qlcopy had gone quiet"));
    EXPECT_TRUE(world.await<bool>([runner] { return resumeRun(runner); }));
    auto collected = QlcopyJobRunnerWorld::wait(future);
    EXPECT_TRUE(collected.events.back().has_completed());
}

// MARK: - Refusals before anything is touched

TEST_F(QlcopyJobRunnerIntegration, aDestinationThatIsNoLongerTheBoundVolumeIsRefusedBeforeAnythingIsWritten) {
    // The partition now reports another size than the one recorded when the job was set up.
    world.probe->infos["vda2"].totalSize = kDestinationSize * 2;
    world.probe->list.allDisksAndPartitions[0].partitions[1].size = kDestinationSize * 2;
    auto env = world.environment(engine(std::string(kSummary) + "\n"));
    auto collected = runToEnd(world.runner(env, world.request()));

    ASSERT_EQ(collected.terminals().size(), 1u);
    ASSERT_TRUE(collected.events.back().has_failed());
    const auto& failed = collected.events.back().failed();
    EXPECT_THAT(failed.error_message(),
                AllOf(HasSubstr("The destination “Backup” doesn't match the drive this backup was set up with"),
                      HasSubstr("partitionSizeBytes expected=200000000000 actual=400000000000")));
    EXPECT_EQ(failed.failed_phase(), "prepare");
    EXPECT_EQ(failed.failed_side(), "destination");
    EXPECT_FALSE(engineStarted());
    EXPECT_FALSE(fs::exists(world.destinationMount / "Backup of Documents"));
    EXPECT_TRUE(fs::is_empty(world.destinationMount));
    EXPECT_THAT(collected.checklist(), Contains("step_end prepare/resolve failed"));
    EXPECT_THAT(postCopyLines(capture), Contains("post-copy: cleanup done"));
}

struct Refusal {
    const char* name;
    std::function<void(QlcopyJobRunnerWorld&, wire::CopyRequest&)> arrange;
    const char* message;  // a part of the failure's sentence
    bool destinationNotConnected;
};

class RefusedBeforeTheEngine : public QlcopyJobRunnerIntegration, public ::testing::WithParamInterface<Refusal> {};

TEST_P(RefusedBeforeTheEngine, failsWithItsSentenceAndTouchesNothing) {
    auto request = world.request();
    GetParam().arrange(world, request);
    auto env = world.environment(engine(std::string(kSummary) + "\n"));
    auto collected = runToEnd(world.runner(env, request));
    ASSERT_EQ(collected.terminals().size(), 1u);
    ASSERT_TRUE(collected.events.back().has_failed()) << collected.events.back().DebugString();
    EXPECT_THAT(collected.events.back().failed().error_message(), HasSubstr(GetParam().message));
    EXPECT_EQ(collected.events.back().failed().destination_not_connected(), GetParam().destinationNotConnected);
    EXPECT_FALSE(engineStarted());
    EXPECT_THAT(postCopyLines(capture), Contains("post-copy: terminal emitted (synthesized=true)"));
}

INSTANTIATE_TEST_SUITE_P(
    Runner, RefusedBeforeTheEngine,
    ::testing::Values(
        Refusal{"missingSourceFolder",
                [](auto&, auto& r) {
                    auto ref = QlcopyJobRunnerWorld::ref(kSourcePartition, kSourceSize, "Source", "Gone");
                    *r.mutable_source() = VolumeBridge::toWire(ref);
                },
                "does not exist (moved or deleted?)", false},
        Refusal{"destinationIsAFile",
                [](auto& w, auto&) { writeFile(w.destinationMount / "Backup of Documents", "x"); },
                "exists but is not a folder", false},
        Refusal{"destinationParentMissing",
                [](auto&, auto& r) {
                    auto ref = QlcopyJobRunnerWorld::ref(kDestinationPartition, kDestinationSize, "Backup",
                                                         "Nowhere/Deeper");
                    *r.mutable_destination() = VolumeBridge::toWire(ref);
                },
                "is missing and its parent", false},
        Refusal{"destinationNotMounted",
                [](auto& w, auto&) { w.probe->infos["vda2"].mountPoint.reset(); },
                "The destination “Backup” isn't mounted, and this version of Quillo can't mount it by itself.", true},
        Refusal{"destinationMissing",
                [](auto& w, auto&) {
                    auto& parts = w.probe->list.allDisksAndPartitions[0].partitions;
                    parts.pop_back();
                },
                "The destination “Backup” isn't connected. Connect it, then run the copy again.", true},
        Refusal{"diskImageDestination",
                [](auto&, auto& r) {
                    auto ref = QlcopyJobRunnerWorld::ref(kDestinationPartition, kDestinationSize, "Image", std::nullopt);
                    ref.key = VolumeKey::diskImage(DiskImageHost::localVolume(kSourcePartition), "Images/B.dmg",
                                                   kDestinationPartition);
                    ref.invariants.partitionMapType = PartitionMapType::diskImage;
                    *r.mutable_destination() = VolumeBridge::toWire(ref);
                },
                "This version of Quillo can't examine disk images. Choose a different destination.", false},
        Refusal{"shareNotConnected",
                [](auto&, auto& r) {
                    auto ref = QlcopyJobRunnerWorld::ref(kDestinationPartition, 0, "Team", std::nullopt);
                    ref.key = VolumeKey::networkShare("smb://nas.local/Team");
                    ref.invariants.partitionMapType = PartitionMapType::network;
                    ref.invariants.filesystemFamily = FilesystemFamily::smb;
                    *r.mutable_destination() = VolumeBridge::toWire(ref);
                },
                "The network share “Team” isn't connected, and this version of Quillo can't connect to it by itself.",
                true},
        Refusal{"eraseThenCopyMisrouted",
                [](auto&, auto& r) { r.set_during_copy(wire::DCM_ERASE_THEN_COPY); },
                "QlcopyJobRunner refuses Erase-then-copy (asr) — route to the M7 asr runner", false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(QlcopyJobRunnerIntegration, aRefusedCopyRuleStopsTheRunBeforeItCopies) {
    auto env = world.environment(engine(
        "case \" $* \" in *' --validate-script '*) echo '  include \"Missing\" not found ' >&2; exit 3;; esac\n" +
        std::string(kSummary) + "\n"));
    auto request = world.request();
    request.set_copy_script_path("/rules/Everything.dset");
    auto collected = runToEnd(world.runner(env, request));
    ASSERT_TRUE(collected.events.back().has_failed());
    EXPECT_EQ(collected.events.back().failed().error_message(),
              "The Copy Rule \"Everything\" can't be loaded, so this copy can't run. (qlcopy.failure.script_load: "
              "include \"Missing\" not found)");
    EXPECT_THAT(readFile(world.markers / "args"), HasSubstr("--validate-script"));
    EXPECT_FALSE(fs::exists(world.destinationMount / "Backup of Documents"));
}

TEST_F(QlcopyJobRunnerIntegration, aPreviewIntoAMissingFolderCompletesWithoutTheEngine) {
    auto env = world.environment(engine(std::string(kSummary) + "\n"));
    auto request = world.request();
    request.set_preview(true);
    auto collected = runToEnd(world.runner(env, request));
    ASSERT_TRUE(collected.events.back().has_completed());
    EXPECT_TRUE(collected.events.back().completed().preview_destination_absent());
    EXPECT_FALSE(engineStarted());
    EXPECT_FALSE(fs::exists(world.destinationMount / "Backup of Documents"));
    EXPECT_THAT(collected.logTexts(), Contains("spawn skipped (destination folder pending creation)"));
    EXPECT_THAT(collected.logTexts(), Contains("mount skipped (dry-run)"));
    EXPECT_THAT(collected.logTexts(), Contains("ownership skipped (dry-run)"));
}

// MARK: - Ownership

TEST_F(QlcopyJobRunnerIntegration, ownershipIsEnabledForTheRunAndPutBackOnlyWhereItWasChanged) {
    world.ownership->state[world.sourceMount.string()] = false;  // ignored before the run
    world.ownership->state[world.destinationMount.string()] = true;
    auto env = world.environment(engine(std::string(kSummary) + "\n"));
    auto collected = runToEnd(world.runner(env, world.request()));
    ASSERT_TRUE(collected.events.back().has_completed());
    const auto src = world.sourceMount.string();
    const auto dst = world.destinationMount.string();
    EXPECT_THAT(world.ownership->calls, Contains("enable " + src));
    EXPECT_THAT(world.ownership->calls, Contains("disable " + src));
    EXPECT_THAT(world.ownership->calls, Not(Contains("enable " + dst)));
    EXPECT_THAT(world.ownership->calls, Not(Contains("disable " + dst)));
    EXPECT_EQ(world.ownership->state[src], false);
    EXPECT_THAT(postCopyLines(capture), Contains("post-copy: ownership restore begin (src=disabled dst=enabled)"));
}

TEST_F(QlcopyJobRunnerIntegration, aSourceWithoutOwnersIsMappedToTheConsoleUser) {
    world.ownership->state[world.sourceMount.string()] = false;
    world.ownership->refuse.insert(world.sourceMount.string());
    auto env = world.environment(engine(std::string(kSummary) + "\n"));
    auto collected = runToEnd(world.runner(env, world.request()));
    ASSERT_TRUE(collected.events.back().has_completed());
    EXPECT_THAT(readFile(world.markers / "args"), HasSubstr("--map-noowners-owner\n1000:1000\n"));
    EXPECT_THAT(collected.logTexts(), Contains("no-owners source: destination owner will be remapped to 1000:1000"));
}

}  // namespace
}  // namespace ql::testing

// A whole copy server in the test's process, driven over its socket like a client drives it,
// running the real qlcopy engine over real temporary trees. The disk probes behind the resolver
// describe two temporary folders as the source and destination volumes.

#include "QLProtocol/runners/tests/QlcopyJobRunnerTestWorld.h"
#include "QLProtocol/transport/CopyService.h"
#include "QLProtocol/transport/TileService.h"
#include "QLProtocol/transport/UDSChannel.h"
#include "QLSupport/Log.h"
#include "server-main/ServerAssembly.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace ql::testing {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

using Event = wire::ClonerEvent;

// Every event of one client stream, and how the stream ended.
struct RunResult {
    std::vector<Event> events;
    std::optional<TransportError> error;

    std::vector<Event> terminals() const {
        std::vector<Event> out;
        for (const auto& e : events)
            if (e.has_completed() || e.has_failed() || e.has_cancelled()) out.push_back(e);
        return out;
    }
};

asio::awaitable<void> streamRun(std::shared_ptr<UDSChannel> channel, wire::CopyRequest request,
                                std::function<void(const Event&)> onEvent, std::shared_ptr<std::promise<RunResult>> done) {
    CopyServiceClient copy(channel);
    RunResult result;
    auto stream = co_await copy.call<&CopyServiceProvider::runCloner>(std::move(request));
    for (;;) {
        auto next = co_await stream.next();
        if (!next) {
            result.error = next.error();
            break;
        }
        if (!*next) break;
        if (onEvent) onEvent(**next);
        result.events.push_back(std::move(**next));
    }
    done->set_value(std::move(result));
}

asio::awaitable<tl::expected<wire::CreateTileResponse, TransportError>> createJob(std::shared_ptr<UDSChannel> channel,
                                                                                std::string id) {
    TileServiceClient tiles(channel);
    wire::CreateTileRequest request;
    request.mutable_tile()->set_id(std::move(id));
    request.mutable_tile()->set_name("Documents");
    co_return co_await tiles.call<&TileServiceProvider::createTile>(request);
}

// The reason of the run's scan-mode event, when it had one.
std::optional<wire::ScanMode::Reason> scanReason(const std::vector<wire::ClonerEvent>& events) {
    for (const auto& e : events) {
        if (e.has_scan_mode()) return e.scan_mode().reason();
    }
    return std::nullopt;
}

asio::awaitable<wire::RunControlResponse> control(std::shared_ptr<UDSChannel> channel, std::string runID,
                                                  std::string what) {
    CopyServiceClient copy(channel);
    wire::RunControlRequest request;
    request.mutable_run_id()->set_value(std::move(runID));
    tl::expected<wire::RunControlResponse, TransportError> answer;
    if (what == "cancel") {
        answer = co_await copy.call<&CopyServiceProvider::cancelRun>(request);
    } else if (what == "pause") {
        answer = co_await copy.call<&CopyServiceProvider::pauseRun>(request);
    } else {
        answer = co_await copy.call<&CopyServiceProvider::resumeRun>(request);
    }
    if (!answer) {
        wire::RunControlResponse failed;
        failed.set_error_message(answer.error().message());
        co_return failed;
    }
    co_return *answer;
}

asio::awaitable<tl::expected<void, std::string>> startServer(ServerAssembly& server) { co_return co_await server.start(); }
asio::awaitable<void> stopServer(ServerAssembly& server) { co_await server.shutdown(true, "end of test"); }

// A tree of `count` files of `size` bytes each, in two folders, with pseudo-random content.
std::uint64_t makeTree(const fs::path& root, int count, std::size_t size) {
    std::mt19937 random(42);
    std::uint64_t total = 0;
    for (int i = 0; i < count; ++i) {
        std::string content(size, '\0');
        for (auto& c : content) c = static_cast<char>(random());
        writeFile(root / (i % 2 ? "odd" : "even") / ("file-" + std::to_string(i) + ".bin"), content);
        total += size;
    }
    return total;
}

// Whether two trees hold the same files with the same content.
bool sameTree(const fs::path& a, const fs::path& b) {
    std::vector<std::string> left, right;
    for (const auto& e : fs::recursive_directory_iterator(a)) left.push_back(fs::relative(e.path(), a).string());
    for (const auto& e : fs::recursive_directory_iterator(b)) right.push_back(fs::relative(e.path(), b).string());
    std::sort(left.begin(), left.end());
    std::sort(right.begin(), right.end());
    if (left != right) return false;
    for (const auto& name : left) {
        if (fs::is_regular_file(a / name) && readFile(a / name) != readFile(b / name)) return false;
    }
    return true;
}

class QlcopyServerIntegration : public ::testing::Test {
protected:
    void TearDown() override {
        if (server) {
            auto stop = asio::co_spawn(io, stopServer(*server), asio::use_future);
            stop.wait_for(std::chrono::seconds(30));
        }
    }

    void start(const std::string& engine, std::chrono::seconds killGrace = std::chrono::seconds(8)) {
        ServerOptions options;
        options.stateRoot = world.folder.path() / "server";
        options.enginePath = engine;
        options.attestationMode = "logOnly";
        options.engineKillGrace = killGrace;
        ServerAssembly::Overrides overrides;
        overrides.resolverEnvironment = [this] { return world.resolverEnvironment(); };
        overrides.volumeHost = world.volumeHost();
        overrides.ownership = world.ownership;
        server = std::make_unique<ServerAssembly>(io, options, QL_SERVER_EXECUTABLE, overrides);
        auto started = asio::co_spawn(io, startServer(*server), asio::use_future).get();
        ASSERT_TRUE(started) << started.error();
        channel = std::make_shared<UDSChannel>(UDSChannel::Options{server->socketPath()});
        // Runs are only of stored jobs.
        auto created = asio::co_spawn(io, createJob(channel, world.request().tile_id()), asio::use_future).get();
        ASSERT_TRUE(created) << created.error().message();
    }

    // An engine script: records that it started, then runs the real engine with extra flags.
    std::string wrappedEngine(const std::string& extraFlags) {
        return world.engineScript(std::string("exec '") + QL_ENGINE_EXECUTABLE + "' " + extraFlags + " \"$@\"\n");
    }

    std::future<RunResult> run(wire::CopyRequest request, std::function<void(const Event&)> onEvent = {}) {
        auto done = std::make_shared<std::promise<RunResult>>();
        auto future = done->get_future();
        asio::co_spawn(io, streamRun(channel, std::move(request), std::move(onEvent), done), asio::detached);
        return future;
    }

    static RunResult wait(std::future<RunResult>& future, std::chrono::seconds limit = std::chrono::seconds(60)) {
        if (future.wait_for(limit) != std::future_status::ready) throw std::runtime_error("the run never ended");
        return future.get();
    }

    wire::RunControlResponse send(const std::string& runID, const std::string& what) {
        return asio::co_spawn(io, control(channel, runID, what), asio::use_future).get();
    }

    bool engineStarted() const { return fs::exists(world.markers / "pid"); }

    QlcopyJobRunnerWorld world;
    asio::io_context io;
    IoThreads threads{io};
    std::unique_ptr<ServerAssembly> server;
    std::shared_ptr<UDSChannel> channel;
};

TEST_F(QlcopyServerIntegration, aRunCopiesTheTreeAndReportsTheRightCounters) {
    const auto total = makeTree(world.sourceMount / "Documents", 24, 40'000);
    start(QL_ENGINE_EXECUTABLE);
    auto future = run(world.request());
    auto result = wait(future);
    ASSERT_FALSE(result.error) << result.error->message();
    ASSERT_EQ(result.terminals().size(), 1u);
    ASSERT_TRUE(result.events.back().has_completed()) << result.events.back().DebugString();
    const auto& completed = result.events.back().completed();
    EXPECT_EQ(completed.bytes_copied(), static_cast<std::int64_t>(total));
    EXPECT_EQ(completed.items_copied(), 24 + 2);  // the files and their two folders
    EXPECT_EQ(completed.errors(), 0);
    // The run is queued (first in line), then started, before anything else happens.
    ASSERT_GE(result.events.size(), 2u);
    EXPECT_TRUE(result.events[0].has_queued()) << result.events[0].DebugString();
    EXPECT_TRUE(result.events[1].has_started()) << result.events[1].DebugString();
    EXPECT_TRUE(sameTree(world.sourceMount / "Documents", world.destinationMount / "Backup of Documents"));

    EXPECT_EQ(scanReason(result.events), wire::ScanMode::REASON_FIRST_RUN);

    // A second run finds nothing to copy, and starts from the scan state the first one left in
    // the job store.
    auto again = run(world.request());
    auto second = wait(again);
    ASSERT_TRUE(second.events.back().has_completed());
    EXPECT_EQ(scanReason(second.events), wire::ScanMode::REASON_HISTORY_EXPIRED)
        << "the engine did not get the state the first run left";
    EXPECT_EQ(second.events.back().completed().bytes_copied(), 0);
    EXPECT_EQ(second.events.back().completed().items_copied(), 0);
}

TEST_F(QlcopyServerIntegration, cancelBeforeTheSpawnNeverStartsTheEngineYetRunsThePostCopySequence) {
    makeTree(world.sourceMount / "Documents", 4, 1000);
    // The disk probe answers slowly, so the cancel arrives while the run is still resolving.
    world.probeDelay = std::chrono::milliseconds(700);
    start(wrappedEngine(""));
    LogCapture capture;
    std::atomic<bool> sent{false};
    auto future = run(world.request(), [&](const Event& e) {
        if (e.has_started() && !sent.exchange(true)) {
            std::thread([this, id = e.run_id().value()] { send(id, "cancel"); }).detach();
        }
    });
    auto result = wait(future);
    ASSERT_EQ(result.terminals().size(), 1u);
    EXPECT_TRUE(result.events.back().has_cancelled()) << result.events.back().DebugString();
    EXPECT_FALSE(engineStarted());
    EXPECT_TRUE(capture.contains("cancelled during prepare"));
    for (const auto* line : {"post-copy: begin (exit=none, cancelled=true", "post-copy: tile-state capture begin",
                             "post-copy: snapshot release begin", "post-copy: ownership restore begin",
                             "post-copy: mount cleanup begin", "post-copy: cleanup done",
                             "post-copy: terminal emitted (synthesized=true)"}) {
        EXPECT_TRUE(capture.contains(line)) << line;
    }
}

TEST_F(QlcopyServerIntegration, cancelMidCopyEndsCancelledWithinTheGraceEvenWhenTheEngineIgnoresSIGINT) {
    makeTree(world.sourceMount / "Documents", 4, 1000);
    start(world.engineScript(
        "trap '' INT\nwhile :; do printf '%s\\n' '{\"type\":\"progress\",\"files_completed\":1}' >&3; sleep 0.2; done\n"));
    std::promise<std::string> progressing;
    std::once_flag once;
    auto future = run(world.request(), [&](const Event& e) {
        if (e.has_progress()) std::call_once(once, [&] { progressing.set_value(e.run_id().value()); });
    });
    auto id = progressing.get_future();
    ASSERT_EQ(id.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    const auto cancelledAt = std::chrono::steady_clock::now();
    auto answer = send(id.get(), "cancel");
    EXPECT_TRUE(answer.ok()) << answer.error_message();
    auto result = wait(future);
    const auto took = std::chrono::steady_clock::now() - cancelledAt;
    ASSERT_EQ(result.terminals().size(), 1u);
    EXPECT_TRUE(result.events.back().has_cancelled());
    EXPECT_LE(took, std::chrono::seconds(8) + std::chrono::seconds(2));
    auto pid = world.enginePid();
    ASSERT_TRUE(pid);
    EXPECT_NE(::kill(*pid, 0), 0);
}

TEST_F(QlcopyServerIntegration, pauseStopsTheEngineAndResumeLetsTheCopyFinish) {
    const auto total = makeTree(world.sourceMount / "Documents", 8, 500'000);
    // 4 MB at 1.5 MB/s: long enough to pause in the middle.
    start(wrappedEngine("--bwlimit 1500000"));
    std::promise<std::string> progressing;
    std::promise<void> paused;
    std::once_flag once;
    auto future = run(world.request(), [&](const Event& e) {
        if (e.has_progress()) std::call_once(once, [&] { progressing.set_value(e.run_id().value()); });
        if (e.has_paused()) paused.set_value();
    });
    auto idFuture = progressing.get_future();
    ASSERT_EQ(idFuture.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    const auto id = idFuture.get();
    auto answer = send(id, "pause");
    EXPECT_TRUE(answer.ok()) << answer.error_message();
    ASSERT_EQ(paused.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
    auto pid = world.enginePid();
    ASSERT_TRUE(pid);
    EXPECT_EQ(QlcopyJobRunnerWorld::settledState(*pid, "T"), "T");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(QlcopyJobRunnerWorld::settledState(*pid, "T"), "T");

    answer = send(id, "resume");
    EXPECT_TRUE(answer.ok()) << answer.error_message();
    auto result = wait(future);
    ASSERT_TRUE(result.events.back().has_completed()) << result.events.back().DebugString();
    EXPECT_EQ(result.events.back().completed().bytes_copied(), static_cast<std::int64_t>(total));
    EXPECT_TRUE(sameTree(world.sourceMount / "Documents", world.destinationMount / "Backup of Documents"));
}

TEST_F(QlcopyServerIntegration, anEngineThatDiesWithoutATerminalYieldsExactlyOneSynthesizedTerminal) {
    makeTree(world.sourceMount / "Documents", 2, 100);
    start(world.engineScript(
        "printf '%s\\n' '{\"type\":\"progress\",\"files_completed\":3,\"scout_total_files\":9}' >&3\nkill -9 $$\n"));
    auto future = run(world.request());
    auto result = wait(future);
    ASSERT_EQ(result.terminals().size(), 1u);
    ASSERT_TRUE(result.events.back().has_failed());
    EXPECT_THAT(result.events.back().failed().error_message(),
                HasSubstr("The copy engine stopped unexpectedly (it was stopped by signal 9"));
    EXPECT_THAT(result.events.back().failed().error_message(), HasSubstr("after copying 3 of 9 files"));
}

TEST_F(QlcopyServerIntegration, aDestinationWhoseIdentityNoLongerMatchesIsRefusedBeforeAnythingIsWritten) {
    makeTree(world.sourceMount / "Documents", 4, 1000);
    world.probe->infos["vda2"].totalSize = kDestinationSize + 4096;
    world.probe->list.allDisksAndPartitions[0].partitions[1].size = kDestinationSize + 4096;
    start(wrappedEngine(""));
    auto future = run(world.request());
    auto result = wait(future);
    ASSERT_EQ(result.terminals().size(), 1u);
    ASSERT_TRUE(result.events.back().has_failed());
    EXPECT_THAT(result.events.back().failed().error_message(), HasSubstr("doesn't match the drive"));
    EXPECT_FALSE(engineStarted());
    EXPECT_TRUE(fs::is_empty(world.destinationMount));
}

}  // namespace
}  // namespace ql::testing

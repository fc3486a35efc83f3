// The copy service's run methods over a real Unix socket: a UDSServer with the live copy
// service provider, the job manager and the production dispatch in front of scripted runners.

#include "QLProtocol/runners/DispatchingJobRunnerFactory.h"
#include "QLProtocol/runners/LiveCopyServiceProvider.h"
#include "QLProtocol/runners/UnavailableJobRunnerFactory.h"
#include "QLProtocol/server/JobManager.h"
#include "QLProtocol/server/tests/FakeJobRunner.h"
#include "QLProtocol/transport/CopyService.h"
#include "QLProtocol/transport/ServiceCatalogue.h"
#include "QLProtocol/transport/UDSChannel.h"
#include "QLProtocol/transport/UDSServer.h"
#include "QLSupport/Clock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

namespace ql {
namespace {

using testing::FakeJobRunner;
using testing::FakeJobRunnerFactory;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

std::string kindOf(const wire::ClonerEvent& e) {
    if (e.payload_case() == wire::ClonerEvent::PAYLOAD_NOT_SET) return "none";
    return e.GetDescriptor()->FindFieldByNumber(e.payload_case())->name();
}

std::vector<std::string> kinds(const std::vector<wire::ClonerEvent>& events) {
    std::vector<std::string> out;
    for (const auto& e : events) out.push_back(kindOf(e));
    return out;
}

wire::CopyRequest copyRequest(const std::string& tile, char source, char destination) {
    wire::CopyRequest r;
    r.set_tile_id(tile);
    r.set_tile_name("Job " + tile);
    r.set_source_volume_uuid(std::string(16, source));
    r.set_destination_volume_uuid(std::string(16, destination));
    r.mutable_source()->mutable_key()->set_gpt_partition_guid(std::string(16, source));
    r.mutable_destination()->mutable_key()->set_gpt_partition_guid(std::string(16, destination));
    r.set_during_copy(wire::DCM_SMART_UPDATE);
    return r;
}

wire::RunControlRequest control(const std::string& runID) {
    wire::RunControlRequest r;
    r.mutable_run_id()->set_value(runID);
    return r;
}

// Denies every copy.
struct LockedAuthorizer final : CopyAuthorizer {
    asio::awaitable<bool> authorizes(wire::CopyRequest) override { co_return false; }
};

class CopyServiceIntegrationTest : public ::testing::Test {
protected:
    // One event stream of a call, read from the test thread.
    struct Remote {
        ClientStream<wire::ClonerEvent> stream;
        std::vector<wire::ClonerEvent> events;
        bool ended = false;
        std::optional<TransportError> error;
        std::string runID() const { return events.empty() ? std::string() : events.front().run_id().value(); }
    };

    CopyServiceIntegrationTest() : guard_(asio::make_work_guard(io_)) {
        for (int i = 0; i < 2; ++i) threads_.emplace_back([this] { io_.run(); });
        std::string pattern = "/tmp/qlcs-XXXXXX";
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        folder_ = pattern;
    }

    ~CopyServiceIntegrationTest() override {
        // End every run still going, then stop serving.
        try {
            for (int round = 0; manager && round < 100; ++round) {
                for (const auto& factory : {qlcopy, asr})
                    for (const auto& runner : factory->snapshot())
                        if (runner->started) runner->complete();
                if (!run(manager->hasActiveRuns())) break;
                std::this_thread::sleep_for(10ms);
            }
        } catch (const std::exception& e) {
            ADD_FAILURE() << "runs did not end: " << e.what();
        }
        if (server) server->stop();
        guard_.reset();
        for (auto& t : threads_) t.join();
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    void SetUp() override { startServer(nullptr); }

    void startServer(std::shared_ptr<CopyAuthorizer> authorizer) {
        if (server) {
            server->stop();
            server.reset();
        }
        auto dispatch = std::make_shared<DispatchingJobRunnerFactory>(
            qlcopy, asr, std::make_shared<UnavailableJobRunnerFactory>(UnavailableJobRunnerFactory::kEraseThenCopyMessage));
        JobManager::Collaborators deps;
        deps.factory = dispatch;
        deps.clock = std::make_shared<LiveClock>();
        manager = JobManager::create(io_.get_executor(), std::move(deps), {});
        LiveCopyServiceProvider::Collaborators collaborators;
        collaborators.jobManager = manager;
        collaborators.authorizer = std::move(authorizer);
        provider = std::make_shared<LiveCopyServiceProvider>(collaborators);
        ServiceCatalogue catalogue;
        catalogue.copy = provider;
        UDSServer::Options options;
        options.socketPath = folder_ + "/s.sock";
        server = std::make_shared<UDSServer>(io_.get_executor(), options, catalogue.makeHandler());
        auto started = server->start();
        ASSERT_TRUE(started) << started.error();
        UDSChannel::Options channelOptions;
        channelOptions.socketPath = options.socketPath;
        client = std::make_unique<CopyServiceClient>(std::make_shared<UDSChannel>(channelOptions));
    }

    template <typename T>
    T run(asio::awaitable<T> operation, std::chrono::milliseconds limit = 10s) {
        auto future = asio::co_spawn(io_, std::move(operation), asio::use_future);
        if (future.wait_for(limit) != std::future_status::ready) throw std::runtime_error("timed out");
        return future.get();
    }

    std::unique_ptr<Remote> runCloner(wire::CopyRequest request) {
        auto remote = std::make_unique<Remote>();
        remote->stream = run(client->call<&CopyServiceProvider::runCloner>(std::move(request)));
        return remote;
    }

    std::unique_ptr<Remote> join(const std::string& runID) {
        wire::JoinRunRequest request;
        request.mutable_run_id()->set_value(runID);
        auto remote = std::make_unique<Remote>();
        remote->stream = run(client->call<&CopyServiceProvider::joinRun>(std::move(request)));
        return remote;
    }

    // Reads one event; false at the end of the stream (or on an error).
    bool readOne(Remote& r) {
        auto item = run(r.stream.next());
        if (!item) {
            r.error = item.error();
            r.ended = true;
            return false;
        }
        if (!*item) {
            r.ended = true;
            return false;
        }
        r.events.push_back(std::move(**item));
        return true;
    }

    // Reads until an event of `kind` arrived; false when the stream ended first.
    bool readUntil(Remote& r, const std::string& kind) {
        while (readOne(r))
            if (kindOf(r.events.back()) == kind) return true;
        return false;
    }

    void readToEnd(Remote& r) {
        while (readOne(r)) {
        }
    }

    std::shared_ptr<FakeJobRunner> runnerFor(const std::string& tile) {
        std::shared_ptr<FakeJobRunner> runner;
        for (int i = 0; i < 500 && !(runner && runner->started); ++i) {
            runner = qlcopy->runnerFor(tile);
            if (!runner) runner = asr->runnerFor(tile);
            if (!(runner && runner->started)) std::this_thread::sleep_for(2ms);
        }
        if (!runner) throw std::runtime_error("no runner for " + tile);
        return runner;
    }

    std::vector<wire::ActiveRun> active() {
        auto listed = run(client->call<&CopyServiceProvider::listActiveRuns>(wire::ListActiveRunsRequest{}));
        if (!listed) throw std::runtime_error(listed.error().message());
        return {listed->runs().begin(), listed->runs().end()};
    }

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::vector<std::thread> threads_;
    std::string folder_;

protected:
    std::shared_ptr<FakeJobRunnerFactory> qlcopy = std::make_shared<FakeJobRunnerFactory>();
    std::shared_ptr<FakeJobRunnerFactory> asr = std::make_shared<FakeJobRunnerFactory>();
    std::shared_ptr<JobManager> manager;
    std::shared_ptr<LiveCopyServiceProvider> provider;
    std::shared_ptr<UDSServer> server;
    std::unique_ptr<CopyServiceClient> client;
};

TEST_F(CopyServiceIntegrationTest, RunsOnDisjointDrivesRunAtOnce) {
    auto a = runCloner(copyRequest("A", 's', 'x'));
    auto b = runCloner(copyRequest("B", 't', 'y'));
    ASSERT_TRUE(readUntil(*a, "started"));
    ASSERT_TRUE(readUntil(*b, "started"));
    auto runs = active();
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[0].state(), wire::ActiveRun::STATE_RUNNING);
    EXPECT_EQ(runs[1].state(), wire::ActiveRun::STATE_RUNNING);

    runnerFor("A")->complete(1);
    runnerFor("B")->complete(2);
    readToEnd(*a);
    readToEnd(*b);
    EXPECT_THAT(kinds(a->events), ElementsAre("queued", "started", "completed"));
    EXPECT_EQ(b->events.back().completed().bytes_copied(), 2);
    EXPECT_FALSE(a->error);
}

TEST_F(CopyServiceIntegrationTest, SharedDestinationQueuesAndASecondRequestAttaches) {
    auto a = runCloner(copyRequest("A", 's', 'x'));
    ASSERT_TRUE(readUntil(*a, "started"));
    auto b1 = runCloner(copyRequest("B", 't', 'x'));
    ASSERT_TRUE(readOne(*b1));
    ASSERT_TRUE(b1->events[0].has_queued());
    EXPECT_EQ(b1->events[0].queued().position_in_queue(), 1);
    EXPECT_EQ(b1->events[0].queued().blocking_tile_id(), "A");

    auto b2 = runCloner(copyRequest("B", 't', 'x'));
    ASSERT_TRUE(readOne(*b2));
    EXPECT_EQ(b2->runID(), b1->runID()) << "the second request attached to the queued run";
    auto runs = active();
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[1].tile_id(), "B");
    EXPECT_EQ(runs[1].state(), wire::ActiveRun::STATE_QUEUED);
    EXPECT_EQ(runs[1].run_id().value(), b1->runID());

    runnerFor("A")->complete();
    readToEnd(*a);
    ASSERT_TRUE(readUntil(*b1, "started"));
    ASSERT_TRUE(readUntil(*b2, "started"));
    runnerFor("B")->complete(7);
    readToEnd(*b1);
    readToEnd(*b2);
    EXPECT_THAT(kinds(b1->events), ElementsAre("queued", "started", "completed"));
    EXPECT_THAT(kinds(b2->events), ElementsAre("queued", "started", "completed"));
    EXPECT_EQ(qlcopy->count(), 2u);
}

TEST_F(CopyServiceIntegrationTest, LateJoinerGetsStateEventsThenTheLatestProgressThenLiveEvents) {
    auto a = runCloner(copyRequest("A", 's', 'x'));
    ASSERT_TRUE(readUntil(*a, "started"));
    auto runner = runnerFor("A");
    runner->phase("copyFiles");
    runner->progress(100);
    runner->log("halfway");
    runner->progress(200);
    ASSERT_TRUE(readUntil(*a, "log"));
    ASSERT_TRUE(readUntil(*a, "progress"));

    auto late = join(a->runID());
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(readOne(*late));
    EXPECT_THAT(kinds(late->events), ElementsAre("queued", "started", "phase_start", "log", "progress"));
    EXPECT_EQ(late->events.back().progress().bytes_copied(), 200);

    runner->log("live");
    ASSERT_TRUE(readOne(*late));
    EXPECT_EQ(late->events.back().log().text(), "live");
    runner->complete(200);
    readToEnd(*late);
    EXPECT_EQ(kindOf(late->events.back()), "completed");
    readToEnd(*a);
}

TEST_F(CopyServiceIntegrationTest, JoinAfterTheTerminalReplaysAndEnds) {
    auto a = runCloner(copyRequest("A", 's', 'x'));
    ASSERT_TRUE(readUntil(*a, "started"));
    runnerFor("A")->log("done soon");
    runnerFor("A")->complete(3);
    readToEnd(*a);

    auto replay = join(a->runID());
    readToEnd(*replay);
    EXPECT_FALSE(replay->error);
    EXPECT_THAT(kinds(replay->events), ElementsAre("queued", "started", "log", "completed"));

    auto unknown = join(std::string(16, '\x7f'));
    readToEnd(*unknown);
    ASSERT_TRUE(unknown->error);
    EXPECT_THAT(unknown->error->message(), HasSubstr("no run with id"));
}

TEST_F(CopyServiceIntegrationTest, ARunnerThatEndsWithoutATerminalFails) {
    auto a = runCloner(copyRequest("A", 's', 'x'));
    ASSERT_TRUE(readUntil(*a, "started"));
    runnerFor("A")->endWithoutTerminal();
    readToEnd(*a);
    ASSERT_EQ(kindOf(a->events.back()), "failed");
    EXPECT_EQ(a->events.back().failed().error_message(), "Run ended without a recognized terminal event");
}

TEST_F(CopyServiceIntegrationTest, CancellingAQueuedRunEndsItWithoutStarted) {
    auto a = runCloner(copyRequest("A", 's', 'x'));
    ASSERT_TRUE(readUntil(*a, "started"));
    auto b = runCloner(copyRequest("B", 't', 'x'));
    ASSERT_TRUE(readOne(*b));
    auto cancelled = run(client->call<&CopyServiceProvider::cancelRun>(control(b->runID())));
    ASSERT_TRUE(cancelled);
    EXPECT_TRUE(cancelled->ok());
    readToEnd(*b);
    EXPECT_THAT(kinds(b->events), ElementsAre("queued", "cancelled"));

    auto missed = run(client->call<&CopyServiceProvider::cancelRun>(control(b->runID())));
    ASSERT_TRUE(missed);
    EXPECT_FALSE(missed->ok());
    EXPECT_EQ(missed->error_message(), "run not found or already terminated");

    auto malformed = run(client->call<&CopyServiceProvider::cancelRun>(control("short")));
    ASSERT_FALSE(malformed);
    EXPECT_THAT(malformed.error().message(), HasSubstr("malformed run_id"));
}

TEST_F(CopyServiceIntegrationTest, PauseAndResumeReachTheRunner) {
    auto a = runCloner(copyRequest("A", 's', 'x'));
    ASSERT_TRUE(readUntil(*a, "started"));
    auto b = runCloner(copyRequest("B", 't', 'x'));
    ASSERT_TRUE(readOne(*b));
    auto paused = run(client->call<&CopyServiceProvider::pauseRun>(control(a->runID())));
    ASSERT_TRUE(paused);
    EXPECT_TRUE(paused->ok());
    ASSERT_TRUE(readUntil(*a, "pause_requested"));
    auto resumed = run(client->call<&CopyServiceProvider::resumeRun>(control(a->runID())));
    ASSERT_TRUE(resumed && resumed->ok());
    ASSERT_TRUE(readUntil(*a, "resumed"));
    auto queued = run(client->call<&CopyServiceProvider::pauseRun>(control(b->runID())));
    ASSERT_TRUE(queued);
    EXPECT_FALSE(queued->ok());
    EXPECT_EQ(queued->error_message(), "run not found or not running");
}

TEST_F(CopyServiceIntegrationTest, ASlowSubscriberBlocksNeitherTheOthersNorTheRunner) {
    auto a = runCloner(copyRequest("A", 's', 'x'));
    ASSERT_TRUE(readUntil(*a, "started"));
    // A second subscriber reads one event and then nothing: its socket fills up.
    auto idle = join(a->runID());
    ASSERT_TRUE(readOne(*idle));

    auto runner = runnerFor("A");
    const std::string longPath(4096, 'p');
    constexpr int kEvents = 3000;  // about 12 MB: far more than a socket buffers
    for (int i = 0; i < kEvents; ++i) {
        wire::ClonerEvent e;
        e.mutable_progress()->set_bytes_copied(i);
        e.mutable_progress()->set_current_path(longPath);
        ASSERT_TRUE(runner->emit(e));
    }
    runner->complete(kEvents);
    readToEnd(*a);
    EXPECT_EQ(kindOf(a->events.back()), "completed");
    EXPECT_EQ(a->events.size(), static_cast<std::size_t>(kEvents) + 3);
    // The run has ended and its drive is free although the idle subscriber read nothing.
    EXPECT_FALSE(run(manager->hasActiveRuns()));
    auto next = runCloner(copyRequest("B", 't', 'x'));
    ASSERT_TRUE(readUntil(*next, "started"));
    idle->stream.cancel();
}

TEST_F(CopyServiceIntegrationTest, AnUnauthorizedCopyGetsOneFailedEventAndIsNotQueued) {
    startServer(std::make_shared<LockedAuthorizer>());
    auto a = runCloner(copyRequest("A", 's', 'x'));
    readToEnd(*a);
    ASSERT_EQ(a->events.size(), 1u);
    EXPECT_EQ(a->events[0].failed().error_message(), "authorization required: unlock Quillo or approve this copy");
    EXPECT_EQ(a->events[0].failed().failed_phase(), "authorization");
    EXPECT_TRUE(active().empty());
    EXPECT_EQ(qlcopy->count(), 0u);
}

TEST_F(CopyServiceIntegrationTest, DispatchRoutesThroughTheServer) {
    // A bootable erase goes to the replication runner; a plain erase to the erase-then-copy
    // runner, which this build does not have.
    auto bootable = copyRequest("A", 's', 'x');
    bootable.set_during_copy(wire::DCM_ERASE_THEN_COPY);
    bootable.set_as_bootable(true);
    auto a = runCloner(bootable);
    ASSERT_TRUE(readUntil(*a, "started"));
    EXPECT_EQ(asr->count(), 1u);
    EXPECT_EQ(qlcopy->count(), 0u);

    auto erase = copyRequest("B", 't', 'y');
    erase.set_during_copy(wire::DCM_ERASE_THEN_COPY);
    auto b = runCloner(erase);
    readToEnd(*b);
    EXPECT_THAT(kinds(b->events), ElementsAre("queued", "started", "failed"));
    EXPECT_EQ(b->events.back().failed().error_message(), UnavailableJobRunnerFactory::kEraseThenCopyMessage);

    auto preview = copyRequest("C", 'u', 'z');
    preview.set_during_copy(wire::DCM_ERASE_THEN_COPY);
    wire::CopyRequest previewRequest = preview;
    auto p = std::make_unique<Remote>();
    p->stream = run(client->call<&CopyServiceProvider::previewRun>(std::move(previewRequest)));
    ASSERT_TRUE(readUntil(*p, "started"));
    auto previewRunner = runnerFor("C");
    EXPECT_TRUE(previewRunner->request.preview());
    EXPECT_EQ(previewRunner->request.during_copy(), wire::DCM_SMART_UPDATE);
    previewRunner->complete();
    readToEnd(*p);

    auto bad = copyRequest("D", 'v', 'w');
    bad.set_destination_volume_uuid("xyz");
    auto refused = runCloner(bad);
    readToEnd(*refused);
    ASSERT_TRUE(refused->error);
    EXPECT_THAT(refused->error->message(), HasSubstr("malformed destination_volume_uuid"));
}

}  // namespace
}  // namespace ql

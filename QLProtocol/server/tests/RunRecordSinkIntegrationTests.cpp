#include "QLProtocol/server/LiveRunRecordSink.h"
#include "QLProtocol/server/tests/ServerTestSupport.h"
#include "QLSupport/AtomicFile.h"
#include "QLSupport/Log.h"

#include <gtest/gtest.h>

namespace ql {
namespace {

using testing::runSync;
using RunRecord = ql4::transport::v1::RunRecord;

class RunRecordSinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        store = std::make_unique<CopyTileStore>(io.get_executor(), dir / "tiles.json", pool, clock);
        runSync(io, store->load());
        ql4::transport::v1::CopyTile tile;
        tile.set_id("JOB");
        tile.set_name("Nightly");
        ASSERT_TRUE(runSync(io, store->upsert(tile, TileWriteOrigin::client)));
    }
    std::unique_ptr<LiveRunRecordSink> makeSink(LiveRunRecordSink::Options options) {
        return std::make_unique<LiveRunRecordSink>(io.get_executor(), *store, dir / "logs", pool, notifier,
                                                   std::move(options));
    }
    static RunRecord run(const std::string& id, RunRecord::Outcome outcome) {
        RunRecord record;
        record.set_id(id);
        record.set_tile_id("JOB");
        record.set_outcome(outcome);
        record.set_ended_at_unix_nanos(1'700'000'000'000'000'123);
        return record;
    }

    testing::TempDir dir;
    asio::io_context io;
    BlockingPool pool{1};
    VirtualTime clock;
    FakeRunFinishedNotifier notifier;
    std::unique_ptr<CopyTileStore> store;
};

TEST_F(RunRecordSinkTest, LongLogIsCappedInTheJobAndKeptWholeInTheSidecar) {
    std::vector<std::pair<RunRecord, std::string>> diagnosed;
    LiveRunRecordSink::Options options;
    options.logContentCap = 400;
    options.failureDiagnostics = [&diagnosed](RunRecord record, std::string log) -> asio::awaitable<void> {
        diagnosed.emplace_back(std::move(record), std::move(log));
        co_return;
    };
    auto sink = makeSink(options);
    std::string fullLog;
    for (int i = 0; i < 100; ++i) fullLog += "line " + std::to_string(i) + " — copying\n";
    runSync(io, sink->record(run("R1", RunRecord::OUTCOME_FAILED), fullLog));

    const auto sidecar = sink->sidecarPath("JOB", "R1");
    EXPECT_EQ(AtomicFile::read(sidecar).value(), fullLog);
    auto tile = runSync(io, store->get("JOB")).value();
    ASSERT_EQ(tile.recent_runs_size(), 1);
    const std::string& kept = tile.recent_runs(0).log_content();
    EXPECT_LE(kept.size(), 400u);
    EXPECT_EQ(kept.rfind("[… earlier log omitted — full log: " + sidecar.string() + "]\n", 0), 0u) << kept;
    EXPECT_NE(kept.find("line 99 — copying\n"), std::string::npos);
    // The tail starts at a whole line.
    const auto secondLine = kept.substr(kept.find('\n') + 1);
    EXPECT_EQ(secondLine.rfind("line ", 0), 0u) << secondLine;

    ASSERT_EQ(notifier.posted().size(), 1u);
    EXPECT_EQ(notifier.posted()[0],
              (RunFinishedNotice{"JOB", "failed", false, 1'700'000'000'000'000'123, std::nullopt}));
    ASSERT_EQ(diagnosed.size(), 1u);
    EXPECT_EQ(diagnosed[0].second, fullLog);
}

TEST_F(RunRecordSinkTest, EveryStepRunsWhenAnEarlierOneFails) {
    // The log directory cannot be made: a file sits where it should be.
    ASSERT_TRUE(AtomicFile::write(dir / "logs", "in the way"));
    LiveRunRecordSink::Options options;
    options.logContentCap = 20;
    auto sink = makeSink(options);
    LogCapture log;
    runSync(io, sink->record(run("R2", RunRecord::OUTCOME_SUCCEEDED), std::string(100, 'x')));
    EXPECT_TRUE(log.contains("[RunRecordSink] could not create " + (dir / "logs").string() +
                             " — sidecar log skipped for run R2"));
    auto tile = runSync(io, store->get("JOB")).value();
    ASSERT_EQ(tile.recent_runs_size(), 1);
    EXPECT_EQ(tile.recent_runs(0).log_content().rfind("[… earlier log omitted — the full log could not be saved]", 0),
              0u);
    EXPECT_EQ(notifier.posted().size(), 1u);

    // A job deleted mid-run: no history, but the user still hears of the run.
    runSync(io, sink->record([] {
        auto r = run("R3", RunRecord::OUTCOME_DESTINATION_NOT_CONNECTED);
        r.set_tile_id("GONE");
        return r;
    }(), "short"));
    EXPECT_TRUE(log.contains("[CopyTileStore] appendRunRecord skipped — no tile for id=GONE (deleted mid-run?)"));
    ASSERT_EQ(notifier.posted().size(), 2u);
    EXPECT_EQ(notifier.posted()[1].reason, "destination_not_connected");
}

TEST_F(RunRecordSinkTest, RetentionCapDropsTheOldestRecord) {
    LiveRunRecordSink::Options options;
    options.retentionCap = 3;
    auto sink = makeSink(options);
    for (int i = 1; i <= 4; ++i) {
        runSync(io, sink->record(run("R" + std::to_string(i), RunRecord::OUTCOME_SUCCEEDED), "ok"));
    }
    auto tile = runSync(io, store->get("JOB")).value();
    ASSERT_EQ(tile.recent_runs_size(), 3);
    EXPECT_EQ(tile.recent_runs(0).id(), "R2");
    EXPECT_EQ(tile.recent_runs(0).log_content(), "ok");
    EXPECT_TRUE(std::filesystem::exists(sink->sidecarPath("JOB", "R1")));
}

TEST_F(RunRecordSinkTest, RefusedScheduledFireIsLoggedAndReported) {
    auto sink = makeSink({});
    LogCapture log;
    runSync(io, sink->reportRefusedFire("Nightly", RunFinishedNotice{"JOB", "failed", false, 5,
                                                                      std::string("source_not_connected")}));
    EXPECT_TRUE(log.contains("[scheduled] REFUSED fire for Nightly"));
    ASSERT_EQ(notifier.posted().size(), 1u);
    EXPECT_EQ(notifier.posted()[0].reason, "source_not_connected");
}

TEST(RunRecordSinkLog, CappedLogKeepsWholeCharactersWhenNoLineFits) {
    const std::string log = std::string(50, 'a') + std::string(40, '\0') + "ééééééééééééééééééééé";
    auto kept = LiveRunRecordSink::cappedLog(log, 80, std::filesystem::path("/l/x.log"));
    ASSERT_LE(kept.size(), 80u);
    const auto tail = kept.substr(kept.find('\n') + 1);
    ASSERT_FALSE(tail.empty());
    EXPECT_NE(static_cast<unsigned char>(tail[0]) & 0xC0, 0x80);
    EXPECT_EQ(LiveRunRecordSink::cappedLog("short", 80, std::nullopt), "short");
}

}  // namespace
}  // namespace ql

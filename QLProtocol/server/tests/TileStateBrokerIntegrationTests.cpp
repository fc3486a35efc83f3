// The state broker between a job's stored scan state and the file the engine reads and writes,
// over a real store file and a real state folder.
#include "QLProtocol/server/CopyTileStore.h"
#include "QLProtocol/server/TileStateBroker.h"
#include "QLProtocol/server/tests/ServerTestSupport.h"
#include "QLSupport/BlockingPool.h"
#include "QLSupport/Clock.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace ql {
namespace {

namespace fs = std::filesystem;
using testing::runSync;
using testing::TempDir;

constexpr std::uint32_t kEngineVersion = 3;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

class TileStateBrokerTest : public ::testing::Test {
protected:
    void SetUp() override { runSync(io, store.load()); }

    void storeJob(const std::string& id, const std::string& state, std::uint32_t version) {
        CopyTileStore::Tile tile;
        tile.set_id(id);
        tile.set_name(id);
        ASSERT_TRUE(runSync(io, store.upsert(tile, TileWriteOrigin::client)));
        if (!state.empty()) {
            ASSERT_TRUE(runSync(io, store.setFsEventsState(id, state, version)));
        }
    }

    TempDir dir;
    asio::io_context io;
    BlockingPool pool{1};
    LiveClock clock;
    CopyTileStore store{io.get_executor(), dir / "tiles.json", pool, clock};
    LiveTileStateBroker broker{store, dir / "FSEventsState", kEngineVersion};
};

TEST_F(TileStateBrokerTest, MaterializeWritesOnlyAStateTheEngineCanUse) {
    storeJob("USABLE", "scan state", kEngineVersion);
    storeJob("EMPTY", "", 0);
    storeJob("OLD", "older format", kEngineVersion - 1);
    struct Case {
        const char* id;
        const char* disposition;
        bool fileWritten;
    };
    const Case cases[] = {
        {"USABLE", "usable", true},
        {"EMPTY", "blob_empty", false},
        {"OLD", "version_mismatch", false},
        {"GONE", "tile_missing", false},
    };
    for (const auto& c : cases) {
        // A file an earlier run left behind never counts as this run's starting point.
        fs::create_directories(dir / "FSEventsState");
        std::ofstream(broker.stateFile(c.id, 0)) << "left over";
        auto materialized = runSync(io, broker.materialize(c.id, 0));
        EXPECT_EQ(materialized.disposition, c.disposition) << c.id;
        EXPECT_EQ(fs::exists(broker.stateFile(c.id, 0)), c.fileWritten) << c.id;
        EXPECT_EQ(materialized.file.empty(), !c.fileWritten) << c.id;
        if (c.fileWritten) {
            EXPECT_EQ(readFile(materialized.file), "scan state");
        }
    }
}

TEST_F(TileStateBrokerTest, CaptureStoresWhatTheEngineLeftAndRemovesTheFile) {
    storeJob("JOB", "", 0);
    struct Case {
        const char* id;
        std::optional<std::string> fileContents;  // nullopt: the engine left no file
        const char* disposition;
    };
    const Case cases[] = {
        {"JOB", std::nullopt, "file_missing"},
        {"JOB", std::string(), "file_empty"},
        {"JOB", std::string("new state"), "persisted"},
        {"DELETED", std::string("orphan state"), "skipped_no_tile"},
    };
    for (const auto& c : cases) {
        fs::create_directories(dir / "FSEventsState");
        if (c.fileContents) std::ofstream(broker.stateFile(c.id, 0)) << *c.fileContents;
        EXPECT_EQ(runSync(io, broker.capture(c.id, 0)), c.disposition) << c.id;
        EXPECT_FALSE(fs::exists(broker.stateFile(c.id, 0))) << c.id;
    }
    auto job = runSync(io, store.get("JOB"));
    ASSERT_TRUE(job);
    EXPECT_EQ(job->fs_events_state(), "new state");
    EXPECT_EQ(job->fs_events_state_version(), kEngineVersion);

    // What was captured is what the next run starts from.
    auto next = runSync(io, broker.materialize("JOB", 0));
    EXPECT_EQ(next.disposition, "usable");
    EXPECT_EQ(readFile(next.file), "new state");
}

TEST_F(TileStateBrokerTest, JobIdsNeverEscapeTheStateFolder) {
    EXPECT_EQ(broker.stateFile("../../etc/passwd", 0).parent_path(), dir / "FSEventsState");
    EXPECT_EQ(broker.stateFile("", 0).filename(), "_.fsstate");
}

}  // namespace
}  // namespace ql

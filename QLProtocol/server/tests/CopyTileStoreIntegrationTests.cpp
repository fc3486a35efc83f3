#include "QLProtocol/server/CopyTileStore.h"
#include "QLProtocol/server/tests/ServerTestSupport.h"
#include "QLSupport/AtomicFile.h"
#include "QLSupport/Json.h"
#include "QLSupport/Log.h"

#include <asio/experimental/awaitable_operators.hpp>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

namespace ql {
namespace {

using testing::runSync;
using testing::TempDir;
using Tile = CopyTileStore::Tile;
using google::protobuf::util::MessageDifferencer;

Tile makeTile(const std::string& id, const std::string& name, std::optional<std::int64_t> order = std::nullopt) {
    Tile tile;
    tile.set_id(id);
    tile.set_name(name);
    tile.set_copy_rule_filename("Backup all files.dset");
    tile.mutable_source()->set_display_name("Macintosh HD");
    tile.mutable_source()->set_volume_uuid(std::string(16, '\x11'));
    tile.mutable_destination()->set_display_name("Backup");
    tile.mutable_destination()->set_partition_guid(std::string(16, '\x22'));
    if (order) tile.set_sort_order(*order);
    return tile;
}

std::string protoJson(const Tile& tile) {
    std::string text;
    EXPECT_TRUE(google::protobuf::util::MessageToJsonString(tile, &text).ok());
    return text;
}

std::string envelope(int version, const std::vector<std::string>& protos) {
    Json tiles = Json::array();
    for (const auto& p : protos) tiles.push_back(Json{{"proto", p}});
    return dumpJson(Json{{"schemaVersion", version}, {"tiles", tiles}});
}

std::vector<std::string> ids(const std::vector<Tile>& tiles) {
    std::vector<std::string> out;
    for (const auto& t : tiles) out.push_back(t.id());
    return out;
}

std::vector<std::string> directoryNames(const std::filesystem::path& dir) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// What a subscriber saw, one word per event: "added:<id>", "updated:<id>", "removed:<id>".
std::string describe(const CopyTileStoreEvent& event) {
    if (std::holds_alternative<CopyTileStoreEvent::Added>(event.change)) return "added:" + event.tileID();
    if (std::holds_alternative<CopyTileStoreEvent::Updated>(event.change)) return "updated:" + event.tileID();
    return "removed:" + event.tileID();
}

class CopyTileStoreTest : public ::testing::Test {
protected:
    std::unique_ptr<CopyTileStore> openStore(CopyTileStore::Options options = {}) {
        auto store = std::make_unique<CopyTileStore>(io.get_executor(), dir / "tiles.json", pool, clock,
                                                     std::move(options));
        runSync(io, store->load());
        return store;
    }
    std::vector<Tile> list(CopyTileStore& store) { return runSync(io, store.list()); }
    Tile upsert(CopyTileStore& store, Tile tile, TileWriteOrigin origin = TileWriteOrigin::client) {
        auto stored = runSync(io, store.upsert(std::move(tile), origin));
        EXPECT_TRUE(stored) << stored.error().message;
        return stored ? *stored : Tile{};
    }
    // Events already delivered to `consumer`, without waiting for more.
    std::vector<std::string> drain(CopyTileStore::Events::Consumer& consumer) {
        std::vector<std::string> seen;
        io.poll();
        while (true) {
            std::optional<CopyTileStoreEvent> event;
            bool got = false;
            asio::co_spawn(
                io,
                [&]() -> asio::awaitable<void> {
                    using namespace asio::experimental::awaitable_operators;
                    asio::steady_timer timer(io, std::chrono::milliseconds(20));
                    auto r = co_await (consumer.next() || timer.async_wait(asio::use_awaitable));
                    if (r.index() == 0) {
                        event = std::get<0>(r);
                        got = true;
                    }
                },
                asio::detached);
            io.restart();
            io.run();
            if (!got || !event) break;
            seen.push_back(describe(*event));
        }
        return seen;
    }

    TempDir dir;
    asio::io_context io;
    BlockingPool pool{1};
    VirtualTime clock{SystemTime{std::chrono::seconds{1'750'000'000}}};
};

TEST_F(CopyTileStoreTest, SavedJobsComeBackInOrderAndBindingStatesAreNeverStored) {
    {
        auto store = openStore();
        auto b = makeTile("B", "Second", 1);
        b.mutable_destination_binding_state()->set_kind(ql4::transport::v1::BindingState::KIND_SUSPICIOUS);
        upsert(*store, b);
        upsert(*store, makeTile("A", "First", 0));
        upsert(*store, makeTile("C", "Third"));  // no order: placed after the others
    }
    auto text = AtomicFile::read(dir / "tiles.json").value();
    EXPECT_EQ(text.find("BindingState"), std::string::npos);
    EXPECT_EQ(text.find("KIND_SUSPICIOUS"), std::string::npos);
    auto parsed = parseJson(text).value();
    EXPECT_EQ(parsed["schemaVersion"], 5);

    auto store = openStore();
    auto tiles = list(*store);
    EXPECT_EQ(ids(tiles), (std::vector<std::string>{"A", "B", "C"}));
    EXPECT_EQ(tiles[2].sort_order(), 2);
    EXPECT_FALSE(tiles[1].has_destination_binding_state());
    EXPECT_TRUE(MessageDifferencer::Equals(tiles[0], makeTile("A", "First", 0)));
    // Every save kept the one before it as the last-known-good copy.
    auto previous = TileStoreFile::decode(AtomicFile::read(dir / "tiles.json.prev").value()).value();
    EXPECT_EQ(previous.size(), 2u);
}

TEST_F(CopyTileStoreTest, TruncatedMainFileRecoversFromPrevAndIsSetAsideAsCorrupt) {
    {
        auto store = openStore();
        upsert(*store, makeTile("A", "One", 0));
        upsert(*store, makeTile("B", "Two", 1));  // .prev now holds {A}; main {A, B}
    }
    auto main = AtomicFile::read(dir / "tiles.json").value();
    ASSERT_TRUE(AtomicFile::write(dir / "tiles.json", main.substr(0, main.size() / 2)));

    LogCapture log;
    auto store = openStore();
    EXPECT_EQ(ids(list(*store)), std::vector<std::string>{"A"});
    EXPECT_TRUE(log.contains("[CopyTileStore] unreadable store at " + (dir / "tiles.json").string() + "; moved to "));
    EXPECT_TRUE(log.contains(
        "[CopyTileStore] RECOVERED 1 tile(s) from tiles.json.prev (main file unreadable); main file restored"));
    // The main file is whole again, and the torn one lies beside it.
    auto restored = TileStoreFile::decode(AtomicFile::read(dir / "tiles.json").value());
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->size(), 1u);
    auto names = directoryNames(dir.path());
    auto corrupt = std::find_if(names.begin(), names.end(), [](const std::string& n) {
        return n.rfind("tiles.json.corrupt-", 0) == 0 && n.size() > 4 && n.substr(n.size() - 4) == ".bak";
    });
    ASSERT_NE(corrupt, names.end());
    EXPECT_EQ(AtomicFile::read(dir / *corrupt).value(), main.substr(0, main.size() / 2));
    // The next save keeps the recovered state as its last-known-good copy.
    upsert(*store, makeTile("C", "Three", 2));
    EXPECT_EQ(TileStoreFile::decode(AtomicFile::read(dir / "tiles.json.prev").value())->size(), 1u);
}

TEST_F(CopyTileStoreTest, SchemaVersionsFourAndFiveLoadAndOthersAreKeptAside) {
    struct Case {
        int version;
        bool loads;
    };
    for (const Case c : {Case{4, true}, Case{5, true}, Case{6, false}, Case{3, false}}) {
        SCOPED_TRACE(c.version);
        std::filesystem::remove_all(dir.path());
        std::filesystem::create_directories(dir.path());
        const std::string original = envelope(c.version, {protoJson(makeTile("A", "One", 0))});
        ASSERT_TRUE(AtomicFile::write(dir / "tiles.json", original));
        LogCapture log;
        auto store = openStore();
        EXPECT_EQ(list(*store).size(), c.loads ? 1u : 0u);
        if (c.loads) continue;
        EXPECT_TRUE(log.contains("[CopyTileStore] schema mismatch at " + (dir / "tiles.json").string()));
        auto names = directoryNames(dir.path());
        ASSERT_EQ(names.size(), 1u);
        EXPECT_EQ(names[0].rfind("tiles.json.schema" + std::to_string(c.version) + "-", 0), 0u) << names[0];
        EXPECT_EQ(AtomicFile::read(dir / names[0]).value(), original);
    }
}

TEST_F(CopyTileStoreTest, VersionFourIsRewrittenAsFiveOnTheNextSave) {
    ASSERT_TRUE(AtomicFile::write(dir / "tiles.json", envelope(4, {protoJson(makeTile("A", "One", 0))})));
    auto store = openStore();
    upsert(*store, makeTile("B", "Two", 1));
    EXPECT_EQ(parseJson(AtomicFile::read(dir / "tiles.json").value()).value()["schemaVersion"], 5);
}

TEST_F(CopyTileStoreTest, OneUndecodableTileAmongFiveLeavesFour) {
    std::vector<std::string> protos;
    for (int i = 0; i < 5; ++i) protos.push_back(protoJson(makeTile("T" + std::to_string(i), "Job", i)));
    protos[2] = "{\"id\": \"T2\", \"asBootable\": \"maybe\"";  // torn and mistyped
    ASSERT_TRUE(AtomicFile::write(dir / "tiles.json", envelope(5, protos)));
    LogCapture log;
    auto store = openStore();
    EXPECT_EQ(ids(list(*store)), (std::vector<std::string>{"T0", "T1", "T3", "T4"}));
    EXPECT_TRUE(log.contains("[CopyTileStore] DROPPED undecodable tile during load: "));
    // A bad job does not make the file bad: nothing was set aside.
    EXPECT_EQ(directoryNames(dir.path()), std::vector<std::string>{"tiles.json"});
}

TEST_F(CopyTileStoreTest, OldRuleFileKeyAndUnknownFieldsLoad) {
    const std::string old = R"({"id":"OLD","name":"Legacy","copyScriptFilename":"Mine.dset","futureField":7,"sortOrder":"0"})";
    ASSERT_TRUE(AtomicFile::write(dir / "tiles.json", envelope(4, {old})));
    auto store = openStore();
    auto tile = runSync(io, store->get("OLD"));
    ASSERT_TRUE(tile);
    EXPECT_EQ(tile->copy_rule_filename(), "Mine.dset");
    EXPECT_EQ(tile->name(), "Legacy");
}

TEST_F(CopyTileStoreTest, SortOrderMigrationStampsJobsWithoutOne) {
    auto a = makeTile("A", "One", 4);
    auto b = makeTile("B", "Two");
    b.set_created_at_unix_nanos(200);
    auto c = makeTile("C", "Three");
    c.set_created_at_unix_nanos(100);
    ASSERT_TRUE(AtomicFile::write(dir / "tiles.json", envelope(5, {protoJson(a), protoJson(b), protoJson(c)})));
    LogCapture log;
    auto store = openStore();
    auto tiles = list(*store);
    EXPECT_EQ(ids(tiles), (std::vector<std::string>{"A", "C", "B"}));
    EXPECT_EQ(tiles[1].sort_order(), 5);
    EXPECT_EQ(tiles[2].sort_order(), 6);
    EXPECT_TRUE(log.contains("[CopyTileStore] sort_order migration stamped 2 tile(s) from the derived order"));
    auto saved = TileStoreFile::decode(AtomicFile::read(dir / "tiles.json").value()).value();
    EXPECT_TRUE(saved.at("B").has_sort_order());
}

TEST_F(CopyTileStoreTest, ShareIdentityMigrationRewritesNonCanonicalURLs) {
    auto a = makeTile("A", "One", 0);
    a.mutable_destination()->set_network_url("SMB://NAS.local/Backups");
    ASSERT_TRUE(AtomicFile::write(dir / "tiles.json", envelope(5, {protoJson(a)})));
    CopyTileStore::Options options;
    options.canonicalShareURL = [](std::string_view url) -> std::optional<std::string> {
        std::string out(url);
        std::transform(out.begin(), out.begin() + static_cast<long>(out.find('/', 6)), out.begin(), ::tolower);
        return out;
    };
    LogCapture log;
    auto store = openStore(options);
    EXPECT_EQ(runSync(io, store->get("A"))->destination().network_url(), "smb://nas.local/Backups");
    EXPECT_TRUE(log.contains(
        "[CopyTileStore] share-identity normalize: tile A destination url=smb://nas.local/Backups re-derived"));
    EXPECT_TRUE(log.contains("[CopyTileStore] share-identity normalize — 1 tile(s) rewritten"));
}

TEST_F(CopyTileStoreTest, ClientWritesKeepServerFieldsAndSubpathChangesForceAFullScan) {
    auto store = openStore();
    upsert(*store, makeTile("A", "One", 0));
    ql4::transport::v1::RunRecord run;
    run.set_id("R1");
    ASSERT_TRUE(runSync(io, store->appendRunRecord("A", run, 5)));
    ASSERT_TRUE(runSync(io, store->setFsEventsState("A", "journal-state", 3)));
    ASSERT_TRUE(runSync(io, store->setDeferredPaths("A", {"/Users/a/locked.txt"}, clock.now())));
    ASSERT_TRUE(runSync(io, store->writeEncryptionDebt("A", "anchor-1", "")));

    // The client's copy knows nothing of the server's bookkeeping.
    auto edit = makeTile("A", "Renamed", 0);
    auto stored = upsert(*store, edit);
    EXPECT_EQ(stored.name(), "Renamed");
    EXPECT_EQ(stored.recent_runs_size(), 1);
    EXPECT_EQ(stored.fs_events_state(), "journal-state");
    EXPECT_EQ(stored.deferred_paths_size(), 1);
    EXPECT_EQ(stored.destination_encryption_debt_anchor(), "anchor-1");

    // A client cannot forge history either.
    auto forged = makeTile("A", "Renamed", 0);
    forged.add_recent_runs()->set_id("FORGED");
    forged.set_fs_events_state("forged");
    stored = upsert(*store, forged);
    EXPECT_EQ(stored.recent_runs(0).id(), "R1");
    EXPECT_EQ(stored.fs_events_state(), "journal-state");

    LogCapture log;
    auto moved = makeTile("A", "Renamed", 0);
    moved.mutable_source()->set_subpath("Users/ann");
    stored = upsert(*store, moved);
    EXPECT_EQ(stored.fs_events_state(), "");
    EXPECT_EQ(stored.recent_runs_size(), 1);
    EXPECT_TRUE(log.contains("[TileService] tile A subpath changed (src 'Users/ann', dst '') — clearing "
                             "fs_events_state to force a full scan"));

    // The server's own writes replace the whole record.
    auto daemon = stored;
    daemon.set_success_streak(4);
    daemon.clear_recent_runs();
    stored = upsert(*store, daemon, TileWriteOrigin::daemon);
    EXPECT_EQ(stored.success_streak(), 4u);
    EXPECT_EQ(stored.recent_runs_size(), 0);
}

TEST_F(CopyTileStoreTest, SubscribersSeeEverySavedChangeInOrder) {
    auto store = openStore();
    auto consumer = runSync(io, store->subscribe());
    upsert(*store, makeTile("A", "One"));
    upsert(*store, makeTile("B", "Two"));
    upsert(*store, makeTile("C", "Three"));
    upsert(*store, makeTile("C", "Three"));  // unchanged: nothing saved, nothing told
    auto renamed = makeTile("A", "Uno");
    upsert(*store, renamed);
    ASSERT_TRUE(runSync(io, store->reorder({"C", "ghost", "A"})));
    ASSERT_TRUE(runSync(io, store->remove("B")));
    auto missing = runSync(io, store->remove("B"));
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error(), TileStoreError::noSuchTile());
    EXPECT_EQ(missing.error().message, "no such job");

    EXPECT_EQ(drain(consumer), (std::vector<std::string>{"added:A", "added:B", "added:C", "updated:A", "updated:C",
                                                          "updated:A", "updated:B", "removed:B"}));
    auto tiles = list(*store);
    EXPECT_EQ(ids(tiles), (std::vector<std::string>{"C", "A"}));
    EXPECT_EQ(tiles[0].sort_order(), 0);
    EXPECT_EQ(tiles[1].sort_order(), 1);
}

TEST_F(CopyTileStoreTest, ReorderRenumbersDenselyAndTellsOnlyOfMovedJobs) {
    auto store = openStore();
    for (int i = 0; i < 4; ++i) upsert(*store, makeTile(std::string(1, char('A' + i)), "Job", i * 10));
    auto consumer = runSync(io, store->subscribe());
    ASSERT_TRUE(runSync(io, store->reorder({"A", "nope", "C", "A"})));
    auto tiles = list(*store);
    EXPECT_EQ(ids(tiles), (std::vector<std::string>{"A", "C", "B", "D"}));
    for (std::size_t i = 0; i < tiles.size(); ++i) EXPECT_EQ(tiles[i].sort_order(), static_cast<std::int64_t>(i));
    EXPECT_EQ(drain(consumer), (std::vector<std::string>{"updated:C", "updated:B", "updated:D"}));
}

TEST_F(CopyTileStoreTest, DaemonWritesToAMissingJobAreSkippedAndLogged) {
    auto store = openStore();
    upsert(*store, makeTile("A", "One", 0));
    const auto before = AtomicFile::read(dir / "tiles.json").value();
    LogCapture log;
    ql4::transport::v1::RunRecord run;
    run.set_id("R");
    EXPECT_EQ(runSync(io, store->appendRunRecord("gone", run, 3)).value(), CopyTileStore::DaemonWrite::skippedNoTile);
    EXPECT_EQ(runSync(io, store->setFsEventsState("gone", "x", 1)).value(), CopyTileStore::DaemonWrite::skippedNoTile);
    EXPECT_EQ(runSync(io, store->setDeferredPaths("gone", {"/a"}, clock.now())).value(),
              CopyTileStore::DaemonWrite::skippedNoTile);
    EXPECT_TRUE(log.contains("[CopyTileStore] appendRunRecord skipped — no tile for id=gone (deleted mid-run?)"));
    EXPECT_TRUE(log.contains("[CopyTileStore] setFsEventsState skipped — no tile for id=gone (deleted mid-run?)"));
    EXPECT_TRUE(log.contains("[CopyTileStore] setDeferredPaths skipped — no tile for id=gone (deleted mid-run?)"));
    EXPECT_EQ(AtomicFile::read(dir / "tiles.json").value(), before);
}

TEST_F(CopyTileStoreTest, RunHistoryIsCappedOldestFirst) {
    auto store = openStore();
    upsert(*store, makeTile("A", "One", 0));
    for (int i = 1; i <= 4; ++i) {
        ql4::transport::v1::RunRecord run;
        run.set_id("R" + std::to_string(i));
        ASSERT_TRUE(runSync(io, store->appendRunRecord("A", run, 3)));
    }
    auto tile = runSync(io, store->get("A")).value();
    ASSERT_EQ(tile.recent_runs_size(), 3);
    EXPECT_EQ(tile.recent_runs(0).id(), "R2");
    EXPECT_EQ(tile.recent_runs(2).id(), "R4");
}

TEST_F(CopyTileStoreTest, EncryptionDebtWritesOnlyOverTheExpectedAnchor) {
    auto store = openStore();
    upsert(*store, makeTile("A", "One", 0));
    EXPECT_EQ(runSync(io, store->writeEncryptionDebt("A", "a1", "")).value(),
              CopyTileStore::EncryptionDebtWrite::persisted);
    const auto before = AtomicFile::read(dir / "tiles.json").value();
    EXPECT_EQ(runSync(io, store->writeEncryptionDebt("A", "a2", "stale")).value(),
              CopyTileStore::EncryptionDebtWrite::skippedAnchorMismatch);
    EXPECT_EQ(AtomicFile::read(dir / "tiles.json").value(), before);
    EXPECT_EQ(runSync(io, store->writeEncryptionDebt("A", "", "a1")).value(),
              CopyTileStore::EncryptionDebtWrite::persisted);
    EXPECT_EQ(runSync(io, store->get("A"))->destination_encryption_debt_anchor(), "");
}

TEST_F(CopyTileStoreTest, BindingOrRuleChangesCallTheHookAfterTheSave) {
    auto store = openStore();
    std::vector<std::string> calls;
    runSync(io, store->setOnBindingOrRuleChanged([&calls](std::string id) -> asio::awaitable<void> {
        calls.push_back(id);
        co_return;
    }));
    upsert(*store, makeTile("A", "One", 0));  // new job
    upsert(*store, makeTile("A", "Renamed", 0));  // name only: no call
    auto rule = makeTile("A", "Renamed", 0);
    rule.set_copy_rule_filename("Other.dset");
    upsert(*store, rule);
    auto rebound = rule;
    rebound.mutable_destination()->set_partition_guid(std::string(16, '\x33'));
    upsert(*store, rebound);
    EXPECT_EQ(calls, (std::vector<std::string>{"A", "A", "A"}));
}

TEST_F(CopyTileStoreTest, AFailedSaveChangesNothingAndTellsNoOne) {
    auto store = openStore();
    upsert(*store, makeTile("A", "One", 0));
    auto consumer = runSync(io, store->subscribe());
    const auto before = AtomicFile::read(dir / "tiles.json").value();

    testing::ReadOnlyDirectory readOnly(dir.path());
    if (!readOnly.ok()) GTEST_SKIP() << readOnly.why;
    auto failed = runSync(io, store->upsert(makeTile("B", "Two", 1), TileWriteOrigin::client));
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error().kind, TileStoreError::Kind::persistenceFailed);
    EXPECT_NE(failed.error().message.find("for F_FULLFSYNC failed"), std::string::npos) << failed.error().message;
    EXPECT_FALSE(runSync(io, store->remove("A")));
    readOnly.restore();

    EXPECT_EQ(ids(list(*store)), std::vector<std::string>{"A"});
    EXPECT_TRUE(drain(consumer).empty());
    EXPECT_EQ(AtomicFile::read(dir / "tiles.json").value(), before);
    // The next save after the failure carries on normally.
    upsert(*store, makeTile("B", "Two", 1));
    EXPECT_EQ(drain(consumer), std::vector<std::string>{"added:B"});
}

TEST_F(CopyTileStoreTest, UnreadableMainFileNeverReplacesAGoodPrev) {
    {
        auto store = openStore();
        upsert(*store, makeTile("A", "One", 0));
        upsert(*store, makeTile("B", "Two", 1));
    }
    // A main file that exists but cannot be read (here: a folder in its place, which even root
    // cannot read as a file).
    std::filesystem::remove(dir / "tiles.json");
    std::filesystem::create_directory(dir / "tiles.json");
    LogCapture log;
    auto store = openStore();
    EXPECT_EQ(ids(list(*store)), std::vector<std::string>{"A"});
    EXPECT_TRUE(log.contains("[CopyTileStore] tiles.json exists but is unreadable ("));
    EXPECT_TRUE(log.contains("[CopyTileStore] RECOVERED 1 tile(s) from tiles.json.prev (main file unreadable) but "
                             "re-persist failed (rename("));
    // The good copy was not demoted away by the attempt.
    auto prev = TileStoreFile::decode(AtomicFile::read(dir / "tiles.json.prev").value());
    ASSERT_TRUE(prev);
    EXPECT_EQ(prev->size(), 1u);
}

TEST_F(CopyTileStoreTest, NeitherFileUsableStartsEmptyAndLeftoverTemporariesAreRemoved) {
    ASSERT_TRUE(AtomicFile::write(dir / "tiles.json", "{\"schemaVersion\": 5, \"tiles\": [ {"));
    ASSERT_TRUE(AtomicFile::write(dir / "tiles.json.prev", "not json"));
    ASSERT_TRUE(AtomicFile::write(dir / ".tiles.json.tmp-1234ABCD", "half a save"));
    LogCapture log;
    auto store = openStore();
    EXPECT_TRUE(list(*store).empty());
    EXPECT_TRUE(log.contains("[CopyTileStore] tiles.json.prev also unusable ("));
    auto names = directoryNames(dir.path());
    EXPECT_EQ(std::count_if(names.begin(), names.end(), [](const std::string& n) { return n[0] == '.'; }), 0);
    EXPECT_EQ(std::count(names.begin(), names.end(), "tiles.json.prev"), 1);
}

}  // namespace
}  // namespace ql

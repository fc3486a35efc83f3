// The tile service over a real socket: a client creates, lists, updates, reorders, deletes and
// watches jobs kept in a real tiles.json.
#include "QLModel/VolumeResolver.h"
#include "QLProtocol/server/CopyTileStore.h"
#include "QLProtocol/server/LiveTileServiceProvider.h"
#include "QLProtocol/server/tests/ServerTestSupport.h"
#include "QLProtocol/server/tests/SourceServiceTestSupport.h"
#include "QLProtocol/transport/MultiplexHandler.h"
#include "QLProtocol/transport/TileService.h"
#include "QLProtocol/transport/UDSChannel.h"
#include "QLProtocol/transport/UDSServer.h"
#include "QLSupport/BlockingPool.h"
#include "QLSupport/Clock.h"
#include "QLSupport/Log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

namespace ql {
namespace {

namespace fs = std::filesystem;
using testing::ReadOnlyDirectory;
using testing::SourceTestLoop;
using testing::TempDir;
using Tile = ql4::transport::v1::CopyTile;

Tile job(const std::string& id, const std::string& name) {
    Tile tile;
    tile.set_id(id);
    tile.set_name(name);
    tile.set_copy_rule_filename("Backup all files.dset");
    tile.mutable_source()->set_display_name("Data");
    tile.mutable_source()->set_volume_uuid(std::string(16, '\x11'));
    tile.mutable_destination()->set_display_name("Backup");
    tile.mutable_destination()->set_partition_guid(std::string(16, '\x22'));
    return tile;
}

// What a watcher saw, one word per event.
std::string word(const wire::TileEvent& event) {
    switch (event.event_case()) {
        case wire::TileEvent::kAdded: return "added:" + event.added().id();
        case wire::TileEvent::kUpdated: return "updated:" + event.updated().id() + ":" + event.updated().name();
        case wire::TileEvent::kRemovedId: return "removed:" + event.removed_id();
        default: return "?";
    }
}

// A tile service over a store in a temporary state folder, served on a real socket. Volumes
// never resolve here (no probes), which is how a job on a drive that is not attached behaves.
class TileServiceWorld {
public:
    TileServiceWorld() {
        fs::create_directories(stateDir());
        store = std::make_unique<CopyTileStore>(loop.executor(), stateDir() / "tiles.json", pool, clock);
        loop.run(store->load());
        resolver = std::make_shared<VolumeResolver>(loop.executor(), VolumeResolverEnvironment{});
        provider = std::make_shared<LiveTileServiceProvider>(loop.executor(), *store, *resolver,
                                                             LiveTileServiceProvider::Options{});
        loop.run(provider->start(volumeEvents));
        auto handler = std::make_shared<MultiplexHandler>();
        handler->add(std::make_shared<TileServiceServer>(provider));
        UDSServer::Options options;
        options.socketPath = (dir / "s.sock").string();
        server = std::make_shared<UDSServer>(loop.executor(), options, handler);
        EXPECT_TRUE(server->start());
        UDSChannel::Options channelOptions;
        channelOptions.socketPath = options.socketPath;
        client = std::make_unique<TileServiceClient>(std::make_shared<UDSChannel>(channelOptions));
    }

    // Opens a watch and waits until the server holds it, so no later change can be missed.
    ClientStream<wire::TileEvent> watch() {
        LogCapture log;
        auto stream = loop.run(client->call<&TileServiceProvider::watchTiles>(wire::WatchTilesRequest{}));
        for (int i = 0; i < 500 && !log.contains("watchTiles: "); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_TRUE(log.contains("watchTiles: ")) << "the server never registered the watch";
        return stream;
    }
    ~TileServiceWorld() {
        server->stop();
        loop.run(provider->stop());
    }

    fs::path stateDir() const { return dir / "state"; }

    tl::expected<Tile, TransportError> create(Tile tile) {
        wire::CreateTileRequest request;
        *request.mutable_tile() = std::move(tile);
        auto created = loop.run(client->call<&TileServiceProvider::createTile>(request));
        if (!created) return tl::unexpected(created.error());
        return created->tile();
    }
    tl::expected<wire::UpdateTileResponse, TransportError> update(Tile tile) {
        wire::UpdateTileRequest request;
        *request.mutable_tile() = std::move(tile);
        return loop.run(client->call<&TileServiceProvider::updateTile>(request));
    }
    std::vector<std::string> listedNames() {
        auto listed = loop.run(client->call<&TileServiceProvider::listTiles>(wire::ListTilesRequest{}));
        EXPECT_TRUE(listed) << listed.error().message();
        std::vector<std::string> names;
        if (listed) {
            for (const auto& tile : listed->tiles()) names.push_back(tile.name());
        }
        return names;
    }

    TempDir dir;
    SourceTestLoop loop;
    BlockingPool pool{1};
    LiveClock clock;
    std::unique_ptr<CopyTileStore> store;
    std::shared_ptr<VolumeResolver> resolver;
    std::shared_ptr<FakeVolumeEventSource> volumeEvents = std::make_shared<FakeVolumeEventSource>();
    std::shared_ptr<LiveTileServiceProvider> provider;
    std::shared_ptr<UDSServer> server;
    std::unique_ptr<TileServiceClient> client;
};

TEST(TileServiceOverSocket, EditsReachTheStoreAndEveryWatcherInOrder) {
    TileServiceWorld world;
    auto watch = world.watch();
    auto second = world.watch();

    for (const auto& [id, name] : {std::pair{"A", "Alpha"}, {"B", "Bravo"}, {"C", "Charlie"}}) {
        auto created = world.create(job(id, name));
        ASSERT_TRUE(created) << created.error().message();
        EXPECT_EQ(created->id(), id);
    }
    EXPECT_EQ(world.listedNames(), (std::vector<std::string>{"Alpha", "Bravo", "Charlie"}));

    auto renamed = job("B", "Bravo renamed");
    ASSERT_TRUE(world.update(renamed));

    wire::ReorderTilesRequest reorder;
    for (const auto* id : {"C", "A", "B"}) reorder.add_tile_ids(id);
    ASSERT_TRUE(world.loop.run(world.client->call<&TileServiceProvider::reorderTiles>(reorder)));
    EXPECT_EQ(world.listedNames(), (std::vector<std::string>{"Charlie", "Alpha", "Bravo renamed"}));

    wire::DeleteTileRequest remove;
    remove.set_id("A");
    ASSERT_TRUE(world.loop.run(world.client->call<&TileServiceProvider::deleteTile>(remove)));
    EXPECT_EQ(world.listedNames(), (std::vector<std::string>{"Charlie", "Bravo renamed"}));

    // The jobs survive a new store reading the same file.
    CopyTileStore reread(world.loop.executor(), world.stateDir() / "tiles.json", world.pool, world.clock);
    world.loop.run(reread.load());
    EXPECT_EQ(world.loop.run(reread.list()).size(), 2u);

    // Both watchers see every change, in the order it was saved: three adds, the rename, the
    // reorder (each job that moved), the removal.
    const std::vector<std::string> expected{"added:A",
                                            "added:B",
                                            "added:C",
                                            "updated:B:Bravo renamed",
                                            "updated:C:Charlie",
                                            "updated:A:Alpha",
                                            "updated:B:Bravo renamed",
                                            "removed:A"};
    for (auto* stream : {&watch, &second}) {
        std::vector<std::string> seen;
        while (seen.size() < expected.size()) {
            auto event = world.loop.run(stream->next());
            ASSERT_TRUE(event) << event.error().message();
            ASSERT_TRUE(*event) << "the watch ended early after " << seen.size() << " events";
            seen.push_back(word(**event));
        }
        // Reordering tells only the jobs that moved; the store may move them in any order.
        EXPECT_EQ(std::vector(seen.begin(), seen.begin() + 4), std::vector(expected.begin(), expected.begin() + 4));
        EXPECT_EQ(std::multiset(seen.begin() + 4, seen.end() - 1), std::multiset(expected.begin() + 4, expected.end() - 1));
        EXPECT_EQ(seen.back(), "removed:A");
    }
}

TEST(TileServiceOverSocket, RefusalsAreSentencesAndChangeNothing) {
    TileServiceWorld world;
    ASSERT_TRUE(world.create(job("A", "Alpha")));

    struct Case {
        const char* what;
        std::function<tl::expected<void, TransportError>()> call;
        std::string message;
    };
    auto asVoid = [](auto result) -> tl::expected<void, TransportError> {
        if (!result) return tl::unexpected(result.error());
        return {};
    };
    const Case cases[] = {
        {"a second job with the same id", [&] { return asVoid(world.create(job("A", "Again"))); },
         "server returned error: A copy job with the id A already exists."},
        {"an update of a job that is not there", [&] { return asVoid(world.update(job("Z", "Zulu"))); },
         "server returned error: no such job"},
        {"an update without an id", [&] { return asVoid(world.update(job("", "Nobody"))); },
         "server returned error: A copy job id is required."},
        {"a delete of a job that is not there",
         [&] {
             wire::DeleteTileRequest request;
             request.set_id("Z");
             return asVoid(world.loop.run(world.client->call<&TileServiceProvider::deleteTile>(request)));
         },
         "server returned error: no such job"},
    };
    for (const auto& c : cases) {
        auto result = c.call();
        ASSERT_FALSE(result) << c.what;
        EXPECT_EQ(result.error().message(), c.message) << c.what;
    }
    EXPECT_EQ(world.listedNames(), (std::vector<std::string>{"Alpha"}));
}

TEST(TileServiceOverSocket, AFailedSaveAnswersAnErrorChangesNothingAndEmitsNoEvent) {
    TileServiceWorld world;
    ASSERT_TRUE(world.create(job("A", "Alpha")));
    auto watch = world.watch();

    {
        ReadOnlyDirectory readOnly(world.stateDir());
        if (!readOnly.ok()) GTEST_SKIP() << readOnly.why;
        auto created = world.create(job("B", "Bravo"));
        ASSERT_FALSE(created);
        EXPECT_TRUE(created.error().message().starts_with("server returned error: The copy job could not be saved: "))
            << created.error().message();
        auto renamed = world.update(job("A", "Alpha renamed"));
        ASSERT_FALSE(renamed);
        EXPECT_EQ(world.listedNames(), (std::vector<std::string>{"Alpha"}));
    }

    // Writable again: the next event the watcher sees is the next saved change, not the refused ones.
    ASSERT_TRUE(world.create(job("C", "Charlie")));
    auto event = world.loop.run(watch.next());
    ASSERT_TRUE(event) << event.error().message();
    ASSERT_TRUE(*event);
    EXPECT_EQ(word(**event), "added:C");
    EXPECT_EQ(world.listedNames(), (std::vector<std::string>{"Alpha", "Charlie"}));
}

}  // namespace
}  // namespace ql

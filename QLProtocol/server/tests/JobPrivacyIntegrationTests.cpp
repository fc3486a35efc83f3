// Jobs are private to the user who made them: the tile service over a real tiles.json, asked
// by made-up callers (the socket's peer credentials are read by the transport, tested on its
// own and in the system tests). Approval and the access pre-check go through `TileAdmission`
// with fakes for the authorization service and the owner's access.

#include "QLModel/VolumeResolver.h"
#include "QLProtocol/server/CopyTileStore.h"
#include "QLProtocol/server/LiveTileServiceProvider.h"
#include "QLProtocol/server/tests/ServerTestSupport.h"
#include "QLProtocol/server/tests/SourceServiceTestSupport.h"
#include "QLSupport/BlockingPool.h"
#include "QLSupport/Clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace ql {
namespace {

namespace fs = std::filesystem;
using testing::SourceTestLoop;
using testing::TempDir;
using Tile = ql4::transport::v1::CopyTile;

constexpr std::uint32_t kAnn = 1001;
constexpr std::uint32_t kBob = 1002;

CallContext callerWith(std::uint32_t uid) {
    CallContext caller;
    caller.uid = uid;
    caller.gid = uid;
    caller.pid = 4000 + static_cast<std::int32_t>(uid % 1000);
    caller.processStartTime = 77;
    return caller;
}

Tile job(const std::string& id, const std::string& name) {
    Tile tile;
    tile.set_id(id);
    tile.set_name(name);
    tile.mutable_source()->set_display_name("Data");
    tile.mutable_source()->set_subpath("home/ann");
    tile.mutable_destination()->set_display_name("Backup");
    tile.mutable_destination()->set_subpath("ann");
    // Whatever a client claims about ownership and approval is overwritten.
    tile.set_owner_uid(0);
    tile.set_approved_as_administrator(true);
    return tile;
}

class JobPrivacy : public ::testing::Test {
protected:
    JobPrivacy() {
        fs::create_directories(dir.path() / "state");
        store = std::make_unique<CopyTileStore>(loop.executor(), dir.path() / "state" / "tiles.json", pool, clock);
        loop.run(store->load());
        resolver = std::make_shared<VolumeResolver>(loop.executor(), VolumeResolverEnvironment{});
        TileAdmission::Collaborators admission{JobAccess(0), approval, nullptr, nullptr};
        provider = std::make_shared<LiveTileServiceProvider>(
            loop.executor(), *store, *resolver,
            LiveTileServiceProvider::Options{nullptr, nullptr, std::make_shared<TileAdmission>(admission)});
        loop.run(provider->start());
    }
    ~JobPrivacy() override { loop.run(provider->stop()); }

    tl::expected<Tile, std::string> create(std::uint32_t uid, Tile tile, bool asAdministrator = false) {
        wire::CreateTileRequest request;
        *request.mutable_tile() = std::move(tile);
        request.set_as_administrator(asAdministrator);
        auto created = loop.run(provider->createTile(callerWith(uid), request));
        if (!created) return tl::unexpected(created.error().message);
        return created->tile();
    }
    tl::expected<void, std::string> update(std::uint32_t uid, Tile tile, bool asAdministrator = false) {
        wire::UpdateTileRequest request;
        *request.mutable_tile() = std::move(tile);
        request.set_as_administrator(asAdministrator);
        auto updated = loop.run(provider->updateTile(callerWith(uid), request));
        if (!updated) return tl::unexpected(updated.error().message);
        return {};
    }
    tl::expected<void, std::string> remove(std::uint32_t uid, const std::string& id) {
        wire::DeleteTileRequest request;
        request.set_id(id);
        auto removed = loop.run(provider->deleteTile(callerWith(uid), request));
        if (!removed) return tl::unexpected(removed.error().message);
        return {};
    }
    std::vector<std::string> listed(std::uint32_t uid) {
        auto answer = loop.run(provider->listTiles(callerWith(uid), {}));
        std::vector<std::string> names;
        if (answer) {
            for (const auto& tile : answer->tiles()) names.push_back(tile.name());
        }
        return names;
    }
    Tile stored(const std::string& id) { return *loop.run(store->get(id)); }

    TempDir dir;
    SourceTestLoop loop;
    BlockingPool pool{1};
    LiveClock clock;
    std::unique_ptr<CopyTileStore> store;
    std::shared_ptr<VolumeResolver> resolver;
    std::shared_ptr<FakeAdministratorApproval> approval = std::make_shared<FakeAdministratorApproval>();
    std::shared_ptr<LiveTileServiceProvider> provider;
};

TEST_F(JobPrivacy, EachUserSeesAndChangesOnlyTheirOwnJobs) {
    ASSERT_TRUE(create(kAnn, job("a", "Ann's")));
    ASSERT_TRUE(create(kBob, job("b", "Bob's")));
    EXPECT_EQ(stored("a").owner_uid(), kAnn);
    EXPECT_FALSE(stored("a").approved_as_administrator());

    EXPECT_EQ(listed(kAnn), std::vector<std::string>{"Ann's"});
    EXPECT_EQ(listed(kBob), std::vector<std::string>{"Bob's"});
    auto all = listed(0);
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, (std::vector<std::string>{"Ann's", "Bob's"}));

    // Bob's edits and deletes of Ann's job answer as for a job that doesn't exist.
    auto renamed = job("a", "Bob was here");
    EXPECT_EQ(update(kBob, renamed).error(), update(kBob, job("nobody", "x")).error());
    EXPECT_EQ(remove(kBob, "a").error(), remove(kBob, "nobody").error());
    EXPECT_EQ(stored("a").name(), "Ann's");

    // An edit by Ann keeps her the owner, whatever the client sends.
    auto mine = job("a", "Ann's, renamed");
    mine.set_owner_uid(kBob);
    ASSERT_TRUE(update(kAnn, mine));
    EXPECT_EQ(stored("a").owner_uid(), kAnn);

    // Root administers everyone's.
    ASSERT_TRUE(remove(0, "b"));
    EXPECT_TRUE(listed(kBob).empty());
}

TEST_F(JobPrivacy, WatchersHearOnlyOfJobsTheyMaySee) {
    auto bobWatch = loop.run(provider->watchTiles(callerWith(kBob), {}));
    auto rootWatch = loop.run(provider->watchTiles(callerWith(0), {}));
    ASSERT_TRUE(bobWatch && rootWatch);
    ASSERT_TRUE(create(kAnn, job("a", "Ann's")));
    ASSERT_TRUE(remove(kAnn, "a"));
    ASSERT_TRUE(create(kBob, job("b", "Bob's")));

    auto next = [&](auto& stream) { return loop.run(stream.next()); };
    auto first = next(*bobWatch);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->added().id(), "b") << "Bob heard of Ann's job first";
    std::vector<std::string> seenByRoot;
    for (int i = 0; i < 3; ++i) {
        auto event = next(*rootWatch);
        ASSERT_TRUE(event);
        seenByRoot.push_back(event->has_removed_id() ? "removed:" + event->removed_id() : "added:" + event->added().id());
    }
    EXPECT_EQ(seenByRoot, (std::vector<std::string>{"added:a", "removed:a", "added:b"}));
}

TEST_F(JobPrivacy, AUsersReorderMovesOnlyTheirOwnJobs) {
    ASSERT_TRUE(create(kAnn, job("a1", "A1")));
    ASSERT_TRUE(create(kBob, job("b1", "B1")));
    ASSERT_TRUE(create(kAnn, job("a2", "A2")));
    wire::ReorderTilesRequest request;
    for (const char* id : {"a2", "b1", "a1"}) request.add_tile_ids(id);
    ASSERT_TRUE(loop.run(provider->reorderTiles(callerWith(kAnn), request)));
    EXPECT_EQ(listed(0), (std::vector<std::string>{"A2", "B1", "A1"}));
    wire::ReorderTilesRequest bobs;
    for (const char* id : {"b1", "a1", "a2"}) bobs.add_tile_ids(id);
    ASSERT_TRUE(loop.run(provider->reorderTiles(callerWith(kBob), bobs)));
    EXPECT_EQ(listed(0), (std::vector<std::string>{"A2", "B1", "A1"})) << "Bob moved Ann's jobs";
}

TEST_F(JobPrivacy, CopyingAsAdministratorNeedsApprovalAndLastsUntilTheCopyChanges) {
    approval->setVerdict(kAnn, ApprovalVerdict::approved());
    approval->setVerdict(kBob, ApprovalVerdict::denied("no"));

    EXPECT_EQ(create(kBob, job("b", "Bob's"), true).error(), TileAdmission::kApprovalDenied);
    EXPECT_FALSE(loop.run(store->get("b"))) << "a denied job was stored";

    ASSERT_TRUE(create(kAnn, job("a", "Ann's"), true));
    EXPECT_TRUE(stored("a").approved_as_administrator());
    const auto calls = approval->calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.back().subject, (ApprovalSubject{kAnn, callerWith(kAnn).pid, 77}));
    EXPECT_EQ(calls.back().actionID, copyAsAdministratorAction());

    struct Edit {
        std::string what;
        std::function<void(Tile&)> change;
        bool keepsApproval;
    };
    const std::vector<Edit> edits = {
        {"a new name", [](Tile& t) { t.set_name("Everything"); }, true},
        {"another destination folder", [](Tile& t) { t.mutable_destination()->set_subpath("elsewhere"); }, false},
    };
    for (const auto& edit : edits) {
        SCOPED_TRACE(edit.what);
        ASSERT_TRUE(update(kAnn, stored("a"), true));  // approved again first
        auto changed = stored("a");
        edit.change(changed);
        ASSERT_TRUE(update(kAnn, changed));
        EXPECT_EQ(stored("a").approved_as_administrator(), edit.keepsApproval);
    }
    // Asking again on an edit by someone the service denies changes nothing.
    approval->setVerdict(kAnn, ApprovalVerdict::denied("no"));
    auto again = stored("a");
    again.set_name("Denied");
    EXPECT_EQ(update(kAnn, again, true).error(), TileAdmission::kApprovalDenied);
    EXPECT_NE(stored("a").name(), "Denied");
}

TEST(TileAdmission, AUserModeServerCantGrantMoreThanItsUsersRights) {
    auto approval = std::make_shared<FakeAdministratorApproval>();
    approval->setFallback(ApprovalVerdict::approved());
    TileAdmission admission({JobAccess(1000), approval, nullptr, nullptr});
    asio::io_context io;
    Tile tile = job("a", "Mine");
    std::optional<tl::expected<void, std::string>> result;
    asio::co_spawn(io, admission.admitNew(callerWith(kAnn), tile, true, {}),
                   [&](std::exception_ptr, tl::expected<void, std::string> r) { result = r; });
    io.run();
    ASSERT_TRUE(result);
    EXPECT_EQ(result->error(), TileAdmission::kNoReachBeyondUser);
    EXPECT_TRUE(approval->calls().empty());
}

}  // namespace
}  // namespace ql

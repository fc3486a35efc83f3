// Browsing folders through a root server answers each caller with the caller's own rights: what
// a user can't list or look at, the server won't show them either.

#include "QLProtocol/server/LiveSourceServiceProvider.h"
#include "QLSupport/tests/MachineLimits.h"
#include "QLProtocol/server/tests/ServerTestSupport.h"
#include "QLProtocol/server/tests/SourceServiceTestSupport.h"
#include "QLSupport/BlockingPool.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace ql {
namespace {

namespace fs = std::filesystem;

TEST(BrowsingRights, ACallerSeesOnlyWhatTheyCouldSeeThemselves) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    if (::geteuid() != 0) GTEST_SKIP() << "needs root: the server must have more rights than its caller";
    testing::TempDir dir;
    fs::permissions(dir.path(), fs::perms(0755));
    fs::create_directories(dir.path() / "private");
    fs::permissions(dir.path() / "private", fs::perms(0700));
    std::ofstream(dir.path() / "private" / "secret.txt") << "root's";
    fs::create_directories(dir.path() / "public");
    std::ofstream(dir.path() / "public" / "notes.txt") << "anyone's";

    testing::SourceTestLoop loop;
    auto pool = std::make_shared<BlockingPool>(1);
    auto provider = LiveSourceServiceProvider::live(loop.executor(), nullptr, pool);
    CallContext nobody;
    nobody.uid = 65534;
    nobody.gid = 65534;
    const CallContext root;

    struct Case {
        std::string name;
        CallContext caller;
        fs::path path;
        bool listable;
    };
    const std::vector<Case> cases = {
        {"root lists a private folder", root, dir.path() / "private", true},
        {"a user can't list it", nobody, dir.path() / "private", false},
        {"a user lists a public one", nobody, dir.path() / "public", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        wire::EnumerateDirectoryRequest request;
        request.set_path(c.path.string());
        auto listed = loop.run(provider->enumerateDirectory(c.caller, request));
        EXPECT_EQ(listed.has_value(), c.listable);
        wire::StatPathRequest stat;
        stat.set_path((c.path / (c.path.filename() == "private" ? "secret.txt" : "notes.txt")).string());
        auto looked = loop.run(provider->statPath(c.caller, stat));
        EXPECT_EQ(looked.has_value(), c.listable);
    }
    // The pool thread got its own rights back: root still sees everything.
    wire::EnumerateDirectoryRequest again;
    again.set_path((dir.path() / "private").string());
    EXPECT_TRUE(loop.run(provider->enumerateDirectory(root, again)));
    loop.run(provider->shutdown());
}

}  // namespace
}  // namespace ql

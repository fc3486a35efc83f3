// The access pre-check with the live probe: the kernel, asked as a real unprivileged user,
// decides over a real tree that root set up; the sentences are the ones a person reads.

#include "QLProtocol/server/access/CopyAccessCheck.h"
#include "QLSupport/tests/MachineLimits.h"
#include "QLProtocol/server/tests/ServerTestSupport.h"
#include "QLSupport/OwnerAccess.h"
#include "QLSupport/UserCredentials.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace ql {
namespace {

namespace fs = std::filesystem;

TEST(CopyAccessCheck, RefusesWhatTheOwnerCantReadOrWriteInTheirOwnWords) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    if (::geteuid() != 0) GTEST_SKIP() << "needs root to check as another user";
    auto nobody = UserCredentials::forUser(65534);
    if (!nobody) GTEST_SKIP() << "no user 65534 (nobody) here: " << nobody.error();

    testing::TempDir dir;
    const auto root = dir.path();
    fs::permissions(root, fs::perms(0755));
    auto folder = [](const fs::path& p, unsigned mode, uid_t owner) {
        fs::create_directories(p);
        ::chown(p.c_str(), owner, owner == 0 ? 0 : 65534);
        fs::permissions(p, fs::perms(mode));
    };
    folder(root / "mine", 0755, 65534);
    folder(root / "mine/in", 0755, 65534);
    folder(root / "private", 0700, 0);
    std::ofstream(root / "private/secret.txt") << "root only";
    folder(root / "shared", 0755, 0);
    folder(root / "open", 0777, 0);

    const auto text = [&](const std::string& p) { return (root / p).string(); };
    struct Case {
        std::string name;
        std::string source;
        std::string destination;
        std::optional<std::string> refusal;
    };
    const std::vector<Case> cases = {
        {"own folders", text("mine/in"), text("mine/out"), std::nullopt},
        {"a missing destination whose nearest folder is writable", text("mine/in"), text("open/a/b"), std::nullopt},
        {"an unreadable source", text("private"), text("mine/out"), CopyAccessCheck::cannotRead(text("private"))},
        {"a file in a folder the user can't enter", text("private/secret.txt"), text("mine/out"),
         CopyAccessCheck::cannotRead(text("private/secret.txt"))},
        {"an unwritable destination", text("mine/in"), text("shared"), CopyAccessCheck::cannotWrite(text("shared"))},
        {"a missing destination under an unwritable folder", text("mine/in"), text("shared/new/deeper"),
         CopyAccessCheck::cannotWrite(text("shared"))},
        {"a destination inside a folder the user can't enter", text("mine/in"), text("private/new"),
         CopyAccessCheck::cannotWrite(text("private/new"))},
        {"a system folder", text("mine/in"), "/etc", CopyAccessCheck::cannotWrite("/etc")},
    };
    LiveOwnerAccessProbe probe;
    CopyAccessCheck check(probe);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto verdict = check.check(65534, c.source, c.destination);
        if (!c.refusal) {
            EXPECT_TRUE(verdict) << verdict.error();
        } else {
            ASSERT_FALSE(verdict);
            EXPECT_EQ(verdict.error(), *c.refusal);
        }
    }
    EXPECT_EQ(CopyAccessCheck::cannotWrite("/etc"),
              "You can’t write to “/etc”, so Quillo won’t copy there for you. Ask an administrator to set up this "
              "copy.");
    EXPECT_FALSE(check.check(4242424, text("mine/in"), text("mine/out")));
}

}  // namespace
}  // namespace ql

#include "QLSupport/OwnerAccess.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

using ql::AccessFinding;
using ql::OwnerAccessProbe;

namespace {

TEST(OwnerAccessProbeTest, PathAndAncestorsLeadToTheRoot) {
    struct Case {
        std::string path;
        std::vector<std::string> expected;
    };
    const std::string cwd = std::filesystem::current_path().string();
    const Case cases[] = {
        {"/a/b/c", {"/a/b/c", "/a/b", "/a", "/"}},
        {"/a/b//", {"/a/b", "/a", "/"}},
        {"/a//b", {"/a//b", "/a", "/"}},
        {"/", {"/"}},
        {"", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(OwnerAccessProbe::pathAndAncestors(c.path), c.expected);
    }
    auto relative = OwnerAccessProbe::pathAndAncestors("some/where");
    ASSERT_GE(relative.size(), 3u);
    EXPECT_EQ(relative[0], (std::filesystem::current_path() / "some/where").string());
    EXPECT_EQ(relative[1], (std::filesystem::current_path() / "some").string());
    EXPECT_EQ(relative.back(), "/");
}

TEST(OwnerAccessProbeTest, FakeDecidesAMissingPathByItsNearestAncestor) {
    ql::FakeOwnerAccessProbe probe;
    probe.writeErrors = {{"/dst/new/deeper", ENOENT}, {"/dst/new", ENOENT}, {"/locked/new", ENOENT},
                         {"/locked", EACCES},         {"/hidden/x", EACCES}};
    const auto user = ql::UserCredentials::forIds(501, 20, {20});
    struct Case {
        const char* path;
        AccessFinding expected;
    };
    const Case cases[] = {
        {"/dst/new/deeper", {true, "/dst", 0}},
        {"/locked/new", {false, "/locked", EACCES}},
        {"/hidden/x", {false, "/hidden/x", EACCES}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(probe.canWrite(user, c.path), c.expected);
    }
    probe.readErrors = {{"/src", EACCES}};
    EXPECT_EQ(probe.canRead(user, "/src/"), (AccessFinding{false, "/src", EACCES}));
    probe.probeFailure = "Could not check.";
    EXPECT_EQ(probe.canRead(user, "/src"), tl::unexpected(std::string("Could not check.")));
}

}  // namespace

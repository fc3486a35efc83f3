// Faithful copies: owner and group, mode (set-id bits included), nanosecond times, extended
// attributes, POSIX ACLs, hard links, holes, symlinks, FIFOs and device nodes — and later runs
// that notice when only metadata changed.

#include "support/EngineHarness.h"
#include "support/TreeFixture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>

namespace ql::test {
namespace {

void setXattr(const std::string& path, const std::string& name, const std::string& value) {
    ASSERT_EQ(::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0), 0) << name << " on " << path;
}

bool userXattrsWork(const std::string& dir) {
    Tree::write(dir + "/.probe", "");
    bool ok = ::setxattr((dir + "/.probe").c_str(), "user.probe", "1", 1, 0) == 0;
    ::unlink((dir + "/.probe").c_str());
    return ok;
}

int shell(const std::string& command) { return std::system(command.c_str()); }

TEST(EngineMetadata, RoundTripKeepsEverything) {
    if (::geteuid() != 0) GTEST_SKIP() << "owners, device nodes and trusted attributes need root";
    TempDir tmp;
    const std::string src = tmp / "src";
    if (!userXattrsWork(tmp.path())) GTEST_SKIP() << "the filesystem under " << tmp.path() << " keeps no user attributes";

    Tree::write(src + "/plain.txt", "plain\n", 0640);
    ASSERT_EQ(::chown((src + "/plain.txt").c_str(), 1234, 5678), 0);
    Tree::write(src + "/setuid-tool", "#!/bin/sh\n", 0755);
    ASSERT_EQ(::chown((src + "/setuid-tool").c_str(), 4321, 8765), 0);
    ASSERT_EQ(::chmod((src + "/setuid-tool").c_str(), 04755), 0);
    Tree::write(src + "/attrs.txt", "attributes\n");
    setXattr(src + "/attrs.txt", "user.comment", "hello");
    setXattr(src + "/attrs.txt", "user.binary", std::string("\0\1\2\3", 4));
    setXattr(src + "/attrs.txt", "trusted.origin", "engine-test");
    Tree::write(src + "/acl.txt", "acl\n");
    Tree::mkdirs(src + "/shared");
    bool acls = shell("setfacl -m u:1234:rwx,g:5678:r " + src + "/acl.txt 2>/dev/null") == 0 &&
                shell("setfacl -d -m u:1234:rwx " + src + "/shared 2>/dev/null") == 0;
    Tree::write(src + "/shared/inherits.txt", "inherits the default ACL\n");
    // Three links to one inode, in two folders.
    Tree::write(src + "/links/one", "linked\n");
    ASSERT_EQ(::link((src + "/links/one").c_str(), (src + "/links/two").c_str()), 0);
    Tree::mkdirs(src + "/links/elsewhere");
    ASSERT_EQ(::link((src + "/links/one").c_str(), (src + "/links/elsewhere/three").c_str()), 0);
    // A sparse file: 12 MiB with two small islands of data.
    {
        int fd = ::open((src + "/sparse.img").c_str(), O_WRONLY | O_CREAT, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, "island one", 10, 4 << 20), 10);
        ASSERT_EQ(::pwrite(fd, "island two", 10, 9 << 20), 10);
        ASSERT_EQ(::ftruncate(fd, 12 << 20), 0);
        ::close(fd);
    }
    ASSERT_EQ(::symlink("plain.txt", (src + "/link-to-plain").c_str()), 0);
    ASSERT_EQ(::lchown((src + "/link-to-plain").c_str(), 1234, 5678), 0);
    ASSERT_EQ(::symlink("/nowhere/at/all", (src + "/dangling").c_str()), 0);
    ASSERT_EQ(::mkfifo((src + "/pipe").c_str(), 0620), 0);
    ASSERT_EQ(::mknod((src + "/null-device").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    Tree::mkdirs(src + "/locked-folder");
    Tree::write(src + "/locked-folder/inside.txt", "inside\n");
    ASSERT_EQ(::chmod((src + "/locked-folder").c_str(), 0500), 0);
    // Nanosecond times everywhere, folders last (writing inside a folder changes its time).
    long ns = 111111111;
    for (const char* rel : {"/plain.txt", "/setuid-tool", "/attrs.txt", "/acl.txt", "/links/one", "/sparse.img",
                            "/link-to-plain", "/dangling", "/pipe", "/null-device", "/shared/inherits.txt",
                            "/locked-folder/inside.txt", "/links/elsewhere", "/links", "/shared", "/locked-folder"}) {
        Tree::setMtime(src + rel, 1'650'000'000 + ns % 1000, ns);
        ns = (ns * 7 + 13) % 1'000'000'000;
    }

    auto run = runEngine({{src, tmp / "dst"}});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    TreeDigest::Options all;
    all.holes = true;
    EXPECT_EQ(TreeDigest::differences(TreeDigest::of(src, all), TreeDigest::of(tmp / "dst", all)), "");

    struct stat st;
    ASSERT_EQ(::stat((tmp / "dst/sparse.img").c_str(), &st), 0);
    EXPECT_LT(st.st_blocks * 512, 1 << 20) << "holes stay holes";
    if (!acls) GTEST_SKIP() << "setfacl could not set ACLs here; the rest of the round trip passed";

    // A second run finds nothing to do: every attribute reads back equal.
    auto again = runEngine({{"--delete", src, tmp / "dst"}});
    ASSERT_EQ(again.exitStatus, 0) << again.describe();
    EXPECT_EQ(again.first("summary")->value("items_copied", -1), 0) << again.describe();
    EXPECT_EQ(again.first("summary")->value("items_updated_meta_only", -1), 0) << again.describe();
}

TEST(EngineMetadata, MetadataOnlyChangesAreFixedInPlaceWithTheirReasons) {
    TempDir tmp;
    const std::string src = tmp / "src", dst = tmp / "dst";
    const bool root = ::geteuid() == 0;
    const bool xattrs = userXattrsWork(tmp.path());
    Tree::write(src + "/mode.txt", "m\n", 0644);
    Tree::write(src + "/attr.txt", "a\n");
    Tree::write(src + "/owner.txt", "o\n");
    ASSERT_EQ(runEngine({{src, dst}}).exitStatus, 0);
    struct stat before;
    ASSERT_EQ(::stat((dst + "/attr.txt").c_str(), &before), 0);

    // Change only metadata on the source (after the copy, so the source's change time is later).
    ::usleep(20000);
    ASSERT_EQ(::chmod((src + "/mode.txt").c_str(), 0600), 0);
    if (xattrs) {
        setXattr(src + "/attr.txt", "user.tag", "blue");
    }
    if (root) {
        ASSERT_EQ(::chown((src + "/owner.txt").c_str(), 4242, 4242), 0);
    }

    auto run = runEngine({{src, dst}});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    auto summary = *run.first("summary");
    EXPECT_EQ(summary["items_copied"], 0);
    EXPECT_EQ(summary["items_updated_meta_only"], 1 + (xattrs ? 1 : 0) + (root ? 1 : 0));
    EXPECT_EQ(summary["meta_reasons"]["mode"], 1);
    if (xattrs) {
        EXPECT_EQ(summary["meta_reasons"]["xattrs"], 1);
    }
    if (root) {
        EXPECT_EQ(summary["meta_reasons"]["owner"], 1);
    }

    EXPECT_EQ(TreeDigest::differences(TreeDigest::of(src), TreeDigest::of(dst)), "");
    struct stat after;
    ASSERT_EQ(::stat((dst + "/attr.txt").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << "a metadata change does not rewrite the file";
}

TEST(EngineMetadata, MappedOwnerIsGivenToEveryWrittenItem) {
    if (::geteuid() != 0) GTEST_SKIP() << "setting owners needs root";
    TempDir tmp;
    Tree::write(tmp / "src/a.txt", "a\n");
    Tree::write(tmp / "src/sub/b.txt", "b\n");
    ASSERT_EQ(::symlink("a.txt", (tmp / "src/link").c_str()), 0);
    auto run = runEngine({{"--map-noowners-owner", "501:20", tmp / "src", tmp / "dst"}});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    for (const char* rel : {"", "/a.txt", "/sub", "/sub/b.txt", "/link"}) {
        struct stat st;
        ASSERT_EQ(::lstat((tmp / "dst" + std::string(rel)).c_str(), &st), 0);
        EXPECT_EQ(st.st_uid, 501u) << rel;
        EXPECT_EQ(st.st_gid, 20u) << rel;
    }
    auto again = runEngine({{"--map-noowners-owner", "501:20", tmp / "src", tmp / "dst"}});
    EXPECT_EQ(again.first("summary")->value("items_updated_meta_only", -1), 0) << again.describe();
}

}  // namespace
}  // namespace ql::test

// The engine against real small filesystems mounted for the test (root only): a destination
// that fills up, and clones on a filesystem that shares extents.

#include "support/EngineHarness.h"
#include "support/TreeFixture.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace ql::test {
namespace {

std::string capture(const std::string& command) {
    std::string out;
    if (FILE* p = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, p)) > 0) out.append(buffer, n);
        ::pclose(p);
    }
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    return out;
}

// Unmounts (and detaches its loop device) when the test ends, whatever happened.
struct Mounted {
    std::string point;
    std::string loop;
    ~Mounted() {
        if (!point.empty()) ::umount2(point.c_str(), MNT_DETACH);
        if (!loop.empty()) std::system(("losetup -d " + loop + " 2>/dev/null").c_str());
    }
};

TEST(EngineFilesystems, ADestinationThatFillsUpFailsWithEnospcAndNoPartialFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "mounting a small tmpfs needs root";
    TempDir tmp;
    Tree::write(tmp / "src/a.txt", "small\n");
    Tree::write(tmp / "src/big.bin", std::string(6 << 20, 'x'));
    Tree::write(tmp / "src/z.txt", "after\n");
    const std::string small = tmp / "small";
    Tree::mkdirs(small);
    Mounted m;
    if (::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=2m") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
    }
    m.point = small;

    auto run = runEngine({{tmp / "src", small + "/dst"}});
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    auto failure = run.first("failure");
    ASSERT_TRUE(failure) << run.describe();
    EXPECT_EQ(failure->value("errno_value", 0), ENOSPC);
    EXPECT_NE(failure->value("message", "").find("No space left on device (ENOSPC)"), std::string::npos)
        << failure->dump();
    EXPECT_EQ(failure->value("path", ""), small + "/dst/big.bin");
    EXPECT_FALSE(run.first("summary"));
    EXPECT_FALSE(Tree::exists(small + "/dst/big.bin")) << "nothing partial under a final name";
    EXPECT_TRUE(Tree::temporaries(small + "/dst").empty());
    EXPECT_EQ(Tree::read(small + "/dst/a.txt"), "small\n");
    bool itemLine = false;
    for (const auto& w : run.ofType("warning")) {
        itemLine |= w.value("message", "") == "COPIED FAILED " + small + "/dst/big.bin: No space left on device (ENOSPC)";
    }
    EXPECT_TRUE(itemLine) << run.describe();
}

TEST(EngineFilesystems, ClonesShareExtentsWhereTheFilesystemCan) {
    if (::geteuid() != 0) GTEST_SKIP() << "making a loop filesystem needs root";
    if (std::system("command -v mkfs.btrfs >/dev/null && command -v losetup >/dev/null && command -v filefrag >/dev/null") != 0) {
        GTEST_SKIP() << "mkfs.btrfs, losetup or filefrag is not installed";
    }
    TempDir tmp;
    const std::string image = tmp / "fs.img";
    ASSERT_EQ(std::system(("truncate -s 160M " + image).c_str()), 0);
    Mounted m;
    m.loop = capture("losetup --find --show " + image + " 2>/dev/null");
    if (m.loop.empty()) GTEST_SKIP() << "no loop device available";
    if (std::system(("mkfs.btrfs -q -f " + m.loop + " >/dev/null 2>&1").c_str()) != 0) GTEST_SKIP() << "mkfs.btrfs failed";
    const std::string point = tmp / "mnt";
    Tree::mkdirs(point);
    if (::mount(m.loop.c_str(), point.c_str(), "btrfs", 0, nullptr) != 0) {
        GTEST_SKIP() << "cannot mount btrfs: " << std::strerror(errno);
    }
    m.point = point;
    Tree::write(point + "/src/data.bin", std::string(4 << 20, 'd'));
    Tree::write(point + "/src/small.txt", "s\n");

    auto run = runEngine({{"--clone-families", point + "/src", point + "/dst"}});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(TreeDigest::differences(TreeDigest::of(point + "/src"), TreeDigest::of(point + "/dst")), "");
    ::sync();
    EXPECT_NE(capture("filefrag -v " + point + "/dst/data.bin").find("shared"), std::string::npos)
        << "the copy shares the source's extents";

    auto plain = runEngine({{point + "/src", point + "/plain"}});
    ASSERT_EQ(plain.exitStatus, 0) << plain.describe();
    ::sync();
    EXPECT_EQ(TreeDigest::differences(TreeDigest::of(point + "/src"), TreeDigest::of(point + "/plain")), "");
}

}  // namespace
}  // namespace ql::test

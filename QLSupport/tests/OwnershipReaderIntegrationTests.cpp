#include "QLSupport/OwnershipReader.h"
#include "QLSupport/tests/MachineLimits.h"
#include "QLSupport/ShellRunner.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

using ql::OwnershipReader;
using MountEntry = OwnershipReader::MountEntry;

namespace {

TEST(OwnershipReaderTest, ParsesMountInfoWithOptionalFieldsAndEscapes) {
    const char* text =
        "22 1 0:21 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "36 22 98:0 /mnt1 /mnt/parent rw,noatime master:1 shared:7 - ext3 /dev/root rw,errors=continue\n"
        "40 22 7:0 / /media/My\\040Disk\\011x rw - vfat /dev/loop0 rw,uid=0\n"
        "41 22 7:1 / /back\\134slash rw - exfat /dev/loop\\0401 rw\n"
        "garbage line\n"
        "42 22 7:2 / /no/separator rw shared:2 ext4 /dev/x rw\n"
        "\n";
    const std::vector<MountEntry> expected = {
        {"/", "ext4", "/dev/sda1"},
        {"/mnt/parent", "ext3", "/dev/root"},
        {"/media/My Disk\tx", "vfat", "/dev/loop0"},
        {"/back\\slash", "exfat", "/dev/loop 1"},
    };
    EXPECT_EQ(OwnershipReader::parseMountInfo(text), expected);
}

TEST(OwnershipReaderTest, PicksTheInnermostMountHoldingThePath) {
    const std::vector<MountEntry> mounts = {
        {"/", "ext4", "root"},
        {"/mnt/a", "vfat", "first"},
        {"/mnt/a", "ntfs3", "stacked on top"},
        {"/mnt/ab", "exfat", "sibling"},
        {"/mnt/a/b/c", "xfs", "nested"},
    };
    struct Case {
        const char* path;
        const char* source;
    };
    const Case cases[] = {
        {"/", "root"},           {"/mnt", "root"},           {"/mnt/a", "stacked on top"},
        {"/mnt/a/b", "stacked on top"}, {"/mnt/ab/x", "sibling"}, {"/mnt/a/b/c/d", "nested"},
        {"/mnt/a/b/cd", "stacked on top"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        auto found = OwnershipReader::mountContaining(mounts, c.path);
        ASSERT_TRUE(found);
        EXPECT_EQ(found->source, c.source);
    }
    EXPECT_FALSE(OwnershipReader::mountContaining({{"/mnt/a", "vfat", "x"}}, "/srv"));
}

TEST(OwnershipReaderTest, FilesystemsThatIgnoreOwnership) {
    for (const char* type : {"vfat", "msdos", "exfat", "ntfs", "ntfs3", "fuseblk"}) {
        EXPECT_FALSE(OwnershipReader::filesystemHonoursOwnership(type)) << type;
    }
    for (const char* type : {"ext4", "btrfs", "xfs", "apfs", "hfsplus", "tmpfs", "overlay", "nfs4"}) {
        EXPECT_TRUE(OwnershipReader::filesystemHonoursOwnership(type)) << type;
    }
}

TEST(OwnershipReaderTest, LiveRootHonoursOwnershipAndMissingPathsFail) {
    if (auto why = ql::testing::whyNoVolumeHoldsRoot()) GTEST_SKIP() << *why;

    ql::LiveOwnershipReader reader;
    auto root = reader.read("/");
    ASSERT_TRUE(root) << root.error();
    EXPECT_TRUE(*root);

    auto missing = reader.read("/nonexistent/ql-volume");
    ASSERT_FALSE(missing);
    EXPECT_NE(missing.error().find("/nonexistent/ql-volume"), std::string::npos) << missing.error();
}

// A real FAT volume on a loop device, mounted at a path with a space in it (written as \040 in
// the mount table).
TEST(OwnershipReaderTest, LiveFatVolumeIgnoresOwnership) {
    if (::geteuid() != 0) GTEST_SKIP() << "mounting a FAT image needs root";
    if (!std::filesystem::exists("/sbin/mkfs.vfat") && !std::filesystem::exists("/usr/sbin/mkfs.vfat")) {
        GTEST_SKIP() << "mkfs.vfat (dosfstools) is not installed";
    }
    ql::BlockingPool pool(1);
    ql::LiveShellRunner runner(pool);
    auto run = [&](std::string executable, std::vector<std::string> arguments) {
        return ql::ShellRunner::requireSuccess(
            runner.runBlocking(ql::ShellCommand{executable, std::move(arguments), {}, std::chrono::seconds(20), {}, {}}),
            executable);
    };

    std::string pattern = (std::filesystem::temp_directory_path() / "ql ownership XXXXXX").string();
    const std::filesystem::path dir = ::mkdtemp(pattern.data());
    const auto image = dir / "fat.img";
    const auto mountPoint = dir / "mount point";
    std::filesystem::create_directory(mountPoint);
    { std::ofstream create(image); }
    std::filesystem::resize_file(image, 8 << 20);

    auto mkfs = run(std::filesystem::exists("/usr/sbin/mkfs.vfat") ? "/usr/sbin/mkfs.vfat" : "/sbin/mkfs.vfat",
                    {image.string()});
    ASSERT_TRUE(mkfs) << mkfs.error().message();
    auto mounted = run("/bin/mount", {"-t", "vfat", "-o", "loop", image.string(), mountPoint.string()});
    if (!mounted) {
        std::filesystem::remove_all(dir);
        GTEST_SKIP() << "cannot mount a loop device here: " << mounted.error().message();
    }
    std::filesystem::create_directory(mountPoint / "inner");

    ql::LiveOwnershipReader reader;
    auto atMount = reader.read(mountPoint);
    auto inside = reader.read(mountPoint / "inner");
    auto beside = reader.read(dir);

    auto unmounted = run("/bin/umount", {mountPoint.string()});
    EXPECT_TRUE(unmounted) << unmounted.error().message();
    std::filesystem::remove_all(dir);

    ASSERT_TRUE(atMount) << atMount.error();
    EXPECT_FALSE(*atMount);
    ASSERT_TRUE(inside) << inside.error();
    EXPECT_FALSE(*inside);
    ASSERT_TRUE(beside) << beside.error();
    EXPECT_TRUE(*beside);
}

}  // namespace

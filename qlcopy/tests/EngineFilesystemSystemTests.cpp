// The engine against real small filesystems mounted for the test (root only): a destination
// that fills up, and clones on a filesystem that shares extents.

#include "support/EngineHarness.h"
#include "support/TreeFixture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fscrypt.h>
#include <sys/ioctl.h>
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
    // Two copy threads: big.bin fills the disk, and z.txt, copied beside it, may be the one that
    // meets the full disk first. Either way the run stops with that file's ENOSPC.
    const auto failedPath = failure->value("path", "");
    EXPECT_TRUE(failedPath == small + "/dst/big.bin" || failedPath == small + "/dst/z.txt") << failedPath;
    EXPECT_FALSE(run.first("summary"));
    EXPECT_FALSE(Tree::exists(small + "/dst/big.bin")) << "nothing partial under a final name";
    EXPECT_TRUE(Tree::temporaries(small + "/dst").empty());
    // The small files land or not depending on the scheduling, but never in part.
    for (const auto& [name, text] : {std::pair{"a.txt", "small\n"}, {"z.txt", "after\n"}}) {
        if (Tree::exists(small + "/dst/" + name)) {
            EXPECT_EQ(Tree::read(small + "/dst/" + name), text) << name;
        }
    }
    bool itemLine = false;
    for (const auto& w : run.ofType("warning")) {
        itemLine |= w.value("message", "") == "COPIED FAILED " + failedPath + ": No space left on device (ENOSPC)";
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

TEST(EngineFilesystems, FilesWhoseKeyIsAbsentAreDeferredWhileTheSentinelIsLocked) {
    if (::geteuid() != 0) GTEST_SKIP() << "making an encrypted loop filesystem needs root";
    if (std::system("command -v mkfs.ext4 >/dev/null && command -v losetup >/dev/null") != 0) {
        GTEST_SKIP() << "mkfs.ext4 or losetup is not installed";
    }
    TempDir tmp;
    const std::string image = tmp / "fs.img";
    ASSERT_EQ(std::system(("truncate -s 64M " + image).c_str()), 0);
    Mounted m;
    m.loop = capture("losetup --find --show " + image + " 2>/dev/null");
    if (m.loop.empty()) GTEST_SKIP() << "no loop device available";
    if (std::system(("mkfs.ext4 -q -b 4096 -O encrypt " + m.loop + " >/dev/null 2>&1").c_str()) != 0) {
        GTEST_SKIP() << "mkfs.ext4 cannot make an encrypting filesystem";
    }
    const std::string point = tmp / "mnt";
    Tree::mkdirs(point);
    if (::mount(m.loop.c_str(), point.c_str(), "ext4", 0, nullptr) != 0) GTEST_SKIP() << "cannot mount ext4";
    m.point = point;

    // A folder encrypted with a key of its own, then locked by removing the key.
    Tree::mkdirs(point + "/home");
    int rootFd = ::open(point.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(rootFd, 0);
    std::vector<unsigned char> buffer(sizeof(fscrypt_add_key_arg) + 64);
    auto* add = reinterpret_cast<fscrypt_add_key_arg*>(buffer.data());
    add->key_spec.type = FSCRYPT_KEY_SPEC_TYPE_IDENTIFIER;
    add->raw_size = 64;
    for (int i = 0; i < 64; ++i) add->raw[i] = static_cast<unsigned char>(i * 7 + 3);
    if (::ioctl(rootFd, FS_IOC_ADD_ENCRYPTION_KEY, add) != 0) {
        ::close(rootFd);
        GTEST_SKIP() << "the kernel does not take fscrypt keys: " << std::strerror(errno);
    }
    fscrypt_policy_v2 policy{};
    policy.version = FSCRYPT_POLICY_V2;
    policy.contents_encryption_mode = FSCRYPT_MODE_AES_256_XTS;
    policy.filenames_encryption_mode = FSCRYPT_MODE_AES_256_CTS;
    policy.flags = FSCRYPT_POLICY_FLAGS_PAD_32;
    std::memcpy(policy.master_key_identifier, add->key_spec.u.identifier, FSCRYPT_KEY_IDENTIFIER_SIZE);
    int homeFd = ::open((point + "/home").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(homeFd, 0);
    if (::ioctl(homeFd, FS_IOC_SET_ENCRYPTION_POLICY, &policy) != 0) {
        ::close(homeFd);
        ::close(rootFd);
        GTEST_SKIP() << "cannot set an encryption policy: " << std::strerror(errno);
    }
    ::close(homeFd);
    Tree::write(point + "/home/document.txt", "private\n");
    Tree::write(point + "/home/sentinel", "sentinel\n");
    Tree::write(point + "/plain.txt", "public\n");
    ::sync();
    fscrypt_remove_key_arg remove{};
    remove.key_spec = add->key_spec;
    ASSERT_EQ(::ioctl(rootFd, FS_IOC_REMOVE_ENCRYPTION_KEY, &remove), 0) << std::strerror(errno);
    ::close(rootFd);

    auto deferring = runEngine({{"--keybag-sentinel", point + "/home/sentinel", "--keybag-uid", "0", "--keybag-home",
                                 point + "/home", point, tmp / "dst"}});
    EXPECT_EQ(deferring.exitStatus, 0) << deferring.describe();
    auto summary = deferring.first("summary");
    ASSERT_TRUE(summary) << deferring.describe();
    EXPECT_EQ(summary->value("errors", -1), 0);
    EXPECT_EQ(summary->value("deferred_count", 0), 2);
    ASSERT_EQ((*summary)["deferred_paths"].size(), 2u);
    for (const auto& p : (*summary)["deferred_paths"]) EXPECT_EQ(p.get<std::string>().rfind(point + "/home/", 0), 0u);
    EXPECT_EQ(Tree::read(tmp / "dst/plain.txt"), "public\n");

    // With no keybag to consult, an absent key is an ordinary error.
    auto plain = runEngine({{"--no-keybag", point, tmp / "dst2"}});
    EXPECT_EQ(plain.exitStatus, 1) << plain.describe();
    EXPECT_EQ(plain.summaryInt("errors"), 2);
    EXPECT_EQ(plain.first("summary")->value("first_error_errno", 0), ENOKEY);
}

}  // namespace
}  // namespace ql::test

#include "QLModel/FilesystemFamilyClassifier.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace ql {
namespace {

namespace fs = std::filesystem;

// Formats a small image file, loop-mounts it and classifies the mount as the disk probe would
// when the device reports no content name.
class MountedImage {
public:
    MountedImage(const std::string& mkfs) {
        char pattern[] = "/tmp/ql-family-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) return;
        root_ = pattern;
        const auto image = root_ / "disk.img";
        mountPoint_ = root_ / "mnt";
        fs::create_directories(mountPoint_);
        std::string cmd = "truncate -s 64M '" + image.string() + "' && " + mkfs + " '" + image.string() +
                          "' >/dev/null 2>&1 && mount -o loop '" + image.string() + "' '" + mountPoint_.string() +
                          "' 2>/dev/null";
        mounted_ = std::system(cmd.c_str()) == 0;
    }
    ~MountedImage() {
        if (mounted_) std::system(("umount '" + mountPoint_.string() + "'").c_str());
        if (!root_.empty()) fs::remove_all(root_);
    }
    bool mounted() const { return mounted_; }
    const fs::path& mountPoint() const { return mountPoint_; }

private:
    fs::path root_;
    fs::path mountPoint_;
    bool mounted_ = false;
};

TEST(LiveFilesystemFamily, LoopMountedFilesystemsClassifyByTheirMountedType) {
    if (::geteuid() != 0) GTEST_SKIP() << "loop-mounting a filesystem image needs root";
    struct Case {
        const char* mkfs;
        const char* typeName;
        FilesystemFamily family;
    };
    const Case cases[] = {
        {"mkfs.vfat -F 32", "msdos", FilesystemFamily::fat32},
        {"mkfs.ext4 -q -F", "ext4", FilesystemFamily::other},
    };
    std::string skipped;
    int checked = 0;
    for (const auto& c : cases) {
        MountedImage image(c.mkfs);
        if (!image.mounted()) {
            // Kernels in containers often lack some filesystems (vfat); check the others.
            skipped += std::string(skipped.empty() ? "" : "; ") + "could not format and loop-mount " + c.mkfs;
            continue;
        }
        ++checked;
        auto typeName = FilesystemFamilyClassifier::liveTypeName(image.mountPoint().string());
        ASSERT_TRUE(typeName) << c.mkfs << ": errno " << typeName.error();
        EXPECT_EQ(*typeName, c.typeName) << c.mkfs;
        // A folder inside the mount reads the same filesystem.
        fs::create_directories(image.mountPoint() / "Sub");
        EXPECT_EQ(FilesystemFamilyClassifier::liveTypeName((image.mountPoint() / "Sub").string()).value_or(""),
                  c.typeName);
        FilesystemFamilyClassifier classifier;
        EXPECT_EQ(classifier.classify({std::nullopt, std::nullopt, image.mountPoint().string()}), c.family) << c.mkfs;
        EXPECT_EQ(classifier.classify({"Microsoft Basic Data", std::nullopt, image.mountPoint().string()}), c.family);
    }
    if (checked == 0) GTEST_SKIP() << skipped;
    if (!skipped.empty()) std::printf("note: %s\n", skipped.c_str());
}

}  // namespace
}  // namespace ql

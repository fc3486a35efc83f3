#include "QLSupport/AtomicFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace ql {
namespace {

namespace fs = std::filesystem;

class AtomicFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ql-atomic-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override {
        ::chmod(dir.c_str(), 0755);
        fs::remove_all(dir);
    }
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    fs::path dir;
};

TEST_F(AtomicFileTest, ReplacesContentAndLeavesNoTemporaryFile) {
    auto target = dir / "tiles.json";
    ASSERT_TRUE(AtomicFile::write(target, "first"));
    ASSERT_TRUE(AtomicFile::write(target, "second", 0600));
    EXPECT_EQ(AtomicFile::read(target).value(), "second");
    EXPECT_EQ(entries(), std::vector<std::string>{"tiles.json"});
    struct stat st {};
    ASSERT_EQ(::stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(AtomicFileTest, FailureInReadOnlyDirectoryKeepsThePreviousFile) {
    // Root writes through directory permissions, so as root the directory becomes a read-only
    // bind mount instead.
    bool mounted = false;
    if (::geteuid() == 0) {
        std::string cmd = "mount --bind " + dir.string() + " " + dir.string() + " && mount -o remount,bind,ro " +
                          dir.string() + " " + dir.string();
        auto target = dir / "config.json";
        ASSERT_TRUE(AtomicFile::write(target, "previous"));
        if (std::system(cmd.c_str()) != 0) {
            std::system(("umount " + dir.string() + " 2>/dev/null").c_str());
            GTEST_SKIP() << "running as root and a read-only bind mount is not possible here";
        }
        mounted = true;
    }
    auto target = dir / "config.json";
    if (!mounted) {
        ASSERT_TRUE(AtomicFile::write(target, "previous"));
        ASSERT_EQ(::chmod(dir.c_str(), 0555), 0);
    }
    auto result = AtomicFile::write(target, "new");
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().step, "open");
    EXPECT_NE(result.error().message().find("config.json"), std::string::npos);
    if (mounted) std::system(("umount " + dir.string()).c_str());
    ::chmod(dir.c_str(), 0755);
    EXPECT_EQ(AtomicFile::read(target).value(), "previous");
    EXPECT_EQ(entries(), std::vector<std::string>{"config.json"});
}

TEST_F(AtomicFileTest, ReadReportsTheErrno) {
    auto missing = AtomicFile::read(dir / "absent");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error(), ENOENT);
}

}  // namespace
}  // namespace ql

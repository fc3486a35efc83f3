#include "QLModel/FilesystemFamilyClassifier.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace ql {
namespace {

#if defined(__linux__)
TEST(LiveFilesystemTypeName, ReadsTheMountedFilesystemOfAPath) {
    auto proc = FilesystemFamilyClassifier::liveTypeName("/proc/self");
    ASSERT_TRUE(proc) << proc.error();
    EXPECT_EQ(*proc, "proc");

    auto missing = FilesystemFamilyClassifier::liveTypeName("/nonexistent/quillo/mount");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error(), ENOENT);

    // A mount point the live call cannot read classifies as other, never as a guess.
    FilesystemFamilyClassifier classifier;
    EXPECT_EQ(classifier.classify({std::nullopt, std::nullopt, "/nonexistent/quillo/mount"}), FilesystemFamily::other);
    EXPECT_EQ(classifier.classify({std::nullopt, std::nullopt, "/proc"}), FilesystemFamily::other);
}
#endif

}  // namespace
}  // namespace ql

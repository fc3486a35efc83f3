#include "QLModel/VolumeResolverEnvironment.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace ql {
namespace {

std::string fixture(const std::string& name) {
    std::ifstream in(std::string(QL_TEST_SOURCE_DIR) + "/fixtures/diskutil/" + name);
    EXPECT_TRUE(in) << name;
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

TEST(VolumeResolverEnvironment, readsAttachedImagesFromHdiutil) {
    auto images = VolumeResolverEnvironment::attachedImagesFromHdiutilInfo(fixture("hdiutil-info.plist"));
    ASSERT_EQ(images.size(), 2u);
    EXPECT_EQ(images[0], (AttachedImageEntry{"/Volumes/Archive/Images/Work.dmg", {"disk9", "disk9s1"}, std::nullopt}));
    EXPECT_EQ(images[1], (AttachedImageEntry{"/Users/me/Clone.sparsebundle", {"disk10"}, std::nullopt}));
    EXPECT_TRUE(VolumeResolverEnvironment::attachedImagesFromHdiutilInfo("not a plist").empty());
}

TEST(VolumeResolverEnvironment, shareURLsFromMountSources) {
    struct Case {
        const char* type;
        const char* source;
        std::optional<std::string> url;
    };
    const Case cases[] = {
        {"smbfs", "//alice@nas.local/Backups", "smb://alice@nas.local/Backups"},
        {"cifs", "//192.168.1.10/Media", "smb://192.168.1.10/Media"},
        {"smb3", "//nas/share", "smb://nas/share"},
        {"nfs", "nas.local:/export/backups", "nfs://nas.local/export/backups"},
        {"nfs4", "[fd00::1]:/srv", "nfs://[fd00::1]/srv"},
        {"nfs", "nas.local:relative", "nfs://nas.local/relative"},
        {"afpfs", "//bob@mac.local/Share", "afp://bob@mac.local/Share"},
        {"fuse.afpfs", "afp://mac.local/Share", "afp://mac.local/Share"},
        {"cifs", "nas/share", std::nullopt},
        {"nfs", ":/export", std::nullopt},
        {"ext4", "/dev/vda", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(VolumeResolverEnvironment::shareURLFromMountSource(c.type, c.source), c.url)
            << c.type << " " << c.source;
    }
}

TEST(VolumeResolverEnvironment, aliasPairsAreOrderAndCaseBlind) {
    auto pair = VolumeResolverEnvironment::hostAliasPair("NAS.local", "192.168.1.10");
    EXPECT_EQ(pair, std::string("192.168.1.10") + '\0' + "nas.local");
    EXPECT_EQ(pair, VolumeResolverEnvironment::hostAliasPair("192.168.1.10", "nas.LOCAL"));
}

}  // namespace
}  // namespace ql

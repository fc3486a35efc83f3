#if defined(__linux__)

#include "QLModel/LinuxBlockDeviceProbe.h"

#include <gtest/gtest.h>

namespace ql {
namespace {

using Facts = LinuxBlockDeviceProbe::FilesystemFacts;

TEST(LinuxBlockDeviceProbe, filesystemUUIDsAreVolumeUUIDs) {
    Facts ext4{"ext4", "3f2504e0-4f89-41d3-9a0c-0305e82c3301", "Archive", "1.0"};
    EXPECT_EQ(LinuxBlockDeviceProbe::volumeUUIDOf(ext4), Uuid::parse("3F2504E0-4F89-41D3-9A0C-0305E82C3301").value());
    EXPECT_EQ(LinuxBlockDeviceProbe::volumeUUIDOf(Facts{"ext4", std::nullopt, std::nullopt, std::nullopt}),
              std::nullopt);
}

TEST(LinuxBlockDeviceProbe, shortSerialsGiveStableDistinctUUIDs) {
    auto fat = LinuxBlockDeviceProbe::volumeUUIDOf(Facts{"vfat", "1A2B-3C4D", "CAMERA", "FAT32"});
    ASSERT_TRUE(fat);
    // Stable: the same serial, spelt in either case, always gives the same UUID.
    EXPECT_EQ(fat, LinuxBlockDeviceProbe::volumeUUIDOf(Facts{"vfat", "1a2b-3c4d", std::nullopt, "FAT16"}));
    // Distinct across serials and filesystem types.
    EXPECT_NE(fat, LinuxBlockDeviceProbe::volumeUUIDOf(Facts{"vfat", "1A2B-3C4E", std::nullopt, std::nullopt}));
    EXPECT_NE(fat, LinuxBlockDeviceProbe::volumeUUIDOf(Facts{"exfat", "1A2B-3C4D", std::nullopt, std::nullopt}));
    // A well-formed UUID: version 8, RFC variant.
    EXPECT_EQ(fat->bytes()[6] >> 4, 8);
    EXPECT_EQ(fat->bytes()[8] >> 6, 2);
    EXPECT_TRUE(LinuxBlockDeviceProbe::volumeUUIDOf(Facts{"ntfs", "0123456789ABCDEF", std::nullopt, std::nullopt}));
}

TEST(LinuxBlockDeviceProbe, namesInTheDiskToolsVocabulary) {
    EXPECT_EQ(LinuxBlockDeviceProbe::schemeName("gpt"), "GUID_partition_scheme");
    EXPECT_EQ(LinuxBlockDeviceProbe::schemeName("dos"), "FDisk_partition_scheme");
    EXPECT_EQ(LinuxBlockDeviceProbe::schemeName("mac"), "Apple_partition_scheme");
    EXPECT_EQ(LinuxBlockDeviceProbe::schemeName("atari"), "atari");

    EXPECT_EQ(LinuxBlockDeviceProbe::mbrContentName("0x0c"), "DOS_FAT_32");
    EXPECT_EQ(LinuxBlockDeviceProbe::mbrContentName("0x07"), "Windows_NTFS");
    EXPECT_EQ(LinuxBlockDeviceProbe::mbrContentName("0x83"), "Linux");
    EXPECT_EQ(LinuxBlockDeviceProbe::mbrContentName("0x42"), "0x42");

    struct Case {
        Facts facts;
        std::optional<std::string> content;
        std::optional<std::string> personality;
    };
    const Case cases[] = {
        {{"vfat", "1A2B-3C4D", std::nullopt, "FAT32"}, "DOS_FAT_32", "MS-DOS FAT32"},
        {{"vfat", "1A2B-3C4D", std::nullopt, "FAT16"}, "DOS_FAT_16", "MS-DOS FAT16"},
        {{"exfat", "1A2B-3C4D", std::nullopt, std::nullopt}, "Windows_exFAT", "ExFAT"},
        {{"ntfs", "0123456789ABCDEF", std::nullopt, std::nullopt}, "Windows_NTFS", "NTFS"},
        {{"hfsplus", std::nullopt, std::nullopt, std::nullopt}, "Apple_HFS", "Mac OS Extended"},
        {{"apfs", std::nullopt, std::nullopt, std::nullopt}, "Apple_APFS", "APFS"},
        {{"ext4", std::nullopt, std::nullopt, "1.0"}, "Linux", "ext4"},
        {{"crypto_LUKS", std::nullopt, std::nullopt, "2"}, "crypto_LUKS", "crypto_LUKS"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(LinuxBlockDeviceProbe::filesystemContentName(c.facts), c.content) << c.facts.type;
        EXPECT_EQ(LinuxBlockDeviceProbe::filesystemPersonality(c.facts), c.personality) << c.facts.type;
    }
}

TEST(LinuxBlockDeviceProbe, unknownDevicesAreUnreadable) {
    LinuxBlockDeviceProbe probe;
    auto info = probe.describeNow("no-such-disk");
    ASSERT_FALSE(info);
    EXPECT_EQ(info.error(), DiskutilError::deviceUnreadable("no-such-disk", "there is no such block device"));
    EXPECT_FALSE(probe.describeNow("../sda"));
}

}  // namespace
}  // namespace ql

#endif

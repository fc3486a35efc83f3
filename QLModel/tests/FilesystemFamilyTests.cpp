#include "QLModel/FilesystemFamily.h"
#include "QLModel/FilesystemFamilyClassifier.h"
#include "QLModel/PartitionContentName.h"

#include <gtest/gtest.h>

#include <map>

namespace ql {
namespace {

using FF = FilesystemFamily;

TEST(FilesystemFamilyWire, TokensFollowTheTableAndReadBackExactly) {
    const std::pair<FF, const char*> table[] = {
        {FF::apfsContainer, "apfs"}, {FF::apfs, "apfsvolume"}, {FF::hfsPlus, "hfs+"}, {FF::exfat, "exfat"},
        {FF::fat32, "fat32"},        {FF::ntfs, "ntfs"},       {FF::smb, "smb"},      {FF::afp, "afp"},
        {FF::nfs, "nfs"},            {FF::other, "other"},
    };
    ASSERT_EQ(std::size(table), std::size(kAllFilesystemFamilies));
    for (auto [family, token] : table) {
        EXPECT_EQ(wireToken(family), token);
        EXPECT_EQ(filesystemFamilyFromWireToken(token), family) << token;
        EXPECT_EQ(fromJson<FF>(toJson(family)).value(), family);
    }
    for (const char* unknown : {"HFS+", "APFS", "apfsContainer", "", "fat16", " hfs+"}) {
        EXPECT_EQ(filesystemFamilyFromWireToken(unknown), FF::other) << unknown;
    }
    EXPECT_EQ(toJson(FF::hfsPlus), "hfsPlus");
    EXPECT_EQ(fromJson<FF>(Json("apfsvolume")).error().kind, ModelDecodeError::Kind::unknownCase);
}

TEST(PartitionContentNames, TypeGuidsMapToContentNamesAfterUpperCasing) {
    const std::pair<const char*, const char*> table[] = {
        {"7C3457EF-0000-11AA-AA11-00306543ECAC", "Apple_APFS"},
        {"7c3457ef-0000-11aa-aa11-00306543ecac", "Apple_APFS"},
        {"EF57347C-0000-11AA-AA11-00306543ECAC", "Apple_APFS_Container"},
        {"69646961-6700-11AA-AA11-00306543ECAC", "Apple_APFS_ISC"},
        {"52637672-7900-11aa-AA11-00306543ECAC", "Apple_APFS_Recovery"},
        {"48465300-0000-11AA-AA11-00306543ECAC", "Apple_HFS"},
        {"426F6F74-0000-11AA-AA11-00306543ECAC", "Apple_Boot"},
        {"ebd0a0a2-b9e5-4433-87c0-68b6b72699c7", "Microsoft Basic Data"},
        {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI"},
        // Unknown GUIDs and content names pass through untouched, case and all.
        {"0fc63daf-8483-4772-8e79-3d69d8477de4", "0fc63daf-8483-4772-8e79-3d69d8477de4"},
        {"41504653-0000-11AA-AA11-00306543ECAC", "41504653-0000-11AA-AA11-00306543ECAC"},
        {"Apple_HFS", "Apple_HFS"},
        {"DOS_FAT_32", "DOS_FAT_32"},
    };
    for (auto [input, expected] : table) {
        EXPECT_EQ(PartitionContentName::fromTypeGUID(std::string_view(input)), expected) << input;
    }
    EXPECT_EQ(PartitionContentName::fromTypeGUID(std::nullopt), std::nullopt);
    EXPECT_EQ(PartitionContentName::fromTypeGUID(std::string_view()), std::nullopt);
}

TEST(FilesystemFamilyClassifierRules, ContentNameTypeNameAndMountedNameDecideInThatOrder) {
    struct Case {
        const char* name;
        DeviceFilesystemFacts facts;
        FF expected;
        bool asksStatistics;
    };
    const std::optional<std::string> none;
    const Case cases[] = {
        {"apfs container", {"Apple_APFS", none, "/Volumes/X"}, FF::apfsContainer, false},
        {"apfs recovery prefix", {"Apple_APFS_Recovery", none, none}, FF::apfsContainer, false},
        {"hfs", {"Apple_HFS", none, none}, FF::hfsPlus, false},
        {"hfsx", {"Apple_HFSX", "whatever", "/m/msdos"}, FF::hfsPlus, false},
        {"basic data exfat", {"Microsoft Basic Data", "ExFAT", "/m/apfs"}, FF::exfat, false},
        {"basic data fat32", {"Microsoft Basic Data", "MS-DOS FAT32", none}, FF::fat32, false},
        {"basic data ms-dos", {"Microsoft Basic Data", "MS-DOS (FAT16)", none}, FF::fat32, false},
        {"basic data ntfs", {"Microsoft Basic Data", "Windows NTFS", none}, FF::ntfs, false},
        {"basic data unknown type falls to mount", {"Microsoft Basic Data", "ext4", "/m/msdos"}, FF::fat32, true},
        {"basic data no type falls to mount", {"Microsoft Basic Data", none, "/m/exfat"}, FF::exfat, true},
        {"basic data no type no mount", {"Microsoft Basic Data", none, none}, FF::other, false},
        {"other content no mount", {"Linux Filesystem", none, none}, FF::other, false},
        {"mounted apfs", {none, none, "/m/apfs"}, FF::apfsContainer, true},
        {"mounted APFS upper", {none, none, "/m/APFS"}, FF::apfsContainer, true},
        {"mounted hfs", {none, none, "/m/hfs"}, FF::hfsPlus, true},
        {"mounted ntfs", {none, none, "/m/ntfs"}, FF::ntfs, true},
        {"mounted ufsd_NTFS", {none, none, "/m/ufsd_NTFS"}, FF::ntfs, true},
        {"mounted fuse exfat", {none, none, "/m/fuse-exfat"}, FF::exfat, true},
        {"mounted smbfs is not smb", {none, none, "/m/smbfs"}, FF::other, true},
        {"mounted nfs is not nfs", {none, none, "/m/nfs"}, FF::other, true},
        {"statistics call fails", {none, none, "/m/fail"}, FF::other, true},
        {"empty mount point", {none, none, ""}, FF::other, false},
        {"nothing known", {none, none, none}, FF::other, false},
    };
    for (const auto& c : cases) {
        std::vector<std::string> asked;
        FilesystemFamilyClassifier classifier([&](const std::string& mountPoint) -> tl::expected<std::string, int> {
            asked.push_back(mountPoint);
            if (mountPoint == "/m/fail") return tl::unexpected(ENOENT);
            return mountPoint.substr(3);  // "/m/<type name>"
        });
        EXPECT_EQ(classifier.classify(c.facts), c.expected) << c.name;
        EXPECT_EQ(!asked.empty(), c.asksStatistics) << c.name;
    }
}

TEST(FilesystemFamilyClassifierRules, TypeNamesAreNulTerminatedWithinSixteenBytesAndRepaired) {
    struct Case {
        std::string buffer;
        std::string expected;
    };
    const Case cases[] = {
        {std::string("apfs\0garbage", 12), "apfs"},
        {"0123456789abcdefXYZ", "0123456789abcdef"},  // no NUL: the 16-byte field ends it
        {"bad\xFFname", "bad\xEF\xBF\xBDname"},
        {"caf\xC3\xA9", "caf\xC3\xA9"},
        {"cut\xE2\x82", "cut\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FilesystemFamilyClassifier::decodeTypeName(c.buffer.data(), c.buffer.size()), c.expected);
    }
}

}  // namespace
}  // namespace ql

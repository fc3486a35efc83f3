#include "QLModel/DiskutilProbe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace ql {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

Uuid uuid(std::string_view text) { return Uuid::parse(text).value(); }

std::string fixture(const std::string& name) {
    std::ifstream in(std::string(QL_TEST_SOURCE_DIR) + "/fixtures/diskutil/" + name);
    EXPECT_TRUE(in) << name;
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

ShellRunner::Outcome succeeded(std::string stdout) { return ShellRunner::Result{0, std::move(stdout), {}}; }

PlistDictionary root(const std::string& name) {
    auto dict = DiskutilProbe::outputDictionary(succeeded(fixture(name)));
    EXPECT_TRUE(dict) << dict.error();
    return dict ? *dict : PlistDictionary{};
}

template <typename T>
T run(asio::awaitable<T> operation) {
    asio::io_context io;
    std::optional<T> result;
    asio::co_spawn(io, std::move(operation), [&](std::exception_ptr error, T value) {
        if (error) std::rethrow_exception(error);
        result = std::move(value);
    });
    io.run();
    return std::move(*result);
}

TEST(DiskutilProbe, mapsTheDiskListing) {
    auto list = DiskutilProbe::mapList(root("list.plist"));
    ASSERT_TRUE(list) << list.error();
    const auto& disks = list->allDisksAndPartitions;
    ASSERT_EQ(disks.size(), 5u);

    EXPECT_EQ(disks[0], (ProbeDisk{"disk0",
                                   "GUID_partition_scheme",
                                   {{"disk0s1", "EFI", 524'288'000, uuid("A1B2C3D4-0000-4000-8000-000000000001"),
                                     uuid("0E239BC6-F960-3107-89CF-1C97F78BB46B")},
                                    // A lower-case GUID reads the same.
                                    {"disk0s2", "Apple_APFS", 994'662'584'320ULL,
                                     uuid("A1B2C3D4-0000-4000-8000-000000000002"), std::nullopt}},
                                   {},
                                   {}}));
    EXPECT_EQ(disks[1].content, "EF57347C-0000-11AA-AA11-00306543ECAC");
    EXPECT_THAT(disks[1].apfsPhysicalStores, ElementsAre("disk0s2"));
    EXPECT_THAT(disks[1].apfsVolumes,
                ElementsAre(ProbeAPFSVolume{"disk3s1", "Macintosh HD", 994'662'584'320ULL, "/"},
                            ProbeAPFSVolume{"disk3s5", "Data", 994'662'584'320ULL, "/System/Volumes/Data"}));
    EXPECT_EQ(disks[2].partitions.at(0).volumeUUID, uuid("D6C2B0A2-1F5B-3C2E-9A41-7E6F8D9C0B1A"));
    EXPECT_EQ(disks[3], (ProbeDisk{"disk6", "Apple_HFS", {}, {}, {}}));
    // Physical stores in every shape; values of the wrong type are left out.
    EXPECT_EQ(disks[4], (ProbeDisk{"disk7", std::nullopt, {}, {}, {"disk6s2", "disk6s3"}}));
}

TEST(DiskutilProbe, mapsAPartitionDescription) {
    auto info = DiskutilProbe::mapInfo(root("info-hfs-partition.plist"));
    ASSERT_TRUE(info) << info.error();
    ProbeInfo expected;
    expected.deviceIdentifier = "disk2s2";
    expected.volumeName = "Archive";
    expected.mountPoint = "/Volumes/Archive";
    expected.totalSize = 999'860'912'128ULL;
    expected.diskUUID = uuid("3F2504E0-4F89-41D3-9A0C-0305E82C3301");
    expected.volumeUUID = uuid("9B5E3C1A-2D4F-3A6B-8C7D-1E2F3A4B5C6D");
    expected.partitionMapPartition = true;
    expected.content = "48465300-0000-11AA-AA11-00306543ECAC";
    expected.filesystemPersonality = "Journaled HFS+";
    expected.volumeUsedSpace = 587'860'912'128ULL;
    expected.volumeFreeSpace = 412'000'000'000ULL;
    expected.wholeDisk = false;
    expected.parentWholeDisk = "disk2";
    expected.mediaType = "Generic";
    EXPECT_EQ(*info, expected);
}

TEST(DiskutilProbe, mapsAnAPFSVolumeDescription) {
    auto info = DiskutilProbe::mapInfo(root("info-apfs-volume.plist"));
    ASSERT_TRUE(info) << info.error();
    EXPECT_EQ(info->apfsContainerReference, "disk3");
    EXPECT_EQ(info->apfsContainerUUID, uuid("4D5E6F70-8192-4A3B-9C4D-5E6F70819203"));
    EXPECT_THAT(info->apfsPhysicalStores, ElementsAre("disk0s2"));
    EXPECT_THAT(info->apfsVolumeRole, ElementsAre("Data"));
    EXPECT_EQ(info->apfsVolumeGroupUUID, uuid("6E7F8A9B-0C1D-4E2F-A3B4-C5D6E7F8A9B0"));
    EXPECT_EQ(info->content, "41504653-0000-11AA-AA11-00306543ECAC");
    EXPECT_FALSE(info->partitionMapPartition);
    EXPECT_EQ(info->wholeDisk, false);
    EXPECT_FALSE(info->wholeDiskRegistryID);  // never in the tool's output
    EXPECT_FALSE(info->mbrPartition);
}

TEST(DiskutilProbe, valuesOfTheWrongTypeReadAsAbsent) {
    auto info = DiskutilProbe::mapInfo(root("info-odd-types.plist"));
    ASSERT_TRUE(info) << info.error();
    ProbeInfo expected;
    expected.deviceIdentifier = "disk9";
    EXPECT_EQ(*info, expected);
}

TEST(DiskutilProbe, mapsTheAPFSListing) {
    auto containers = DiskutilProbe::mapAPFSContainers(root("apfs-list.plist"));
    ASSERT_TRUE(containers) << containers.error();
    ASSERT_EQ(containers->size(), 2u);
    const auto& system = (*containers)[0];
    EXPECT_EQ(system.containerReference, "disk3");
    EXPECT_EQ(system.containerUUID, uuid("4D5E6F70-8192-4A3B-9C4D-5E6F70819203"));
    EXPECT_THAT(system.physicalStores, ElementsAre("disk0s2"));
    EXPECT_EQ(system.capacityCeiling, 994'662'584'320ULL);
    EXPECT_EQ(system.capacityFree, 412'000'000'000ULL);
    ASSERT_EQ(system.volumes.size(), 3u);
    EXPECT_EQ(system.volumes[1], (ProbeAPFSContainerVolume{"disk3s5",
                                                           uuid("7A8B9C0D-1E2F-4A3B-8C4D-5E6F7A8B9C0D"),
                                                           "Data",
                                                           {"Data"},
                                                           uuid("6E7F8A9B-0C1D-4E2F-A3B4-C5D6E7F8A9B0"),
                                                           560'000'000'000ULL}));
    EXPECT_EQ(system.volumes[2], (ProbeAPFSContainerVolume{
                                     "disk3s2", std::nullopt, "Preboot", {"Preboot"}, std::nullopt, 1'100'000'000ULL}));
    EXPECT_THAT((*containers)[1].physicalStores, ElementsAre("disk7"));
    EXPECT_TRUE((*containers)[1].volumes[0].roles.empty());
}

TEST(DiskutilProbe, binaryOutputReadsLikeXML) {
    auto parsed = PropertyList::read(fixture("list.plist"));
    ASSERT_TRUE(parsed);
    auto binary = PropertyList::writeBinary(*parsed);
    ASSERT_TRUE(binary);
    auto dict = DiskutilProbe::outputDictionary(succeeded(*binary));
    ASSERT_TRUE(dict) << dict.error();
    EXPECT_EQ(DiskutilProbe::mapList(*dict), DiskutilProbe::mapList(root("list.plist")));
}

struct FailureCase {
    const char* name;
    ShellRunner::Outcome outcome;
    DiskutilError::Kind kind;
    std::string detail;  // the stderr, parse detail or key
    std::int32_t exitCode = 0;
};

void PrintTo(const FailureCase& c, std::ostream* out) { *out << c.name; }

class DiskutilFailures : public ::testing::TestWithParam<FailureCase> {};

TEST_P(DiskutilFailures, areTyped) {
    const auto& c = GetParam();
    auto dict = DiskutilProbe::outputDictionary(c.outcome);
    ASSERT_FALSE(dict);
    const auto& error = dict.error();
    ASSERT_EQ(error.kind(), c.kind) << error;
    if (auto failed = error.as<DiskutilError::ProcessFailed>()) {
        EXPECT_EQ(failed->exitCode, c.exitCode);
        EXPECT_THAT(failed->stderr, HasSubstr(c.detail));
    } else if (auto parse = error.as<DiskutilError::PlistParseFailed>()) {
        EXPECT_THAT(parse->detail, HasSubstr(c.detail));
    }
    EXPECT_FALSE(error.message().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Diskutil, DiskutilFailures,
    ::testing::Values(
        FailureCase{"exitStatusOne", ShellRunner::Result{1, "", "Could not find disk: disk99\n"},
                    DiskutilError::Kind::processFailed, "Could not find disk: disk99", 1},
        FailureCase{"cannotStart", tl::unexpected(ShellRunner::ShellError::launchFailed("No such file or directory")),
                    DiskutilError::Kind::processFailed, "No such file or directory", -1},
        FailureCase{"timedOut", tl::unexpected(ShellRunner::ShellError::timedOut("/usr/sbin/diskutil", 300)),
                    DiskutilError::Kind::processFailed, "diskutil", -1},
        FailureCase{"runnerReportsExit",
                    tl::unexpected(ShellRunner::ShellError::nonZeroExit("/usr/sbin/diskutil", 5, "busy")),
                    DiskutilError::Kind::processFailed, "busy", 5},
        FailureCase{"notAPropertyList", ShellRunner::Result{0, "Disk /dev/disk0 is busy", ""},
                    DiskutilError::Kind::plistParseFailed, ""},
        FailureCase{"emptyOutput", ShellRunner::Result{0, "", ""}, DiskutilError::Kind::plistParseFailed, ""},
        FailureCase{"arrayRoot",
                    ShellRunner::Result{0,
                                        "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>disk0</string>"
                                        "</array></plist>",
                                        ""},
                    DiskutilError::Kind::plistParseFailed, "root is not a dictionary"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DiskutilProbe, deviceIdentifierIsRequired) {
    PlistDictionary info{{"VolumeName", PlistValue("Untitled")}};
    EXPECT_EQ(DiskutilProbe::mapInfo(info).error(), DiskutilError::missingField("DeviceIdentifier"));

    PlistDictionary partition{{"Content", PlistValue("Apple_HFS")}};
    PlistDictionary disk{{"DeviceIdentifier", PlistValue("disk2")},
                         {"Partitions", PlistValue(PlistValue::Array{PlistValue(partition)})}};
    PlistDictionary list{{"AllDisksAndPartitions", PlistValue(PlistValue::Array{PlistValue(disk)})}};
    EXPECT_EQ(DiskutilProbe::mapList(list).error(), DiskutilError::missingField("DeviceIdentifier"));

    PlistDictionary volume{{"Name", PlistValue("Data")}};
    PlistDictionary container{{"ContainerReference", PlistValue("disk3")},
                              {"Volumes", PlistValue(PlistValue::Array{PlistValue(volume)})}};
    PlistDictionary containers{{"Containers", PlistValue(PlistValue::Array{PlistValue(container)})}};
    EXPECT_EQ(DiskutilProbe::mapAPFSContainers(containers).error(), DiskutilError::missingField("DeviceIdentifier"));

    // Absent arrays are empty, not errors.
    EXPECT_EQ(DiskutilProbe::mapList(PlistDictionary{}), ProbeList{});
    EXPECT_TRUE(DiskutilProbe::mapAPFSContainers(PlistDictionary{})->empty());
}

TEST(DiskutilProbe, runsTheToolWithPropertyListOutput) {
    FakeShellRunner runner;
    runner.enqueueSuccess(fixture("list.plist"));
    runner.enqueueSuccess(fixture("info-hfs-partition.plist"));
    runner.enqueueSuccess(fixture("apfs-list.plist"));
    runner.enqueueSuccess("", 1, "Could not find disk: disk99");
    DiskutilProbe probe(runner);

    auto list = run(probe.listDisks());
    auto info = run(probe.describe("disk2s2"));
    auto containers = run(probe.listAPFSContainers());
    auto missing = run(probe.describe("disk99"));

    ASSERT_TRUE(list && info && containers);
    EXPECT_EQ(list->allDisksAndPartitions.size(), 5u);
    EXPECT_EQ(info->deviceIdentifier, "disk2s2");
    EXPECT_EQ(containers->size(), 2u);
    EXPECT_EQ(missing.error(), DiskutilError::processFailed(1, "Could not find disk: disk99"));

    auto calls = runner.calls();
    ASSERT_EQ(calls.size(), 4u);
    for (const auto& call : calls) EXPECT_EQ(call.executable, "/usr/sbin/diskutil");
    EXPECT_THAT(calls[0].arguments, ElementsAre("list", "-plist"));
    EXPECT_THAT(calls[1].arguments, ElementsAre("info", "-plist", "disk2s2"));
    EXPECT_THAT(calls[2].arguments, ElementsAre("apfs", "list", "-plist"));
}

}  // namespace
}  // namespace ql

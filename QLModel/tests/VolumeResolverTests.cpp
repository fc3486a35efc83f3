#include "QLModel/FlakyHardwareSerialProbe.h"
#include "QLModel/tests/VolumeResolverTestWorld.h"
#include "QLSupport/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

namespace ql {
namespace {

using namespace ql::testing;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

DiskutilError unreadable(const std::string& device) { return DiskutilError::deviceUnreadable(device, "I/O error"); }

ProbeDisk* diskNamed(ResolverWorld& world, const std::string& name) {
    for (auto& disk : world.probe->list.allDisksAndPartitions) {
        if (disk.deviceIdentifier == name) return &disk;
    }
    return nullptr;
}

ProbePartition* partitionNamed(ResolverWorld& world, const std::string& name) {
    for (auto& disk : world.probe->list.allDisksAndPartitions) {
        for (auto& partition : disk.partitions) {
            if (partition.deviceIdentifier == name) return &partition;
        }
    }
    return nullptr;
}

// ---------------------------------------------------------------------------------------------
// Every exit of every device search.

struct SearchCase {
    const char* name;
    std::function<VolumeRef()> ref;
    std::function<void(ResolverWorld&)> change;
    Resolution::Kind verdict;
    // ok/suspicious: the device found; unresolved: the reason's case and detail.
    std::string device;
    UnresolvedReason::Kind reason = UnresolvedReason::Kind::volumeMissing;
    std::string detail = {};

    void PrintTo(const SearchCase& c, std::ostream* out) { *out << c.name; }
};

class SearchExits : public ::testing::TestWithParam<SearchCase> {};

TEST_P(SearchExits, endAsExpected) {
    const auto& c = GetParam();
    ResolverWorld world;
    if (c.change) c.change(world);
    auto resolution = world.resolve(c.ref());
    ASSERT_EQ(resolution.kind(), c.verdict) << resolution;
    if (c.verdict == Resolution::Kind::unresolved) {
        EXPECT_EQ(resolution.reason()->kind(), c.reason) << resolution;
        EXPECT_EQ(resolution.reason()->detail(), c.detail) << resolution;
    } else {
        EXPECT_EQ(resolution.state()->bsdDevice, c.device);
    }
}

auto withKey(VolumeRef ref, VolumeKey key) {
    ref.key = std::move(key);
    return ref;
}

const std::string kPartitionSentence(VolumeResolver::partitionScanIncomplete);
const std::string kContainerSentence(VolumeResolver::containerScanIncomplete);
const std::string kWholeDiskSentence(VolumeResolver::wholeDiskScanIncomplete);
const std::string kSliceSentence(VolumeResolver::sliceScanIncomplete);

INSTANTIATE_TEST_SUITE_P(
    Resolver, SearchExits,
    ::testing::Values(
        // GPT partitions.
        SearchCase{"gptFound", archiveRef, nullptr, Resolution::Kind::ok, "disk2s2"},
        SearchCase{"gptAbsent", [] { return withKey(archiveRef(), VolumeKey::gptPartitionGUID(kStranger)); }, nullptr,
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::volumeMissing, ""},
        SearchCase{"gptListingFails", archiveRef, [](ResolverWorld& w) { w.probe->listFailure = unreadable("all"); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed, kPartitionSentence},
        SearchCase{"gptLearnedByDescribing", archiveRef,
                   [](ResolverWorld& w) { partitionNamed(w, "disk2s2")->diskUUID.reset(); }, Resolution::Kind::ok,
                   "disk2s2"},
        SearchCase{"gptAbsentOneUnreadable",
                   [] { return withKey(archiveRef(), VolumeKey::gptPartitionGUID(kStranger)); },
                   [](ResolverWorld& w) { w.probe->describeFailures.emplace("disk4s1", unreadable("disk4s1")); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed, kPartitionSentence},
        SearchCase{"gptFoundPastAnUnreadable", archiveRef,
                   [](ResolverWorld& w) {
                       partitionNamed(w, "disk0s1")->diskUUID.reset();
                       w.probe->describeFailures.emplace("disk0s1", unreadable("disk0s1"));
                   },
                   Resolution::Kind::ok, "disk2s2"},
        SearchCase{"gptFoundButUndescribable", archiveRef,
                   [](ResolverWorld& w) { w.probe->describeFailures.emplace("disk2s2", unreadable("disk2s2")); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed, kPartitionSentence},
        SearchCase{"gptContainerTopologyNotReady", storeRef,
                   [](ResolverWorld& w) { w.probe->containersFailure = unreadable("apfs"); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed,
                   "APFS container topology not ready for disk0s2"},
        SearchCase{"gptContainerNotListedYet", storeRef,
                   [](ResolverWorld& w) { w.probe->containers.erase(w.probe->containers.begin()); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed,
                   "APFS container topology not ready for disk0s2"},
        // Whole-disk APFS containers.
        SearchCase{"containerFound", wholeContainerRef, nullptr, Resolution::Kind::ok, "disk7"},
        SearchCase{"containerAbsent",
                   [] { return withKey(wholeContainerRef(), VolumeKey::wholeDiskAPFSContainer(kStranger)); }, nullptr,
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::volumeMissing, ""},
        SearchCase{"containerListingFails", wholeContainerRef,
                   [](ResolverWorld& w) { w.probe->containersFailure = unreadable("apfs"); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed, kContainerSentence},
        SearchCase{"containerAbsentOneWithoutUUID",
                   [] { return withKey(wholeContainerRef(), VolumeKey::wholeDiskAPFSContainer(kStranger)); },
                   [](ResolverWorld& w) { w.probe->containers[0].containerUUID.reset(); }, Resolution::Kind::unresolved,
                   "", UnresolvedReason::Kind::probeFailed, kContainerSentence},
        SearchCase{"containerWithoutStore", wholeContainerRef,
                   [](ResolverWorld& w) { w.probe->containers[1].physicalStores.clear(); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed, kContainerSentence},
        SearchCase{"containerStoreUndescribable", wholeContainerRef,
                   [](ResolverWorld& w) { w.probe->describeFailures.emplace("disk7", unreadable("disk7")); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed, kContainerSentence},
        SearchCase{"containerDiskListingFails", wholeContainerRef,
                   [](ResolverWorld& w) { w.probe->listFailure = unreadable("all"); }, Resolution::Kind::unresolved, "",
                   UnresolvedReason::Kind::probeFailed, kContainerSentence},
        // Whole-disk volumes.
        SearchCase{"wholeDiskFound", wholeVolumeRef, nullptr, Resolution::Kind::ok, "disk6"},
        SearchCase{"wholeDiskAbsent", [] { return withKey(wholeVolumeRef(), VolumeKey::wholeDiskVolume(kStranger)); },
                   nullptr, Resolution::Kind::unresolved, "", UnresolvedReason::Kind::volumeMissing, ""},
        SearchCase{"wholeDiskListingFails", wholeVolumeRef,
                   [](ResolverWorld& w) { w.probe->listFailure = unreadable("all"); }, Resolution::Kind::unresolved, "",
                   UnresolvedReason::Kind::probeFailed, kWholeDiskSentence},
        SearchCase{"wholeDiskAbsentOneUnreadable", wholeVolumeRef,
                   [](ResolverWorld& w) { w.probe->describeFailures.emplace("disk6", unreadable("disk6")); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed, kWholeDiskSentence},
        SearchCase{"wholeDiskOnlyWholeDisks", wholeVolumeRef,
                   [](ResolverWorld& w) { w.probe->infos["disk6"].wholeDisk = false; }, Resolution::Kind::unresolved,
                   "", UnresolvedReason::Kind::volumeMissing, ""},
        SearchCase{
            "wholeDiskNotIfPartitioned", wholeVolumeRef,
            [](ResolverWorld& w) {
                diskNamed(w, "disk6")->partitions.push_back({"disk6s1", "Apple_HFS", 1, std::nullopt, std::nullopt});
            },
            Resolution::Kind::unresolved, "", UnresolvedReason::Kind::volumeMissing, ""},
        // MBR and APM slices.
        SearchCase{"mbrFound", cameraRef, nullptr, Resolution::Kind::ok, "disk4s1"},
        SearchCase{"mbrAbsent", [] { return withKey(cameraRef(), VolumeKey::mbrSlice(kStranger)); }, nullptr,
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::volumeMissing, ""},
        SearchCase{"mbrListingFails", cameraRef, [](ResolverWorld& w) { w.probe->listFailure = unreadable("all"); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed, kSliceSentence},
        SearchCase{"mbrLearnedByDescribing", cameraRef,
                   [](ResolverWorld& w) { partitionNamed(w, "disk4s1")->volumeUUID.reset(); }, Resolution::Kind::ok,
                   "disk4s1"},
        SearchCase{"mbrAbsentOneUnreadable", cameraRef,
                   [](ResolverWorld& w) {
                       partitionNamed(w, "disk4s1")->volumeUUID.reset();
                       w.probe->describeFailures.emplace("disk4s1", unreadable("disk4s1"));
                   },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed, kSliceSentence},
        SearchCase{"mbrKeyNeverMatchesAPMDisk", [] { return withKey(cameraRef(), VolumeKey::mbrSlice(kAPMVolume)); },
                   nullptr, Resolution::Kind::unresolved, "", UnresolvedReason::Kind::volumeMissing, ""},
        SearchCase{"apmFound", apmRef, nullptr, Resolution::Kind::ok, "disk5s2"},
        SearchCase{"apmKeyNeverMatchesMBRDisk", [] { return withKey(apmRef(), VolumeKey::apmSlice(kCameraVolume)); },
                   nullptr, Resolution::Kind::unresolved, "", UnresolvedReason::Kind::volumeMissing, ""},
        SearchCase{"apmAbsentOneUnreadable", [] { return withKey(apmRef(), VolumeKey::apmSlice(kStranger)); },
                   [](ResolverWorld& w) { w.probe->describeFailures.emplace("disk5s1", unreadable("disk5s1")); },
                   Resolution::Kind::unresolved, "", UnresolvedReason::Kind::probeFailed, kSliceSentence}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(VolumeResolver, missingCollaboratorsMakeKeysUnsupported) {
    ResolverWorld world;
    auto noProbe = world.environment();
    noProbe.probe = nullptr;
    auto resolution = world.resolve(archiveRef(), noProbe);
    ASSERT_EQ(resolution.reason()->kind(), UnresolvedReason::Kind::unsupportedKey);
    EXPECT_EQ(resolution.reason()->detail(),
              "gptPartitionGUID keys can't be resolved here: this resolver has no disk probe");

    auto noSerials = world.environment();
    noSerials.serialProbe = nullptr;
    EXPECT_THAT(world.resolve(cameraRef(), noSerials).reason()->detail(), HasSubstr("no hardware-serial probe"));

    auto noMounts = world.environment();
    noMounts.networkMounts = nullptr;
    auto share = makeRef(VolumeKey::networkShare("smb://nas.local/Backups"), {});
    EXPECT_EQ(world.resolve(share, noMounts).reason()->detail(),
              "Network-share keys can't be resolved here: this resolver has no network-mount listing");

    auto noImages = world.environment();
    noImages.attachedImages = nullptr;
    noImages.fileExistsAtPath = nullptr;
    EXPECT_EQ(world.resolve(imageRef(), noImages).reason()->detail(),
              "Disk-image keys can't be resolved here: this resolver lacks the attached-image listing and a "
              "file-existence check");
}

// ---------------------------------------------------------------------------------------------
// The invariant checks, in order.

struct MismatchCase {
    const char* name;
    std::function<VolumeRef()> ref;
    std::function<void(VolumeRef&, ResolverWorld&)> change;
    std::vector<InvariantMismatch> expected;
};

void PrintTo(const MismatchCase& c, std::ostream* out) { *out << c.name; }

class InvariantChecks : public ::testing::TestWithParam<MismatchCase> {};

TEST_P(InvariantChecks, reportExactlyTheseMismatches) {
    const auto& c = GetParam();
    ResolverWorld world;
    auto ref = c.ref();
    if (c.change) c.change(ref, world);
    auto resolution = world.resolve(ref);
    ASSERT_NE(resolution.kind(), Resolution::Kind::unresolved) << resolution;
    EXPECT_EQ(resolution.mismatches(), c.expected) << resolution;
    EXPECT_EQ(resolution.kind(), c.expected.empty() ? Resolution::Kind::ok : Resolution::Kind::suspicious);
}

INSTANTIATE_TEST_SUITE_P(
    Resolver, InvariantChecks,
    ::testing::Values(
        MismatchCase{"allHold", archiveRef, nullptr, {}},
        MismatchCase{"sizeGrew",
                     archiveRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.partitionSizeBytes = 999'000'000'000ULL; },
                     {{"partitionSizeBytes", "999000000000", "1000000000000"}}},
        MismatchCase{"familyChanged",
                     archiveRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.filesystemFamily = FilesystemFamily::exfat; },
                     {{"filesystemFamily", "exfat", "hfsPlus"}}},
        MismatchCase{"hfsRecordedApfsLive",
                     storeRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.filesystemFamily = FilesystemFamily::hfsPlus; },
                     {{"filesystemFamily", "hfsPlus", "apfsContainer"}}},
        MismatchCase{"otherToleratesFat32",
                     cameraRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.filesystemFamily = FilesystemFamily::other; },
                     {}},
        MismatchCase{"otherToleratesExfat",
                     cameraRef,
                     [](VolumeRef& r, ResolverWorld& w) {
                         r.invariants.filesystemFamily = FilesystemFamily::other;
                         w.typeNames["/Volumes/CAMERA"] = "exfat";
                     },
                     {}},
        MismatchCase{"otherToleratesNtfs",
                     cameraRef,
                     [](VolumeRef& r, ResolverWorld& w) {
                         r.invariants.filesystemFamily = FilesystemFamily::other;
                         w.typeNames["/Volumes/CAMERA"] = "ntfs";
                     },
                     {}},
        MismatchCase{"otherToleratesOther",
                     cameraRef,
                     [](VolumeRef& r, ResolverWorld& w) {
                         r.invariants.filesystemFamily = FilesystemFamily::other;
                         w.typeNames["/Volumes/CAMERA"] = "ext4";
                     },
                     {}},
        MismatchCase{"otherDoesNotTolerateHfs",
                     archiveRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.filesystemFamily = FilesystemFamily::other; },
                     {{"filesystemFamily", "other", "hfsPlus"}}},
        MismatchCase{"fat32DoesNotTolerateExfat",
                     cameraRef,
                     [](VolumeRef&, ResolverWorld& w) { w.typeNames["/Volumes/CAMERA"] = "exfat"; },
                     {{"filesystemFamily", "fat32", "exfat"}}},
        MismatchCase{
            "containerUUIDDiffers",
            wholeContainerRef,
            [](VolumeRef&, ResolverWorld& w) {
                // Another container now claims the same whole disk as its store.
                w.probe->containers.insert(w.probe->containers.begin(), {"disk10", kStranger, {"disk7"}, {}, 1, 1});
            },
            {{"containerUUID", kContainer2.text(), kStranger.text()}}},
        MismatchCase{"mapTypeChanged",
                     archiveRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.partitionMapType = PartitionMapType::mbr; },
                     {{"partitionMapType", "mbr", "gpt"}}},
        MismatchCase{"mbrSliceMapType",
                     cameraRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.partitionMapType = PartitionMapType::gpt; },
                     {{"partitionMapType", "gpt", "mbr"}}},
        MismatchCase{"wholeDiskMapType",
                     wholeVolumeRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.partitionMapType = PartitionMapType::gpt; },
                     {{"partitionMapType", "gpt", "wholeDisk"}}},
        MismatchCase{"serialStartsReporting",
                     archiveRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.hardwareSerial.reset(); },
                     {{"hardwareSerial", "<none>", "WD-123"}}},
        MismatchCase{"serialDiffers",
                     archiveRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.hardwareSerial = HardwareSerial{"WD-999"}; },
                     {{"hardwareSerial", "WD-999", "WD-123"}}},
        MismatchCase{"serialUnreadableNothingRecorded", cameraRef, nullptr, {}},
        MismatchCase{"serialStaysUnreadable",
                     archiveRef,
                     [](VolumeRef&, ResolverWorld& w) { w.serials->serials.clear(); },
                     {{"hardwareSerialUnreadable", "WD-123", "<none>"}}},
        MismatchCase{"randomSerialOnGPTNotCompared",
                     archiveRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.hardwareSerial = HardwareSerial{"random__5F2A"}; },
                     {}},
        MismatchCase{"randomSerialOnContainerNotCompared",
                     wholeContainerRef,
                     [](VolumeRef& r, ResolverWorld&) { r.invariants.hardwareSerial = HardwareSerial{"random__5F2A"}; },
                     {}},
        MismatchCase{"randomSerialOnSliceCompared",
                     cameraRef,
                     [](VolumeRef& r, ResolverWorld& w) {
                         r.invariants.hardwareSerial = HardwareSerial{"random__5F2A"};
                         w.serials->serials["disk4s1"] = HardwareSerial{"SD-77"};
                     },
                     {{"hardwareSerial", "random__5F2A", "SD-77"}}},
        MismatchCase{"everythingInOrder",
                     archiveRef,
                     [](VolumeRef& r, ResolverWorld&) {
                         r.invariants = {1, PartitionMapType::apm, FilesystemFamily::ntfs, HardwareSerial{"X"}};
                     },
                     {{"partitionSizeBytes", "1", "1000000000000"},
                      {"filesystemFamily", "ntfs", "hfsPlus"},
                      {"partitionMapType", "apm", "gpt"},
                      {"hardwareSerial", "X", "WD-123"}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(VolumeResolver, randomSerialIsExplainedNotCompared) {
    for (bool readable : {true, false}) {
        ResolverWorld world;
        if (!readable) world.serials->serials.clear();
        auto ref = archiveRef();
        ref.invariants.hardwareSerial = HardwareSerial{"random__5F2A"};
        LogCapture capture;
        EXPECT_TRUE(world.resolve(ref).isOk());
        std::string live = readable ? "WD-123" : "<unreadable>";
        EXPECT_THAT(
            capture.lines(),
            ::testing::Contains("[serialProbe] disk2s2: stored serial is self-declared non-durable (random__5F2A → " +
                                live + ") key=gptPartitionGUID family=hfsPlus — not compared"));
    }
}

// Serial retries: only when a serial was recorded, `serialRetryAttempts` more reads, each after
// the configured pause.
struct RetryCase {
    const char* name;
    std::int64_t attempts;
    std::int64_t failuresBeforeSuccess;
    bool recorded;
    std::int64_t expectedCalls;
    bool expectUnreadable;
};

void PrintTo(const RetryCase& c, std::ostream* out) { *out << c.name; }

class SerialRetries : public ::testing::TestWithParam<RetryCase> {};

TEST_P(SerialRetries, readAgainOnlyAsConfigured) {
    const auto& c = GetParam();
    ResolverWorld world;
    auto flaky = std::make_shared<FlakyHardwareSerialProbe>(
        std::map<std::string, HardwareSerial>{{"disk2s2", HardwareSerial{"WD-123"}}}, c.failuresBeforeSuccess);
    world.serialProbe = flaky;
    world.retryAttempts = c.attempts;
    auto ref = archiveRef();
    if (!c.recorded) ref.invariants.hardwareSerial.reset();
    auto start = world.time->monotonicNow();
    auto resolution = world.resolve(ref);
    EXPECT_EQ(flaky->callCount(), c.expectedCalls);
    // Every retry waited its two seconds of virtual time first.
    EXPECT_GE(world.time->monotonicNow() - start, std::chrono::seconds(2) * (c.expectedCalls - 1));
    if (c.expectUnreadable) {
        EXPECT_THAT(resolution.mismatches(),
                    ElementsAre(InvariantMismatch{"hardwareSerialUnreadable", "WD-123", "<none>"}));
    } else if (c.recorded) {
        EXPECT_TRUE(resolution.isOk()) << resolution;
    }
}

INSTANTIATE_TEST_SUITE_P(Resolver, SerialRetries,
                         ::testing::Values(RetryCase{"succeedsOnLastRetry", 2, 2, true, 3, false},
                                           RetryCase{"succeedsOnFirstRetry", 2, 1, true, 2, false},
                                           RetryCase{"giveUpAfterRetries", 2, 3, true, 3, true},
                                           RetryCase{"zeroRetriesReportAtOnce", 0, 1, true, 1, true},
                                           RetryCase{"noRetryWithoutRecordedSerial", 3, 1, false, 1, false}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(VolumeResolverDeathTest, negativeRetryCountStopsTheProcess) {
    ResolverWorld world;
    auto env = world.environment();
    env.serialRetryAttempts = -1;
    asio::io_context io;
    EXPECT_DEATH(VolumeResolver(io.get_executor(), env), "serialRetryAttempts is -1");
}

// ---------------------------------------------------------------------------------------------
// The state of a found device.

TEST(VolumeResolver, plainVolumeState) {
    ResolverWorld world;
    world.timeMachineMounts.insert("/Volumes/Archive");
    auto resolution = world.resolve(archiveRef());
    ASSERT_TRUE(resolution.isOk()) << resolution;
    const auto& state = *resolution.state();
    EXPECT_EQ(state.bsdDevice, "disk2s2");
    EXPECT_EQ(state.partitionGUID, kArchivePartition);
    EXPECT_EQ(state.partitionSizeBytes, kArchiveSize);
    EXPECT_TRUE(state.hasTimeMachine);
    EXPECT_EQ(state.observedAt, world.time->now());
    EXPECT_EQ(state.wholeDiskRegistryID, 42u);
    EXPECT_EQ(state.physicalStoreCount, 1);
    EXPECT_FALSE(state.containerState);
    ASSERT_TRUE(state.standaloneVolume);
    EXPECT_EQ(*state.standaloneVolume,
              (PlainVolumeState{"disk2s2", "Archive", kArchiveVolume, "/Volumes/Archive", 400'000'000'000ULL,
                                kArchiveSize, 600'000'000'000ULL, FilesystemFamily::hfsPlus}));
    EXPECT_FALSE(state.hostBSDDevice);
}

TEST(VolumeResolver, containerState) {
    ResolverWorld world;
    world.timeMachineMounts.insert("/System/Volumes/Data");
    auto resolution = world.resolve(storeRef());
    ASSERT_TRUE(resolution.isOk()) << resolution;
    const auto& state = *resolution.state();
    EXPECT_EQ(state.bsdDevice, "disk0s2");
    EXPECT_EQ(state.partitionGUID, kStore0);
    EXPECT_EQ(state.wholeDiskRegistryID, 0x100000123u);
    EXPECT_TRUE(state.hasTimeMachine);
    EXPECT_FALSE(state.standaloneVolume);
    ASSERT_TRUE(state.containerState);
    const auto& container = *state.containerState;
    EXPECT_EQ(container.containerUUID, kContainer1);
    EXPECT_EQ(container.volumeGroup, APFSVolumeGroupState{kGroup});
    EXPECT_EQ(container.capacityCeiling, kStoreSize);
    EXPECT_EQ(container.capacityFree, 100'000'000'000ULL);
    ASSERT_EQ(container.allVolumes.size(), 2u);
    EXPECT_EQ(container.allVolumes[0].role, APFSVolumeRole::system());
    EXPECT_EQ(container.allVolumes[0].mountPoint, "/");
    EXPECT_EQ(container.allVolumes[1],
              (APFSVolumeState{"disk3s5", kDataVolume, "Data", APFSVolumeRole::data(), "/System/Volumes/Data",
                               300'000'000'000ULL, kStoreSize, 100'000'000'000ULL, FilesystemFamily::apfs, kGroup}));
}

TEST(VolumeResolver, wholeDiskContainerStateCountsStores) {
    ResolverWorld world;
    world.probe->containers[1].physicalStores.push_back("disk11");
    auto resolution = world.resolve(wholeContainerRef());
    ASSERT_TRUE(resolution.isOk()) << resolution;
    EXPECT_EQ(resolution.state()->physicalStoreCount, 2);
    EXPECT_FALSE(resolution.state()->partitionGUID);
    EXPECT_EQ(resolution.state()->containerState->allVolumes[0].role, APFSVolumeRole::other(""));
    EXPECT_EQ(resolution.state()->containerState->allVolumes[0].mountPoint, "/Volumes/Backup");
}

TEST(VolumeResolver, imageBackedDeviceNamesItsHost) {
    ResolverWorld world;
    world.backing->backings["disk2s2"] = DiskImageBacking{"/Users/me/a.dmg", "disk0s2"};
    auto resolution = world.resolve(archiveRef());
    ASSERT_TRUE(resolution.isOk()) << resolution;
    EXPECT_EQ(resolution.state()->hostBSDDevice, "disk0s2");
    EXPECT_EQ(resolution.state()->hostWholeDiskRegistryID, 0x100000123u);
}

// ---------------------------------------------------------------------------------------------
// Disk images.

struct ImageCase {
    const char* name;
    std::function<void(VolumeRef&, ResolverWorld&)> change;
    Resolution::Kind verdict;
    UnresolvedReason expectedReason = UnresolvedReason::volumeMissing();
    std::vector<InvariantMismatch> mismatches = {};

    void PrintTo(const ImageCase& c, std::ostream* out) { *out << c.name; }
};

class DiskImageSearch : public ::testing::TestWithParam<ImageCase> {};

TEST_P(DiskImageSearch, endsAsExpected) {
    const auto& c = GetParam();
    ResolverWorld world;
    auto ref = imageRef();
    if (c.change) c.change(ref, world);
    auto resolution = world.resolve(ref);
    ASSERT_EQ(resolution.kind(), c.verdict) << resolution;
    if (c.verdict == Resolution::Kind::unresolved) {
        EXPECT_EQ(*resolution.reason(), c.expectedReason);
    } else {
        EXPECT_EQ(resolution.state()->bsdDevice, "disk9s1");
        EXPECT_EQ(resolution.mismatches(), c.mismatches);
    }
}

void hostOnShare(VolumeRef& ref, ResolverWorld& world) {
    ref.key = VolumeKey::diskImage(DiskImageHost::networkShare("smb://nas.local/Backups"), "Mac/Clone.dmg", kImageGUID);
    world.mounts = {{"/Volumes/Backups", "smb://guest@NAS.local/Backups", std::nullopt}};
    world.images = {{"/Volumes/Backups/Mac/Clone.dmg", {"disk9", "disk9s1"}, kImageGUID}};
    world.existingFiles = {"/Volumes/Backups/Mac/Clone.dmg"};
}

INSTANTIATE_TEST_SUITE_P(
    Resolver, DiskImageSearch,
    ::testing::Values(
        ImageCase{"found", nullptr, Resolution::Kind::ok},
        ImageCase{"hostNotConnected",
                  [](VolumeRef& r, ResolverWorld&) {
                      r.key = VolumeKey::diskImage(DiskImageHost::localVolume(kStranger), "Images/Work.dmg", kImageGUID);
                  },
                  Resolution::Kind::unresolved, UnresolvedReason::imageHostUnmounted(std::nullopt)},
        ImageCase{"hostNotMounted", [](VolumeRef&, ResolverWorld& w) { w.probe->infos["disk2s2"].mountPoint.reset(); },
                  Resolution::Kind::unresolved, UnresolvedReason::imageHostUnmounted("disk2s2")},
        ImageCase{"hostScanIncomplete",
                  [](VolumeRef& r, ResolverWorld& w) {
                      r.key = VolumeKey::diskImage(DiskImageHost::localVolume(kStranger), "Images/Work.dmg", kImageGUID);
                      w.probe->describeFailures.emplace("disk6", unreadable("disk6"));
                  },
                  Resolution::Kind::unresolved,
                  UnresolvedReason::probeFailed(std::string(VolumeResolver::imageHostScanIncomplete))},
        ImageCase{"hostListingFails", [](VolumeRef&, ResolverWorld& w) { w.probe->listFailure = unreadable("all"); },
                  Resolution::Kind::unresolved,
                  UnresolvedReason::probeFailed(std::string(VolumeResolver::imageHostScanIncomplete))},
        ImageCase{"hostIsAnAPFSVolume",
                  [](VolumeRef& r, ResolverWorld& w) {
                      r.key = VolumeKey::diskImage(DiskImageHost::localVolume(kDataVolume), "Images/Work.dmg", kImageGUID);
                      w.probe->infos["disk3s5"].volumeUUID = kDataVolume;
                      w.probe->infos["disk3s5"].mountPoint = "/System/Volumes/Data";
                      w.images[0].imagePath = "/System/Volumes/Data/Images/Work.dmg";
                      w.existingFiles = {"/System/Volumes/Data/Images/Work.dmg"};
                  },
                  Resolution::Kind::ok},
        ImageCase{"fileMissing", [](VolumeRef&, ResolverWorld& w) { w.existingFiles.clear(); },
                  Resolution::Kind::unresolved, UnresolvedReason::imageFileMissing()},
        ImageCase{"notAttached", [](VolumeRef&, ResolverWorld& w) { w.images.clear(); }, Resolution::Kind::unresolved,
                  UnresolvedReason::notAttached()},
        ImageCase{"attachedUnderAnotherSpelling",
                  [](VolumeRef&, ResolverWorld& w) {
                      w.images[0].imagePath = "/private/Volumes/Archive/Images/Work.dmg";
                      w.canonicalAliases["/private/Volumes/Archive/Images/Work.dmg"] = kImagePath;
                  },
                  Resolution::Kind::ok},
        ImageCase{"volumeListingFails",
                  [](VolumeRef& r, ResolverWorld& w) {
                      hostOnShare(r, w);
                      w.probe->listFailure = unreadable("all");
                  },
                  Resolution::Kind::unresolved,
                  UnresolvedReason::probeFailed(std::string(VolumeResolver::imageVolumeScanIncomplete))},
        ImageCase{"imageDisksNotListedYet",
                  [](VolumeRef&, ResolverWorld& w) { w.probe->list.allDisksAndPartitions.pop_back(); },
                  Resolution::Kind::unresolved,
                  UnresolvedReason::probeFailed(std::string(VolumeResolver::imageVolumeScanIncomplete))},
        ImageCase{"imageHoldsNoVolume",
                  [](VolumeRef&, ResolverWorld& w) {
                      auto& partition = *partitionNamed(w, "disk9s1");
                      partition.content = kEFIType;
                  },
                  Resolution::Kind::unresolved,
                  UnresolvedReason::probeFailed("disk9 holds a different volume than this backup expects")},
        ImageCase{"imageHoldsAnotherKindOfVolume",
                  [](VolumeRef& r, ResolverWorld&) { r.target = VolumeTarget::apfsVolumeByRole(APFSVolumeRole::data()); },
                  Resolution::Kind::unresolved,
                  UnresolvedReason::probeFailed("disk9 holds a different volume than this backup expects")},
        ImageCase{"volumeUnreadable",
                  [](VolumeRef&, ResolverWorld& w) { w.probe->describeFailures.emplace("disk9s1", unreadable("disk9s1")); },
                  Resolution::Kind::unresolved, UnresolvedReason::probeFailed("Couldn't read the volume inside disk9")},
        ImageCase{"internalGUIDDiffers", [](VolumeRef&, ResolverWorld& w) { w.images[0].internalGUID = kStranger; },
                  Resolution::Kind::suspicious, UnresolvedReason::volumeMissing(),
                  {{"diskImageInternalGUID", kImageGUID.text(), kStranger.text()}}},
        ImageCase{"internalGUIDUnknown", [](VolumeRef&, ResolverWorld& w) { w.images[0].internalGUID.reset(); },
                  Resolution::Kind::ok},
        ImageCase{"hostOnShare", hostOnShare, Resolution::Kind::ok},
        ImageCase{"shareHostNotMounted",
                  [](VolumeRef& r, ResolverWorld& w) {
                      hostOnShare(r, w);
                      w.mounts.clear();
                  },
                  Resolution::Kind::unresolved, UnresolvedReason::imageHostUnmounted(std::nullopt)}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(VolumeResolver, imageStateNamesTheHostDisk) {
    ResolverWorld world;
    auto resolution = world.resolve(imageRef());
    ASSERT_TRUE(resolution.isOk()) << resolution;
    EXPECT_EQ(resolution.state()->hostBSDDevice, "disk2s2");
    EXPECT_EQ(resolution.state()->hostWholeDiskRegistryID, 42u);
    EXPECT_EQ(resolution.state()->standaloneVolume->name, "Work");
}

// ---------------------------------------------------------------------------------------------
// Network shares.

struct ShareCase {
    const char* name;
    std::string keyURL;
    std::vector<NetworkMountEntry> mounts;
    std::set<std::string> aliases;
    bool hostsEquivalent;
    std::optional<std::string> expectedMountPoint;  // absent: volumeMissing
};

void PrintTo(const ShareCase& c, std::ostream* out) { *out << c.name; }

class ShareSearch : public ::testing::TestWithParam<ShareCase> {};

TEST_P(ShareSearch, matchesNormalisedURLs) {
    const auto& c = GetParam();
    ResolverWorld world;
    world.mounts = c.mounts;
    auto env = world.environment();
    env.verifiedNetworkHostAliases = c.aliases;
    std::vector<std::pair<std::string, std::string>> asked;
    env.networkHostsEquivalent = [&](const std::string& a, const std::string& b) {
        asked.emplace_back(a, b);
        return c.hostsEquivalent;
    };
    auto resolution = world.resolve(makeRef(VolumeKey::networkShare(c.keyURL), {}), env);
    if (!c.expectedMountPoint) {
        EXPECT_EQ(*resolution.reason(), UnresolvedReason::volumeMissing()) << resolution;
        return;
    }
    ASSERT_TRUE(resolution.isOk()) << resolution;
    EXPECT_EQ(resolution.state()->standaloneVolume->mountPoint, c.expectedMountPoint);
}

const NetworkMountEntry kNasMount{"/Volumes/Backups", "smb://nas.local/Backups", std::nullopt};

INSTANTIATE_TEST_SUITE_P(
    Resolver, ShareSearch,
    ::testing::Values(
        ShareCase{"same", "smb://nas.local/Backups", {kNasMount}, {}, false, "/Volumes/Backups"},
        ShareCase{
            "hostCaseUserPortSlash", "smb://Alice@NAS.Local:445/Backups/", {kNasMount}, {}, false, "/Volumes/Backups"},
        ShareCase{"cifsIsSmb", "cifs://nas.local/Backups", {kNasMount}, {}, false, "/Volumes/Backups"},
        ShareCase{"percentEncoding",
                  "smb://nas.local/My%20Backups",
                  {{"/Volumes/My Backups", "smb://nas.local/My Backups", std::nullopt}},
                  {},
                  false,
                  "/Volumes/My Backups"},
        ShareCase{"shareNameIsCaseSensitive", "smb://nas.local/backups", {kNasMount}, {}, false, std::nullopt},
        ShareCase{"otherShare", "smb://nas.local/Media", {kNasMount}, {}, false, std::nullopt},
        ShareCase{"otherScheme", "afp://nas.local/Backups", {kNasMount}, {}, false, std::nullopt},
        ShareCase{"otherPort", "smb://nas.local:1445/Backups", {kNasMount}, {}, false, std::nullopt},
        ShareCase{"firstMountWins",
                  "smb://nas.local/Backups",
                  {{"/Volumes/Backups-1", "smb://nas.local/Backups", std::nullopt}, kNasMount},
                  {},
                  false,
                  "/Volumes/Backups-1"},
        ShareCase{"otherHost", "smb://192.168.1.10/Backups", {kNasMount}, {}, false, std::nullopt},
        ShareCase{"verifiedAlias",
                  "smb://192.168.1.10/Backups",
                  {kNasMount},
                  {VolumeResolverEnvironment::hostAliasPair("NAS.local", "192.168.1.10")},
                  false,
                  "/Volumes/Backups"},
        ShareCase{"equivalentHosts", "smb://192.168.1.10/Backups", {kNasMount}, {}, true, "/Volumes/Backups"},
        ShareCase{"nothingMounted", "smb://nas.local/Backups", {}, {}, true, std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(VolumeResolver, shareState) {
    ResolverWorld world;
    world.mounts = {{"/Volumes/Backups", "smb://nas.local/Backups", kArchiveVolume}};
    world.timeMachineMounts.insert("/Volumes/Backups");
    auto resolution = world.resolve(makeRef(VolumeKey::networkShare("smb://nas.local/Backups"), {}));
    ASSERT_TRUE(resolution.isOk()) << resolution;
    const auto& state = *resolution.state();
    EXPECT_EQ(state.observedAt, world.time->now());
    EXPECT_TRUE(state.hasTimeMachine);
    EXPECT_EQ(*state.standaloneVolume, (PlainVolumeState{"smb://nas.local/Backups", "Backups", kArchiveVolume,
                                                         "/Volumes/Backups", 0, 0, 0, FilesystemFamily::smb}));
}

// ---------------------------------------------------------------------------------------------
// Binding.

struct BindCase {
    const char* name;
    std::string device;
    ImageBackedDevicePolicy policy;
    bool slice;  // the entry point without whole-disk volumes
    std::function<void(ResolverWorld&)> change;
    std::optional<VolumeRef> expected;
    std::string error = {};

    void PrintTo(const BindCase& c, std::ostream* out) { *out << c.name; }
};

class Binding : public ::testing::TestWithParam<BindCase> {};

TEST_P(Binding, buildsTheKeyOrRefuses) {
    const auto& c = GetParam();
    ResolverWorld world;
    world.backing->backings["disk9s1"] = DiskImageBacking{kImagePath, "disk2s2"};
    if (c.change) c.change(world);
    auto result = world.run<VolumeResolver::BindingResult>([&](VolumeResolver& resolver) {
        return c.slice ? resolver.bindSlice(c.device, c.policy) : resolver.bind(c.device, c.policy);
    });
    if (c.expected) {
        ASSERT_TRUE(result) << result.error();
        EXPECT_EQ(*result, *c.expected);
    } else {
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error().message, c.error);
    }
}

VolumeRef bound(VolumeKey key, VolumeInvariants invariants, std::string name,
                VolumeTarget target = VolumeTarget::wholeFilesystem()) {
    return VolumeRef{std::move(key),  std::move(target), std::move(invariants),
                     std::move(name), std::nullopt,      std::nullopt};
}

constexpr auto kRefuse = ImageBackedDevicePolicy::refuse;
constexpr auto kReading = ImageBackedDevicePolicy::allowForReading;

INSTANTIATE_TEST_SUITE_P(
    Resolver, Binding,
    ::testing::Values(
        BindCase{"gptPartition", "disk2s2", kRefuse, false, nullptr,
                 bound(VolumeKey::gptPartitionGUID(kArchivePartition),
                       {kArchiveSize, PartitionMapType::gpt, FilesystemFamily::hfsPlus, HardwareSerial{"WD-123"}},
                       "Archive")},
        BindCase{"devicePath", "/dev/disk2s2", kRefuse, true, nullptr,
                 bound(VolumeKey::gptPartitionGUID(kArchivePartition),
                       {kArchiveSize, PartitionMapType::gpt, FilesystemFamily::hfsPlus, HardwareSerial{"WD-123"}},
                       "Archive")},
        BindCase{"apfsVolumeWalksToItsPartition", "disk3s5", kRefuse, true, nullptr,
                 bound(VolumeKey::gptPartitionGUID(kStore0),
                       {kStoreSize, PartitionMapType::gpt, FilesystemFamily::apfsContainer, std::nullopt}, "Data",
                       VolumeTarget::apfsVolumeByRole(APFSVolumeRole::data()))},
        BindCase{
            "apfsVolumeOnWholeDiskContainer", "disk8s1", kRefuse, true, nullptr,
            bound(VolumeKey::wholeDiskAPFSContainer(kContainer2),
                  {kWholeContainerSize, PartitionMapType::wholeDisk, FilesystemFamily::apfsContainer, std::nullopt},
                  "Backup")},
        BindCase{
            "wholeDiskContainer", "disk7", kRefuse, true, nullptr,
            bound(VolumeKey::wholeDiskAPFSContainer(kContainer2),
                  {kWholeContainerSize, PartitionMapType::wholeDisk, FilesystemFamily::apfsContainer, std::nullopt},
                  "disk7", VolumeTarget::apfsVolumeGroup())},
        BindCase{"apfsVolumeWalkFails", "disk3s5", kRefuse, false,
                 [](ResolverWorld& w) {
                     w.probe->infos["disk3s5"].apfsContainerReference = "disk30";
                     w.probe->infos["disk3s5"].apfsVolumeRole.clear();
                     w.probe->containers[0].volumes.clear();
                 },
                 std::nullopt, "Couldn't walk disk3s5 to a partition slice"},
        BindCase{"apfsVolumeStoreUnreadable", "disk3s5", kRefuse, false,
                 [](ResolverWorld& w) { w.probe->describeFailures.emplace("disk0s2", unreadable("disk0s2")); },
                 std::nullopt, "Couldn't walk disk3s5 to a partition slice"},
        BindCase{"wholeDiskVolume", "disk6", kRefuse, false, nullptr,
                 bound(VolumeKey::wholeDiskVolume(kWholeVolume),
                       {kWholeSize, PartitionMapType::wholeDisk, FilesystemFamily::hfsPlus, std::nullopt}, "disk6")},
        BindCase{"wholeDiskVolumeRefusedBySliceBinding", "disk6", kRefuse, true, nullptr, std::nullopt,
                 "disk6 is not a GPT partition slice, a whole-disk APFS container, or an MBR/APM slice"},
        BindCase{"mbrSlice", "disk4s1", kRefuse, true, nullptr,
                 bound(VolumeKey::mbrSlice(kCameraVolume),
                       {kCameraSize, PartitionMapType::mbr, FilesystemFamily::fat32, std::nullopt}, "CAMERA")},
        BindCase{"apmSlice", "disk5s2", kRefuse, false, nullptr,
                 bound(VolumeKey::apmSlice(kAPMVolume),
                       {kAPMSize, PartitionMapType::apm, FilesystemFamily::hfsPlus, std::nullopt}, "disk5s2")},
        BindCase{"sliceWithoutVolumeUUID", "disk5s1", kRefuse, false, nullptr, std::nullopt,
                 "disk5s1 is not a GPT partition slice, a whole-disk APFS container, a whole-disk volume, or an "
                 "MBR/APM slice with a volume UUID"},
        BindCase{"imageBackedRefused", "disk9s1", kRefuse, false, nullptr, std::nullopt,
                 "disk9s1 belongs to a disk image; bind the image file instead"},
        BindCase{"imageBackedForReading", "disk9s1", kReading, false, nullptr,
                 bound(VolumeKey::gptPartitionGUID(kImagePartition),
                       {kImageVolumeSize, PartitionMapType::gpt, FilesystemFamily::hfsPlus, std::nullopt}, "Work")},
        BindCase{"unreadableDevice", "disk12", kRefuse, false, nullptr, std::nullopt,
                 "Couldn't bind disk12: Couldn't read disk12: no such device in the fake probe"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(VolumeResolver, boundReferencesResolveOk) {
    for (std::string device : {"disk2s2", "disk3s5", "disk8s1", "disk6", "disk4s1", "disk5s2"}) {
        ResolverWorld world;
        auto made = world.run<VolumeResolver::BindingResult>(
            [&](VolumeResolver& resolver) { return resolver.bind(device, kRefuse); });
        ASSERT_TRUE(made) << device << ": " << made.error();
        auto resolution = world.resolve(*made);
        EXPECT_TRUE(resolution.isOk()) << device << ": " << resolution;
    }
}

}  // namespace
}  // namespace ql

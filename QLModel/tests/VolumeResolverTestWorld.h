#pragma once

// A machine's disks as fakes, for the resolver's tests: every kind of device a key can name.
//
//   disk0  GPT: disk0s1 EFI, disk0s2 APFS physical store of container disk3 (System + Data)
//   disk2  GPT: disk2s1 EFI, disk2s2 HFS+ "Archive" mounted at /Volumes/Archive (serial WD-123)
//   disk4  MBR: disk4s1 FAT32 "CAMERA" mounted at /Volumes/CAMERA
//   disk5  APM: disk5s1 partition map, disk5s2 HFS+
//   disk6  HFS+ written on the whole disk
//   disk7  APFS container covering the whole disk, synthesized as disk8 with volume "Backup"
//   disk9  an attached disk image (/Volumes/Archive/Images/Work.dmg) holding disk9s1 HFS+

#include "QLModel/FakeDiskImageBackingProbe.h"
#include "QLModel/FakeHardwareSerialProbe.h"
#include "QLModel/FakeVolumeProbe.h"
#include "QLModel/VolumeResolver.h"
#include "QLSupport/Clock.h"

#include <gtest/gtest.h>
#include <asio.hpp>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace ql::testing {

inline Uuid uuid(std::string_view text) { return Uuid::parse(text).value(); }

inline const Uuid kEFI0 = uuid("11111111-0000-4000-8000-000000000001");
inline const Uuid kStore0 = uuid("11111111-0000-4000-8000-000000000002");
inline const Uuid kEFI2 = uuid("22222222-0000-4000-8000-000000000001");
inline const Uuid kArchivePartition = uuid("22222222-0000-4000-8000-000000000002");
inline const Uuid kArchiveVolume = uuid("22222222-0000-4000-8000-0000000000AA");
inline const Uuid kCameraVolume = uuid("44444444-0000-4000-8000-0000000000AA");
inline const Uuid kAPMVolume = uuid("55555555-0000-4000-8000-0000000000AA");
inline const Uuid kWholeVolume = uuid("66666666-0000-4000-8000-0000000000AA");
inline const Uuid kContainer1 = uuid("33333333-0000-4000-8000-0000000000CC");
inline const Uuid kSystemVolume = uuid("33333333-0000-4000-8000-000000000001");
inline const Uuid kDataVolume = uuid("33333333-0000-4000-8000-000000000005");
inline const Uuid kGroup = uuid("33333333-0000-4000-8000-00000000006F");
inline const Uuid kContainer2 = uuid("88888888-0000-4000-8000-0000000000CC");
inline const Uuid kBackupVolume = uuid("88888888-0000-4000-8000-000000000001");
inline const Uuid kImagePartition = uuid("99999999-0000-4000-8000-000000000001");
inline const Uuid kImageVolume = uuid("99999999-0000-4000-8000-0000000000AA");
inline const Uuid kImageGUID = uuid("99999999-0000-4000-8000-0000000000D1");
inline const Uuid kStranger = uuid("DEADBEEF-0000-4000-8000-000000000000");

inline constexpr const char* kEFIType = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";
inline constexpr const char* kAPFSType = "7C3457EF-0000-11AA-AA11-00306543ECAC";
inline constexpr const char* kAPFSSwappedType = "EF57347C-0000-11AA-AA11-00306543ECAC";
inline constexpr const char* kHFSType = "48465300-0000-11AA-AA11-00306543ECAC";
inline constexpr const char* kAPFSVolumeContent = "41504653-0000-11AA-AA11-00306543ECAC";

inline constexpr std::uint64_t kStoreSize = 500'000'000'000ULL;
inline constexpr std::uint64_t kArchiveSize = 1'000'000'000'000ULL;
inline constexpr std::uint64_t kCameraSize = 64'000'000'000ULL;
inline constexpr std::uint64_t kAPMSize = 32'000'000'000ULL;
inline constexpr std::uint64_t kWholeSize = 250'000'000'000ULL;
inline constexpr std::uint64_t kWholeContainerSize = 2'000'000'000'000ULL;
inline constexpr std::uint64_t kImageVolumeSize = 10'000'000'000ULL;
inline constexpr const char* kImagePath = "/Volumes/Archive/Images/Work.dmg";

inline ProbeInfo partitionInfo(std::string device, std::optional<std::string> content, std::uint64_t size) {
    ProbeInfo info;
    info.deviceIdentifier = std::move(device);
    info.content = std::move(content);
    info.totalSize = size;
    info.partitionMapPartition = true;
    info.wholeDisk = false;
    return info;
}

inline ProbeInfo wholeDiskInfo(std::string device, std::optional<std::string> content, std::uint64_t size) {
    ProbeInfo info;
    info.deviceIdentifier = std::move(device);
    info.content = std::move(content);
    info.totalSize = size;
    info.wholeDisk = true;
    return info;
}

class ResolverWorld {
public:
    ResolverWorld() {
        auto& disks = probe->list.allDisksAndPartitions;
        disks.push_back({"disk0",
                         "GUID_partition_scheme",
                         {{"disk0s1", kEFIType, 209'715'200, kEFI0, std::nullopt},
                          {"disk0s2", kAPFSType, kStoreSize, kStore0, std::nullopt}},
                         {},
                         {}});
        disks.push_back({"disk3",
                         std::nullopt,
                         {},
                         {{"disk3s1", "Macintosh HD", 12'000'000'000, "/"},
                          {"disk3s5", "Data", 300'000'000'000, "/System/Volumes/Data"}},
                         {"disk0s2"}});
        disks.push_back({"disk2",
                         "GUID_partition_scheme",
                         {{"disk2s1", kEFIType, 209'715'200, kEFI2, std::nullopt},
                          {"disk2s2", kHFSType, kArchiveSize, kArchivePartition, kArchiveVolume}},
                         {},
                         {}});
        disks.push_back({"disk4",
                         "FDisk_partition_scheme",
                         {{"disk4s1", "DOS_FAT_32", kCameraSize, std::nullopt, kCameraVolume}},
                         {},
                         {}});
        disks.push_back({"disk5",
                         "Apple_partition_scheme",
                         {{"disk5s1", "Apple_partition_map", 32'256, std::nullopt, std::nullopt},
                          {"disk5s2", "Apple_HFS", kAPMSize, std::nullopt, kAPMVolume}},
                         {},
                         {}});
        disks.push_back({"disk6", "Apple_HFS", {}, {}, {}});
        disks.push_back({"disk7", kAPFSSwappedType, {}, {}, {}});
        disks.push_back(
            {"disk8", std::nullopt, {}, {{"disk8s1", "Backup", 900'000'000'000, "/Volumes/Backup"}}, {"disk7"}});
        disks.push_back({"disk9",
                         "GUID_partition_scheme",
                         {{"disk9s1", kHFSType, kImageVolumeSize, kImagePartition, kImageVolume}},
                         {},
                         {}});

        auto& infos = probe->infos;
        infos["disk0s1"] = partitionInfo("disk0s1", kEFIType, 209'715'200);
        infos["disk0s1"].diskUUID = kEFI0;
        infos["disk0s2"] = partitionInfo("disk0s2", kAPFSType, kStoreSize);
        infos["disk0s2"].diskUUID = kStore0;
        infos["disk0s2"].wholeDiskRegistryID = 0x100000123;
        infos["disk2s1"] = partitionInfo("disk2s1", kEFIType, 209'715'200);
        infos["disk2s1"].diskUUID = kEFI2;
        auto archive = partitionInfo("disk2s2", kHFSType, kArchiveSize);
        archive.diskUUID = kArchivePartition;
        archive.volumeUUID = kArchiveVolume;
        archive.volumeName = "Archive";
        archive.mountPoint = "/Volumes/Archive";
        archive.volumeUsedSpace = 400'000'000'000ULL;
        archive.volumeFreeSpace = 600'000'000'000ULL;
        archive.wholeDiskRegistryID = 42;
        infos["disk2s2"] = archive;
        auto camera = partitionInfo("disk4s1", "DOS_FAT_32", kCameraSize);
        camera.volumeUUID = kCameraVolume;
        camera.volumeName = "CAMERA";
        camera.mountPoint = "/Volumes/CAMERA";
        camera.filesystemPersonality = "MS-DOS FAT32";
        infos["disk4s1"] = camera;
        infos["disk5s1"] = partitionInfo("disk5s1", "Apple_partition_map", 32'256);
        infos["disk5s2"] = partitionInfo("disk5s2", "Apple_HFS", kAPMSize);
        infos["disk5s2"].volumeUUID = kAPMVolume;
        infos["disk6"] = wholeDiskInfo("disk6", "Apple_HFS", kWholeSize);
        infos["disk6"].volumeUUID = kWholeVolume;
        infos["disk7"] = wholeDiskInfo("disk7", kAPFSSwappedType, kWholeContainerSize);
        ProbeInfo data;
        data.deviceIdentifier = "disk3s5";
        data.content = kAPFSVolumeContent;
        data.apfsContainerReference = "disk3";
        data.apfsVolumeRole = {"Data"};
        data.volumeName = "Data";
        data.wholeDisk = false;
        infos["disk3s5"] = data;
        ProbeInfo backup;
        backup.deviceIdentifier = "disk8s1";
        backup.content = kAPFSVolumeContent;
        backup.apfsContainerReference = "disk8";
        backup.volumeName = "Backup";
        backup.wholeDisk = false;
        infos["disk8s1"] = backup;
        auto image = partitionInfo("disk9s1", kHFSType, kImageVolumeSize);
        image.diskUUID = kImagePartition;
        image.volumeUUID = kImageVolume;
        image.volumeName = "Work";
        image.mountPoint = "/Volumes/Work";
        infos["disk9s1"] = image;

        probe->containers.push_back({"disk3",
                                     kContainer1,
                                     {"disk0s2"},
                                     {{"disk3s1", kSystemVolume, "Macintosh HD", {"System"}, kGroup, 12'000'000'000},
                                      {"disk3s5", kDataVolume, "Data", {"Data"}, kGroup, 300'000'000'000}},
                                     kStoreSize,
                                     100'000'000'000});
        probe->containers.push_back({"disk8",
                                     kContainer2,
                                     {"disk7"},
                                     {{"disk8s1", kBackupVolume, "Backup", {}, std::nullopt, 900'000'000'000}},
                                     kWholeContainerSize,
                                     1'100'000'000'000});

        serials->serials["disk2s2"] = HardwareSerial{"WD-123"};
        typeNames["/Volumes/Archive"] = "hfs";
        typeNames["/Volumes/CAMERA"] = "msdos";
        typeNames["/Volumes/Work"] = "hfs";
        images.push_back({kImagePath, {"/dev/disk9", "/dev/disk9s1"}, kImageGUID});
        existingFiles.insert(kImagePath);
    }

    VolumeResolverEnvironment environment() {
        VolumeResolverEnvironment env;
        env.probe = probe;
        env.serialProbe = serialProbe ? serialProbe : serials;
        env.serialRetryAttempts = retryAttempts;
        env.serialRetryDelaySeconds = 2.0;
        env.networkMounts = [this] { return mounts; };
        env.attachedImages = [this] { return images; };
        env.imageBackingProbe = backing;
        env.canonicalPathAtPath = [this](const std::string& path) -> std::optional<std::string> {
            if (auto alias = canonicalAliases.find(path); alias != canonicalAliases.end()) return alias->second;
            return path;
        };
        env.fileExistsAtPath = [this](const std::string& path) { return existingFiles.count(path) > 0; };
        env.hasTimeMachine = [this](const std::string& mountPoint) { return timeMachineMounts.count(mountPoint) > 0; };
        env.filesystemTypeName = [this](const std::string& mountPoint) -> tl::expected<std::string, int> {
            auto found = typeNames.find(mountPoint);
            if (found == typeNames.end()) return tl::unexpected(2);
            return found->second;
        };
        env.clock = time;
        env.sleeper = time;
        return env;
    }

    // Runs an operation of a fresh resolver to its end, moving virtual time on while it sleeps.
    template <typename T>
    T run(std::function<asio::awaitable<T>(VolumeResolver&)> operation,
          std::optional<VolumeResolverEnvironment> env = std::nullopt) {
        asio::io_context io;
        VolumeResolver resolver(io.get_executor(), env ? std::move(*env) : environment());
        std::optional<T> result;
        std::exception_ptr failure;
        asio::co_spawn(io, operation(resolver), [&](std::exception_ptr error, T value) {
            failure = error;
            if (!error) result = std::move(value);
        });
        for (int round = 0; round < 100 && !result && !failure; ++round) {
            io.restart();
            io.poll();
            if (!result && !failure) time->advance(std::chrono::seconds(1));
        }
        if (failure) std::rethrow_exception(failure);
        if (!result) throw std::runtime_error("the operation never finished");
        return std::move(*result);
    }

    Resolution resolve(const VolumeRef& ref, std::optional<VolumeResolverEnvironment> env = std::nullopt) {
        return run<Resolution>([ref](VolumeResolver& resolver) { return resolver.resolve(ref); }, std::move(env));
    }

    std::shared_ptr<FakeVolumeProbe> probe = std::make_shared<FakeVolumeProbe>();
    std::shared_ptr<FakeHardwareSerialProbe> serials = std::make_shared<FakeHardwareSerialProbe>();
    std::shared_ptr<HardwareSerialProbe> serialProbe;  // replaces `serials` when set
    std::shared_ptr<FakeDiskImageBackingProbe> backing = std::make_shared<FakeDiskImageBackingProbe>();
    std::shared_ptr<VirtualTime> time = std::make_shared<VirtualTime>();
    std::int64_t retryAttempts = 2;
    std::vector<NetworkMountEntry> mounts;
    std::vector<AttachedImageEntry> images;
    std::set<std::string> existingFiles;
    std::map<std::string, std::string> canonicalAliases;
    std::set<std::string> timeMachineMounts;
    std::map<std::string, std::string> typeNames;
};

inline VolumeRef makeRef(VolumeKey key, VolumeInvariants invariants,
                         VolumeTarget target = VolumeTarget::wholeFilesystem()) {
    return VolumeRef{std::move(key), std::move(target), std::move(invariants), "Test", std::nullopt, std::nullopt};
}

// The references that match the world as it is built.
inline VolumeRef archiveRef() {
    return makeRef(VolumeKey::gptPartitionGUID(kArchivePartition),
                   {kArchiveSize, PartitionMapType::gpt, FilesystemFamily::hfsPlus, HardwareSerial{"WD-123"}});
}
inline VolumeRef storeRef() {
    return makeRef(VolumeKey::gptPartitionGUID(kStore0),
                   {kStoreSize, PartitionMapType::gpt, FilesystemFamily::apfsContainer, std::nullopt},
                   VolumeTarget::apfsVolumeGroup());
}
inline VolumeRef wholeContainerRef() {
    return makeRef(VolumeKey::wholeDiskAPFSContainer(kContainer2),
                   {kWholeContainerSize, PartitionMapType::wholeDisk, FilesystemFamily::apfsContainer, std::nullopt});
}
inline VolumeRef wholeVolumeRef() {
    return makeRef(VolumeKey::wholeDiskVolume(kWholeVolume),
                   {kWholeSize, PartitionMapType::wholeDisk, FilesystemFamily::hfsPlus, std::nullopt});
}
inline VolumeRef cameraRef() {
    return makeRef(VolumeKey::mbrSlice(kCameraVolume),
                   {kCameraSize, PartitionMapType::mbr, FilesystemFamily::fat32, std::nullopt});
}
inline VolumeRef apmRef() {
    return makeRef(VolumeKey::apmSlice(kAPMVolume),
                   {kAPMSize, PartitionMapType::apm, FilesystemFamily::hfsPlus, std::nullopt});
}
inline VolumeRef imageRef() {
    return makeRef(VolumeKey::diskImage(DiskImageHost::localVolume(kArchiveVolume), "Images/Work.dmg", kImageGUID),
                   {kImageVolumeSize, PartitionMapType::diskImage, FilesystemFamily::hfsPlus, std::nullopt});
}

}  // namespace ql::testing

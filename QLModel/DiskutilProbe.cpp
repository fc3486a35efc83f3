#include "QLModel/DiskutilProbe.h"

#include "QLSupport/Log.h"

#include <limits>

namespace ql {
namespace {

constexpr std::string_view kTag = "DiskutilProbe";

std::optional<std::string> stringAt(const PlistDictionary& dict, std::string_view key) {
    const auto* value = dict.find(key);
    if (!value || !value->asString()) return std::nullopt;
    return *value->asString();
}

std::uint64_t unsignedAt(const PlistDictionary& dict, std::string_view key) {
    const auto* value = dict.find(key);
    if (!value) return 0;
    if (auto integer = value->asInteger()) return *integer >= 0 ? static_cast<std::uint64_t>(*integer) : 0;
    if (auto big = value->asUnsignedInteger()) return *big;
    return 0;
}

bool boolAt(const PlistDictionary& dict, std::string_view key) {
    const auto* value = dict.find(key);
    return value && value->asBool() && *value->asBool();
}

std::optional<bool> optionalBoolAt(const PlistDictionary& dict, std::string_view key) {
    const auto* value = dict.find(key);
    if (!value || !value->asBool()) return std::nullopt;
    return *value->asBool();
}

std::optional<Uuid> uuidAt(const PlistDictionary& dict, std::string_view key) {
    auto text = stringAt(dict, key);
    if (!text) return std::nullopt;
    auto uuid = Uuid::parse(*text);
    if (!uuid) return std::nullopt;
    return *uuid;
}

const PlistValue::Array* arrayAt(const PlistDictionary& dict, std::string_view key) {
    const auto* value = dict.find(key);
    return value ? value->asArray() : nullptr;
}

std::vector<std::string> stringsAt(const PlistDictionary& dict, std::string_view key) {
    std::vector<std::string> out;
    if (const auto* array = arrayAt(dict, key)) {
        for (const auto& item : *array) {
            if (item.asString()) out.push_back(*item.asString());
        }
    }
    return out;
}

// Physical stores, whichever way the tool spells them.
std::vector<std::string> physicalStoresAt(const PlistDictionary& dict, std::string_view key) {
    std::vector<std::string> out;
    const auto* array = arrayAt(dict, key);
    if (!array) return out;
    for (const auto& item : *array) {
        if (item.asString()) {
            out.push_back(*item.asString());
        } else if (const auto* entry = item.asDict()) {
            auto name = stringAt(*entry, "DeviceIdentifier");
            if (!name) name = stringAt(*entry, "APFSPhysicalStore");
            if (name) out.push_back(*name);
        }
    }
    return out;
}

tl::expected<std::string, DiskutilError> deviceIdentifierAt(const PlistDictionary& dict) {
    auto name = stringAt(dict, "DeviceIdentifier");
    if (!name) return tl::unexpected(DiskutilError::missingField("DeviceIdentifier"));
    return *name;
}

// Each dictionary of an array; items of another type are skipped.
template <typename F>
tl::expected<void, DiskutilError> forEachDict(const PlistDictionary& dict, std::string_view key, F body) {
    const auto* array = arrayAt(dict, key);
    if (!array) return {};
    for (const auto& item : *array) {
        const auto* entry = item.asDict();
        if (!entry) continue;
        auto done = body(*entry);
        if (!done) return done;
    }
    return {};
}

}  // namespace

asio::awaitable<tl::expected<PlistDictionary, DiskutilError>> DiskutilProbe::runTool(
    std::vector<std::string> arguments) {
    ShellCommand command{std::string(executable), std::move(arguments), std::nullopt, std::nullopt, nullptr};
    auto description = command.describe();
    auto outcome = co_await runner_.run(std::move(command));
    auto dictionary = outputDictionary(outcome);
    if (!dictionary) Log::f(kTag, "{}: {}", description, dictionary.error().message());
    co_return dictionary;
}

asio::awaitable<VolumeProbe::ListResult> DiskutilProbe::listDisks() {
    std::vector<std::string> arguments{"list", "-plist"};
    auto root = co_await runTool(std::move(arguments));
    if (!root) co_return tl::unexpected(root.error());
    co_return mapList(*root);
}

asio::awaitable<VolumeProbe::InfoResult> DiskutilProbe::describe(std::string device) {
    std::vector<std::string> arguments{"info", "-plist"};
    arguments.push_back(std::move(device));
    auto root = co_await runTool(std::move(arguments));
    if (!root) co_return tl::unexpected(root.error());
    co_return mapInfo(*root);
}

asio::awaitable<VolumeProbe::ContainersResult> DiskutilProbe::listAPFSContainers() {
    std::vector<std::string> arguments{"apfs", "list", "-plist"};
    auto root = co_await runTool(std::move(arguments));
    if (!root) co_return tl::unexpected(root.error());
    co_return mapAPFSContainers(*root);
}

tl::expected<PlistDictionary, DiskutilError> DiskutilProbe::outputDictionary(const ShellRunner::Outcome& outcome) {
    if (!outcome) {
        const auto& error = outcome.error();
        switch (error.kind) {
            case ShellRunner::ShellError::Kind::launchFailed:
                return tl::unexpected(DiskutilError::processFailed(-1, error.detail));
            case ShellRunner::ShellError::Kind::nonZeroExit:
                return tl::unexpected(DiskutilError::processFailed(error.code, error.detail));
            default:
                return tl::unexpected(DiskutilError::processFailed(-1, error.message()));
        }
    }
    if (outcome->exitCode != 0) return tl::unexpected(DiskutilError::processFailed(outcome->exitCode, outcome->stderr));
    auto root = PropertyList::read(outcome->stdout);
    if (!root) return tl::unexpected(DiskutilError::plistParseFailed(root.error().message()));
    const auto* dict = root->asDict();
    if (!dict) return tl::unexpected(DiskutilError::plistParseFailed("root is not a dictionary"));
    return *dict;
}

tl::expected<ProbeList, DiskutilError> DiskutilProbe::mapList(const PlistDictionary& root) {
    ProbeList list;
    auto mapped = forEachDict(
        root, "AllDisksAndPartitions", [&](const PlistDictionary& diskDict) -> tl::expected<void, DiskutilError> {
            ProbeDisk disk;
            auto name = deviceIdentifierAt(diskDict);
            if (!name) return tl::unexpected(name.error());
            disk.deviceIdentifier = *name;
            disk.content = stringAt(diskDict, "Content");
            disk.apfsPhysicalStores = physicalStoresAt(diskDict, "APFSPhysicalStores");
            auto partitions = forEachDict(diskDict, "Partitions",
                                          [&](const PlistDictionary& entry) -> tl::expected<void, DiskutilError> {
                                              ProbePartition partition;
                                              auto partitionName = deviceIdentifierAt(entry);
                                              if (!partitionName) return tl::unexpected(partitionName.error());
                                              partition.deviceIdentifier = *partitionName;
                                              partition.content = stringAt(entry, "Content");
                                              partition.size = unsignedAt(entry, "Size");
                                              partition.diskUUID = uuidAt(entry, "DiskUUID");
                                              partition.volumeUUID = uuidAt(entry, "VolumeUUID");
                                              disk.partitions.push_back(std::move(partition));
                                              return {};
                                          });
            if (!partitions) return partitions;
            auto volumes = forEachDict(diskDict, "APFSVolumes",
                                       [&](const PlistDictionary& entry) -> tl::expected<void, DiskutilError> {
                                           ProbeAPFSVolume volume;
                                           auto volumeName = deviceIdentifierAt(entry);
                                           if (!volumeName) return tl::unexpected(volumeName.error());
                                           volume.deviceIdentifier = *volumeName;
                                           volume.name = stringAt(entry, "VolumeName");
                                           volume.size = unsignedAt(entry, "Size");
                                           volume.mountPoint = stringAt(entry, "MountPoint");
                                           disk.apfsVolumes.push_back(std::move(volume));
                                           return {};
                                       });
            if (!volumes) return volumes;
            list.allDisksAndPartitions.push_back(std::move(disk));
            return {};
        });
    if (!mapped) return tl::unexpected(mapped.error());
    return list;
}

tl::expected<ProbeInfo, DiskutilError> DiskutilProbe::mapInfo(const PlistDictionary& root) {
    ProbeInfo info;
    auto name = deviceIdentifierAt(root);
    if (!name) return tl::unexpected(name.error());
    info.deviceIdentifier = *name;
    info.volumeName = stringAt(root, "VolumeName");
    info.mountPoint = stringAt(root, "MountPoint");
    if (info.mountPoint && info.mountPoint->empty()) info.mountPoint.reset();
    info.totalSize = unsignedAt(root, "TotalSize");
    info.diskUUID = uuidAt(root, "DiskUUID");
    info.volumeUUID = uuidAt(root, "VolumeUUID");
    info.partitionMapPartition = boolAt(root, "PartitionMapPartition");
    info.content = stringAt(root, "Content");
    info.filesystemPersonality = stringAt(root, "FilesystemPersonality");
    info.apfsContainerReference = stringAt(root, "APFSContainerReference");
    if (const auto* containerInfo = root.find("ContainerInfo"); containerInfo && containerInfo->asDict()) {
        info.apfsContainerUUID = uuidAt(*containerInfo->asDict(), "APFSContainerUUID");
    }
    info.apfsPhysicalStores = physicalStoresAt(root, "APFSPhysicalStores");
    info.apfsVolumeRole = stringsAt(root, "APFSVolumeRole");
    info.apfsVolumeGroupUUID = uuidAt(root, "APFSVolumeGroupID");
    info.volumeUsedSpace = unsignedAt(root, "VolumeUsedSpace");
    info.volumeFreeSpace = unsignedAt(root, "VolumeFreeSpace");
    info.wholeDisk = optionalBoolAt(root, "WholeDisk");
    info.parentWholeDisk = stringAt(root, "ParentWholeDisk");
    info.mediaType = stringAt(root, "MediaType");
    return info;
}

tl::expected<std::vector<ProbeAPFSContainerDetail>, DiskutilError> DiskutilProbe::mapAPFSContainers(
    const PlistDictionary& root) {
    std::vector<ProbeAPFSContainerDetail> containers;
    auto mapped =
        forEachDict(root, "Containers", [&](const PlistDictionary& entry) -> tl::expected<void, DiskutilError> {
            ProbeAPFSContainerDetail container;
            container.containerReference = stringAt(entry, "ContainerReference").value_or(std::string());
            container.containerUUID = uuidAt(entry, "APFSContainerUUID");
            container.physicalStores = physicalStoresAt(entry, "PhysicalStores");
            container.capacityCeiling = unsignedAt(entry, "CapacityCeiling");
            container.capacityFree = unsignedAt(entry, "CapacityFree");
            auto volumes = forEachDict(entry, "Volumes",
                                       [&](const PlistDictionary& volumeDict) -> tl::expected<void, DiskutilError> {
                                           ProbeAPFSContainerVolume volume;
                                           auto name = deviceIdentifierAt(volumeDict);
                                           if (!name) return tl::unexpected(name.error());
                                           volume.deviceIdentifier = *name;
                                           volume.volumeUUID = uuidAt(volumeDict, "APFSVolumeUUID");
                                           volume.name = stringAt(volumeDict, "Name");
                                           volume.roles = stringsAt(volumeDict, "Roles");
                                           volume.groupID = uuidAt(volumeDict, "APFSVolumeGroupID");
                                           volume.capacityInUse = unsignedAt(volumeDict, "CapacityInUse");
                                           container.volumes.push_back(std::move(volume));
                                           return {};
                                       });
            if (!volumes) return volumes;
            containers.push_back(std::move(container));
            return {};
        });
    if (!mapped) return tl::unexpected(mapped.error());
    return containers;
}

}  // namespace ql

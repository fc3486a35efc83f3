#include "QLModel/VolumeResolver.h"

#include "QLModel/PartitionContentName.h"
#include "QLModel/ShareAddress.h"
#include "QLSupport/Log.h"

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <regex>

namespace ql {

// What a scan for the volume holding a disk-image file found.
struct VolumeResolver::HostLookup {
    enum class Outcome { found, notFound, incomplete };
    Outcome outcome = Outcome::notFound;
    std::string device;
    std::optional<std::string> mountPoint;
    std::optional<std::uint64_t> wholeDiskRegistryID;
};

namespace {

constexpr std::string_view kTag = "VolumeResolver";
constexpr std::string_view kGPTScheme = "GUID_partition_scheme";
constexpr std::string_view kMBRScheme = "FDisk_partition_scheme";
constexpr std::string_view kAPMScheme = "Apple_partition_scheme";

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

std::string lowercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return out;
}

// The content name of a device, with partition-type GUIDs mapped to their names.
std::string contentName(const std::optional<std::string>& content) {
    return PartitionContentName::fromTypeGUID(content).value_or(std::string());
}

bool isAPFSContainerContent(const std::optional<std::string>& content) {
    return startsWith(contentName(content), "Apple_APFS");
}

bool isAPFSVolume(const ProbeInfo& info) {
    if (info.content && lowercased(*info.content) == lowercased(PartitionContentName::apfsVolumeContentGUID)) {
        return true;
    }
    return info.apfsContainerReference && !isAPFSContainerContent(info.content) && !info.partitionMapPartition &&
           !info.wholeDisk.value_or(false);
}

// A whole disk (not a partition or a volume). The probe says so; a description that doesn't is
// judged by the platform's whole-disk device names.
bool isWholeDisk(const ProbeInfo& info) {
    if (info.wholeDisk) return *info.wholeDisk;
    static const std::regex wholeDiskName("^disk[0-9]+$");
    return std::regex_match(info.deviceIdentifier, wholeDiskName);
}

bool isGPTPartition(const ProbeInfo& info) {
    return info.partitionMapPartition && !info.mbrPartition && !info.apmPartition;
}

PartitionMapType liveMapType(const ProbeInfo& info) {
    if (isGPTPartition(info)) return PartitionMapType::gpt;
    if (info.mbrPartition) return PartitionMapType::mbr;
    if (info.apmPartition) return PartitionMapType::apm;
    return PartitionMapType::wholeDisk;
}

// Marks a partition with its disk's scheme, as the listing tells it.
void applyScheme(ProbeInfo& info, const std::optional<std::string>& scheme) {
    if (!scheme) return;
    if (*scheme == kGPTScheme) {
        info.mbrPartition = false;
        info.apmPartition = false;
    } else if (*scheme == kMBRScheme) {
        info.mbrPartition = true;
        info.apmPartition = false;
    } else if (*scheme == kAPMScheme) {
        info.apmPartition = true;
        info.mbrPartition = false;
    }
}

std::string deviceName(std::string_view device) {
    if (startsWith(device, "/dev/")) device.remove_prefix(5);
    return std::string(device);
}

// The scheme of the disk that lists `device` among its partitions.
std::optional<std::string> schemeOfParent(const ProbeList& listing, const std::string& device) {
    for (const auto& disk : listing.allDisksAndPartitions) {
        for (const auto& partition : disk.partitions) {
            if (partition.deviceIdentifier == device) return disk.content;
        }
    }
    return std::nullopt;
}

std::optional<ProbeAPFSContainerDetail> containerFor(const std::vector<ProbeAPFSContainerDetail>& containers,
                                                     const std::string& device, const ProbeInfo& info) {
    for (const auto& container : containers) {
        if (std::find(container.physicalStores.begin(), container.physicalStores.end(), device) !=
            container.physicalStores.end()) {
            return container;
        }
    }
    for (const auto& container : containers) {
        if (container.containerReference == device ||
            (info.apfsContainerReference && container.containerReference == *info.apfsContainerReference)) {
            return container;
        }
    }
    return std::nullopt;
}

APFSContainerState containerState(const ProbeAPFSContainerDetail& container, const std::optional<ProbeList>& listing) {
    APFSContainerState state;
    state.containerUUID = container.containerUUID.value_or(Uuid());
    state.capacityCeiling = container.capacityCeiling;
    state.capacityFree = container.capacityFree;
    auto listedVolume = [&](const std::string& device) -> const ProbeAPFSVolume* {
        if (!listing) return nullptr;
        for (const auto& disk : listing->allDisksAndPartitions) {
            for (const auto& volume : disk.apfsVolumes) {
                if (volume.deviceIdentifier == device) return &volume;
            }
        }
        return nullptr;
    };
    for (const auto& volume : container.volumes) {
        APFSVolumeState out;
        out.bsdDevice = volume.deviceIdentifier;
        out.volumeUUID = volume.volumeUUID.value_or(Uuid());
        out.name = volume.name.value_or(std::string());
        out.role = volume.roles.empty() ? APFSVolumeRole::other("") : APFSVolumeRole::named(volume.roles.front());
        out.usedBytes = volume.capacityInUse;
        out.totalBytes = container.capacityCeiling;
        out.freeBytes = container.capacityFree;
        out.format = FilesystemFamily::apfs;
        out.groupUUID = volume.groupID;
        if (auto listed = listedVolume(volume.deviceIdentifier)) {
            out.mountPoint = listed->mountPoint;
            if (out.name.empty() && listed->name) out.name = *listed->name;
        }
        if (!state.volumeGroup && volume.groupID) state.volumeGroup = APFSVolumeGroupState{*volume.groupID};
        state.allVolumes.push_back(std::move(out));
    }
    return state;
}

FilesystemFamily familyOfShareScheme(const std::string& url) {
    auto address = ShareAddress::parse(url);
    if (!address) return FilesystemFamily::other;
    if (address->scheme == "smb") return FilesystemFamily::smb;
    if (address->scheme == "afp") return FilesystemFamily::afp;
    if (address->scheme == "nfs") return FilesystemFamily::nfs;
    return FilesystemFamily::other;
}

std::string lastPathComponent(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string joinPath(const std::string& base, const std::string& relative) {
    if (relative.empty()) return base;
    if (base.empty() || base.back() == '/') return base + relative;
    if (relative.front() == '/') return base + relative;
    return base + "/" + relative;
}

bool familyTolerated(FilesystemFamily recorded, FilesystemFamily live) {
    if (recorded == live) return true;
    // Bindings made before exfat, fat32 and ntfs were told apart recorded `other`; they stay
    // valid for those families.
    return recorded == FilesystemFamily::other &&
           (live == FilesystemFamily::exfat || live == FilesystemFamily::fat32 || live == FilesystemFamily::ntfs);
}

std::string uuidText(const std::optional<Uuid>& uuid) { return uuid ? uuid->text() : std::string("<none>"); }

Resolution unresolvedProbe(std::string_view sentence) {
    return Resolution::unresolved(UnresolvedReason::probeFailed(std::string(sentence)));
}

}  // namespace

VolumeResolver::VolumeResolver(const Executor& executor, VolumeResolverEnvironment environment)
    : Actor(executor), env_(std::move(environment)) {
    if (env_.serialRetryAttempts < 0) {
        Log::f(kTag, "serialRetryAttempts is {}; it must not be negative", env_.serialRetryAttempts);
        std::abort();
    }
    if (!env_.clock) env_.clock = std::make_shared<LiveClock>();
    if (!env_.sleeper) env_.sleeper = std::make_shared<LiveSleeper>();
}

asio::awaitable<Resolution> VolumeResolver::resolve(VolumeRef ref) {
    return serialized(resolveOnStrand(std::move(ref)));
}

asio::awaitable<VolumeResolver::BindingResult> VolumeResolver::bind(std::string device,
                                                                    ImageBackedDevicePolicy policy) {
    return serialized(bindOnStrand(std::move(device), policy, true));
}

asio::awaitable<VolumeResolver::BindingResult> VolumeResolver::bindSlice(std::string device,
                                                                         ImageBackedDevicePolicy policy) {
    return serialized(bindOnStrand(std::move(device), policy, false));
}

asio::awaitable<Resolution> VolumeResolver::resolveOnStrand(VolumeRef ref) {
    auto key = ref.key.description();
    auto resolution = co_await dispatch(std::move(ref));
    Log::f(kTag, "{} → {}", key, resolution.description());
    co_return resolution;
}

asio::awaitable<Resolution> VolumeResolver::dispatch(VolumeRef ref) {
    const auto kind = ref.key.kind();
    const bool deviceKey = kind != VolumeKey::Kind::diskImage && kind != VolumeKey::Kind::networkShare;
    if (deviceKey && !env_.probe) {
        co_return Resolution::unresolved(UnresolvedReason::unsupportedKey(
            std::string(ref.key.caseName()) + " keys can't be resolved here: this resolver has no disk probe"));
    }
    if (deviceKey && !env_.serialProbe) {
        co_return Resolution::unresolved(UnresolvedReason::unsupportedKey(
            std::string(ref.key.caseName()) +
            " keys can't be resolved here: this resolver has no hardware-serial probe"));
    }
    switch (kind) {
        case VolumeKey::Kind::gptPartitionGUID: {
            auto guid = ref.key.as<VolumeKey::GPTPartitionGUID>()->guid;
            co_return co_await searchGPTPartition(std::move(ref), guid);
        }
        case VolumeKey::Kind::wholeDiskAPFSContainer: {
            auto uuid = ref.key.as<VolumeKey::WholeDiskAPFSContainer>()->containerUUID;
            co_return co_await searchContainer(std::move(ref), uuid);
        }
        case VolumeKey::Kind::wholeDiskVolume: {
            auto uuid = ref.key.as<VolumeKey::WholeDiskVolume>()->volumeUUID;
            co_return co_await searchWholeDisk(std::move(ref), uuid);
        }
        case VolumeKey::Kind::mbrSlice: {
            auto uuid = ref.key.as<VolumeKey::MBRSlice>()->volumeUUID;
            co_return co_await searchSlice(std::move(ref), uuid, std::string(kMBRScheme));
        }
        case VolumeKey::Kind::apmSlice: {
            auto uuid = ref.key.as<VolumeKey::APMSlice>()->volumeUUID;
            co_return co_await searchSlice(std::move(ref), uuid, std::string(kAPMScheme));
        }
        case VolumeKey::Kind::diskImage:
            co_return co_await searchDiskImage(std::move(ref));
        case VolumeKey::Kind::networkShare:
            co_return co_await searchNetworkShare(std::move(ref));
    }
    co_return Resolution::unresolved(UnresolvedReason::unsupportedKey("Unknown key kind"));
}

// Partition search: every partition of every disk, in listing order, by unique GUID. A partition
// whose GUID the listing doesn't carry is described to learn it.
asio::awaitable<Resolution> VolumeResolver::searchGPTPartition(VolumeRef ref, Uuid guid) {
    auto listed = co_await env_.probe->listDisks();
    if (!listed) {
        Log::f(kTag, "listing failed while looking for partition {}: {}", guid.text(), listed.error().message());
        co_return unresolvedProbe(partitionScanIncomplete);
    }
    bool incomplete = false;
    for (const auto& disk : listed->allDisksAndPartitions) {
        for (const auto& partition : disk.partitions) {
            auto partitionGUID = partition.diskUUID;
            if (!partitionGUID) {
                auto info = co_await env_.probe->describe(partition.deviceIdentifier);
                if (!info) {
                    Log::f(kTag, "couldn't read {} while looking for partition {}: {}", partition.deviceIdentifier,
                           guid.text(), info.error().message());
                    incomplete = true;
                    continue;
                }
                partitionGUID = info->diskUUID;
            }
            if (partitionGUID != guid) continue;
            co_return co_await examine(std::move(ref), partition.deviceIdentifier, disk.content, *listed,
                                       std::string(partitionScanIncomplete));
        }
    }
    if (incomplete) co_return unresolvedProbe(partitionScanIncomplete);
    co_return Resolution::unresolved(UnresolvedReason::volumeMissing());
}

// Container search: the APFS containers by UUID; the found container is examined through the
// whole disk that is its physical store.
asio::awaitable<Resolution> VolumeResolver::searchContainer(VolumeRef ref, Uuid containerUUID) {
    auto containers = co_await env_.probe->listAPFSContainers();
    if (!containers) {
        Log::f(kTag, "APFS listing failed while looking for container {}: {}", containerUUID.text(),
               containers.error().message());
        co_return unresolvedProbe(containerScanIncomplete);
    }
    bool incomplete = false;
    for (const auto& container : *containers) {
        if (!container.containerUUID) {
            Log::f(kTag, "container {} reports no UUID while looking for container {}", container.containerReference,
                   containerUUID.text());
            incomplete = true;
            continue;
        }
        if (*container.containerUUID != containerUUID) continue;
        if (container.physicalStores.empty()) {
            Log::f(kTag, "container {} reports no physical store", container.containerReference);
            co_return unresolvedProbe(containerScanIncomplete);
        }
        auto listed = co_await env_.probe->listDisks();
        if (!listed) {
            Log::f(kTag, "listing failed while examining container {}: {}", containerUUID.text(),
                   listed.error().message());
            co_return unresolvedProbe(containerScanIncomplete);
        }
        auto store = container.physicalStores.front();
        co_return co_await examine(std::move(ref), store, schemeOfParent(*listed, store), *listed,
                                   std::string(containerScanIncomplete));
    }
    if (incomplete) co_return unresolvedProbe(containerScanIncomplete);
    co_return Resolution::unresolved(UnresolvedReason::volumeMissing());
}

// Whole-disk search: whole disks without a partition map, by the volume UUID of the filesystem
// written on them.
asio::awaitable<Resolution> VolumeResolver::searchWholeDisk(VolumeRef ref, Uuid volumeUUID) {
    auto listed = co_await env_.probe->listDisks();
    if (!listed) {
        Log::f(kTag, "listing failed while looking for whole-disk volume {}: {}", volumeUUID.text(),
               listed.error().message());
        co_return unresolvedProbe(wholeDiskScanIncomplete);
    }
    bool incomplete = false;
    for (const auto& disk : listed->allDisksAndPartitions) {
        if (!disk.partitions.empty() || !disk.apfsVolumes.empty()) continue;
        auto info = co_await env_.probe->describe(disk.deviceIdentifier);
        if (!info) {
            Log::f(kTag, "couldn't read {} while looking for whole-disk volume {}: {}", disk.deviceIdentifier,
                   volumeUUID.text(), info.error().message());
            incomplete = true;
            continue;
        }
        if (!isWholeDisk(*info) || info->volumeUUID != volumeUUID) continue;
        co_return co_await examine(std::move(ref), disk.deviceIdentifier, std::nullopt, *listed,
                                   std::string(wholeDiskScanIncomplete));
    }
    if (incomplete) co_return unresolvedProbe(wholeDiskScanIncomplete);
    co_return Resolution::unresolved(UnresolvedReason::volumeMissing());
}

// Slice search: the partitions of disks with the given scheme, by the volume UUID inside them.
asio::awaitable<Resolution> VolumeResolver::searchSlice(VolumeRef ref, Uuid volumeUUID, std::string scheme) {
    auto listed = co_await env_.probe->listDisks();
    if (!listed) {
        Log::f(kTag, "listing failed while looking for slice {}: {}", volumeUUID.text(), listed.error().message());
        co_return unresolvedProbe(sliceScanIncomplete);
    }
    bool incomplete = false;
    for (const auto& disk : listed->allDisksAndPartitions) {
        if (disk.content != scheme) continue;
        for (const auto& partition : disk.partitions) {
            auto uuid = partition.volumeUUID;
            if (!uuid) {
                auto info = co_await env_.probe->describe(partition.deviceIdentifier);
                if (!info) {
                    Log::f(kTag, "couldn't read {} while looking for slice {}: {}", partition.deviceIdentifier,
                           volumeUUID.text(), info.error().message());
                    incomplete = true;
                    continue;
                }
                uuid = info->volumeUUID;
            }
            if (uuid != volumeUUID) continue;
            co_return co_await examine(std::move(ref), partition.deviceIdentifier, disk.content, *listed,
                                       std::string(sliceScanIncomplete));
        }
    }
    if (incomplete) co_return unresolvedProbe(sliceScanIncomplete);
    co_return Resolution::unresolved(UnresolvedReason::volumeMissing());
}

// Finds the local volume holding a disk-image file, by its volume UUID: partitions, whole-disk
// volumes and APFS volumes.
asio::awaitable<VolumeResolver::HostLookup> VolumeResolver::findLocalVolume(Uuid volumeUUID) {
    HostLookup lookup;
    bool incomplete = false;
    auto listed = co_await env_.probe->listDisks();
    if (!listed) {
        Log::f(kTag, "listing failed while looking for image host {}: {}", volumeUUID.text(), listed.error().message());
        lookup.outcome = HostLookup::Outcome::incomplete;
        co_return lookup;
    }
    std::vector<std::string> candidates;
    for (const auto& disk : listed->allDisksAndPartitions) {
        if (disk.partitions.empty() && disk.apfsVolumes.empty() && disk.apfsPhysicalStores.empty()) {
            candidates.push_back(disk.deviceIdentifier);
        }
        for (const auto& partition : disk.partitions) {
            if (partition.volumeUUID) {
                if (*partition.volumeUUID == volumeUUID)
                    candidates.insert(candidates.begin(), partition.deviceIdentifier);
            } else if (!isAPFSContainerContent(partition.content)) {
                candidates.push_back(partition.deviceIdentifier);
            }
        }
    }
    auto containers = co_await env_.probe->listAPFSContainers();
    if (!containers) {
        Log::f(kTag, "APFS listing failed while looking for image host {}: {}", volumeUUID.text(),
               containers.error().message());
        incomplete = true;
    } else {
        for (const auto& container : *containers) {
            for (const auto& volume : container.volumes) {
                if (volume.volumeUUID == volumeUUID) candidates.insert(candidates.begin(), volume.deviceIdentifier);
            }
        }
    }
    for (const auto& device : candidates) {
        auto info = co_await env_.probe->describe(device);
        if (!info) {
            Log::f(kTag, "couldn't read {} while looking for image host {}: {}", device, volumeUUID.text(),
                   info.error().message());
            incomplete = true;
            continue;
        }
        if (info->volumeUUID != volumeUUID) continue;
        lookup.outcome = HostLookup::Outcome::found;
        lookup.device = device;
        lookup.mountPoint = info->mountPoint;
        if (lookup.mountPoint && lookup.mountPoint->empty()) lookup.mountPoint.reset();
        lookup.wholeDiskRegistryID = info->wholeDiskRegistryID;
        co_return lookup;
    }
    lookup.outcome = incomplete ? HostLookup::Outcome::incomplete : HostLookup::Outcome::notFound;
    co_return lookup;
}

// Disk-image search: where the image file lives, whether it is there, whether it is attached,
// then the volume inside it.
asio::awaitable<Resolution> VolumeResolver::searchDiskImage(VolumeRef ref) {
    const auto key = *ref.key.as<VolumeKey::DiskImage>();
    const bool onShare = key.host.kind() == DiskImageHost::Kind::networkShare;
    std::vector<std::string> missing;
    if (!env_.probe) missing.push_back("a disk probe");
    if (!env_.attachedImages) missing.push_back("the attached-image listing");
    if (!env_.fileExistsAtPath) missing.push_back("a file-existence check");
    if (onShare && !env_.networkMounts) missing.push_back("the network-mount listing");
    if (!missing.empty()) {
        std::string list;
        for (std::size_t i = 0; i < missing.size(); ++i) {
            if (i > 0) list += i + 1 == missing.size() ? " and " : ", ";
            list += missing[i];
        }
        co_return Resolution::unresolved(
            UnresolvedReason::unsupportedKey("Disk-image keys can't be resolved here: this resolver lacks " + list));
    }

    // Where the image file lives.
    std::string hostMountPoint;
    std::optional<std::string> hostDevice;
    std::optional<std::uint64_t> hostRegistryID;
    if (onShare) {
        const auto& url = key.host.as<DiskImageHost::NetworkShare>()->url;
        std::optional<std::string> mountPoint;
        for (const auto& mount : env_.networkMounts()) {
            if (sameShare(url, mount.shareURL)) {
                mountPoint = mount.mountPoint;
                break;
            }
        }
        if (!mountPoint) co_return Resolution::unresolved(UnresolvedReason::imageHostUnmounted(std::nullopt));
        hostMountPoint = *mountPoint;
    } else {
        auto lookup = co_await findLocalVolume(key.host.as<DiskImageHost::LocalVolume>()->volumeUUID);
        if (lookup.outcome == HostLookup::Outcome::incomplete) co_return unresolvedProbe(imageHostScanIncomplete);
        if (lookup.outcome == HostLookup::Outcome::notFound) {
            co_return Resolution::unresolved(UnresolvedReason::imageHostUnmounted(std::nullopt));
        }
        if (!lookup.mountPoint) co_return Resolution::unresolved(UnresolvedReason::imageHostUnmounted(lookup.device));
        hostMountPoint = *lookup.mountPoint;
        hostDevice = lookup.device;
        hostRegistryID = lookup.wholeDiskRegistryID;
    }

    // The file, and its attachment.
    auto imagePath = joinPath(hostMountPoint, key.relativePath);
    auto canonicalPath = canonical(imagePath).value_or(imagePath);
    if (!env_.fileExistsAtPath(canonicalPath)) {
        Log::f(kTag, "image file {} is not there", canonicalPath);
        co_return Resolution::unresolved(UnresolvedReason::imageFileMissing());
    }
    std::optional<AttachedImageEntry> attached;
    for (auto& entry : env_.attachedImages()) {
        if (canonical(entry.imagePath).value_or(entry.imagePath) == canonicalPath && !entry.devices.empty()) {
            attached = std::move(entry);
            break;
        }
    }
    if (!attached) co_return Resolution::unresolved(UnresolvedReason::notAttached());
    std::vector<std::string> imageDevices;
    for (const auto& device : attached->devices) imageDevices.push_back(deviceName(device));
    const auto imageDevice = imageDevices.front();

    // The volume inside: in listing order, the first partition of the image's disks that holds a
    // volume (an APFS container, or a filesystem with a volume UUID; never the EFI partition), or
    // a whole image disk with a filesystem and no partition map.
    auto listed = co_await env_.probe->listDisks();
    if (!listed) {
        Log::f(kTag, "listing failed while looking inside {}: {}", imageDevice, listed.error().message());
        co_return unresolvedProbe(imageVolumeScanIncomplete);
    }
    auto isImageDevice = [&](const std::string& device) {
        return std::find(imageDevices.begin(), imageDevices.end(), device) != imageDevices.end();
    };
    std::optional<std::string> volumeDevice;
    std::optional<std::string> volumeScheme;
    bool sawEveryDevice = true;
    for (const auto& device : imageDevices) {
        bool listedHere = false;
        for (const auto& disk : listed->allDisksAndPartitions) {
            if (disk.deviceIdentifier == device) listedHere = true;
            for (const auto& partition : disk.partitions) {
                if (partition.deviceIdentifier == device) listedHere = true;
            }
        }
        sawEveryDevice = sawEveryDevice && listedHere;
    }
    for (const auto& disk : listed->allDisksAndPartitions) {
        if (volumeDevice) break;
        if (!isImageDevice(disk.deviceIdentifier)) continue;
        if (!disk.apfsPhysicalStores.empty()) continue;  // a container disk: its store is listed too
        for (const auto& partition : disk.partitions) {
            auto content = contentName(partition.content);
            if (content == "EFI") continue;
            if (partition.volumeUUID || startsWith(content, "Apple_APFS") || startsWith(content, "Apple_HFS")) {
                volumeDevice = partition.deviceIdentifier;
                volumeScheme = disk.content;
                break;
            }
        }
        if (!volumeDevice && disk.partitions.empty() && disk.content && !disk.content->empty()) {
            volumeDevice = disk.deviceIdentifier;
        }
    }
    if (!volumeDevice) {
        if (!sawEveryDevice) co_return unresolvedProbe(imageVolumeScanIncomplete);
        co_return unresolvedProbe(imageDevice + " holds a different volume than this backup expects");
    }
    auto info = co_await env_.probe->describe(*volumeDevice);
    if (!info) {
        Log::f(kTag, "couldn't read {} inside {}: {}", *volumeDevice, imageDevice, info.error().message());
        co_return unresolvedProbe("Couldn't read the volume inside " + imageDevice);
    }
    applyScheme(*info, volumeScheme);
    const bool wantsContainer = ref.target.kind() != VolumeTarget::Kind::wholeFilesystem ||
                                ref.invariants.filesystemFamily == FilesystemFamily::apfsContainer ||
                                ref.invariants.filesystemFamily == FilesystemFamily::apfs;
    if (wantsContainer != isAPFSContainerContent(info->content)) {
        co_return unresolvedProbe(imageDevice + " holds a different volume than this backup expects");
    }
    auto state = co_await buildState(*volumeDevice, *info, *listed);
    if (!state) co_return Resolution::unresolved(std::move(state.error()));
    state->hostBSDDevice = hostDevice;
    state->hostWholeDiskRegistryID = hostRegistryID;
    if (attached->internalGUID && *attached->internalGUID != key.internalGUID) {
        co_return Resolution::suspicious(
            std::move(*state), {{"diskImageInternalGUID", key.internalGUID.text(), attached->internalGUID->text()}});
    }
    co_return Resolution::ok(std::move(*state));
}

// Network-share search: the current network mounts, by normalised share URL; the first match in
// mount-table order wins.
asio::awaitable<Resolution> VolumeResolver::searchNetworkShare(VolumeRef ref) {
    if (!env_.networkMounts) {
        co_return Resolution::unresolved(UnresolvedReason::unsupportedKey(
            "Network-share keys can't be resolved here: this resolver has no network-mount listing"));
    }
    const auto& url = ref.key.as<VolumeKey::NetworkShare>()->url;
    for (const auto& mount : env_.networkMounts()) {
        if (!sameShare(url, mount.shareURL)) continue;
        PlainVolumeState volume;
        volume.bsdDevice = mount.shareURL;
        volume.name = lastPathComponent(mount.mountPoint);
        volume.volumeUUID = mount.volumeUUID;
        volume.mountPoint = mount.mountPoint;
        volume.format = familyOfShareScheme(mount.shareURL);
        CurrentVolumeState state;
        state.bsdDevice = mount.shareURL;
        state.standaloneVolume = std::move(volume);
        state.hasTimeMachine = env_.hasTimeMachine && env_.hasTimeMachine(mount.mountPoint);
        state.observedAt = env_.clock->now();
        co_return Resolution::ok(std::move(state));
    }
    co_return Resolution::unresolved(UnresolvedReason::volumeMissing());
}

asio::awaitable<Resolution> VolumeResolver::examine(VolumeRef ref, std::string device,
                                                    std::optional<std::string> scheme, std::optional<ProbeList> listing,
                                                    std::string unreadableSentence) {
    auto info = co_await env_.probe->describe(device);
    if (!info) {
        Log::f(kTag, "couldn't describe {}, found for {}: {}", device, ref.key.description(), info.error().message());
        co_return unresolvedProbe(unreadableSentence);
    }
    applyScheme(*info, scheme);
    auto state = co_await buildState(device, *info, std::move(listing));
    if (!state) co_return Resolution::unresolved(std::move(state.error()));
    auto mismatches = co_await checkInvariants(std::move(ref), *info, *state);
    if (mismatches.empty()) co_return Resolution::ok(std::move(*state));
    co_return Resolution::suspicious(std::move(*state), std::move(mismatches));
}

asio::awaitable<tl::expected<CurrentVolumeState, UnresolvedReason>> VolumeResolver::buildState(
    std::string device, ProbeInfo info, std::optional<ProbeList> listing) {
    CurrentVolumeState state;
    state.bsdDevice = device;
    if (isGPTPartition(info)) state.partitionGUID = info.diskUUID;
    state.partitionSizeBytes = info.totalSize;
    state.wholeDiskRegistryID = info.wholeDiskRegistryID;
    auto markers = [&](const std::optional<std::string>& mountPoint) {
        return env_.hasTimeMachine && mountPoint && !mountPoint->empty() && env_.hasTimeMachine(*mountPoint);
    };
    if (isAPFSContainerContent(info.content)) {
        auto containers = co_await env_.probe->listAPFSContainers();
        std::optional<ProbeAPFSContainerDetail> container;
        if (containers) {
            container = containerFor(*containers, device, info);
        } else {
            Log::f(kTag, "APFS listing failed for {}: {}", device, containers.error().message());
        }
        if (!container || !container->containerUUID) {
            co_return tl::unexpected(UnresolvedReason::probeFailed("APFS container topology not ready for " + device));
        }
        state.containerState = containerState(*container, listing);
        state.physicalStoreCount =
            std::max<std::int64_t>(1, static_cast<std::int64_t>(container->physicalStores.size()));
        for (const auto& volume : state.containerState->allVolumes) {
            if (markers(volume.mountPoint)) state.hasTimeMachine = true;
        }
    } else {
        PlainVolumeState volume;
        volume.bsdDevice = device;
        volume.name = info.volumeName.value_or(std::string());
        volume.volumeUUID = info.volumeUUID;
        volume.mountPoint = info.mountPoint;
        if (volume.mountPoint && volume.mountPoint->empty()) volume.mountPoint.reset();
        volume.usedBytes = info.volumeUsedSpace;
        volume.totalBytes = info.totalSize;
        volume.freeBytes = info.volumeFreeSpace;
        volume.format = classify(info);
        state.hasTimeMachine = markers(volume.mountPoint);
        state.standaloneVolume = std::move(volume);
    }
    if (env_.imageBackingProbe) {
        if (auto backing = env_.imageBackingProbe->backing(device)) {
            state.hostBSDDevice = backing->hostDevice;
            if (backing->hostDevice) {
                auto host = co_await env_.probe->describe(*backing->hostDevice);
                if (host) state.hostWholeDiskRegistryID = host->wholeDiskRegistryID;
            }
        }
    }
    state.observedAt = env_.clock->now();
    co_return state;
}

asio::awaitable<std::vector<InvariantMismatch>> VolumeResolver::checkInvariants(VolumeRef ref, ProbeInfo info,
                                                                                CurrentVolumeState state) {
    std::vector<InvariantMismatch> mismatches;
    const auto& recorded = ref.invariants;

    if (recorded.partitionSizeBytes != info.totalSize) {
        mismatches.push_back(
            {"partitionSizeBytes", std::to_string(recorded.partitionSizeBytes), std::to_string(info.totalSize)});
    }

    auto family = classify(info);
    if (!familyTolerated(recorded.filesystemFamily, family)) {
        mismatches.push_back(
            {"filesystemFamily", std::string(caseName(recorded.filesystemFamily)), std::string(caseName(family))});
    }

    if (auto container = ref.key.as<VolumeKey::WholeDiskAPFSContainer>()) {
        std::optional<Uuid> live =
            state.containerState ? std::optional<Uuid>(state.containerState->containerUUID) : info.apfsContainerUUID;
        if (live != container->containerUUID) {
            mismatches.push_back({"containerUUID", container->containerUUID.text(), uuidText(live)});
        }
    }

    auto mapType = liveMapType(info);
    if (mapType != recorded.partitionMapType) {
        mismatches.push_back(
            {"partitionMapType", std::string(caseName(recorded.partitionMapType)), std::string(caseName(mapType))});
    }

    if (auto serial = co_await checkSerial(std::move(ref), state.bsdDevice)) mismatches.push_back(std::move(*serial));
    co_return mismatches;
}

asio::awaitable<std::optional<InvariantMismatch>> VolumeResolver::checkSerial(VolumeRef ref, std::string device) {
    const auto& recorded = ref.invariants.hardwareSerial;
    const auto kind = ref.key.kind();
    if (recorded && startsWith(recorded->value, "random__") &&
        (kind == VolumeKey::Kind::gptPartitionGUID || kind == VolumeKey::Kind::wholeDiskAPFSContainer)) {
        // The device declared itself to have no durable serial: say so and don't compare.
        auto live = env_.serialProbe->serial(device);
        Log::line("serialProbe",
                  device + ": stored serial is self-declared non-durable (" + recorded->value + " → " +
                      (live ? live->value : std::string("<unreadable>")) + ") key=" + std::string(ref.key.caseName()) +
                      " family=" + std::string(caseName(ref.invariants.filesystemFamily)) + " — not compared");
        co_return std::nullopt;
    }

    auto live = env_.serialProbe->serial(device);
    if (!live && recorded) {
        for (std::int64_t attempt = 0; attempt < env_.serialRetryAttempts && !live; ++attempt) {
            co_await env_.sleeper->sleep(
                std::chrono::duration_cast<Duration>(std::chrono::duration<double>(env_.serialRetryDelaySeconds)));
            live = env_.serialProbe->serial(device);
        }
        if (!live) {
            Log::f(kTag, "serial of {} stayed unreadable after {} more reads", device, env_.serialRetryAttempts);
            co_return InvariantMismatch{"hardwareSerialUnreadable", recorded->value, "<none>"};
        }
    }
    if (!live) co_return std::nullopt;
    // A device that starts reporting a serial after binding is reported too.
    if (!recorded) co_return InvariantMismatch{"hardwareSerial", "<none>", live->value};
    if (recorded->value != live->value) co_return InvariantMismatch{"hardwareSerial", recorded->value, live->value};
    co_return std::nullopt;
}

asio::awaitable<VolumeResolver::BindingResult> VolumeResolver::bindOnStrand(std::string device,
                                                                            ImageBackedDevicePolicy policy,
                                                                            bool acceptWholeDiskVolume) {
    device = deviceName(device);
    auto refuse = [&](std::string message) -> BindingResult {
        Log::f(kTag, "binding refused: {}", message);
        return tl::unexpected(BindingError{std::move(message)});
    };
    if (!env_.probe || !env_.serialProbe) {
        co_return refuse("Couldn't bind " + device + ": this resolver has no disk probe");
    }
    auto imageBacked = [&](const std::string& name) {
        return policy == ImageBackedDevicePolicy::refuse && env_.imageBackingProbe &&
               env_.imageBackingProbe->backing(name).has_value();
    };
    if (imageBacked(device)) co_return refuse(device + " belongs to a disk image; bind the image file instead");

    auto described = co_await env_.probe->describe(device);
    if (!described) co_return refuse("Couldn't bind " + device + ": " + described.error().message());
    ProbeInfo info = *described;
    std::string displayName = info.volumeName.value_or(device);
    VolumeTarget target = VolumeTarget::wholeFilesystem();

    // An APFS volume is bound through its container and the partition holding it.
    std::string factsDevice = device;
    std::optional<std::vector<ProbeAPFSContainerDetail>> containers;
    if (isAPFSVolume(info)) {
        if (!info.apfsVolumeRole.empty())
            target = VolumeTarget::apfsVolumeByRole(APFSVolumeRole::named(info.apfsVolumeRole.front()));
        auto listedContainers = co_await env_.probe->listAPFSContainers();
        std::optional<std::string> store;
        if (listedContainers) {
            containers = *listedContainers;
            for (const auto& container : *listedContainers) {
                bool holds =
                    info.apfsContainerReference && container.containerReference == *info.apfsContainerReference;
                for (const auto& volume : container.volumes) holds = holds || volume.deviceIdentifier == device;
                if (holds && !container.physicalStores.empty()) {
                    store = container.physicalStores.front();
                    break;
                }
            }
        }
        if (!store && !info.apfsPhysicalStores.empty()) store = info.apfsPhysicalStores.front();
        if (!store) co_return refuse("Couldn't walk " + device + " to a partition slice");
        auto storeInfo = co_await env_.probe->describe(*store);
        if (!storeInfo) co_return refuse("Couldn't walk " + device + " to a partition slice");
        factsDevice = *store;
        info = *storeInfo;
        if (imageBacked(factsDevice)) {
            co_return refuse(device + " belongs to a disk image; bind the image file instead");
        }
    } else if (isAPFSContainerContent(info.content)) {
        target = VolumeTarget::apfsVolumeGroup();
    }

    auto listed = co_await env_.probe->listDisks();
    if (listed) applyScheme(info, schemeOfParent(*listed, factsDevice));

    std::optional<VolumeKey> key;
    if (isGPTPartition(info) && info.diskUUID) {
        key = VolumeKey::gptPartitionGUID(*info.diskUUID);
    } else if (isAPFSContainerContent(info.content) && isWholeDisk(info)) {
        auto containerUUID = info.apfsContainerUUID;
        if (!containerUUID) {
            if (!containers) {
                auto listedContainers = co_await env_.probe->listAPFSContainers();
                if (listedContainers) containers = *listedContainers;
            }
            if (containers) {
                if (auto container = containerFor(*containers, factsDevice, info))
                    containerUUID = container->containerUUID;
            }
        }
        if (containerUUID) key = VolumeKey::wholeDiskAPFSContainer(*containerUUID);
    } else if (acceptWholeDiskVolume && isWholeDisk(info) && info.volumeUUID) {
        key = VolumeKey::wholeDiskVolume(*info.volumeUUID);
    } else if (info.mbrPartition && info.volumeUUID) {
        key = VolumeKey::mbrSlice(*info.volumeUUID);
    } else if (info.apmPartition && info.volumeUUID) {
        key = VolumeKey::apmSlice(*info.volumeUUID);
    }
    if (!key) {
        if (acceptWholeDiskVolume) {
            co_return refuse(device +
                             " is not a GPT partition slice, a whole-disk APFS container, a whole-disk volume, or an "
                             "MBR/APM slice with a volume UUID");
        }
        co_return refuse(device + " is not a GPT partition slice, a whole-disk APFS container, or an MBR/APM slice");
    }

    VolumeRef ref;
    ref.key = std::move(*key);
    ref.target = std::move(target);
    ref.invariants.partitionSizeBytes = info.totalSize;
    ref.invariants.partitionMapType = liveMapType(info);
    ref.invariants.filesystemFamily = classify(info);
    ref.invariants.hardwareSerial = env_.serialProbe->serial(factsDevice);
    ref.displayName = std::move(displayName);
    Log::f(kTag, "bound {} as {} ({}, {} bytes, {}, serial {})", device, ref.key.description(),
           caseName(ref.invariants.partitionMapType), ref.invariants.partitionSizeBytes,
           caseName(ref.invariants.filesystemFamily),
           ref.invariants.hardwareSerial ? ref.invariants.hardwareSerial->value : std::string("<none>"));
    co_return ref;
}

FilesystemFamily VolumeResolver::classify(const ProbeInfo& info) const {
    DeviceFilesystemFacts facts;
    facts.contentName = PartitionContentName::fromTypeGUID(info.content);
    facts.filesystemTypeName = info.filesystemPersonality;
    facts.mountPoint = info.mountPoint;
    if (env_.filesystemTypeName) return FilesystemFamilyClassifier(env_.filesystemTypeName).classify(facts);
    return FilesystemFamilyClassifier().classify(facts);
}

bool VolumeResolver::sameShare(const std::string& a, const std::string& b) const {
    auto left = ShareAddress::parse(a);
    auto right = ShareAddress::parse(b);
    if (!left || !right) return a == b;
    return left->scheme == right->scheme && left->port == right->port && left->path == right->path &&
           sameHost(left->host, right->host);
}

bool VolumeResolver::sameHost(const std::string& a, const std::string& b) const {
    if (lowercased(a) == lowercased(b)) return true;
    if (env_.verifiedNetworkHostAliases.count(VolumeResolverEnvironment::hostAliasPair(a, b))) return true;
    return env_.networkHostsEquivalent && env_.networkHostsEquivalent(a, b);
}

std::optional<std::string> VolumeResolver::canonical(const std::string& path) const {
    if (!env_.canonicalPathAtPath) return path;
    return env_.canonicalPathAtPath(path);
}

std::ostream& operator<<(std::ostream& out, const VolumeResolver::BindingError& error) { return out << error.message; }

}  // namespace ql

#include "QLProtocol/server/LiveVolumeLister.h"

#include "QLModel/FilesystemFamilyClassifier.h"
#include "QLModel/LinuxBlockDeviceProbe.h"
#include "QLModel/VolumeResolverEnvironment.h"
#include "QLProtocol/server/MountInfo.h"
#include "QLSupport/Uuid.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

namespace ql {

namespace fs = std::filesystem;
namespace wire = ql4::transport::v1;

namespace {

std::optional<std::string> readLine(const fs::path& path) {
    std::ifstream in(path);
    std::string line;
    if (!in || !std::getline(in, line)) return std::nullopt;
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) line.pop_back();
    return line;
}

std::string uuidBytes(const Uuid& uuid) {
    auto bytes = uuid.bytes();
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// The value of "name=" in a comma-separated option list.
std::optional<std::string> option(const std::string& options, std::string_view name) {
    std::size_t start = 0;
    while (start <= options.size()) {
        auto end = options.find(',', start);
        if (end == std::string::npos) end = options.size();
        std::string_view item(options.data() + start, end - start);
        if (item.size() > name.size() && item.substr(0, name.size()) == name && item[name.size()] == '=') {
            return std::string(item.substr(name.size() + 1));
        }
        start = end + 1;
    }
    return std::nullopt;
}

// A mount of the filesystem itself, not of a folder inside it.
bool mountsWholeFilesystem(const MountInfoEntry& entry) {
    if (entry.root == "/") return true;
    if (entry.fsType == "btrfs") {
        auto subvolume = option(entry.superOptions, "subvol");
        return subvolume && *subvolume == entry.root;
    }
    return false;
}

std::string familyWord(const std::string& fsType, const std::string& mountPoint) {
    if (fsType == "cifs" || fsType == "smb3" || fsType == "smbfs") return std::string(wireToken(FilesystemFamily::smb));
    if (fsType == "nfs" || fsType == "nfs4") return std::string(wireToken(FilesystemFamily::nfs));
    if (fsType == "afpfs" || fsType == "fuse.afpfs") return std::string(wireToken(FilesystemFamily::afp));
    auto typeName = FilesystemFamilyClassifier::liveTypeName(mountPoint);
    auto family = typeName ? FilesystemFamilyClassifier::familyOfMountedTypeName(*typeName) : FilesystemFamily::other;
    return std::string(wireToken(family));
}

void fillSpace(wire::VolumeSummary& summary) {
    struct statvfs space {};
    if (::statvfs(summary.mount_point().c_str(), &space) != 0) return;
    const std::uint64_t unit = space.f_frsize ? space.f_frsize : space.f_bsize;
    summary.set_total_bytes(static_cast<std::uint64_t>(space.f_blocks) * unit);
    summary.set_free_bytes(static_cast<std::uint64_t>(space.f_bavail) * unit);
    summary.set_used_bytes(static_cast<std::uint64_t>(space.f_blocks - space.f_bfree) * unit);
}

void fillCaseSensitivity(wire::VolumeSummary& summary, const std::string& fsType) {
    if (auto sensitive = LiveVolumeLister::caseSensitivity(fsType)) summary.set_case_sensitive(*sensitive);
}

}  // namespace

tl::expected<std::vector<ListedVolume>, std::string> LiveVolumeLister::list() {
    std::ifstream in(options_.mountInfo);
    if (!in) {
        return tl::unexpected(fmt::format("could not read the mount table {}: {}", options_.mountInfo,
                                          std::strerror(errno)));
    }
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto mounts = MountInfo::parse(text);

    LinuxBlockDeviceProbe::Options probeOptions;
    probeOptions.sysClassBlock = options_.sysClassBlock;
    probeOptions.sysBlock = options_.sysBlock;
    probeOptions.devDirectory = options_.devDirectory;
    probeOptions.mountInfo = options_.mountInfo;
    LinuxBlockDeviceProbe probe(nullptr, probeOptions);

    // The sysfs name of the block device behind a mount, or nothing for a pseudo filesystem.
    auto deviceOf = [&](const MountInfoEntry& entry) -> std::optional<std::string> {
        auto byNumber = [&](unsigned major, unsigned minor) -> std::optional<std::string> {
            std::error_code error;
            auto resolved = fs::canonical(fs::path(options_.sysDevBlock) / fmt::format("{}:{}", major, minor), error);
            if (error) return std::nullopt;
            return resolved.filename().string();
        };
        if (entry.source.rfind("/dev/", 0) == 0) {
            struct stat info {};
            if (::stat(entry.source.c_str(), &info) == 0 && S_ISBLK(info.st_mode)) {
                if (auto name = byNumber(::major(info.st_rdev), ::minor(info.st_rdev))) return name;
            }
        }
        if (entry.major != 0) return byNumber(entry.major, entry.minor);
        return std::nullopt;
    };

    std::vector<ListedVolume> volumes;
    std::set<std::string> seenDevices;
    std::set<std::string> seenShares;
    for (const auto& entry : mounts) {
        if (!mountsWholeFilesystem(entry)) continue;

        if (auto url = VolumeResolverEnvironment::shareURLFromMountSource(entry.fsType, entry.source)) {
            if (!seenShares.insert(*url).second) continue;
            ListedVolume volume;
            volume.fsType = entry.fsType;
            auto& s = volume.summary;
            s.set_mount_point(entry.mountPoint);
            s.set_name(fallbackName(entry.mountPoint));
            s.set_kind(wire::VOLUME_KIND_NETWORK);
            s.set_is_attached(true);
            s.set_network_url(*url);
            s.set_filesystem_family(familyWord(entry.fsType, entry.mountPoint));
            fillSpace(s);
            volumes.push_back(std::move(volume));
            continue;
        }

        auto device = deviceOf(entry);
        if (!device || !seenDevices.insert(*device).second) continue;

        ListedVolume volume;
        volume.fsType = entry.fsType;
        auto& s = volume.summary;
        s.set_bsd_device(*device);
        s.set_mount_point(entry.mountPoint);
        s.set_is_attached(true);
        s.set_is_boot_system(entry.mountPoint == "/");
        s.set_filesystem_family(familyWord(entry.fsType, entry.mountPoint));
        fillCaseSensitivity(s, entry.fsType);
        fillSpace(s);

        std::optional<std::string> label;
        if (auto info = probe.describeNow(*device)) {
            label = info->volumeName;
            if (info->volumeUUID) s.set_volume_uuid(uuidBytes(*info->volumeUUID));
            if (info->diskUUID) s.set_partition_guid(uuidBytes(*info->diskUUID));
            if (info->content) volume.content = *info->content;
        }
        s.set_name(label && !label->empty() ? *label : fallbackName(entry.mountPoint));

        // The kind of drive, from the whole disk that holds the device.
        const auto disk = probe.wholeDiskOf(*device);
        const fs::path diskDir = fs::path(options_.sysBlock) / disk;
        const bool isLoop = disk.rfind("loop", 0) == 0;
        if (isLoop) {
            if (auto backing = readLine(diskDir / "loop" / "backing_file"); backing && !backing->empty()) {
                s.set_disk_image_backing_path(*backing);
                volume.mediaName = "Disk Image";
            }
        }
        s.set_is_physical(!isLoop && disk.rfind("dm-", 0) != 0 && disk.rfind("zram", 0) != 0 &&
                          disk.rfind("nbd", 0) != 0);
        if (disk.rfind("dm-", 0) == 0) {
            if (auto uuid = readLine(diskDir / "dm" / "uuid"); uuid && uuid->rfind("CRYPT-", 0) == 0) {
                s.set_is_encrypted(true);
            }
        }
        std::error_code error;
        const auto sysPath = fs::canonical(diskDir, error).string();
        const bool rotational = readLine(diskDir / "queue" / "rotational").value_or("0") == "1";
        const bool removable = readLine(diskDir / "removable").value_or("0") == "1";
        const bool onUSB = sysPath.find("/usb") != std::string::npos;
        if (rotational && !isLoop) {
            s.set_kind(wire::VOLUME_KIND_HDD);
        } else if (removable || onUSB) {
            s.set_kind(wire::VOLUME_KIND_EXTERNAL_SSD);
        } else if (isLoop) {
            s.set_kind(wire::VOLUME_KIND_UNKNOWN);
        } else {
            s.set_kind(wire::VOLUME_KIND_INTERNAL_SSD);
        }
        volumes.push_back(std::move(volume));
    }
    return volumes;
}

}  // namespace ql

#include "QLProtocol/server/VolumeListPolicy.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

namespace ql {

namespace {

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

constexpr std::string_view kEFISystemPartitionType = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";

}  // namespace

std::optional<std::string_view> VolumeListPolicy::exclusion(const ListedVolume& volume) {
    const auto& mount = volume.summary.mount_point();
    const auto& name = volume.summary.name();
    if (startsWith(mount, "/System/Volumes/") && mount != "/System/Volumes/Data") return "systemVolume";
    if (startsWith(mount, "/Library/Developer/CoreSimulator/")) return "simulator";
    if (volume.mediaName == "Virtual Interface") return "virtualInterface";
    if (volume.content == "Apple_APFS_Recovery" || volume.content == "Apple_KernelCoreDump") return "systemPartition";
    if (equalsIgnoringCase(volume.content, kEFISystemPartitionType) || volume.content == "EFI") {
        return "systemPartition";
    }
    if (mount == "/boot" || startsWith(mount, "/boot/")) return "systemPartition";
    if (startsWith(name, "ASRDataVolume_")) return "replicationVolume";
    if (startsWith(name, "Backups of ")) return "backupVolume";
    if (volume.fsType == "squashfs") return "applicationImage";
    return std::nullopt;
}

std::vector<ListedVolume> VolumeListPolicy::filter(std::vector<ListedVolume> volumes) {
    std::erase_if(volumes, [](const ListedVolume& v) { return exclusion(v).has_value(); });
    return volumes;
}

std::string VolumeListPolicy::logText(const std::vector<ListedVolume>& volumes) {
    std::string names;
    for (const auto& v : volumes) {
        if (!names.empty()) names += ", ";
        names += v.summary.name();
    }
    return fmt::format("returning {} volume(s): {}", volumes.size(), names);
}

}  // namespace ql

#include "QLProtocol/server/LiveVolumeLister.h"

#include <filesystem>

namespace ql {

std::string LiveVolumeLister::fallbackName(const std::string& mountPoint) {
    std::filesystem::path path(mountPoint);
    while (path.has_relative_path() && path.filename().empty()) path = path.parent_path();
    auto name = path.filename().string();
    if (name.empty()) return "Root filesystem";
    return name;
}

std::optional<bool> LiveVolumeLister::caseSensitivity(const std::string& fsType) {
    static const char* const sensitive[] = {"ext2", "ext3", "ext4", "xfs",  "btrfs", "f2fs", "jfs",
                                            "reiserfs", "zfs", "nilfs2", "tmpfs", "nfs", "nfs4", "bcachefs"};
    static const char* const insensitive[] = {"vfat", "msdos", "exfat", "ntfs", "ntfs3"};
    for (const char* type : sensitive) {
        if (fsType == type) return true;
    }
    for (const char* type : insensitive) {
        if (fsType == type) return false;
    }
    return std::nullopt;
}

}  // namespace ql

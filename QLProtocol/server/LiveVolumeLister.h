#pragma once

#include "QLProtocol/server/VolumeLister.h"

#include <optional>
#include <string>

namespace ql {

// The platform's volume lister.
//
// Linux: the mount table (/proc/self/mountinfo) gives the mounts; a mount is a volume when its
// source is a block device (by its device number, or a "/dev/…" source for filesystems such as
// btrfs whose mounts carry an anonymous device number) or a network share (SMB, NFS, AFP). Left
// out: pseudo filesystems, mounts of a folder inside a filesystem (bind mounts; a btrfs
// subvolume named by its "subvol=" option counts as the filesystem itself), and further mounts
// of a device already listed. Each volume is described from the device itself (libblkid and
// sysfs, as the disk probe does: label, UUID, partition GUID), space from statvfs, its kind from
// sysfs (rotational, removable, USB), a loop device's backing file as its disk image. A device
// that can't be read (a user-mode server can't open it) is still listed with what sysfs and the
// mount table say.
//
// macOS: not available in this build; `list` says so.
class LiveVolumeLister final : public VolumeLister {
public:
    struct Options {
        std::string mountInfo = "/proc/self/mountinfo";
        std::string sysDevBlock = "/sys/dev/block";
        std::string sysClassBlock = "/sys/class/block";
        std::string sysBlock = "/sys/block";
        std::string devDirectory = "/dev";
    };

    LiveVolumeLister() = default;
    explicit LiveVolumeLister(Options options) : options_(std::move(options)) {}

    tl::expected<std::vector<ListedVolume>, std::string> list() override;

    // The display name of a volume without a label: the last component of its mount point, and
    // "Root filesystem" for "/".
    static std::string fallbackName(const std::string& mountPoint);

    // Whether names differ by case on a filesystem of this kernel type; nothing when that
    // depends on how the filesystem was made or on a server.
    static std::optional<bool> caseSensitivity(const std::string& fsType);

private:
    Options options_;
};

}  // namespace ql

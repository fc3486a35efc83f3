#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// One line of the kernel's mount table as /proc/self/mountinfo gives it:
//
//   36 35 98:0 /mnt1 /mnt/parent rw,noatime master:1 - ext3 /dev/root rw,errors=continue
//   (1)(2)(3)   (4)   (5)         (6)      (7)       (8) (9)   (10)      (11)
//
// mount id, parent id, device major:minor, the root of the mount inside its filesystem, the
// mount point, mount options, optional fields up to a lone "-", the filesystem type, the mount
// source and the superblock options. Paths carry octal escapes for space, tab, newline and
// backslash ("\040"); they are decoded here.
struct MountInfoEntry {
    int mountID = 0;
    int parentID = 0;
    unsigned major = 0;
    unsigned minor = 0;
    std::string root;
    std::string mountPoint;
    std::string mountOptions;
    std::string fsType;
    std::string source;
    std::string superOptions;

    friend bool operator==(const MountInfoEntry&, const MountInfoEntry&) = default;
};

struct MountInfo {
    // Every well-formed line of `text`, in order. A malformed line is skipped and counted in
    // `malformed` when given: the table is the kernel's, so this only guards against surprises.
    static std::vector<MountInfoEntry> parse(std::string_view text, int* malformed = nullptr);

    // The kernel's octal escapes ("\040" for a space) decoded; anything else kept as it stands.
    static std::string unescape(std::string_view field);

    // Reads and parses a mountinfo file; an empty table when it cannot be read.
    static std::vector<MountInfoEntry> read(const std::string& path = "/proc/self/mountinfo");
};

}  // namespace ql

#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace ql {

// The mounted volume that holds a path: its device name (as the disk probes name it, without
// "/dev/") and its mount point.
struct VolumeHost {
    std::string bsd;
    std::string mount;

    friend bool operator==(const VolumeHost&, const VolumeHost&) = default;

    // path → the volume holding it; nothing when that cannot be determined. A path that does
    // not exist is looked up by its nearest existing ancestor.
    using Lookup = std::function<std::optional<VolumeHost>(const std::string& path)>;

    // The path itself when it exists, else its nearest existing ancestor (made absolute).
    static std::optional<std::filesystem::path> nearestExisting(const std::string& path);
};

// The platform's answer: the mount table entry of the filesystem the path lives on.
struct LiveVolumeHost {
    static std::optional<VolumeHost> lookup(const std::string& path);
};

}  // namespace ql

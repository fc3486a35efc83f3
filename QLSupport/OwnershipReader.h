#pragma once

#include <tl/expected.hpp>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// Whether the volume that holds a path honours file ownership: the owner and group written to
// a file are kept and reported back. FAT, exFAT and NTFS volumes as the kernel mounts them
// report one fixed owner for every file instead.
class OwnershipReader {
public:
    virtual ~OwnershipReader() = default;
    // A sentence when the path does not exist or its volume cannot be determined.
    virtual tl::expected<bool, std::string> read(const std::filesystem::path& mountPath) const = 0;

    // One line of /proc/self/mountinfo, with the octal escapes ("\040" for a space) decoded.
    struct MountEntry {
        std::string mountPoint;
        std::string filesystemType;
        std::string source;
        friend bool operator==(const MountEntry&, const MountEntry&) = default;
    };
    // Malformed lines are skipped.
    static std::vector<MountEntry> parseMountInfo(std::string_view text);
    // The mount that holds an absolute, canonical `path`: the longest mount point that is
    // `path` or one of its ancestors; among mounts stacked on one point, the last (topmost).
    static std::optional<MountEntry> mountContaining(const std::vector<MountEntry>& mounts,
                                                     const std::filesystem::path& path);
    // False for the filesystem types that ignore ownership.
    static bool filesystemHonoursOwnership(std::string_view type);
};

// Asks the operating system: the mount table on Linux, the volume's flags on macOS.
class LiveOwnershipReader final : public OwnershipReader {
public:
    tl::expected<bool, std::string> read(const std::filesystem::path& mountPath) const override;
};

// Answers from a table; paths it does not know honour ownership unless `unknownAnswer` says
// otherwise.
class FakeOwnershipReader final : public OwnershipReader {
public:
    std::map<std::filesystem::path, tl::expected<bool, std::string>> answers;
    tl::expected<bool, std::string> unknownAnswer = true;

    tl::expected<bool, std::string> read(const std::filesystem::path& mountPath) const override {
        auto it = answers.find(mountPath);
        return it == answers.end() ? unknownAnswer : it->second;
    }
};

namespace detail {
// The platform part of LiveOwnershipReader.
tl::expected<bool, std::string> readVolumeOwnership(const std::filesystem::path& mountPath);
}  // namespace detail

}  // namespace ql

#include "QLSupport/OwnershipReader.h"

#include <algorithm>
#include <array>

namespace ql {
namespace {

// mountinfo writes space, tab, newline and backslash in paths as three octal digits.
std::string unescape(std::string_view field) {
    auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && isOctal(field[i + 1]) && isOctal(field[i + 2]) &&
            isOctal(field[i + 3])) {
            int value = (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0');
            if (value <= 0xFF) {
                out += static_cast<char>(value);
                i += 3;
                continue;
            }
        }
        out += field[i];
    }
    return out;
}

std::vector<std::string_view> splitFields(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && line[i] == ' ') ++i;
        std::size_t start = i;
        while (i < line.size() && line[i] != ' ') ++i;
        if (i > start) fields.push_back(line.substr(start, i - start));
    }
    return fields;
}

}  // namespace

std::vector<OwnershipReader::MountEntry> OwnershipReader::parseMountInfo(std::string_view text) {
    // "36 35 98:0 /mnt1 /mnt/parent rw,noatime master:1 - ext3 /dev/root rw,errors=continue":
    // the mount point is the fifth field; after the optional fields and a lone "-" come the
    // filesystem type and the source.
    std::vector<MountEntry> entries;
    while (!text.empty()) {
        auto end = text.find('\n');
        auto line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        auto fields = splitFields(line);
        if (fields.size() < 10) continue;
        auto dash = std::find(fields.begin() + 6, fields.end(), std::string_view("-"));
        if (dash == fields.end() || fields.end() - dash < 3) continue;
        if (fields[4].empty() || fields[4].front() != '/') continue;
        entries.push_back({unescape(fields[4]), unescape(*(dash + 1)), unescape(*(dash + 2))});
    }
    return entries;
}

std::optional<OwnershipReader::MountEntry> OwnershipReader::mountContaining(const std::vector<MountEntry>& mounts,
                                                                            const std::filesystem::path& path) {
    const std::string target = path.lexically_normal().string();
    std::optional<MountEntry> best;
    std::size_t bestLength = 0;
    for (const auto& m : mounts) {
        std::string point = m.mountPoint;
        while (point.size() > 1 && point.back() == '/') point.pop_back();
        bool contains = point == "/" ||
                        (target.compare(0, point.size(), point) == 0 &&
                         (target.size() == point.size() || target[point.size()] == '/'));
        if (!contains) continue;
        std::size_t length = point == "/" ? 0 : point.size();
        if (!best || length >= bestLength) {
            best = m;
            bestLength = length;
        }
    }
    return best;
}

bool OwnershipReader::filesystemHonoursOwnership(std::string_view type) {
    // The kernel's FAT, exFAT and NTFS drivers give every file the owner from the mount
    // options; "fuseblk" is how ntfs-3g and exfat-fuse appear, with the same behaviour.
    static constexpr std::array<std::string_view, 9> ignoring = {
        "vfat", "msdos", "umsdos", "fat", "exfat", "ntfs", "ntfs3", "fuseblk", "fuse.exfat",
    };
    return std::find(ignoring.begin(), ignoring.end(), type) == ignoring.end();
}

tl::expected<bool, std::string> LiveOwnershipReader::read(const std::filesystem::path& mountPath) const {
    return detail::readVolumeOwnership(mountPath);
}

}  // namespace ql

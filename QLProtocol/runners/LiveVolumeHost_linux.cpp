#include "QLProtocol/runners/VolumeHost.h"

#include "QLProtocol/server/MountInfo.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <string>

namespace ql {

namespace {

bool isWithin(const std::string& path, const std::string& mount) {
    if (mount == "/") return true;
    return path == mount || (path.size() > mount.size() && path.compare(0, mount.size(), mount) == 0 &&
                             path[mount.size()] == '/');
}

}  // namespace

std::optional<VolumeHost> LiveVolumeHost::lookup(const std::string& path) {
    auto existing = VolumeHost::nearestExisting(path);
    if (!existing) return std::nullopt;
    std::error_code ec;
    const std::string canonical = std::filesystem::canonical(*existing, ec).string();
    if (ec) return std::nullopt;
    struct stat st {};
    if (::stat(canonical.c_str(), &st) != 0) return std::nullopt;

    std::optional<VolumeHost> best;
    for (const auto& entry : MountInfo::read()) {
        if (entry.major != ::major(st.st_dev) || entry.minor != ::minor(st.st_dev)) continue;
        if (!isWithin(canonical, entry.mountPoint)) continue;
        // The innermost mount of the filesystem wins (a later line over-mounts an earlier one).
        if (best && best->mount.size() > entry.mountPoint.size()) continue;
        std::string source = entry.source;
        if (source.rfind("/dev/", 0) == 0) source = source.substr(5);
        best = VolumeHost{source, entry.mountPoint};
    }
    return best;
}

}  // namespace ql

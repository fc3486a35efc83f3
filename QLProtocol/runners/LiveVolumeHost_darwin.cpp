#include "QLProtocol/runners/VolumeHost.h"

#include <sys/mount.h>
#include <sys/param.h>

#include <filesystem>
#include <string>

namespace ql {

std::optional<VolumeHost> LiveVolumeHost::lookup(const std::string& path) {
    auto existing = VolumeHost::nearestExisting(path);
    if (!existing) return std::nullopt;
    struct statfs info {};
    if (::statfs(existing->c_str(), &info) != 0) return std::nullopt;
    std::string source = info.f_mntfromname;
    if (source.rfind("/dev/", 0) == 0) source = source.substr(5);
    return VolumeHost{source, info.f_mntonname};
}

}  // namespace ql

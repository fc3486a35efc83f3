#include "QLProtocol/runners/VolumeHost.h"

#include <sys/mount.h>
#include <sys/param.h>

#include <filesystem>
#include <string>

namespace ql {

std::optional<VolumeHost> LiveVolumeHost::lookup(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::path existing = fs::absolute(path, ec);
    if (ec) return std::nullopt;
    while (!fs::exists(existing, ec)) {
        if (!existing.has_parent_path() || existing.parent_path() == existing) return std::nullopt;
        existing = existing.parent_path();
    }
    struct statfs info {};
    if (::statfs(existing.c_str(), &info) != 0) return std::nullopt;
    std::string source = info.f_mntfromname;
    if (source.rfind("/dev/", 0) == 0) source = source.substr(5);
    return VolumeHost{source, info.f_mntonname};
}

}  // namespace ql

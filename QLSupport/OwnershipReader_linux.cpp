#include "QLSupport/OwnershipReader.h"

#include "QLSupport/Log.h"

#include <fmt/format.h>

#include <fstream>
#include <sstream>
#include <system_error>

namespace ql::detail {

tl::expected<bool, std::string> readVolumeOwnership(const std::filesystem::path& mountPath) {
    std::error_code ec;
    auto path = std::filesystem::canonical(mountPath, ec);
    if (ec) {
        return tl::unexpected(fmt::format("Could not find the volume at {}: {}.", mountPath.string(), ec.message()));
    }
    std::ifstream file("/proc/self/mountinfo");
    std::stringstream text;
    text << file.rdbuf();
    if (!file) return tl::unexpected(std::string("Could not read the mount table (/proc/self/mountinfo)."));

    auto mount = OwnershipReader::mountContaining(OwnershipReader::parseMountInfo(text.str()), path);
    if (!mount) {
        return tl::unexpected(fmt::format("No mounted volume holds {}.", path.string()));
    }
    bool honours = OwnershipReader::filesystemHonoursOwnership(mount->filesystemType);
    Log::f("ownership", "{} is on {} ({}), which {} file ownership", path.string(), mount->mountPoint,
           mount->filesystemType, honours ? "honours" : "ignores");
    return honours;
}

}  // namespace ql::detail

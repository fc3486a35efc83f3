#include "QLSupport/OwnershipReader.h"

#include "QLSupport/Log.h"

#include <sys/mount.h>
#include <sys/param.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace ql::detail {

// The volume carries MNT_IGNORE_OWNERSHIP when ownership is off ("Ignore ownership on this
// volume"), whatever its format.
tl::expected<bool, std::string> readVolumeOwnership(const std::filesystem::path& mountPath) {
    struct statfs info {};
    if (::statfs(mountPath.c_str(), &info) != 0) {
        return tl::unexpected(
            fmt::format("Could not read the volume at {}: {}.", mountPath.string(), std::strerror(errno)));
    }
    bool honours = (info.f_flags & MNT_IGNORE_OWNERSHIP) == 0;
    Log::f("ownership", "{} is on {} ({}), which {} file ownership", mountPath.string(), info.f_mntonname,
           info.f_fstypename, honours ? "honours" : "ignores");
    return honours;
}

}  // namespace ql::detail

#include "QLModel/FilesystemFamilyClassifier.h"

#include <sys/mount.h>
#include <sys/param.h>

#include <cerrno>

namespace ql {

tl::expected<std::string, int> FilesystemFamilyClassifier::liveTypeName(const std::string& mountPoint) {
    struct statfs stats {};
    if (::statfs(mountPoint.c_str(), &stats) != 0) return tl::unexpected(errno);
    return decodeTypeName(stats.f_fstypename, sizeof stats.f_fstypename);
}

}  // namespace ql

#include "QLProtocol/server/ProtectionClassFacility.h"

#include <unistd.h>

#include <cerrno>

namespace ql {

// Linux keeps no per-file protection classes; callers take the "never seen working" path.
int LiveProtectionClassFacility::setClassA(const std::filesystem::path&) { return ENOTSUP; }

std::optional<int> LiveProtectionClassFacility::protectionClass(const std::filesystem::path&) { return std::nullopt; }

// Without protection classes nothing needs handing to a console user.
std::optional<uid_t> LiveProtectionClassFacility::consoleUserUID() { return std::nullopt; }

int LiveProtectionClassFacility::changeOwner(const std::filesystem::path& path, uid_t uid) {
    return ::chown(path.c_str(), uid, static_cast<gid_t>(-1)) == 0 ? 0 : errno;
}

}  // namespace ql

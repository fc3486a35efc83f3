#include "QLProtocol/server/ProtectionClassFacility.h"

#include <SystemConfiguration/SystemConfiguration.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ql {

int LiveProtectionClassFacility::setClassA(const std::filesystem::path& path) {
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return errno;
    int rc = ::fcntl(fd, F_SETPROTECTIONCLASS, classA) == 0 ? 0 : errno;
    ::close(fd);
    return rc;
}

std::optional<int> LiveProtectionClassFacility::protectionClass(const std::filesystem::path& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    int value = ::fcntl(fd, F_GETPROTECTIONCLASS);
    ::close(fd);
    if (value < 0) return std::nullopt;
    return value;
}

std::optional<uid_t> LiveProtectionClassFacility::consoleUserUID() {
    uid_t uid = 0;
    CFStringRef name = SCDynamicStoreCopyConsoleUser(nullptr, &uid, nullptr);
    if (name == nullptr) return std::nullopt;
    CFRelease(name);
    if (uid == 0) return std::nullopt;  // the login window
    return uid;
}

int LiveProtectionClassFacility::changeOwner(const std::filesystem::path& path, uid_t uid) {
    return ::chown(path.c_str(), uid, static_cast<gid_t>(-1)) == 0 ? 0 : errno;
}

}  // namespace ql

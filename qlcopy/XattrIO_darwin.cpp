#include "qlcopy/XattrIO.h"

#include <fcntl.h>
#include <sys/param.h>
#include <sys/xattr.h>

#include <cerrno>
#include <string>

namespace ql {
namespace {

// macOS has no *at() attribute calls: an entry is reached through its directory's path.
bool entryPath(const XattrTarget& t, std::string& path) {
    char dir[MAXPATHLEN];
    if (::fcntl(t.dirFd, F_GETPATH, dir) != 0) return false;
    path = dir;
    path += '/';
    path += t.name;
    return true;
}

}  // namespace

int XattrIO::list(const XattrTarget& t, std::vector<std::string>& names) {
    names.clear();
    std::string path;
    if (t.fd < 0 && !entryPath(t, path)) return errno;
    std::string buffer;
    for (int attempt = 0; attempt < 4; ++attempt) {
        ssize_t size = t.fd >= 0 ? ::flistxattr(t.fd, nullptr, 0, 0) : ::listxattr(path.c_str(), nullptr, 0, XATTR_NOFOLLOW);
        if (size < 0) return errno;
        if (size == 0) return 0;
        buffer.resize(static_cast<size_t>(size));
        ssize_t n = t.fd >= 0 ? ::flistxattr(t.fd, buffer.data(), buffer.size(), 0)
                              : ::listxattr(path.c_str(), buffer.data(), buffer.size(), XATTR_NOFOLLOW);
        if (n < 0) {
            if (errno == ERANGE) continue;
            return errno;
        }
        size_t start = 0;
        for (size_t i = 0; i < static_cast<size_t>(n); ++i) {
            if (buffer[i] == '\0') {
                if (i > start) names.emplace_back(buffer.data() + start, i - start);
                start = i + 1;
            }
        }
        return 0;
    }
    return ERANGE;
}

int XattrIO::get(const XattrTarget& t, const std::string& name, std::string& value) {
    std::string path;
    if (t.fd < 0 && !entryPath(t, path)) return errno;
    for (int attempt = 0; attempt < 4; ++attempt) {
        ssize_t size = t.fd >= 0 ? ::fgetxattr(t.fd, name.c_str(), nullptr, 0, 0, 0)
                                 : ::getxattr(path.c_str(), name.c_str(), nullptr, 0, 0, XATTR_NOFOLLOW);
        if (size < 0) return errno;
        value.resize(static_cast<size_t>(size));
        if (size == 0) return 0;
        ssize_t n = t.fd >= 0 ? ::fgetxattr(t.fd, name.c_str(), value.data(), value.size(), 0, 0)
                              : ::getxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0, XATTR_NOFOLLOW);
        if (n < 0) {
            if (errno == ERANGE) continue;
            return errno;
        }
        value.resize(static_cast<size_t>(n));
        return 0;
    }
    return ERANGE;
}

int XattrIO::set(const XattrTarget& t, const std::string& name, const std::string& value) {
    std::string path;
    if (t.fd < 0 && !entryPath(t, path)) return errno;
    int r = t.fd >= 0 ? ::fsetxattr(t.fd, name.c_str(), value.data(), value.size(), 0, 0)
                      : ::setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0, XATTR_NOFOLLOW);
    return r == 0 ? 0 : errno;
}

int XattrIO::remove(const XattrTarget& t, const std::string& name) {
    std::string path;
    if (t.fd < 0 && !entryPath(t, path)) return errno;
    int r = t.fd >= 0 ? ::fremovexattr(t.fd, name.c_str(), 0) : ::removexattr(path.c_str(), name.c_str(), XATTR_NOFOLLOW);
    return r == 0 ? 0 : errno;
}

// macOS keeps ACLs outside the attribute namespace (see AclIO); none of these names is one.
bool XattrIO::isAcl(std::string_view) { return false; }

bool XattrIO::isMissing(int error) { return error == ENOATTR || error == ENOENT; }

bool XattrIO::isUnsupported(int error) { return error == ENOTSUP; }

// The system's own protection attribute is managed by the kernel; copying it is refused.
bool XattrIO::isSystemManaged(std::string_view name) {
    return name == "com.apple.rootless" || name == "com.apple.system.Security";
}

}  // namespace ql
